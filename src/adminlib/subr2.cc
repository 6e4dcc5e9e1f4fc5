#include "adminlib/subr2.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "adminlib/adminlib_internal.h"
#include "adminlib/alloc.h"
#include "adminlib/auth.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/paths.h"

// ---- Shared helpers ----

namespace adminlib {
namespace {

void vformatInto(char* out, std::size_t size, const char* fmt, va_list ap) {
  if (!out || size == 0) return;
  int n = std::vsnprintf(out, size, fmt, ap);
  if (n < 0) out[0] = '\0';
}

}  // namespace

void setError(char* err, const char* fmt, ...) {
  if (!err) return;
  va_list ap;
  va_start(ap, fmt);
  vformatInto(err, ADMIN_ERRBUF_LEN, fmt, ap);
  va_end(ap);
}

void syslogLine(int level, const char* fmt, ...) {
  char line[1024];
  va_list ap;
  va_start(ap, fmt);
  vformatInto(line, sizeof line, fmt, ap);
  va_end(ap);
  const char* target = std::getenv("VELM_LOG");
  if (target && *target) {
    velm::logRawLine(line);
    return;
  }
  ::syslog(LOG_USER | (level & LOG_PRIMASK), "%s", line);
}

void writeLogLine(int level, const char* fmt, ...) {
  WriteLogFunc hook = WriteLog;
  if (!hook) return;
  char line[1024];
  va_list ap;
  va_start(ap, fmt);
  vformatInto(line, sizeof line, fmt, ap);
  va_end(ap);
  hook(level, line);
}

std::string drfsPath(const char* relative) {
  std::string p = velm::drfsRootPath();
  p += '/';
  p += relative;
  return p;
}

void copyText(char* dst, std::size_t size, const char* src) {
  if (!dst || size == 0) return;
  std::size_t n = src ? ::strnlen(src, size - 1) : 0;
  if (n) std::memcpy(dst, src, n);
  dst[n] = '\0';
}

}  // namespace adminlib

using adminlib::copyText;
using adminlib::writeLogLine;

// ---- Panics ----

const char* PanicNomenclature = "PANIC";
const char* Prog = "QMADMIN LIBRARY";
const char* FsName = "none";
PanicFunc PanicHook = DefaultPanic;

void DefaultPanic(const char* prefix, const char* text, int abortFlag, const char* file, int line) {
  char msg[1024];
  std::snprintf(msg, sizeof msg, "%s: %s %s\"%s\" file %s, line %d", PanicNomenclature, Prog,
                prefix ? prefix : "", text ? text : "", file ? file : "", line);
  adminlib::syslogLine(LOG_ALERT, "%s", msg);
  std::fprintf(stderr, "%s\n", msg);
  std::fflush(stderr);
  if (abortFlag) std::abort();
  std::exit(1);
}

void DoPanic(const char* prefix, const char* text, int abortFlag, const char* file, int line) {
  PanicFunc hook = PanicHook ? PanicHook : DefaultPanic;
  hook(prefix, text, abortFlag, file, line);
  std::exit(1);
}

// ---- Error texts and logging ----

char* _FormatSysError(int err, char* out, std::size_t size) {
  if (!out || size == 0) return out;
  if (err == -1) err = errno;
  char sys[256];
  const char* text = ::strerror_r(err, sys, sizeof sys);
  std::snprintf(out, size, "[errno %d]: %s", err, text ? text : "");
  std::size_t n = std::strlen(out);
  while (n > 0 && (out[n - 1] == ' ' || out[n - 1] == '\t' || out[n - 1] == '\n')) out[--n] = '\0';
  return out;
}

char* FormatSysError(char* out, std::size_t size) { return _FormatSysError(-1, out, size); }

void mylog(int level, const char* fmt, ...) {
  static const char* const kTags[] = {"*Fatal*",   "*Alert*",  "*Critical*", "*Error*",
                                      "*Warning*", "*Notice*", "",           "(Debug)"};
  const char* tag = (level >= 0 && level < 8) ? kTags[level] : "";
  char text[1024];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  std::printf("%s: %s\n", tag, text);
  std::fflush(stdout);
}

WriteLogFunc WriteLog = nullptr;

void common_WriteLog(int, const char* text) {
  if (!text) return;
  std::fputs(text, stdout);
  std::fflush(stdout);
}

// ---- Timing ----

namespace {
std::uint64_t gTimerStart = 0;
std::uint64_t gTimerEnd = 0;
}  // namespace

std::uint64_t MicroTime() { return velm::clock().wallMicros(); }

void start_timer() { gTimerStart = MicroTime(); }
void end_timer() { gTimerEnd = MicroTime(); }

