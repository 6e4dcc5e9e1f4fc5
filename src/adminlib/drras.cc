#include "adminlib/drras.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "adminlib/alloc.h"
#include "adminlib/subr2.h"

RasHookFunc RasHook = nullptr;

int RasEvent(const char* eventName, const char* fmt, ...) {
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  if (n < 0) text[0] = '\0';
  RasHookFunc hook = RasHook;
  if (!hook) {
    std::fprintf(stderr, "%s\n", text);
    return 0;
  }
  const char* prog = Prog ? Prog : "";
  if (const char* slash = std::strrchr(prog, '/')) prog = slash + 1;
  char line[1024];
  if (FsName && std::strcmp(FsName, "none") != 0 && std::strcmp(prog, "fsmpm") != 0)
    std::snprintf(line, sizeof line, "%s[PID=%d]: fs '%s': %s", prog, static_cast<int>(::getpid()),
                  FsName, text);
  else
    std::snprintf(line, sizeof line, "%s[PID=%d]: %s", prog, static_cast<int>(::getpid()), text);
  return hook(eventName ? eventName : "", line, static_cast<time_t>(MicroTime() / 1000000u));
}

namespace {

// Deliberate: records are never removed; the clients of one process are few.
struct ClientRecord {
  ClientRecord* next;
  std::uint8_t id[16];
  std::uint64_t lastReport;  // seconds; 0 for never
};

pthread_mutex_t ras_clnt_lock = PTHREAD_MUTEX_INITIALIZER;  // guards gClients; leaf
ClientRecord* gClients[kRasClientEvents];

constexpr std::uint64_t kClientGapSeconds = 3600;

}  // namespace

int NeedPerClntRas(int eventIndex, const std::uint8_t clientId[16]) {
  if (eventIndex < 0 || eventIndex >= kRasClientEvents || !clientId) return 1;
  QM_ASSERT(pthread_mutex_lock(&ras_clnt_lock) == 0);
  ClientRecord* rec = gClients[eventIndex];
  while (rec && std::memcmp(rec->id, clientId, 16) != 0) rec = rec->next;
  int answer = 1;
  if (!rec) {
    rec = static_cast<ClientRecord*>(AllocAndPinMemory(sizeof(ClientRecord)));
    if (rec) {
      std::memcpy(rec->id, clientId, 16);
      rec->lastReport = 0;
      rec->next = gClients[eventIndex];
      gClients[eventIndex] = rec;
    }
  }
  if (rec) {
    std::uint64_t now = MicroTime() / 1000000u;
    if (now > rec->lastReport + kClientGapSeconds)
      rec->lastReport = now;
    else
      answer = 0;
  }
  QM_ASSERT(pthread_mutex_unlock(&ras_clnt_lock) == 0);
  return answer;
}
