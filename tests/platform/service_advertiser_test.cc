#include "platform/service_advertiser.h"

#include <avahi-common/timeval.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/fake_service_advertiser.h"
#include "platform/linux_service_advertiser_poll.h"

extern char** environ;

namespace velm {
namespace {

using std::chrono::steady_clock;

// What a delegate heard, in order: "will 1", "not 1 -26", "stop 1".
class RecordingDelegate : public ServiceDelegate {
 public:
  void serviceWillPublish(std::uint64_t id) override {
    events.push_back("will " + std::to_string(id));
  }
  void serviceDidNotPublish(std::uint64_t id, int error, const std::string& text) override {
    events.push_back("not " + std::to_string(id) + " " + std::to_string(error));
    texts.push_back(text);
  }
  void serviceDidStop(std::uint64_t id) override {
    events.push_back("stop " + std::to_string(id));
    if (onStop) onStop(id);
  }
  std::size_t count(const std::string& prefix) const {
    std::size_t n = 0;
    for (const auto& e : events) n += e.rfind(prefix, 0) == 0;
    return n;
  }

  std::vector<std::string> events;
  std::vector<std::string> texts;
  std::function<void(std::uint64_t)> onStop;
};

// Turns the loop until done() holds or the real time runs out. Whether done() held.
bool runUntil(EventLoop& loop, const std::function<bool()>& done,
              std::chrono::milliseconds limit = std::chrono::milliseconds(1500)) {
  auto deadline = steady_clock::now() + limit;
  while (!done()) {
    if (steady_clock::now() >= deadline) return false;
    loop.runOnce(10'000);
  }
  return true;
}

// Turns the loop for a while whatever happens.
void runFor(EventLoop& loop, std::chrono::milliseconds span) {
  runUntil(
      loop, [] { return false; }, span);
}

// ---- TXT records

// One string in wire form: its length byte, then its text.
std::string wire(const std::string& text) { return static_cast<char>(text.size()) + text; }

TEST(TxtRecordTest, RoundTrip) {
  TxtEntries entries = {{"txtvers", "1"},
                        {"empty", ""},
                        {"eq", "a=b=c"},
                        {"bin", std::string("\0\x01\xff", 3)},
                        {"Name", "Rack \"A\""}};
  std::optional<std::string> data = encodeTxtRecord(entries);
  ASSERT_TRUE(data);
  EXPECT_EQ(*data, wire("txtvers=1") + wire("empty=") + wire("eq=a=b=c") +
                       wire(std::string("bin=\0\x01\xff", 7)) + wire("Name=Rack \"A\""));
  EXPECT_EQ((*data)[0], '\x09');
  std::optional<TxtEntries> back = decodeTxtRecord(*data);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, entries);
}

TEST(TxtRecordTest, NothingEncodesToNothing) {
  EXPECT_EQ(encodeTxtRecord({}), std::string());
  EXPECT_EQ(decodeTxtRecord(""), TxtEntries{});
}

TEST(TxtRecordTest, EntryOfAtMost255BytesCountingKeyAndEquals) {
  // "k=" plus 253 bytes is 255.
  std::optional<std::string> fits = encodeTxtRecord({{"k", std::string(253, 'v')}});
  ASSERT_TRUE(fits);
  ASSERT_EQ(fits->size(), 256u);
  EXPECT_EQ(static_cast<unsigned char>((*fits)[0]), 255u);
  EXPECT_EQ(decodeTxtRecord(*fits), (TxtEntries{{"k", std::string(253, 'v')}}));

  EXPECT_FALSE(encodeTxtRecord({{"k", std::string(254, 'v')}}));
  EXPECT_FALSE(encodeTxtRecord({{"a", "1"}, {std::string(200, 'k'), std::string(55, 'v')}}));
}

TEST(TxtRecordTest, BadKeysRefused) {
  EXPECT_FALSE(encodeTxtRecord({{"", "value"}}));
  EXPECT_FALSE(encodeTxtRecord({{"a", "1"}, {"k=v", "x"}}));
  EXPECT_FALSE(encodeTxtRecord({{"=", ""}}));
}

TEST(TxtRecordTest, MalformedDataRefused) {
  // Length running past the end, by one and by a lot.
  EXPECT_FALSE(decodeTxtRecord(std::string("\x04k=v", 4)));
  EXPECT_FALSE(decodeTxtRecord(std::string("\x03k=v\x09short=", 11)));
  EXPECT_FALSE(decodeTxtRecord(std::string("\xff", 1)));
  // An entry without '='.
  EXPECT_FALSE(decodeTxtRecord(std::string("\x03k=v\x04flag", 9)));
  // An entry with an empty key.
  EXPECT_FALSE(decodeTxtRecord(std::string("\x02=v", 3)));
}

TEST(TxtRecordTest, ZeroLengthStringIsTheEmptyRecord) {
  EXPECT_EQ(decodeTxtRecord(std::string(1, '\0')), TxtEntries{});
  EXPECT_EQ(decodeTxtRecord(std::string("\0\x03k=v", 5)), (TxtEntries{{"k", "v"}}));
}

// ---- Factory and fake

TEST(ServiceAdvertiserFactoryTest, TestFactoryUsedUntilCleared) {
  EventLoop loop;
  int made = 0;
  setServiceAdvertiserFactoryForTest([&made](EventLoop&) {
    ++made;
    return std::unique_ptr<ServiceAdvertiser>(std::make_unique<FakeServiceAdvertiser>());
  });
  auto a = makeServiceAdvertiser(loop);
  EXPECT_TRUE(dynamic_cast<FakeServiceAdvertiser*>(a.get()));
  EXPECT_EQ(made, 1);
  setServiceAdvertiserFactoryForTest(nullptr);
  auto b = makeServiceAdvertiser(loop);
  ASSERT_TRUE(b);
  EXPECT_FALSE(dynamic_cast<FakeServiceAdvertiser*>(b.get()));
  EXPECT_EQ(made, 1);
}

TEST(FakeServiceAdvertiserTest, RecordsAndFiresInAnyOrder) {
  FakeServiceAdvertiser fake;
  RecordingDelegate d;
  ServiceSpec spec;
  spec.type = "_velm2server._tcp";
  spec.port = 4000;
  std::uint64_t a = fake.publish(spec, &d);
  std::uint64_t b = fake.publish(ServiceSpec{}, &d);
  EXPECT_NE(a, 0u);
  EXPECT_NE(a, b);
  ASSERT_EQ(fake.publications().size(), 2u);
  EXPECT_EQ(fake.publication(a)->spec.port, 4000);
  EXPECT_EQ(fake.publication(a)->delegate, &d);

  fake.stop(a);
  EXPECT_TRUE(fake.publication(a)->stopped);
  EXPECT_EQ(fake.stops(), std::vector<std::uint64_t>{a});
  ASSERT_EQ(fake.live().size(), 1u);
  EXPECT_EQ(fake.live()[0].id, b);
  // Stopping tells nothing by itself.
  EXPECT_TRUE(d.events.empty());

  // A late event for a stopped service, then its stop.
  EXPECT_TRUE(fake.fireWillPublish(a));
  EXPECT_TRUE(fake.fireDidNotPublish(b, kServiceNameCollision));
  EXPECT_TRUE(fake.fireDidStop(a));
  EXPECT_FALSE(fake.fireDidStop(99));
  EXPECT_EQ(d.events, (std::vector<std::string>{"will " + std::to_string(a),
                                                "not " + std::to_string(b) + " -72001",
                                                "stop " + std::to_string(a)}));
}

TEST(FakeServiceAdvertiserTest, ScopedFactoryKeepsTheFakes) {
  EventLoop loop;
  RecordingDelegate d;
  std::shared_ptr<FakeServiceAdvertiser> fake;
  {
    ScopedFakeServiceAdvertiserFactory factory;
    EXPECT_FALSE(factory.last());
    auto owned = makeServiceAdvertiser(loop);
    std::uint64_t id = owned->publish(ServiceSpec{}, &d);
    fake = factory.last();
    ASSERT_TRUE(fake);
    EXPECT_EQ(factory.made().size(), 1u);
    EXPECT_EQ(fake->publications().size(), 1u);
    owned->stop(id);
    EXPECT_EQ(fake->stops(), std::vector<std::uint64_t>{id});
    EXPECT_FALSE(fake->released());
    owned.reset();
    EXPECT_TRUE(fake->released());
  }
  // Out of scope: Avahi again.
  auto real = makeServiceAdvertiser(loop);
  EXPECT_FALSE(dynamic_cast<FakeServiceAdvertiser*>(real.get()));
}

// ---- The Avahi poll on our loop

class Pipe {
 public:
  Pipe() {
    int fds[2];
    EXPECT_EQ(::pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    read_ = fds[0];
    write_ = fds[1];
  }
  ~Pipe() {
    closeRead();
    closeWrite();
  }
  int readFd() const { return read_; }
  int writeFd() const { return write_; }
  void put() { ASSERT_EQ(::write(write_, "x", 1), 1); }
  void drain() {
    char buf[64];
    while (::read(read_, buf, sizeof buf) > 0) {
    }
  }
  void closeRead() {
    if (read_ >= 0) ::close(read_);
    read_ = -1;
  }
  void closeWrite() {
    if (write_ >= 0) ::close(write_);
    write_ = -1;
  }

 private:
  int read_ = -1;
  int write_ = -1;
};

// A watch callback that runs a test's function.
struct WatchHook {
  const AvahiPoll* api = nullptr;
  std::function<void(AvahiWatch*, AvahiWatchEvent)> fn;
  static void callback(AvahiWatch* w, int, AvahiWatchEvent events, void* userdata) {
    static_cast<WatchHook*>(userdata)->fn(w, events);
  }
};

struct TimeoutHook {
  std::function<void(AvahiTimeout*)> fn;
  static void callback(AvahiTimeout* t, void* userdata) {
    static_cast<TimeoutHook*>(userdata)->fn(t);
  }
};

timeval inMicros(AvahiUsec micros) {
  timeval tv;
  ::gettimeofday(&tv, nullptr);
  ::avahi_timeval_add(&tv, micros);
  return tv;
}

TEST(LoopAvahiPollTest, WatchSeesInputAndItsEvents) {
  EventLoop loop;
  LoopAvahiPoll poll(loop);
  const AvahiPoll* api = poll.api();
  Pipe pipe;
  std::vector<unsigned> seen;
  WatchHook hook;
  hook.fn = [&](AvahiWatch* w, AvahiWatchEvent events) {
    seen.push_back(events);
    EXPECT_EQ(api->watch_get_events(w), events);
    pipe.drain();
  };
  AvahiWatch* w = api->watch_new(api, pipe.readFd(), AVAHI_WATCH_IN, &WatchHook::callback, &hook);
  ASSERT_TRUE(w);
  EXPECT_EQ(poll.watchCount(), 1u);
  loop.runOnce(0);
  EXPECT_TRUE(seen.empty());
  pipe.put();
  loop.runOnce(100'000);
  EXPECT_EQ(seen, std::vector<unsigned>{AVAHI_WATCH_IN});
  // Outside its callback a watch has no events.
  EXPECT_EQ(api->watch_get_events(w), 0);

  // Asking for nothing takes the descriptor off the loop.
  api->watch_update(w, AvahiWatchEvent(0));
  EXPECT_EQ(poll.watchedFdCount(), 0u);
  pipe.put();
  loop.runOnce(0);
  EXPECT_EQ(seen.size(), 1u);
  api->watch_update(w, AVAHI_WATCH_IN);
  EXPECT_EQ(poll.watchedFdCount(), 1u);
  loop.runOnce(100'000);
  EXPECT_EQ(seen.size(), 2u);

  api->watch_free(w);
  EXPECT_EQ(poll.watchCount(), 0u);
  EXPECT_EQ(poll.watchedFdCount(), 0u);
  pipe.put();
  loop.runOnce(0);
  EXPECT_EQ(seen.size(), 2u);
}

TEST(LoopAvahiPollTest, TwoWatchesOnOneDescriptor) {
  EventLoop loop;
  LoopAvahiPoll poll(loop);
  const AvahiPoll* api = poll.api();
  int reads = 0, writes = 0;
  WatchHook in, out;
  in.fn = [&](AvahiWatch*, AvahiWatchEvent e) {
    EXPECT_TRUE(e & AVAHI_WATCH_IN);
    ++reads;
  };
  out.fn = [&](AvahiWatch*, AvahiWatchEvent e) {
    EXPECT_TRUE(e & AVAHI_WATCH_OUT);
    ++writes;
  };
  // One descriptor both readable and writable.
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv), 0);
  AvahiWatch* r = api->watch_new(api, sv[0], AVAHI_WATCH_IN, &WatchHook::callback, &in);
  AvahiWatch* w = api->watch_new(api, sv[0], AVAHI_WATCH_OUT, &WatchHook::callback, &out);
  ASSERT_TRUE(r);
  ASSERT_TRUE(w);
  EXPECT_EQ(poll.watchedFdCount(), 1u);
  loop.runOnce(100'000);
  EXPECT_EQ(reads, 0);
  EXPECT_EQ(writes, 1);
  api->watch_update(w, AvahiWatchEvent(0));
  ASSERT_EQ(::write(sv[1], "x", 1), 1);
  loop.runOnce(100'000);
  EXPECT_EQ(reads, 1);
  EXPECT_EQ(writes, 1);
  api->watch_free(r);
  EXPECT_EQ(poll.watchedFdCount(), 0u);  // the one left asks for nothing
  api->watch_update(w, AVAHI_WATCH_OUT);
  loop.runOnce(100'000);
  EXPECT_EQ(writes, 2);
  api->watch_free(w);
  ::close(sv[0]);
  ::close(sv[1]);
}

TEST(LoopAvahiPollTest, WatchFreedFromItsOwnCallbackAndFromAnother) {
  EventLoop loop;
  LoopAvahiPoll poll(loop);
  const AvahiPoll* api = poll.api();
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv), 0);
  AvahiWatch* first = nullptr;
  AvahiWatch* second = nullptr;
  int calls = 0;
  WatchHook a, b;
  // Whichever runs first frees both; the other must not run.
  a.fn = b.fn = [&](AvahiWatch* self, AvahiWatchEvent) {
    ++calls;
    api->watch_free(self == first ? second : first);
    api->watch_free(self);
  };
  first = api->watch_new(api, sv[0], AVAHI_WATCH_OUT, &WatchHook::callback, &a);
  second = api->watch_new(api, sv[0], AVAHI_WATCH_OUT, &WatchHook::callback, &b);
  loop.runOnce(100'000);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(poll.watchCount(), 0u);
  EXPECT_EQ(poll.watchedFdCount(), 0u);
  loop.runOnce(0);
  EXPECT_EQ(calls, 1);
  ::close(sv[0]);
  ::close(sv[1]);
}

TEST(LoopAvahiPollTest, HangUpReachesAWatchForInput) {
  EventLoop loop;
  LoopAvahiPoll poll(loop);
  const AvahiPoll* api = poll.api();
  Pipe pipe;
  unsigned seen = 0;
  WatchHook hook;
  AvahiWatch* w = nullptr;
  hook.fn = [&](AvahiWatch* self, AvahiWatchEvent e) {
    seen = e;
    api->watch_free(self);
  };
  w = api->watch_new(api, pipe.readFd(), AVAHI_WATCH_IN, &WatchHook::callback, &hook);
  ASSERT_TRUE(w);
  pipe.closeWrite();
  loop.runOnce(100'000);
  EXPECT_TRUE(seen & AVAHI_WATCH_HUP);
}

TEST(LoopAvahiPollTest, RefusedDescriptorGivesNoWatch) {
  EventLoop loop;
  LoopAvahiPoll poll(loop);
  WatchHook hook;
  hook.fn = [](AvahiWatch*, AvahiWatchEvent) {};
  EXPECT_FALSE(poll.api()->watch_new(poll.api(), -1, AVAHI_WATCH_IN, &WatchHook::callback, &hook));
  EXPECT_EQ(poll.watchCount(), 0u);
}

TEST(LoopAvahiPollTest, TimeoutsOnTheMonotonicClock) {
  ScopedFakeClock fake;
  EventLoop loop;
  LoopAvahiPoll poll(loop);
  const AvahiPoll* api = poll.api();
  int fired = 0;
  TimeoutHook hook;
  hook.fn = [&](AvahiTimeout*) { ++fired; };

  timeval soon = inMicros(5'000'000);
  AvahiTimeout* t = api->timeout_new(api, &soon, &TimeoutHook::callback, &hook);
  ASSERT_TRUE(t);
  loop.runOnce(0);
  EXPECT_EQ(fired, 0);
  fake->advanceMicros(4'000'000);
  loop.runOnce(0);
  EXPECT_EQ(fired, 0);
  fake->advanceMicros(1'100'000);
  loop.runOnce(0);
  EXPECT_EQ(fired, 1);
  // Once fired it is off until updated.
  fake->advanceMicros(10'000'000);
  loop.runOnce(0);
  EXPECT_EQ(fired, 1);

  // A time already past fires on the next turn.
  timeval past = inMicros(-1'000'000);
  api->timeout_update(t, &past);
  loop.runOnce(0);
  EXPECT_EQ(fired, 2);

  // Disabled, then freed before it was due.
  timeval later = inMicros(1'000'000);
  api->timeout_update(t, &later);
  api->timeout_update(t, nullptr);
  fake->advanceMicros(2'000'000);
  loop.runOnce(0);
  EXPECT_EQ(fired, 2);
  api->timeout_update(t, &later);
  api->timeout_free(t);
  EXPECT_EQ(poll.timeoutCount(), 0u);
  EXPECT_EQ(loop.nextTimerDue(), 0u);
  fake->advanceMicros(2'000'000);
  loop.runOnce(0);
  EXPECT_EQ(fired, 2);

  // None given: made disabled.
  AvahiTimeout* idle = api->timeout_new(api, nullptr, &TimeoutHook::callback, &hook);
  EXPECT_EQ(loop.nextTimerDue(), 0u);
  api->timeout_free(idle);
}

TEST(LoopAvahiPollTest, TimeoutUpdatedOrFreedFromItsCallback) {
  ScopedFakeClock fake;
  EventLoop loop;
  LoopAvahiPoll poll(loop);
  const AvahiPoll* api = poll.api();
  int fired = 0;
  TimeoutHook hook;
  hook.fn = [&](AvahiTimeout* t) {
    ++fired;
    if (fired < 3) {
      timeval again = inMicros(1'000'000);
      api->timeout_update(t, &again);
    } else {
      api->timeout_free(t);
    }
  };
  timeval now = inMicros(0);
  api->timeout_new(api, &now, &TimeoutHook::callback, &hook);
  loop.runOnce(0);
  EXPECT_EQ(fired, 1);
  for (int i = 0; i < 4; ++i) {
    fake->advanceMicros(1'100'000);
    loop.runOnce(0);
  }
  EXPECT_EQ(fired, 3);
  EXPECT_EQ(poll.timeoutCount(), 0u);
  EXPECT_EQ(loop.nextTimerDue(), 0u);
}

TEST(LoopAvahiPollTest, LeftoversDroppedWithThePoll) {
  EventLoop loop;
  Pipe pipe;
  int calls = 0;
  WatchHook hook;
  hook.fn = [&](AvahiWatch*, AvahiWatchEvent) { ++calls; };
  TimeoutHook thook;
  thook.fn = [&](AvahiTimeout*) { ++calls; };
  {
    LoopAvahiPoll poll(loop);
    const AvahiPoll* api = poll.api();
    api->watch_new(api, pipe.readFd(), AVAHI_WATCH_IN, &WatchHook::callback, &hook);
    timeval now = inMicros(0);
    api->timeout_new(api, &now, &TimeoutHook::callback, &thook);
  }
  pipe.put();
  loop.runOnce(0);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(loop.nextTimerDue(), 0u);
}

// ---- The Avahi advertiser

ServiceSpec testSpec() {
  ServiceSpec spec;
  spec.type = "_velm2server._tcp";
  spec.name = "velm advertiser test";
  spec.port = 4242;
  spec.txt = encodeTxtRecord({{"txtvers", "1"}, {"role", "test"}});
  return spec;
}

// Runs scenario in a fresh copy of this program, where nothing has used D-Bus yet: libdbus reads
// the bus address from the environment once per process. The child prints what the scenario
// returns; expected is a regular expression for it.
void expectInFreshProcess(const std::function<std::string()>& scenario,
                          const std::string& expected) {
  std::string style = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::string heard = scenario();
        std::fprintf(stderr, "heard<%s>\n", heard.c_str());
        std::fflush(stderr);
        std::_Exit(0);
      },
      testing::ExitedWithCode(0), "heard<" + expected + ">");
  GTEST_FLAG_SET(death_test_style, style);
}

std::string joined(const std::vector<std::string>& events) {
  std::string out;
  for (const auto& e : events) out += e + ";";
  return out;
}

TEST(AvahiServiceAdvertiserTest, NoBusReportsOnTheLoop) {
  expectInFreshProcess(
      [] {
        // No system bus at this address, so the client can't be made.
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/velm-test-bus", 1);
        EventLoop loop;
        auto advertiser = makeAvahiServiceAdvertiser(loop);
        RecordingDelegate d;
        std::uint64_t a = advertiser->publish(testSpec(), &d);
        advertiser->publish(ServiceSpec{}, &d);
        // Never from inside publish.
        if (!d.events.empty()) return "synchronous " + joined(d.events);
        if (!runUntil(loop, [&] { return d.events.size() >= 2; }))
          return "late " + joined(d.events);
        for (const auto& text : d.texts) {
          if (text.empty()) return std::string("no text");
        }
        advertiser->stop(a);
        runUntil(loop, [&] { return d.count("stop ") > 0; });
        runFor(loop, std::chrono::milliseconds(20));
        return joined(d.events);
      },
      "not 1 -[0-9]+;not 2 -[0-9]+;stop 1;");
}

TEST(AvahiServiceAdvertiserTest, BadTxtDataRefused) {
  EventLoop loop;
  auto advertiser = makeAvahiServiceAdvertiser(loop);
  RecordingDelegate d;
  ServiceSpec spec = testSpec();
  spec.txt = std::string("\x09short", 6);
  std::uint64_t id = advertiser->publish(spec, &d);
  EXPECT_TRUE(d.events.empty());
  ASSERT_TRUE(runUntil(loop, [&] { return !d.events.empty(); }));
  EXPECT_EQ(d.events[0], "not " + std::to_string(id) + " -9");
}

// Whatever this machine has (a daemon, a bus without one, or no bus), publishing tells at most
// one outcome and stopping is told once.
TEST(AvahiServiceAdvertiserTest, PublishThenStopOnThisMachine) {
  EventLoop loop;
  auto advertiser = makeAvahiServiceAdvertiser(loop);
  RecordingDelegate d;
  std::uint64_t id = advertiser->publish(testSpec(), &d);
  EXPECT_TRUE(d.events.empty());
  runUntil(
      loop, [&] { return !d.events.empty(); }, std::chrono::milliseconds(300));
  EXPECT_LE(d.events.size(), 1u);
  if (!d.events.empty()) {
    EXPECT_TRUE(d.events[0] == "will " + std::to_string(id) ||
                d.events[0].rfind("not " + std::to_string(id) + " ", 0) == 0)
        << d.events[0];
  }
  std::size_t before = d.events.size();
  advertiser->stop(id);
  advertiser->stop(id);  // a second stop is ignored
  EXPECT_EQ(d.events.size(), before);
  ASSERT_TRUE(runUntil(loop, [&] { return d.count("stop ") > 0; }));
  runFor(loop, std::chrono::milliseconds(20));
  EXPECT_EQ(d.count("stop "), 1u);
  EXPECT_EQ(d.events.back(), "stop " + std::to_string(id));
  advertiser->stop(id);
  runFor(loop, std::chrono::milliseconds(10));
  EXPECT_EQ(d.count("stop "), 1u);
}

TEST(AvahiServiceAdvertiserTest, DelegateMayPublishAgainFromStop) {
  EventLoop loop;
  auto advertiser = makeAvahiServiceAdvertiser(loop);
  RecordingDelegate d;
  std::uint64_t again = 0;
  d.onStop = [&](std::uint64_t) {
    if (!again) again = advertiser->publish(testSpec(), &d);
  };
  std::uint64_t id = advertiser->publish(testSpec(), &d);
  advertiser->stop(id);
  ASSERT_TRUE(runUntil(loop, [&] { return again != 0; }));
  EXPECT_NE(again, id);
  advertiser->stop(again);
  ASSERT_TRUE(runUntil(loop, [&] { return d.count("stop ") == 2; }));
}

TEST(AvahiServiceAdvertiserTest, DestroyedWithServicesPendingTellsNothing) {
  EventLoop loop;
  RecordingDelegate d;
  {
    auto advertiser = makeAvahiServiceAdvertiser(loop);
    advertiser->publish(testSpec(), &d);
    std::uint64_t stopped = advertiser->publish(testSpec(), &d);
    advertiser->stop(stopped);
    // Its didStop (and any outcome) is posted but not yet run.
  }
  runFor(loop, std::chrono::milliseconds(50));
  EXPECT_TRUE(d.events.empty());
}

// A bus of our own, with no Avahi daemon on it: the client waits to connect, so services stay
// pending, while the poll carries the bus connection's watches.
class PrivateBus {
 public:
  PrivateBus() {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) return;
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    ::posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    // Nothing else of ours, or a pipe a reader waits on would stay open in the daemon.
    ::posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    const char* argv[] = {"dbus-daemon", "--session",         "--nofork",
                          "--nopidfile", "--print-address=1", nullptr};
    int rc = ::posix_spawn(&pid_, "/usr/bin/dbus-daemon", &actions, nullptr,
                           const_cast<char* const*>(argv), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (rc != 0) {
      pid_ = -1;
      ::close(out[0]);
      return;
    }
    auto deadline = steady_clock::now() + std::chrono::seconds(2);
    bool whole = false;
    while (!whole && steady_clock::now() < deadline) {
      pollfd p{out[0], POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      char c;
      if (::read(out[0], &c, 1) != 1) break;
      if (c == '\n') {
        whole = true;
      } else {
        address_.push_back(c);
      }
    }
    ::close(out[0]);
    if (!whole) address_.clear();
  }
  ~PrivateBus() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  const std::string& address() const { return address_; }

 private:
  pid_t pid_ = -1;
  std::string address_;
};

TEST(AvahiServiceAdvertiserTest, BusWithoutDaemonKeepsServicesPending) {
  // The fresh copy runs this body again: it uses the parent's bus rather than start its own.
  constexpr const char* kBusVariable = "VELM_TEST_PRIVATE_BUS";
  std::optional<PrivateBus> bus;
  std::string address;
  if (const char* inherited = std::getenv(kBusVariable)) {
    address = inherited;
  } else {
    bus.emplace();
    address = bus->address();
  }
  if (address.empty()) GTEST_SKIP() << "no dbus-daemon to run";
  ::setenv(kBusVariable, address.c_str(), 1);
  expectInFreshProcess(
      [address] {
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
        EventLoop loop;
        RecordingDelegate d;
        std::string heard;
        {
          auto advertiser = makeAvahiServiceAdvertiser(loop);
          std::uint64_t a = advertiser->publish(testSpec(), &d);
          advertiser->publish(ServiceSpec{}, &d);
          runFor(loop, std::chrono::milliseconds(100));
          heard = joined(d.events) + "|";
          advertiser->stop(a);
          runUntil(loop, [&] { return !d.events.empty(); });
          heard += joined(d.events) + "|";
        }
        // Gone with one service still waiting: nothing more.
        runFor(loop, std::chrono::milliseconds(20));
        return heard + joined(d.events);
      },
      "\\|stop 1;\\|stop 1;");
  ::unsetenv(kBusVariable);
}

}  // namespace
}  // namespace velm
