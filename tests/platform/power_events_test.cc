#include "platform/power_events.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/event_loop.h"
#include "platform/fake_power_events.h"
#include "platform/unique_fd.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

extern char** environ;

namespace velm {
namespace {

constexpr const char* kCancelLine = "Cancelling system idle sleep on Controller.";
constexpr const char* kAllowLine = "Allowing system idle sleep on Client.";
constexpr const char* kCancelFailedLine =
    "WARNING: Unable to cancel system idle sleep on Controller!";
constexpr const char* kWillSleepLine = "ERROR: WARNING: Controller system is about to sleep!";
constexpr std::uint32_t kOtherMessage = 0xe0000300;

// ---- The decision table ----

TEST(PowerDecisionTest, ControllerCancelsIdleSleep) {
  PowerDecision d = decidePower(kPowerCanSystemSleep, true);
  EXPECT_EQ(d.action, PowerAction::kCancelIdleSleep);
  ASSERT_NE(d.line, nullptr);
  EXPECT_STREQ(d.line, kCancelLine);
  EXPECT_FALSE(d.error);
}

TEST(PowerDecisionTest, ClientAllowsIdleSleep) {
  PowerDecision d = decidePower(kPowerCanSystemSleep, false);
  EXPECT_EQ(d.action, PowerAction::kAllow);
  ASSERT_NE(d.line, nullptr);
  EXPECT_STREQ(d.line, kAllowLine);
  EXPECT_FALSE(d.error);
}

TEST(PowerDecisionTest, ControllerWarnsOfSleepAsAnError) {
  PowerDecision d = decidePower(kPowerSystemWillSleep, true);
  EXPECT_EQ(d.action, PowerAction::kAllow);
  ASSERT_NE(d.line, nullptr);
  EXPECT_STREQ(d.line, "WARNING: Controller system is about to sleep!");
  EXPECT_TRUE(d.error);
}

TEST(PowerDecisionTest, ClientAllowsSleepSilently) {
  PowerDecision d = decidePower(kPowerSystemWillSleep, false);
  EXPECT_EQ(d.action, PowerAction::kAllow);
  EXPECT_EQ(d.line, nullptr);
  EXPECT_FALSE(d.error);
}

TEST(PowerDecisionTest, OtherMessagesAreIgnored) {
  for (std::uint32_t message : {0u, kOtherMessage, 0xe0000260u, 0xe0000290u, 0xffffffffu}) {
    for (bool controller : {false, true}) {
      PowerDecision d = decidePower(message, controller);
      EXPECT_EQ(d.action, PowerAction::kIgnore) << std::hex << message;
      EXPECT_EQ(d.line, nullptr);
      EXPECT_FALSE(d.error);
    }
  }
}

TEST(PowerDecisionTest, TheCancelFailureLine) {
  EXPECT_STREQ(kPowerCancelFailedLine, kCancelFailedLine);
}

// ---- The fake, row by row with its log lines ----

class PowerFakeTest : public test::SandboxTest {
 protected:
  test::LogCapture log_;
  EventLoop loop_;
  FakePowerEventSource source_;
  bool controller_ = false;