void get_timer(double* seconds) {
  if (!seconds) return;
  std::uint64_t end = gTimerEnd >= gTimerStart ? gTimerEnd : gTimerStart;
  *seconds = static_cast<double>(end - gTimerStart) / 1e6;
}

void print_timer(const char* label) {
  double secs = 0;
  get_timer(&secs);
  if (label) std::printf("%s: ", label);
  std::printf("%0.2f secs\n", secs);
  std::fflush(stdout);
}

// ---- Thread priority ----

namespace {
std::mutex gPriMutex;  // guards the policy table below; leaf
int gPriPolicy = -1;
int gPriMin = 0;
int gPriMax = 0;
constexpr int kPriStep[6] = {0, -2, -1, 0, 1, 2};
}  // namespace

void thrpri_init() {
  int policy = 0;
  sched_param param{};
  int rc = ::pthread_getschedparam(::pthread_self(), &policy, &param);
  if (rc != 0) {
    if (rc != ENOSYS) writeLogLine(4, "thrpri_init: THREAD_GETSCHEDPARAM Failed/%d\n", rc);
    return;
  }
  int lo = ::sched_get_priority_min(policy);
  if (lo == -1) {
    if (errno != ENOSYS) writeLogLine(4, "thrpri_init: sched_get_priority_min Failed/%d\n", errno);
    return;
  }
  int hi = ::sched_get_priority_max(policy);
  if (hi == -1) {
    if (errno != ENOSYS) writeLogLine(4, "thrpri_init: sched_get_priority_max Failed/%d\n", errno);
    return;
  }
  std::scoped_lock lock(gPriMutex);
  gPriPolicy = policy;
  gPriMin = lo;
  gPriMax = hi;
}

void ThreadPriority(int level) {
  int lo, hi;
  {
    std::scoped_lock lock(gPriMutex);
    if (gPriPolicy == -1) return;
    lo = gPriMin;
    hi = gPriMax;
  }
  if (level < 1 || level > 5) return;
  int policy = 0;
  sched_param param{};
  int rc = ::pthread_getschedparam(::pthread_self(), &policy, &param);
  if (rc != 0) {
    writeLogLine(4, "ThreadPriority: THREAD_GETSCHEDPARAM Failed/%d\n", rc);
    return;
  }
  int pri = param.sched_priority + kPriStep[level];
  if (pri < lo) pri = lo;
  if (pri > hi) pri = hi;
  param.sched_priority = pri;
  rc = ::pthread_setschedparam(::pthread_self(), policy, &param);
  if (rc != 0) writeLogLine(4, "ThreadPriority: THREAD_SETSCHEDPARAM Failed/%d\n", rc);
}

// ---- Branding ----

char BrandName[kBrandLen] = "Velm";
char BrandAbbrv[kBrandLen] = "qufs";
char BrandPrompt[kBrandLen] = "Velmadmin";
char BrandCompanyAbbreviation[kBrandLen] = "Orvane";
char BrandBitmap[kBrandLen] = "";
char BrandIcon[kBrandLen] = "";

namespace {
std::mutex gBrandMutex;  // serialises configure_branding; leaf
bool gBrandSet = false;
}  // namespace

void configure_branding() {
  std::scoped_lock lock(gBrandMutex);
  if (gBrandSet) return;
  // Deliberate: the icon path keeps its backslashes; it is a name for a client to look up.
  std::string icon = velm::drfsRootPath() + "\\config\\oem\\icon.ico";
  if (std::strncmp(BrandIcon, icon.c_str(), kBrandLen - 1) != 0)
    copyText(BrandIcon, kBrandLen, icon.c_str());

  std::string path = adminlib::drfsPath("config/oem/oem.inf");
  FILE* f = std::fopen(path.c_str(), "re");
  if (!f) return;  // not marked as set: the next call looks again
  struct Field {
    const char* key;
    char* value;
  };
  const Field fields[] = {{"BrandName", BrandName},
                          {"BrandAbbrv", BrandAbbrv},
                          {"BrandPrompt", BrandPrompt},
                          {"BrandCompanyAbbreviation", BrandCompanyAbbreviation}};
  char* line = nullptr;
  std::size_t cap = 0;
  ssize_t len;
  while ((len = ::getline(&line, &cap, f)) >= 0) {
    std::string_view text(line, static_cast<std::size_t>(len));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    std::size_t start = text.find_first_not_of(" \t");
    if (start == std::string_view::npos) continue;
    std::size_t end = text.find_first_of(" \t", start);
    std::string_view key = text.substr(start, end == std::string_view::npos ? end : end - start);
    std::string_view rest;
    if (end != std::string_view::npos) {
      std::size_t v = text.find_first_not_of(" \t", end);
      if (v != std::string_view::npos) rest = text.substr(v);
    }
    for (const Field& fld : fields) {
      // A keyword with no value keeps its default.
      if (key == fld.key && !rest.empty()) {
        std::string value(rest.substr(0, kBrandLen - 1));
        copyText(fld.value, kBrandLen, value.c_str());
      }
    }
  }
  std::free(line);
  std::fclose(f);
  gBrandSet = true;
}

