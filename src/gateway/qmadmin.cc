#include "gateway/qmadmin.h"

#include <mutex>

#include "platform/log.h"

namespace velm {
namespace {

std::recursive_mutex& theLock() {
  static std::recursive_mutex* lock = [] {
    auto* m = new std::recursive_mutex;  // lives as long as the process, as the class does
    NLog("[QMAdmin initialize]: Lock is %p", static_cast<const void*>(m));
    return m;
  }();
  return *lock;
}

}  // namespace

void QMAdmin::lock(const char*) { theLock().lock(); }
void QMAdmin::unlock(const char*) { theLock().unlock(); }

}  // namespace velm