  void startAs(bool controller) {
    controller_ = controller;
    ASSERT_TRUE(source_.start(loop_, [this] { return controller_; }));
  }
};

TEST_F(PowerFakeTest, StartKeepsLoopAndRole) {
  startAs(true);
  EXPECT_EQ(source_.loop(), &loop_);
  EXPECT_EQ(source_.startCount(), 1);
  EXPECT_TRUE(source_.isController());
  controller_ = false;
  EXPECT_FALSE(source_.isController());
  ASSERT_TRUE(source_.isControllerCallback());
}

TEST_F(PowerFakeTest, StartAnswersAsTold) {
  FakePowerEventSource failing(false);
  EXPECT_FALSE(failing.start(loop_, [] { return true; }));
  EXPECT_EQ(failing.loop(), &loop_);
  failing.setStartResult(true);
  EXPECT_TRUE(failing.start(loop_, [] { return true; }));
  EXPECT_EQ(failing.startCount(), 2);
}

TEST_F(PowerFakeTest, CountsReevaluations) {
  startAs(false);
  for (int i = 0; i < 3; ++i) source_.reevaluate();
  EXPECT_EQ(source_.reevaluateCount(), 3);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(PowerFakeTest, ControllerCancelsIdleSleep) {
  startAs(true);
  EXPECT_EQ(source_.deliver(kPowerCanSystemSleep), PowerAction::kCancelIdleSleep);
  EXPECT_EQ(log_.messages(), std::vector<std::string>{kCancelLine});
}

TEST_F(PowerFakeTest, ControllerCancelFailureStillNeverAllows) {
  startAs(true);
  source_.setCancelFails(true);
  EXPECT_EQ(source_.deliver(kPowerCanSystemSleep), PowerAction::kCancelIdleSleep);
  EXPECT_EQ(log_.messages(), (std::vector<std::string>{kCancelLine, kCancelFailedLine}));
  EXPECT_EQ(log_.count(kAllowLine), 0u);
}

TEST_F(PowerFakeTest, ClientAllowsIdleSleep) {
  startAs(false);
  EXPECT_EQ(source_.deliver(kPowerCanSystemSleep), PowerAction::kAllow);
  EXPECT_EQ(log_.messages(), std::vector<std::string>{kAllowLine});
}

TEST_F(PowerFakeTest, UnconfiguredAllowsIdleSleep) {
  // Never started: no role to ask, which counts as not a controller.
  EXPECT_EQ(source_.deliver(kPowerCanSystemSleep), PowerAction::kAllow);
  EXPECT_EQ(log_.messages(), std::vector<std::string>{kAllowLine});
}

TEST_F(PowerFakeTest, ControllerWillSleepIsAnError) {
  startAs(true);
  EXPECT_EQ(source_.deliver(kPowerSystemWillSleep), PowerAction::kAllow);
  EXPECT_EQ(log_.messages(), std::vector<std::string>{kWillSleepLine});
}

TEST_F(PowerFakeTest, ClientWillSleepIsSilent) {
  startAs(false);
  EXPECT_EQ(source_.deliver(kPowerSystemWillSleep), PowerAction::kAllow);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(PowerFakeTest, OtherMessagesAnswerNothing) {
  for (bool controller : {false, true}) {
    startAs(controller);
    EXPECT_EQ(source_.deliver(kOtherMessage), PowerAction::kIgnore);
  }
  EXPECT_TRUE(log_.messages().empty());
  EXPECT_EQ(source_.actions(),
            (std::vector<PowerAction>{PowerAction::kIgnore, PowerAction::kIgnore}));
}

TEST_F(PowerFakeTest, RoleIsAskedAtEachMessage) {
  startAs(true);
  source_.deliver(kPowerCanSystemSleep);
  controller_ = false;
  source_.deliver(kPowerCanSystemSleep);
  EXPECT_EQ(log_.messages(), (std::vector<std::string>{kCancelLine, kAllowLine}));
  EXPECT_EQ(source_.actions(),
            (std::vector<PowerAction>{PowerAction::kCancelIdleSleep, PowerAction::kAllow}));
}

class PowerLogOffTest : public test::SandboxTest {
 protected:
  test::LogCapture log_{false};
};

TEST_F(PowerLogOffTest, OnlyTheErrorLineWithoutLogging) {
  FakePowerEventSource source;
  EventLoop loop;
  source.start(loop, [] { return true; });
  source.setCancelFails(true);
  source.deliver(kPowerCanSystemSleep);
  source.deliver(kPowerSystemWillSleep);
  EXPECT_EQ(log_.messages(), std::vector<std::string>{kWillSleepLine});
}

// ---- The factory ----

TEST(PowerFactoryTest, TestFactoryAndBack) {
  {
    ScopedFakePowerEventSources fakes(false);
    std::unique_ptr<PowerEventSource> a = makePowerEventSource();
    std::unique_ptr<PowerEventSource> b = makePowerEventSource();
    EXPECT_EQ(fakes.made(), 2);
    EXPECT_EQ(fakes.last(), b.get());
    EventLoop loop;
    EXPECT_FALSE(b->start(loop, [] { return false; }));
    EXPECT_NE(dynamic_cast<FakePowerEventSource*>(a.get()), nullptr);
  }
  std::unique_ptr<PowerEventSource> real = makePowerEventSource();
  ASSERT_NE(real, nullptr);
  EXPECT_EQ(dynamic_cast<FakePowerEventSource*>(real.get()), nullptr);
}

// ---- The logind source ----

// Points sd-bus's system bus somewhere else (empty: its default) for the life of a test.
class ScopedSystemBusAddress {
 public:
  explicit ScopedSystemBusAddress(const std::string& address) {
    if (const char* old = std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) saved_ = old;
    had_ = std::getenv("DBUS_SYSTEM_BUS_ADDRESS") != nullptr;
    if (address.empty())
      ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    else
      ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
  }
  ~ScopedSystemBusAddress() {
    if (had_)
      ::setenv("DBUS_SYSTEM_BUS_ADDRESS", saved_.c_str(), 1);
    else
      ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  }

 private:
  std::string saved_;
  bool had_ = false;
};

std::string findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  dirs += ":/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string candidate = dirs.substr(start, end - start) + "/" + name;
    if (end > start && ::access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return {};
}

bool canConnect(const std::string& socketPath) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  socketPath.copy(sa.sun_path, sizeof sa.sun_path - 1);
  return fd && ::connect(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
}

// A private message bus daemon listening under dir, for as long as the object lives.
class BusDaemon {
 public:
  explicit BusDaemon(const std::string& dir) {
    std::string exe = findProgram("dbus-daemon");
    if (exe.empty()) return;
    socket_ = dir + "/bus";
    std::string conf = dir + "/bus.conf";
    std::ofstream(conf)
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n"
           "  <type>custom</type>\n"
           "  <listen>unix:path="
        << socket_
        << "</listen>\n"
           "  <auth>EXTERNAL</auth>\n"
           "  <policy context=\"default\">\n"
           "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
           "    <allow eavesdrop=\"true\"/>\n"
           "    <allow own=\"*\"/>\n"
           "  </policy>\n"
           "</busconfig>\n";
    std::string configArg = "--config-file=" + conf;
    std::vector<char*> argv = {exe.data(), configArg.data(), const_cast<char*>("--nofork"),
                               const_cast<char*>("--nopidfile"), nullptr};
    // Its complaints (an fd limit it may not raise here) are of no interest.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    int rc = ::posix_spawn(&pid_, exe.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
      pid_ = -1;
      return;
    }
    for (int i = 0; i < 500 && !ok_; ++i) {
      ok_ = canConnect(socket_);
      if (!ok_) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~BusDaemon() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  BusDaemon(const BusDaemon&) = delete;
  BusDaemon& operator=(const BusDaemon&) = delete;

  bool ok() const { return ok_; }
  std::string address() const { return "unix:path=" + socket_; }

 private:
  std::string socket_;
  pid_t pid_ = -1;
  bool ok_ = false;
};

// Stands in for logind on a private bus: hands out inhibitor locks (a pipe's write end, whose
// read end tells when the holder let go) and sends PrepareForSleep, on a thread of its own.
class FakeLogind {
 public:
  explicit FakeLogind(const std::string& address) {
    if (sd_bus_new(&bus_) < 0) return;
    if (sd_bus_set_address(bus_, address.c_str()) < 0 || sd_bus_set_bus_client(bus_, 1) < 0 ||
        sd_bus_negotiate_fds(bus_, 1) < 0 || sd_bus_start(bus_) < 0 ||
        sd_bus_add_object(bus_, nullptr, "/org/freedesktop/login1", onMessage, this) < 0 ||
        sd_bus_request_name(bus_, "org.freedesktop.login1", 0) < 0)
      return;
    ok_ = true;
    thread_ = std::thread([this] { run(); });
  }
  ~FakeLogind() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (bus_) sd_bus_flush_close_unref(bus_);
  }
  FakeLogind(const FakeLogind&) = delete;
  FakeLogind& operator=(const FakeLogind&) = delete;

  bool ok() const { return ok_; }
  // Inhibit(what, ...) answers AccessDenied while refused.
  void refuse(const std::string& what, bool refused) {
    std::scoped_lock lock(mutex_);
    refused_[what] = refused;
  }
  // Every Inhibit asked, as "what/who/why/mode".
  std::vector<std::string> requests() const {
    std::scoped_lock lock(mutex_);
    return requests_;
  }
  int requestCount(const std::string& what) const {
    int n = 0;
    for (const std::string& r : requests()) n += r.starts_with(what + "/");
    return n;
  }
  // Locks of kind what that their holder still keeps.
  int held(const std::string& what) const {
    std::scoped_lock lock(mutex_);
    int n = 0;
    for (const Lock& l : locks_) {
      if (l.what != what) continue;
      pollfd p{l.readEnd.get(), 0, 0};
      ::poll(&p, 1, 0);
      n += !(p.revents & POLLHUP);
    }
    return n;
  }
  void prepareForSleep(bool starting) {
    std::scoped_lock lock(mutex_);
    signals_.push_back(starting);
  }

 private:
  struct Lock {
    std::string what;
    UniqueFd readEnd;
  };

  void run() {
    while (!stop_) {
      std::vector<bool> signals;
      {
        std::scoped_lock lock(mutex_);
        signals.swap(signals_);
      }
      for (bool starting : signals)
        sd_bus_emit_signal(bus_, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                           "PrepareForSleep", "b", int(starting));
      while (sd_bus_process(bus_, nullptr) > 0) {
      }
      // A bus gone away answers at once: no spinning on it.
      if (sd_bus_wait(bus_, 10'000) < 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  static int onMessage(sd_bus_message* m, void* self, sd_bus_error* error) {
    if (!sd_bus_message_is_method_call(m, "org.freedesktop.login1.Manager", "Inhibit")) return 0;
    return static_cast<FakeLogind*>(self)->inhibit(m, error);
  }

  int inhibit(sd_bus_message* m, sd_bus_error* error) {
    const char *what = nullptr, *who = nullptr, *why = nullptr, *mode = nullptr;
    int r = sd_bus_message_read(m, "ssss", &what, &who, &why, &mode);
    if (r < 0) return r;
    {
      std::scoped_lock lock(mutex_);
      requests_.push_back(std::string(what) + "/" + who + "/" + why + "/" + mode);
      if (refused_[what]) return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "refused");
    }
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return -errno;
    UniqueFd writeEnd(fds[1]);
    {
      std::scoped_lock lock(mutex_);
      locks_.push_back({what, UniqueFd(fds[0])});
    }
    return sd_bus_reply_method_return(m, "h", writeEnd.get());
  }

  sd_bus* bus_ = nullptr;
  bool ok_ = false;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  mutable std::mutex mutex_;  // guards the members below; leaf
  std::map<std::string, bool> refused_;
  std::vector<std::string> requests_;
  std::vector<Lock> locks_;
  std::vector<bool> signals_;
};

// Turns loop until done() holds, for at most five seconds.
bool pumpUntil(EventLoop& loop, const std::function<bool()>& done) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    loop.runOnce(10'000);
  }
  return true;
}

// Waits (the loop not turning) until done() holds, for at most five seconds.
bool eventually(const std::function<bool()>& done) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// Turns loop for a while, for checks that something does not happen.
void pumpFor(EventLoop& loop, std::chrono::milliseconds span) {
  auto deadline = std::chrono::steady_clock::now() + span;
  while (std::chrono::steady_clock::now() < deadline) loop.runOnce(10'000);
}

class PowerLogindTest : public test::SandboxTest {
 protected:
  test::LogCapture log_;
  EventLoop loop_;
};

TEST_F(PowerLogindTest, NoBusFailsQuicklyAndQuietly) {
  ScopedSystemBusAddress address("unix:path=" + sandbox_.path("/no-such-bus"));
  auto source = makeLogindPowerEventSource();
  auto begun = std::chrono::steady_clock::now();
  EXPECT_FALSE(source->start(loop_, [] { return true; }));
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(1));
  EXPECT_EQ(loop_.nextTimerDue(), 0u);
  // A failed start leaves nothing behind: reevaluating and destroying are harmless.
  source->reevaluate();
  EXPECT_EQ(loop_.runOnce(0), 0u);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(PowerLogindTest, TheHostsSystemBus) {
  // Most likely no system bus in a container: start() must fail fast; with one, not crash.
  bool hasBus = ::access("/run/dbus/system_bus_socket", F_OK) == 0;
  ScopedSystemBusAddress address("");
  auto source = makeLogindPowerEventSource(500'000);
  auto begun = std::chrono::steady_clock::now();
  bool started = source->start(loop_, [] { return false; });
  if (!hasBus) {
    EXPECT_FALSE(started);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(1));
  }
  source->reevaluate();
  loop_.runOnce(0);
}

TEST_F(PowerLogindTest, SilentBusTimesOut) {
  // A socket that never answers: connecting works, the handshake never ends.
  std::string path = sandbox_.path("/silent");
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  path.copy(sa.sun_path, sizeof sa.sun_path - 1);
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
  ASSERT_EQ(::listen(listener.get(), 4), 0);
  ScopedSystemBusAddress address("unix:path=" + path);
  auto source = makeLogindPowerEventSource(200'000);
  auto begun = std::chrono::steady_clock::now();
  EXPECT_FALSE(source->start(loop_, [] { return true; }));
  auto took = std::chrono::steady_clock::now() - begun;
  EXPECT_GE(took, std::chrono::milliseconds(150));
  EXPECT_LT(took, std::chrono::seconds(2));
  EXPECT_EQ(loop_.nextTimerDue(), 0u);
}

class PowerBusTest : public PowerLogindTest {
 protected:
  void SetUp() override {
    if (findProgram("dbus-daemon").empty()) GTEST_SKIP() << "no dbus-daemon here";
    bus_ = std::make_unique<BusDaemon>(sandbox_.root());
    ASSERT_TRUE(bus_->ok());
    address_ = std::make_unique<ScopedSystemBusAddress>(bus_->address());
  }
  void TearDown() override {
    source_.reset();
    logind_.reset();
    address_.reset();
    bus_.reset();
  }

  void startLogind() {
    logind_ = std::make_unique<FakeLogind>(bus_->address());
    ASSERT_TRUE(logind_->ok());
  }
  bool start() {
    source_ = makeLogindPowerEventSource();
    return source_->start(loop_, [this] { return controller_.load(); });
  }

  std::unique_ptr<BusDaemon> bus_;
  std::unique_ptr<ScopedSystemBusAddress> address_;
  std::unique_ptr<FakeLogind> logind_;
  std::unique_ptr<PowerEventSource> source_;
  std::atomic<bool> controller_{false};
};

TEST_F(PowerBusTest, BusWithoutLogindFails) {
  auto begun = std::chrono::steady_clock::now();
  EXPECT_FALSE(start());
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(1));
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(PowerBusTest, ControllerHoldsBothLocks) {
  startLogind();
  controller_ = true;
  ASSERT_TRUE(start());
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->held("idle") == 1; }));
  EXPECT_EQ(logind_->held("sleep"), 1);
  std::vector<std::string> requests = logind_->requests();
  std::sort(requests.begin(), requests.end());
  EXPECT_EQ(requests, (std::vector<std::string>{"idle/velm/Controller/block",
                                                "sleep/velm/Controller/delay"}));
  EXPECT_EQ(log_.messages(), std::vector<std::string>{kCancelLine});
}

TEST_F(PowerBusTest, ClientHoldsOnlyTheDelayLock) {
  startLogind();
  ASSERT_TRUE(start());
  pumpFor(loop_, std::chrono::milliseconds(100));
  EXPECT_EQ(logind_->held("sleep"), 1);
  EXPECT_EQ(logind_->requestCount("idle"), 0);
  EXPECT_EQ(log_.messages(), std::vector<std::string>{kAllowLine});
}

TEST_F(PowerBusTest, TicksLogOnlyChanges) {
  startLogind();
  controller_ = true;
  ASSERT_TRUE(start());
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->held("idle") == 1; }));
  for (int i = 0; i < 5; ++i) source_->reevaluate();
  pumpFor(loop_, std::chrono::milliseconds(50));
  EXPECT_EQ(logind_->requestCount("idle"), 1);
  EXPECT_EQ(log_.count(kCancelLine), 1u);

