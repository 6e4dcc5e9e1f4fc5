// A driver for tests: records each request and answers through a handler the test sets.
#pragma once

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "platform/fs_driver.h"

namespace velm {

class FakeFsDriver : public FsDriver {
 public:
  struct Call {
    std::string path;
    unsigned long request;
  };
  // Gets the request's argument; returns 0 or an errno value. Unset: every request is ENOTSUP.
  using Handler = std::function<int(const std::string& path, unsigned long request, void* arg)>;

  FakeFsDriver() { setFsDriverForTest(this); }
  ~FakeFsDriver() override { setFsDriverForTest(nullptr); }

  void setHandler(Handler h) { handler_ = std::move(h); }
  const std::vector<Call>& calls() const { return calls_; }

  int fsctl(const std::string& path, unsigned long request, void* arg) override {
    calls_.push_back({path, request});
    return handler_ ? handler_(path, request, arg) : ENOTSUP;
  }

 private:
  Handler handler_;
  std::vector<Call> calls_;
};

}  // namespace velm
