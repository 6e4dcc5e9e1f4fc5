// The process sampler's hash tables: ch, a chained table of a fixed size in one block, whose
// items live in memory the caller provides; and dch, which grows (and may shrink) a ch in
// doubling steps. Arguments and magic values are checked with assertions that end the process.
#pragma once

#include <cstdint>

namespace velm {

inline constexpr std::uint32_t LIBTOP_CH_MAGIC = 0x574936AF;
inline constexpr std::uint32_t LIBTOP_CHI_MAGIC = 0xABDCEE0E;
inline constexpr std::uint32_t LIBTOP_DCH_MAGIC = 0x4327589E;

using ch_key_t = std::uintptr_t;  // a number or a pointer
using ch_data_t = std::uintptr_t;
using ch_hash_t = std::uint32_t (*)(ch_key_t key, std::uint32_t tableSize);
using ch_key_comp_t = int (*)(ch_key_t a, ch_key_t b);

struct cw_chi_t {
  std::uint32_t magic;
  ch_key_t key;
  ch_data_t data;
  cw_chi_t* next;  // in the list of all items
  cw_chi_t* prev;
  cw_chi_t* cnext;  // in the slot's chain
  cw_chi_t* cprev;
  std::uint32_t slot;
};

struct cw_ch_t {
  std::uint32_t magic;
  cw_chi_t* list;  // head of the circular list of all items, in order of insertion
  std::uint32_t count;
  std::uint32_t table_size;
  ch_hash_t hash;
  ch_key_comp_t key_comp;
  cw_chi_t* table[1];  // table_size slots
};

// Bytes of a ch block of that many slots.
std::uint64_t ch_size(std::uint32_t tableSize);
// a_ch: a block of ch_size(tableSize) bytes.
cw_ch_t* ch_new(cw_ch_t* a_ch, std::uint32_t a_table_size, ch_hash_t a_hash,
                ch_key_comp_t a_key_comp);
void ch_delete(cw_ch_t* a_ch);
std::uint32_t ch_count(cw_ch_t* a_ch);
void ch_clear(cw_ch_t* a_ch);
void ch_insert(cw_ch_t* a_ch, ch_key_t a_key, ch_data_t a_data, cw_chi_t* a_chi);
// 0 when found, else 1; each result may be null.
int ch_remove(cw_ch_t* a_ch, ch_key_t a_search_key, ch_key_t* r_key, ch_data_t* r_data,
              cw_chi_t** r_chi);
int ch_search(cw_ch_t* a_ch, ch_key_t a_key, ch_data_t* r_data);
int ch_get_iterate(cw_ch_t* a_ch, ch_key_t* r_key, ch_data_t* r_data);
int ch_remove_iterate(cw_ch_t* a_ch, ch_key_t* r_key, ch_data_t* r_data, cw_chi_t** r_chi);

std::uint32_t ch_string_hash(ch_key_t a_key, std::uint32_t a_table_size);
std::uint32_t ch_direct_hash(ch_key_t a_key, std::uint32_t a_table_size);
int ch_string_key_comp(ch_key_t a_k1, ch_key_t a_k2);
int ch_direct_key_comp(ch_key_t a_k1, ch_key_t a_k2);

struct cw_dch_t {
  std::uint32_t magic;
  bool is_malloced;
  std::uint32_t base_table;
  std::uint32_t base_grow;
  std::uint32_t base_shrink;  // 0: never shrinks
  std::uint32_t grow_factor;  // a power of two, from 1
  ch_hash_t hash;
  ch_key_comp_t key_comp;
  cw_ch_t* ch;
};

// a_dch null: allocated here. Null when memory runs out (the record freed if it was made here).
cw_dch_t* dch_new(cw_dch_t* a_dch, std::uint32_t a_base_table, std::uint32_t a_base_grow,
                  std::uint32_t a_base_shrink, ch_hash_t a_hash, ch_key_comp_t a_key_comp);
void dch_delete(cw_dch_t* a_dch);
std::uint32_t dch_count(cw_dch_t* a_dch);
void dch_clear(cw_dch_t* a_dch);
void dch_insert(cw_dch_t* a_dch, ch_key_t a_key, ch_data_t a_data, cw_chi_t* a_chi);
int dch_remove(cw_dch_t* a_dch, ch_key_t a_search_key, ch_key_t* r_key, ch_data_t* r_data,
               cw_chi_t** r_chi);
int dch_search(cw_dch_t* a_dch, ch_key_t a_key, ch_data_t* r_data);
int dch_get_iterate(cw_dch_t* a_dch, ch_key_t* r_key, ch_data_t* r_data);
int dch_remove_iterate(cw_dch_t* a_dch, ch_key_t* r_key, ch_data_t* r_data, cw_chi_t** r_chi);
// The slots of the table now in use (tests).
std::uint32_t dch_table_size(cw_dch_t* a_dch);

}  // namespace velm