  controller_ = false;
  source_->reevaluate();
  EXPECT_TRUE(pumpUntil(loop_, [&] { return logind_->held("idle") == 0; }));
  source_->reevaluate();
  EXPECT_EQ(log_.messages(), (std::vector<std::string>{kCancelLine, kAllowLine}));

  controller_ = true;
  source_->reevaluate();
  source_->reevaluate();
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->held("idle") == 1; }));
  EXPECT_EQ(logind_->requestCount("idle"), 2);
  EXPECT_EQ(log_.messages(), (std::vector<std::string>{kCancelLine, kAllowLine, kCancelLine}));
}

TEST_F(PowerBusTest, RoleChangeWhileAskingDropsTheLock) {
  startLogind();
  controller_ = true;
  ASSERT_TRUE(start());
  // The idle request is under way; the answer comes after the role changed.
  controller_ = false;
  source_->reevaluate();
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->requestCount("idle") == 1; }));
  EXPECT_TRUE(pumpUntil(loop_, [&] { return logind_->held("idle") == 0; }));
  EXPECT_EQ(log_.messages(), (std::vector<std::string>{kCancelLine, kAllowLine}));
}

TEST_F(PowerBusTest, RefusedCancelWarnsOnceAndNeverAllows) {
  startLogind();
  logind_->refuse("idle", true);
  controller_ = true;
  ASSERT_TRUE(start());
  ASSERT_TRUE(pumpUntil(loop_, [&] { return log_.count(kCancelFailedLine) == 1; }));
  // Each tick tries again, quietly.
  source_->reevaluate();
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->requestCount("idle") == 2; }));
  pumpFor(loop_, std::chrono::milliseconds(50));
  EXPECT_EQ(log_.messages(), (std::vector<std::string>{kCancelLine, kCancelFailedLine}));

  logind_->refuse("idle", false);
  source_->reevaluate();
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->held("idle") == 1; }));
  EXPECT_EQ(log_.messages(), (std::vector<std::string>{kCancelLine, kCancelFailedLine}));
}

