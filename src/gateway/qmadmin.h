// QMAdmin: the process-wide lock around every use of the admin client library by the plugin.
// Recursive; second in the lock order, after the plugin lock and before the disk description
// table lock. Held across the long waits of the volume operations.
#pragma once

namespace velm {

class QMAdmin {
 public:
  // The caller's name is for the reader of the code only.
  static void lock(const char* caller);
  static void unlock(const char* caller);
};

// Holds the QMAdmin lock for a scope, so no path out of it leaves the lock held.
class QMAdminLock {
 public:
  explicit QMAdminLock(const char* caller) : caller_(caller) { QMAdmin::lock(caller_); }
  ~QMAdminLock() { QMAdmin::unlock(caller_); }
  QMAdminLock(const QMAdminLock&) = delete;
  QMAdminLock& operator=(const QMAdminLock&) = delete;

 private:
  const char* caller_;
};

}  // namespace velm
