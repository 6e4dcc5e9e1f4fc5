#include "history/ch.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "adminlib/subr2.h"

namespace velm {
namespace {

// The sampler's assertions name the file they stand for.
#define CH_ASSERT(cond) \
  ((cond) ? static_cast<void>(0) : DoPanic("ASSERT failed ", #cond, 1, "ch.c", __LINE__))
#define DCH_ASSERT(cond) \
  ((cond) ? static_cast<void>(0) : DoPanic("ASSERT failed ", #cond, 1, "dch.c", __LINE__))

// Takes the item out of its slot's chain.
void unchain(cw_ch_t* a_ch, cw_chi_t* chi) {
  cw_chi_t*& head = a_ch->table[chi->slot];
  if (chi->cnext == chi) {
    head = nullptr;
  } else {
    chi->cprev->cnext = chi->cnext;
    chi->cnext->cprev = chi->cprev;
    if (head == chi) head = chi->cnext;
  }
}

// Takes the item out of the list of all items.
void unlist(cw_ch_t* a_ch, cw_chi_t* chi) {
  if (chi->next == chi) {
    a_ch->list = nullptr;
  } else {
    chi->prev->next = chi->next;
    chi->next->prev = chi->prev;
    if (a_ch->list == chi) a_ch->list = chi->next;
  }
}

// Takes the item out of the table and hands back what was asked for.
void take(cw_ch_t* a_ch, cw_chi_t* chi, ch_key_t* r_key, ch_data_t* r_data, cw_chi_t** r_chi) {
  unchain(a_ch, chi);
  unlist(a_ch, chi);
  --a_ch->count;
  if (r_key) *r_key = chi->key;
  if (r_data) *r_data = chi->data;
  if (r_chi) *r_chi = chi;
}

cw_chi_t* find(cw_ch_t* a_ch, ch_key_t a_key) {
  cw_chi_t* head = a_ch->table[a_ch->hash(a_key, a_ch->table_size)];
  if (!head) return nullptr;
  cw_chi_t* chi = head;
  do {
    CH_ASSERT(chi->magic == LIBTOP_CHI_MAGIC);
    if (a_ch->key_comp(a_key, chi->key)) return chi;
    chi = chi->cnext;
  } while (chi != head);
  return nullptr;
}

void checkCh(cw_ch_t* a_ch) {
  CH_ASSERT(a_ch != NULL);
  CH_ASSERT(a_ch->magic == LIBTOP_CH_MAGIC);
}

void checkDch(cw_dch_t* a_dch) {
  DCH_ASSERT(a_dch != NULL);
  DCH_ASSERT(a_dch->magic == LIBTOP_DCH_MAGIC);
}

cw_ch_t* newTable(cw_dch_t* a_dch, std::uint32_t slots) {
  auto* block = static_cast<cw_ch_t*>(std::malloc(static_cast<std::size_t>(ch_size(slots))));
  if (!block) return nullptr;
  return ch_new(block, slots, a_dch->hash, a_dch->key_comp);
}

// Moves every item, in list order, into table, and puts it in place of the old one.
void rehash(cw_dch_t* a_dch, cw_ch_t* table) {
  cw_chi_t* chi;
  ch_key_t key;
  ch_data_t data;
  while (ch_remove_iterate(a_dch->ch, &key, &data, &chi) == 0) ch_insert(table, key, data, chi);
  ch_delete(a_dch->ch);
  std::free(a_dch->ch);
  a_dch->ch = table;
}

// Shrinks before a removal when the table has become far too big for what is left.
void shrink(cw_dch_t* a_dch) {
  std::uint32_t n = ch_count(a_dch->ch);
  // With a count of 0, n - 1 is the largest unsigned value and nothing shrinks.
  if (n - 1 >= a_dch->grow_factor * a_dch->base_shrink || a_dch->grow_factor < 2) return;
  std::uint32_t new_factor = 1;
  while (!(n - 1 < new_factor * a_dch->base_grow)) new_factor <<= 1;
  DCH_ASSERT(new_factor < a_dch->grow_factor);
  DCH_ASSERT(new_factor > 0);
  cw_ch_t* table = newTable(a_dch, new_factor * a_dch->base_table);
  // Out of memory: the old table goes on, with no error.
  if (!table) return;
  rehash(a_dch, table);
  a_dch->grow_factor = new_factor;
}

}  // namespace

std::uint64_t ch_size(std::uint32_t tableSize) {
  return sizeof(cw_ch_t) + (static_cast<std::uint64_t>(tableSize) - 1) * sizeof(cw_chi_t*);
}

cw_ch_t* ch_new(cw_ch_t* a_ch, std::uint32_t a_table_size, ch_hash_t a_hash,
                ch_key_comp_t a_key_comp) {
  CH_ASSERT(a_ch != NULL);
  CH_ASSERT(a_table_size > 0);
  CH_ASSERT(a_hash != NULL);
  CH_ASSERT(a_key_comp != NULL);
  std::memset(static_cast<void*>(a_ch), 0, static_cast<std::size_t>(ch_size(a_table_size)));
  a_ch->magic = LIBTOP_CH_MAGIC;
  a_ch->table_size = a_table_size;
  a_ch->hash = a_hash;
  a_ch->key_comp = a_key_comp;
  return a_ch;
}

void ch_delete(cw_ch_t* a_ch) {
  checkCh(a_ch);
  // Stale pointers into a deleted table show up at once as "ZZZZ...".
  while (a_ch->list) {
    cw_chi_t* chi = a_ch->list;
    unlist(a_ch, chi);
    std::memset(static_cast<void*>(chi), 0x5A, sizeof *chi);
  }
  std::memset(static_cast<void*>(a_ch), 0x5A, static_cast<std::size_t>(ch_size(a_ch->table_size)));
}

std::uint32_t ch_count(cw_ch_t* a_ch) {
  checkCh(a_ch);
  return a_ch->count;
}

void ch_clear(cw_ch_t* a_ch) {
  checkCh(a_ch);
  while (ch_remove_iterate(a_ch, nullptr, nullptr, nullptr) == 0) {
  }
}

void ch_insert(cw_ch_t* a_ch, ch_key_t a_key, ch_data_t a_data, cw_chi_t* a_chi) {
  checkCh(a_ch);
  CH_ASSERT(a_chi != NULL);
  a_chi->magic = LIBTOP_CHI_MAGIC;
  a_chi->key = a_key;
  a_chi->data = a_data;
  // At the tail of the list, so it keeps the order of insertion.
  if (a_ch->list) {
    a_chi->next = a_ch->list;
    a_chi->prev = a_ch->list->prev;
    a_ch->list->prev->next = a_chi;
    a_ch->list->prev = a_chi;
  } else {
    a_chi->next = a_chi->prev = a_chi;
    a_ch->list = a_chi;
  }
  // At the head of its slot's chain, so the newest of a slot is found first.
  a_chi->slot = a_ch->hash(a_key, a_ch->table_size);
  cw_chi_t*& head = a_ch->table[a_chi->slot];
  if (head) {
    a_chi->cnext = head;
    a_chi->cprev = head->cprev;
    head->cprev->cnext = a_chi;
    head->cprev = a_chi;
  } else {
    a_chi->cnext = a_chi->cprev = a_chi;
  }
  head = a_chi;
  ++a_ch->count;
}

int ch_remove(cw_ch_t* a_ch, ch_key_t a_search_key, ch_key_t* r_key, ch_data_t* r_data,
              cw_chi_t** r_chi) {
  checkCh(a_ch);
  cw_chi_t* chi = find(a_ch, a_search_key);
  if (!chi) return 1;
  take(a_ch, chi, r_key, r_data, r_chi);
  return 0;
}

int ch_search(cw_ch_t* a_ch, ch_key_t a_key, ch_data_t* r_data) {
  checkCh(a_ch);
  cw_chi_t* chi = find(a_ch, a_key);
  if (!chi) return 1;
  if (r_data) *r_data = chi->data;
  return 0;
}

int ch_get_iterate(cw_ch_t* a_ch, ch_key_t* r_key, ch_data_t* r_data) {
  checkCh(a_ch);
  cw_chi_t* chi = a_ch->list;
  if (!chi) return 1;
  CH_ASSERT(chi->magic == LIBTOP_CHI_MAGIC);
  if (r_key) *r_key = chi->key;
  if (r_data) *r_data = chi->data;
  // The list is circular: the caller stops by ch_count.
  a_ch->list = chi->next;
  return 0;
}

int ch_remove_iterate(cw_ch_t* a_ch, ch_key_t* r_key, ch_data_t* r_data, cw_chi_t** r_chi) {
  checkCh(a_ch);
  cw_chi_t* chi = a_ch->list;
  if (!chi) return 1;
  CH_ASSERT(chi->magic == LIBTOP_CHI_MAGIC);
  take(a_ch, chi, r_key, r_data, r_chi);
  return 0;
}

std::uint32_t ch_string_hash(ch_key_t a_key, std::uint32_t a_table_size) {
  CH_ASSERT(a_table_size > 0);
  std::uint32_t h = 5381;
  for (const char* s = reinterpret_cast<const char*>(a_key); *s; ++s)
    h = h * 33 + static_cast<std::uint32_t>(static_cast<std::int8_t>(*s));
  return h % a_table_size;
}

std::uint32_t ch_direct_hash(ch_key_t a_key, std::uint32_t a_table_size) {
  CH_ASSERT(a_table_size > 0);
  std::uintptr_t key = a_key;
  // Ids and pointers are often multiples of a power of two: shift its zero bits away first.
  if (key != 0) {
    for (int bits : {16, 8, 4, 2, 1}) {
      std::uintptr_t mask = (std::uintptr_t{1} << bits) - 1;
      while ((key & mask) == 0) key >>= bits;
    }
  }
  key >>= 1;
  return static_cast<std::uint32_t>(key % a_table_size);
}

int ch_string_key_comp(ch_key_t a_k1, ch_key_t a_k2) {
  return std::strcmp(reinterpret_cast<const char*>(a_k1), reinterpret_cast<const char*>(a_k2)) == 0
             ? 1
             : 0;
}

int ch_direct_key_comp(ch_key_t a_k1, ch_key_t a_k2) { return a_k1 == a_k2 ? 1 : 0; }

// ---- dch ----

cw_dch_t* dch_new(cw_dch_t* a_dch, std::uint32_t a_base_table, std::uint32_t a_base_grow,
                  std::uint32_t a_base_shrink, ch_hash_t a_hash, ch_key_comp_t a_key_comp) {
  DCH_ASSERT(a_base_table > 0);
  DCH_ASSERT(a_base_grow > 0);
  DCH_ASSERT(a_base_grow > a_base_shrink);
  DCH_ASSERT(a_hash != NULL);
  DCH_ASSERT(a_key_comp != NULL);
  bool made = false;
  if (!a_dch) {
    a_dch = static_cast<cw_dch_t*>(std::malloc(sizeof(cw_dch_t)));
    if (!a_dch) return nullptr;
    made = true;
  }
  std::memset(static_cast<void*>(a_dch), 0, sizeof *a_dch);
  a_dch->magic = LIBTOP_DCH_MAGIC;
  a_dch->is_malloced = made;
  a_dch->base_table = a_base_table;
  a_dch->base_grow = a_base_grow;
  a_dch->base_shrink = a_base_shrink;
  a_dch->grow_factor = 1;
  a_dch->hash = a_hash;
  a_dch->key_comp = a_key_comp;
  a_dch->ch = newTable(a_dch, a_base_table);
  if (!a_dch->ch) {
    if (made) std::free(a_dch);
    return nullptr;
  }
  return a_dch;
}

void dch_delete(cw_dch_t* a_dch) {
  checkDch(a_dch);
  ch_delete(a_dch->ch);
  std::free(a_dch->ch);
  bool made = a_dch->is_malloced;
  std::memset(static_cast<void*>(a_dch), 0x5A, sizeof *a_dch);
  if (made) std::free(a_dch);
}

std::uint32_t dch_count(cw_dch_t* a_dch) {
  checkDch(a_dch);
  return ch_count(a_dch->ch);
}

void dch_clear(cw_dch_t* a_dch) {
  checkDch(a_dch);
  ch_clear(a_dch->ch);
}

void dch_insert(cw_dch_t* a_dch, ch_key_t a_key, ch_data_t a_data, cw_chi_t* a_chi) {
  checkDch(a_dch);
  std::uint32_t n = ch_count(a_dch->ch);
  if (n + 1 > a_dch->grow_factor * a_dch->base_grow) {
    // Out of memory: the table stays as it is.
    if (cw_ch_t* table = newTable(a_dch, a_dch->base_table * a_dch->grow_factor * 2)) {
      rehash(a_dch, table);
      a_dch->grow_factor *= 2;
    }
  }
  ch_insert(a_dch->ch, a_key, a_data, a_chi);
}

int dch_remove(cw_dch_t* a_dch, ch_key_t a_search_key, ch_key_t* r_key, ch_data_t* r_data,
               cw_chi_t** r_chi) {
  checkDch(a_dch);
  shrink(a_dch);
  return ch_remove(a_dch->ch, a_search_key, r_key, r_data, r_chi);
}

int dch_search(cw_dch_t* a_dch, ch_key_t a_key, ch_data_t* r_data) {
  checkDch(a_dch);
  return ch_search(a_dch->ch, a_key, r_data);
}

int dch_get_iterate(cw_dch_t* a_dch, ch_key_t* r_key, ch_data_t* r_data) {
  checkDch(a_dch);
  return ch_get_iterate(a_dch->ch, r_key, r_data);
}

int dch_remove_iterate(cw_dch_t* a_dch, ch_key_t* r_key, ch_data_t* r_data, cw_chi_t** r_chi) {
  checkDch(a_dch);
  shrink(a_dch);
  return ch_remove_iterate(a_dch->ch, r_key, r_data, r_chi);
}

std::uint32_t dch_table_size(cw_dch_t* a_dch) {
  checkDch(a_dch);
  return a_dch->ch->table_size;
}

}  // namespace velm