TEST_F(PowerBusTest, RefusedDelayLockFailsStart) {
  startLogind();
  logind_->refuse("sleep", true);
  EXPECT_FALSE(start());
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(PowerBusTest, ControllerWarnsAndLetsSleepThenTakesTheLockAgain) {
  startLogind();
  controller_ = true;
  ASSERT_TRUE(start());
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->held("idle") == 1; }));
  logind_->prepareForSleep(true);
  ASSERT_TRUE(pumpUntil(loop_, [&] { return log_.count(kWillSleepLine) == 1; }));
  EXPECT_TRUE(pumpUntil(loop_, [&] { return logind_->held("sleep") == 0; }));
  // Will-sleep lets the sleep go, not the idle refusal.
  EXPECT_EQ(logind_->held("idle"), 1);

  logind_->prepareForSleep(false);
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->held("sleep") == 1; }));
  EXPECT_EQ(logind_->requestCount("sleep"), 2);
  EXPECT_EQ(log_.messages(), (std::vector<std::string>{kCancelLine, kWillSleepLine}));
}

TEST_F(PowerBusTest, ClientLetsSleepSilently) {
  startLogind();
  ASSERT_TRUE(start());
  logind_->prepareForSleep(true);
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->held("sleep") == 0; }));
  logind_->prepareForSleep(false);
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->held("sleep") == 1; }));
  EXPECT_EQ(log_.messages(), std::vector<std::string>{kAllowLine});
}

