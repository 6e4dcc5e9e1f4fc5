#include "adminlib/alloc.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "adminlib/drras.h"
#include "adminlib/subr2.h"

AllocFunc AllocMemory = MyMemalign;
FreeFunc FreeMemory = MyFree;

namespace {

std::mutex gFailMutex;  // guards the failure record below; leaf
int gFailCount = 0;
std::uint64_t gLastReport = 0;

constexpr std::uint64_t kReportGapMicros = 300ull * 1000000ull;

void noteFailure(std::size_t size, const char* file, int line) {
  int count;
  {
    std::scoped_lock lock(gFailMutex);
    ++gFailCount;
    std::uint64_t now = MicroTime();
    if (gLastReport != 0 && now - gLastReport <= kReportGapMicros) return;
    gLastReport = now;
    count = gFailCount;
  }
  RasEvent("SL_EVT_SYS_RES_FAIL",
           "Memory allocation of %d bytes failed: file '%s' line %d total memory failure count %d",
           static_cast<int>(size), file ? file : "", line, count);
}

}  // namespace

void* MyMemalign(std::size_t alignsize, std::size_t size, const char* file, int line) {
  QM_ASSERT(alignsize >= MY_MINALIGN);
  QM_ASSERT((alignsize & (alignsize - 1)) == 0);
  // The word in front of the block holds the real start; on this platform that word is a
  // pointer, so the slack is a pointer's width rather than four bytes.
  constexpr std::size_t kSlot = sizeof(void*);
  if (size > SIZE_MAX - alignsize - kSlot) {
    noteFailure(size, file, line);
    return nullptr;
  }
  void* raw = std::malloc(size + alignsize + kSlot);
  if (!raw) {
    noteFailure(size, file, line);
    return nullptr;
  }
  std::uintptr_t start = reinterpret_cast<std::uintptr_t>(raw) + kSlot;
  std::uintptr_t aligned = (start + alignsize - 1) & ~(static_cast<std::uintptr_t>(alignsize) - 1);
  void* block = reinterpret_cast<void*>(aligned);
  std::memcpy(static_cast<char*>(block) - kSlot, &raw, kSlot);
  return block;
}

void MyFree(void* block) {
  if (!block) return;
  void* raw = nullptr;
  std::memcpy(&raw, static_cast<char*>(block) - sizeof(void*), sizeof(void*));
  std::free(raw);
}

void* AllocAndPinMemory(std::size_t size) {
  void* p = AllocMemory(MY_MINALIGN, size, __FILE__, __LINE__);
  if (p) std::memset(p, 0, size);
  return p;
}

int MemoryFailureCount() {
  std::scoped_lock lock(gFailMutex);
  return gFailCount;
}