// ---- Paths, start-up, process flags ----

const char* GetDrfsRoot() {
  thread_local std::string root;
  root = velm::drfsRootPath();
  return root.c_str();
}

int DrfsJournalDebug = 0;
int NoMultiplePaths = 0;
int Privileged = 0;

namespace {
pthread_attr_t gThreadAttr;
std::once_flag gThreadAttrOnce;
}  // namespace

void LibraryInit() {
  thrpri_init();
  SetAuthenticateConnection(authentication_check());
  // Written only when they differ, so a second init never races a thread that allocates.
  if (AllocMemory != MyMemalign) AllocMemory = MyMemalign;
  if (FreeMemory != MyFree) FreeMemory = MyFree;
}

void ProgramInit(const char* progName) {
  if (progName && *progName) Prog = progName;
  LibraryInit();
  if (const char* v = std::getenv("DRFS_JOURNAL_DEBUG"))
    DrfsJournalDebug = static_cast<int>(std::strtol(v, nullptr, 0));
  NoMultiplePaths = DisallowMultiplePaths();
  Privileged = PrivCheck();
  ::srand48(static_cast<long>(MicroTime() / 1000000u));
  std::call_once(gThreadAttrOnce, [] {
    ::pthread_attr_init(&gThreadAttr);
    ::pthread_attr_setstacksize(&gThreadAttr, 1024 * 1024);
  });
}

void* ProgramThreadAttr() { return &gThreadAttr; }

int DisallowMultiplePaths() { return std::getenv("QMFS_NOMULTIPLEPATHS") != nullptr; }

int PrivCheck() { return ::geteuid() == 0; }

int dropen(const char* path, int flags, int mode) {
  if (!path) {
    errno = EFAULT;
    return -1;
  }
  return ::open(path, flags | O_CLOEXEC, mode);
}

// ---- fsports ----

int genportrange(int* minPort, int* maxPort, int* altPmap, int verbose) {
  if (minPort) *minPort = 0;
  if (maxPort) *maxPort = 0;
  if (altPmap) *altPmap = 0;
  std::string path = adminlib::drfsPath("config/fsports");
  FILE* f = std::fopen(path.c_str(), "re");
  if (!f) {
    if (minPort || maxPort) writeLogLine(1, "No fsports file - port range enforcement disabled.\n");
    return -1;
  }
  struct Directive {
    const char* name;
    const char* label;
    int* out;
  };
  const Directive directives[] = {
      {"minport", "min", minPort}, {"maxport", "max", maxPort}, {"altpmap", "altpmap", altPmap}};
  char* line = nullptr;
  std::size_t cap = 0;
  ssize_t len;
  int lineNo = 0;
  while ((len = ::getline(&line, &cap, f)) >= 0) {
    ++lineNo;
    // A line holds at most 254 characters; the rest of a longer one is not read.
    if (len > 254) line[254] = '\0';
    if (char* nl = std::strchr(line, '\n')) *nl = '\0';
    char* save = nullptr;
    char* token = ::strtok_r(line, " \t\r", &save);
    if (!token || token[0] == '#') continue;
    const Directive* d = nullptr;
    for (const Directive& cand : directives)
      if (::strcasecmp(token, cand.name) == 0) d = &cand;
    if (!d) {
      writeLogLine(4, "fsports: Unsupported directive '%s' on line %d\n", token, lineNo);
      continue;
    }
    char* value = ::strtok_r(nullptr, " \t\r", &save);
    if (!value) {
      writeLogLine(4, "fsports: No value recognized on line %d - ignored.\n", lineNo);
      continue;
    }
    unsigned long v = std::strtoul(value, nullptr, 0);
    if (v < 1 || v > 65535) {
      writeLogLine(4, "fsports: Invalid value (%d) specified on line %d - ignored.\n",
                   static_cast<int>(v), lineNo);
      continue;
    }
    if (d->out) {
      *d->out = static_cast<int>(v);
      if (verbose) writeLogLine(6, "fsports: %s port set to %d\n", d->label, static_cast<int>(v));
    }
  }
  std::free(line);
  std::fclose(f);
  if (minPort && maxPort) {
    if (*minPort == 0 && *maxPort != 0) *minPort = 1;
    // Deliberate: a max below the min (or a min alone) opens the range to the top.
    if (*maxPort < *minPort) {
      *maxPort = 65535;
      writeLogLine(4, "fsports: max port set to %d\n", *maxPort);
    }
  }
  return 0;
}
