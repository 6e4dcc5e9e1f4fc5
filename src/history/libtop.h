// The process sampler: each process's CPU time and memory, read from the host's process table
// ($VELM_PROCFS/<pid>/stat on Linux). One client at a time: init, one sample, the walk, fini.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace velm {

struct libtop_time_t {
  std::int32_t seconds = 0;
  std::int32_t microseconds = 0;
};

struct libtop_tsamp_t {
  std::uint32_t seq = 0;  // 0 after init; each sample adds one
  libtop_time_t time;     // when the sample was taken; the first one carries the time of init
};

struct libtop_pinfo_t {
  std::int32_t pid = 0;
  std::uint64_t rsize = 0;   // bytes
  std::uint64_t vsize = 0;   // bytes
  libtop_time_t total_time;  // CPU time of all its threads, the ended ones too
  std::uint32_t seq = 0;     // the last sample that saw it
};

using libtop_print_t = int (*)(void* user, const char* text);

// Null print and user: nothing is printed. 0, or 1 after printing why.
int libtop_init(libtop_print_t print, void* user);
// The flags (memory regions, shared frameworks) mean nothing on Linux. 0 on success.
int libtop_sample(bool regions, bool frameworks);
const libtop_tsamp_t* libtop_tsamp();
// The next process of the current sample by pid, null after the last; processes the latest sample
// didn't see are dropped on the way, and the walk starts over after null.
const libtop_pinfo_t* libtop_piterate();
void libtop_fini();

// What a /proc/<pid>/stat line gives: the fields after the last ')'. Nothing for a short line.
struct ProcStat {
  std::uint64_t utimeTicks = 0, stimeTicks = 0, vsizeBytes = 0, rssPages = 0;
};
std::optional<ProcStat> parseProcStat(std::string_view line);

}  // namespace velm