TEST_F(PowerBusTest, DestroyingLetsEverythingGo) {
  startLogind();
  controller_ = true;
  ASSERT_TRUE(start());
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->held("idle") == 1; }));
  // Time for the answer to reach the source, so that it is the source that lets go.
  pumpFor(loop_, std::chrono::milliseconds(50));
  source_.reset();
  EXPECT_TRUE(eventually([&] { return logind_->held("idle") == 0; }));
  EXPECT_TRUE(eventually([&] { return logind_->held("sleep") == 0; }));
  EXPECT_EQ(loop_.nextTimerDue(), 0u);
  EXPECT_EQ(loop_.runOnce(0), 0u);
}

TEST_F(PowerBusTest, LosingTheBusStopsWatchingIt) {
  startLogind();
  controller_ = true;
  ASSERT_TRUE(start());
  ASSERT_TRUE(pumpUntil(loop_, [&] { return logind_->held("idle") == 1; }));
  bus_.reset();
  // No PrepareForSleep can come any more: the delay lock goes, the idle refusal stays.
  EXPECT_TRUE(pumpUntil(loop_, [&] { return logind_->held("sleep") == 0; }));
  EXPECT_EQ(logind_->held("idle"), 1);
  // The loop goes quiet again rather than spin on a dead descriptor.
  pumpFor(loop_, std::chrono::milliseconds(50));
  EXPECT_EQ(loop_.runOnce(0), 0u);
  EXPECT_EQ(loop_.nextTimerDue(), 0u);
  source_->reevaluate();
  EXPECT_EQ(loop_.runOnce(0), 0u);
  EXPECT_EQ(log_.messages(), std::vector<std::string>{kCancelLine});

  // A role change now can't be carried out: told once, as any failure to cancel.
  controller_ = false;
  source_->reevaluate();
  EXPECT_EQ(logind_->held("idle"), 0);
  controller_ = true;
  source_->reevaluate();
  source_->reevaluate();
  EXPECT_EQ(log_.messages(),
            (std::vector<std::string>{kCancelLine, kAllowLine, kCancelLine, kCancelFailedLine}));
}

TEST_F(PowerBusTest, TicksFromAnotherThreadWhileTheLoopRuns) {
  startLogind();
  controller_ = true;
  ASSERT_TRUE(start());
  loop_.startThread();
  EXPECT_TRUE(eventually([&] { return logind_->held("idle") == 1; }));
  logind_->prepareForSleep(true);
  EXPECT_TRUE(eventually([&] { return log_.count(kWillSleepLine) == 1; }));
  logind_->prepareForSleep(false);
  // Ticks and role changes from this thread, the bus dispatched on the loop's.
  for (int i = 0; i < 50; ++i) {
    controller_ = i % 2 == 1;
    source_->reevaluate();
  }
  EXPECT_TRUE(
      eventually([&] { return logind_->held("idle") == 1 && logind_->held("sleep") == 1; }));
  EXPECT_EQ(log_.count(kCancelLine), 26u);
  EXPECT_EQ(log_.count(kAllowLine), 25u);
  // Taken apart while the loop still turns.
  source_.reset();
  EXPECT_TRUE(
      eventually([&] { return logind_->held("idle") == 0 && logind_->held("sleep") == 0; }));
  loop_.stop();
}

}  // namespace
}  // namespace velm
