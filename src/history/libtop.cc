#include "history/libtop.h"

#include <dirent.h>
#include <unistd.h>

#include <charconv>
#include <map>
#include <string>

#include "history/ch.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"

namespace velm {
namespace {

struct State {
  bool initialized = false;
  libtop_print_t print = nullptr;
  void* user = nullptr;
  libtop_tsamp_t tsamp;
  std::map<std::int32_t, libtop_pinfo_t> processes;
  std::map<std::int32_t, libtop_pinfo_t>::iterator walk;
  bool walking = false;
  // The two tables of the sampler: user names and shared memory objects. Linux fills neither.
  cw_dch_t* uhash = nullptr;
  cw_dch_t* oinfoHash = nullptr;
};

State& state() {
  static State s;
  return s;
}

libtop_time_t timeOf(std::uint64_t micros) {
  libtop_time_t t;
  t.seconds = static_cast<std::int32_t>(micros / 1'000'000);
  t.microseconds = static_cast<std::int32_t>(micros % 1'000'000);
  return t;
}

void say(const char* text) {
  State& s = state();
  if (s.print) s.print(s.user, text);
}

}  // namespace

std::optional<ProcStat> parseProcStat(std::string_view line) {
  // The command may hold blanks and ')' itself: the fields start after the last one.
  std::size_t close = line.rfind(')');
  if (close == std::string_view::npos) return std::nullopt;
  std::string_view rest = line.substr(close + 1);
  // rest begins with field 3 (the state).
  std::uint64_t fields[25] = {};
  int field = 3;
  while (field <= 24) {
    while (!rest.empty() && (rest.front() == ' ' || rest.front() == '\n')) rest.remove_prefix(1);
    if (rest.empty()) return std::nullopt;
    std::size_t end = rest.find(' ');
    std::string_view word = rest.substr(0, end);
    if (field >= 14) {
      std::uint64_t v = 0;
      auto [p, ec] = std::from_chars(word.data(), word.data() + word.size(), v);
      if (ec != std::errc() && !word.starts_with('-')) return std::nullopt;
      fields[field] = ec == std::errc() ? v : 0;
    }
    ++field;
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
  }
  ProcStat s;
  s.utimeTicks = fields[14];
  s.stimeTicks = fields[15];
  s.vsizeBytes = fields[23];
  s.rssPages = fields[24];
  return s;
}

int libtop_init(libtop_print_t print, void* user) {
  State& s = state();
  libtop_fini();
  s.print = print;
  s.user = user;
  s.tsamp = libtop_tsamp_t{};
  s.tsamp.time = timeOf(clock().wallMicros());
  s.uhash = dch_new(nullptr, 32, 24, 0, ch_direct_hash, ch_direct_key_comp);
  s.oinfoHash = dch_new(nullptr, 4096, 3072, 0, ch_direct_hash, ch_direct_key_comp);
  if (!s.uhash || !s.oinfoHash) {
    say("libtop_init: out of memory for the sampler's tables");
    libtop_fini();
    return 1;
  }
  s.initialized = true;
  return 0;
}

int libtop_sample(bool, bool) {
  State& s = state();
  if (!s.initialized) return 1;
  std::string root = procfsPath();
  DIR* dir = ::opendir(root.c_str());
  if (!dir) {
    say("libtop_sample: the process table can't be read");
    return 1;
  }
  std::uint32_t seq = s.tsamp.seq + 1;
  static const long ticks = ::sysconf(_SC_CLK_TCK) > 0 ? ::sysconf(_SC_CLK_TCK) : 100;
  static const long page = ::sysconf(_SC_PAGESIZE) > 0 ? ::sysconf(_SC_PAGESIZE) : 4096;
  while (dirent* e = ::readdir(dir)) {
    std::int32_t pid = 0;
    std::string_view name = e->d_name;
    auto [p, ec] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (ec != std::errc() || p != name.data() + name.size() || pid <= 0) continue;
    // A process that ends meanwhile is simply not in this sample.
    std::optional<std::string> text = readSmallFile(root + "/" + std::string(name) + "/stat");
    std::optional<ProcStat> st = text ? parseProcStat(*text) : std::nullopt;
    if (!st) continue;
    libtop_pinfo_t& info = s.processes[pid];
    info.pid = pid;
    info.vsize = st->vsizeBytes;
    info.rsize = st->rssPages * static_cast<std::uint64_t>(page);
    std::uint64_t micros =
        (st->utimeTicks + st->stimeTicks) * 1'000'000 / static_cast<std::uint64_t>(ticks);
    info.total_time = timeOf(micros);
    info.seq = seq;
  }
  ::closedir(dir);
  // The first sample keeps the moment of init as its time.
  if (s.tsamp.seq > 0) s.tsamp.time = timeOf(clock().wallMicros());
  s.tsamp.seq = seq;
  s.walking = false;
  return 0;
}

const libtop_tsamp_t* libtop_tsamp() { return &state().tsamp; }

const libtop_pinfo_t* libtop_piterate() {
  State& s = state();
  if (!s.walking) {
    s.walk = s.processes.begin();
    s.walking = true;
  }
  while (s.walk != s.processes.end()) {
    if (s.walk->second.seq != s.tsamp.seq) {
      s.walk = s.processes.erase(s.walk);
      continue;
    }
    return &(s.walk++)->second;
  }
  s.walking = false;
  return nullptr;
}

void libtop_fini() {
  State& s = state();
  if (s.uhash) dch_delete(s.uhash);
  if (s.oinfoHash) dch_delete(s.oinfoHash);
  s.uhash = s.oinfoHash = nullptr;
  s.processes.clear();
  s.walking = false;
  s.initialized = false;
}

}  // namespace velm
