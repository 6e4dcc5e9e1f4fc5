// adminhostd as a process: requests, refusals, concurrency, idle ticks, contexts and shutdown,
// with the echo test plugin.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "e2e/e2e_helpers.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/unique_fd.h"

namespace velm::test {
namespace {

constexpr int kPollStepMicros = 20'000;
constexpr int kPollSteps = 1500;  // 30 s at most

long long intAt(const PropertyList& dict, std::string_view key) {
  const PropertyList* v = dict.get(key);
  return v ? v->int64Value().value_or(-1) : -1;
}

class AdminhostdTest : public SandboxTest {
 protected:
  void SetUp() override { ::signal(SIGPIPE, SIG_IGN); }

  std::unique_ptr<Daemon> startEcho(std::vector<std::string> args = {}) {
    auto d = std::make_unique<Daemon>(sandbox_, makePluginDir(sandbox_, {{"echo", echoPluginPath()}}), std::move(args));
    EXPECT_TRUE(d->start()) << d->stderrText() << d->logText();
    return d;
  }

  std::unique_ptr<Daemon> restartEcho(std::vector<std::string> args = {}) {
    auto d = std::make_unique<Daemon>(sandbox_, sandbox_.root() + "/plugins", std::move(args));
    EXPECT_TRUE(d->start()) << d->stderrText() << d->logText();
    return d;
  }

  PropertyList context(Client& c) {
    Reply r = c.command("echo", request("getContext"), readToken(sandbox_));
    EXPECT_EQ(r.status, 200);
    const PropertyList* ctx = r.plist ? r.plist->get("context") : nullptr;
    return ctx ? *ctx : PropertyList::dict();
  }

  PropertyList savedContext() {
    PlistReadResult r = readXmlPlistFile(sandbox_.path("/var/adminhostd/context/echo.plist"));
    return r ? *r.value : PropertyList();
  }

  void stopCleanly(Daemon& d) {
    d.signal(SIGTERM);
    std::optional<int> status = d.waitExit();
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(*status, 0) << d.logText();
  }
};

TEST_F(AdminhostdTest, EveryListeningAddressServes) {
  auto d = startEcho({"--listen", "127.0.0.1:0", "--listen", "127.0.0.2:0"});
  ASSERT_EQ(d->urls().size(), 2u);
  EXPECT_EQ(d->urls()[1].rfind("http://127.0.0.2:", 0), 0u) << d->urls()[1];
  std::string token = readToken(sandbox_);
  for (const std::string& url : d->urls()) {
    Client c(url);
    EXPECT_EQ(c.command("echo", request("echo"), token).status, 200) << url;
  }
  stopCleanly(*d);
}

TEST_F(AdminhostdTest, RoundTripAnswersWithThePluginsResponse) {
  auto d = startEcho();
  std::string token = readToken(sandbox_);
  EXPECT_EQ(token.size(), 64u);
  EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
  struct stat st {};
  ASSERT_EQ(::stat(sandbox_.path("/var/adminhostd/admin.token").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  PropertyList nested = PropertyList::dict();
  nested.set("list", PlistArray{PropertyList(1), PropertyList("two"), PropertyList(true)});
  PropertyList req = request("echo", {{"nested", nested}, {"text", "caf\xc3\xa9 <&>"}});
  Client c(d->url());
  Reply r = c.command("echo", req, token);
  ASSERT_EQ(r.status, 200);
  ASSERT_TRUE(r.plist);
  EXPECT_EQ(*r.plist->get("nested"), nested);
  EXPECT_EQ(*r.plist->getString("text"), "caf\xc3\xa9 <&>");
  EXPECT_TRUE(r.plist->get("echoed")->boolValue());
  // The lock descriptor the host passes stays the same from request to request.
  long long fd = intAt(*r.plist, "lockFD");
  EXPECT_GE(fd, 0);
  EXPECT_EQ(intAt(*c.command("echo", req, token).plist, "lockFD"), fd);
}

// A plugin starts tools and long tasks as children: none may inherit a client's connection
// (which would then stay open after the daemon closed it) or any other descriptor of ours.
TEST_F(AdminhostdTest, ChildrenOfThePluginInheritNoDescriptor) {
  auto d = startEcho({"--idle-interval", "0.01"});
  Client c(d->url());
  Reply r = c.command("echo", request("inheritable"), readToken(sandbox_));
  ASSERT_EQ(r.status, 200);
  EXPECT_EQ(r.plist->get("fds")->size(), 0u) << r.body;
}

TEST_F(AdminhostdTest, RefusalsGetTheirStatusAndNeverReachThePlugin) {
  auto d = startEcho({"--max-body", "4096"});
  std::string token = readToken(sandbox_);
  std::string incr = writeXmlPlist(request("incr"));
  Client c(d->url());
  struct Row {
    const char* what;
    std::string path, body, token;
    int status;
  } rows[] = {
      {"no token", "/commands/echo", incr, "", 401},
      {"wrong token", "/commands/echo", incr, std::string(64, 'a'), 401},
      {"token prefix", "/commands/echo", incr, token.substr(0, 63), 401},
      {"token with more", "/commands/echo", incr, token + "0", 401},
      {"unknown plugin without token", "/commands/nosuch", incr, "", 401},
      {"unknown plugin", "/commands/nosuch", incr, token, 404},
      {"over the limit", "/commands/echo", std::string(5000, ' '), token, 413},
      {"not XML", "/commands/echo", "command=incr", token, 415},
      {"empty body", "/commands/echo", "", token, 415},
      {"plist array", "/commands/echo", writeXmlPlist(PlistArray{PropertyList("incr")}), token, 415},
      {"truncated plist", "/commands/echo", incr.substr(0, incr.size() / 2), token, 415},
  };
  for (const Row& row : rows) {
    Reply r = c.post(row.path, row.body, row.token);
    EXPECT_EQ(r.status, row.status) << row.what;
    EXPECT_EQ(r.body, "") << row.what;
  }
  Reply silent = c.command("echo", request("silent"), token);
  EXPECT_EQ(silent.status, 400);
  EXPECT_EQ(silent.body, "");
  EXPECT_EQ(c.command("echo", request("throw"), token).status, 500);
  // Only silent, throw and this getContext reached the plugin; no incr did.
  PropertyList ctx = context(c);
  EXPECT_EQ(intAt(ctx, "calls"), 3);
  EXPECT_EQ(ctx.get("counter"), nullptr);
  EXPECT_NE(d->logText().find("threw"), std::string::npos);
}

TEST_F(AdminhostdTest, DefaultBodyLimitIsSixteenMebibytes) {
  auto d = startEcho();
  std::string token = readToken(sandbox_);
  Client c(d->url());
  // Exactly at the limit the body is read (and isn't a plist); one byte more is refused unread.
  EXPECT_EQ(c.post("/commands/echo", std::string(16u << 20, ' '), token).status, 415);
  EXPECT_EQ(c.post("/commands/echo", std::string((16u << 20) + 1, ' '), token).status, 413);
  EXPECT_EQ(c.command("echo", request("echo"), token).status, 200);
}

// A chunked body has no length up front: it is dropped as it streams past the limit, and the
// connection still serves the next request.
TEST_F(AdminhostdTest, ChunkedBodyOverTheLimitIsRefusedAndTheConnectionGoesOn) {
  auto d = startEcho({"--max-body", "1000"});
  std::string token = readToken(sandbox_);
  UniqueFd s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(d->port()));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(s.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  auto exchange = [&](const std::string& req, std::string_view until) {
    EXPECT_EQ(::send(s.get(), req.data(), req.size(), MSG_NOSIGNAL), static_cast<ssize_t>(req.size()));
    std::string got;
    char buf[4096];
    while (got.find(until) == std::string::npos) {
      ssize_t n = ::recv(s.get(), buf, sizeof buf, 0);
      if (n <= 0) break;
      got.append(buf, static_cast<size_t>(n));
    }
    return got;
  };
  std::string chunk(600, ' ');
  std::string req = "POST /commands/echo HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + token +
                    "\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (int i = 0; i < 4; ++i) req += "258\r\n" + chunk + "\r\n";
  req += "0\r\n\r\n";
  std::string refused = exchange(req, "\r\n\r\n");
  EXPECT_EQ(refused.rfind("HTTP/1.1 413", 0), 0u) << refused;
  // One request at a time: the server library doesn't serve pipelined requests.
  std::string echo = writeXmlPlist(request("echo"));
  std::string answered = exchange("POST /commands/echo HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + token +
                                      "\r\nContent-Length: " + std::to_string(echo.size()) + "\r\n\r\n" + echo,
                                  "</plist>");
  EXPECT_EQ(answered.rfind("HTTP/1.1 200", 0), 0u) << answered;
}

TEST_F(AdminhostdTest, ConcurrentClientsEachGetTheirOwnAnswers) {
  auto d = startEcho();
  std::string token = readToken(sandbox_);
  constexpr int kClients = 6, kRounds = 40;
  std::atomic<int> wrong{0};
  std::vector<std::vector<long long>> counters(kClients);
  std::vector<std::thread> threads;
  for (int t = 0; t < kClients; ++t) {
    threads.emplace_back([&, t] {
      Client c(d->url());
      for (int i = 0; i < kRounds; ++i) {
        std::string id = std::to_string(t) + "/" + std::to_string(i);
        Reply e = c.command("echo", request("echo", {{"id", id}}), token);
        if (e.status != 200 || !e.plist || !e.plist->getString("id") || *e.plist->getString("id") != id) ++wrong;
        Reply n = c.command("echo", request("incr"), token);
        if (n.status != 200 || !n.plist) ++wrong;
        else counters[t].push_back(intAt(*n.plist, "counter"));
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
  std::set<long long> all;
  for (const auto& v : counters) all.insert(v.begin(), v.end());
  // Every increment saw its own value: the context was never raced.
  EXPECT_EQ(all.size(), static_cast<size_t>(kClients * kRounds));
  EXPECT_EQ(*all.begin(), 1);
  EXPECT_EQ(*all.rbegin(), kClients * kRounds);
}

TEST_F(AdminhostdTest, IdleTicksCountUpFromZero) {
  auto d = startEcho({"--idle-interval", "0.02"});
  Client c(d->url());
  PropertyList counts;
  for (int i = 0; i < kPollSteps && counts.size() < 5; ++i) {
    if (i) systemClock().sleepMicros(kPollStepMicros);
    PropertyList ctx = context(c);
    const PropertyList* v = ctx.get("idleCounts");
    counts = v ? *v : PropertyList();
  }
  ASSERT_GE(counts.size(), 5u);
  for (size_t i = 0; i < counts.size(); ++i) EXPECT_EQ((*counts.asArray())[i].int64Value(), static_cast<long long>(i));
  // Each tick set contextDirty, so the file follows.
  EXPECT_TRUE(savedContext().get("idleCounts"));
}

TEST_F(AdminhostdTest, TickOnlyChangesWaitForTheSaveIntervalAndACommandSavesAtOnce) {
  auto d = startEcho({"--idle-interval", "0.02", "--context-save-interval", "3600"});
  Client c(d->url());
  auto ticks = [](const PropertyList& ctx) {
    const PropertyList* v = ctx.get("idleCounts");
    return v ? v->size() : 0u;
  };
  for (int i = 0; i < kPollSteps && ticks(context(c)) < 5; ++i) systemClock().sleepMicros(kPollStepMicros);
  ASSERT_GE(ticks(context(c)), 5u);
  // The first tick was saved; the later ones wait for the interval.
  EXPECT_EQ(ticks(savedContext()), 1u);
  ASSERT_EQ(c.command("echo", request("incr"), readToken(sandbox_)).status, 200);
  EXPECT_GE(ticks(savedContext()), 5u);
  // Shutdown saves whatever the ticks changed since.
  std::size_t before = ticks(context(c));
  stopCleanly(*d);
  EXPECT_GE(ticks(savedContext()), before);
}

TEST_F(AdminhostdTest, ContextIsSavedWhenDirtyAndReloadedAfterARestart) {
  auto d = startEcho({"--idle-interval", "0"});
  std::string token = readToken(sandbox_);
  {
    Client c(d->url());
    for (int i = 0; i < 3; ++i) ASSERT_EQ(c.command("echo", request("incr"), token).status, 200);
  }
  // Saved when the plugin marked it, before the answer: a crash loses nothing answered.
  PropertyList saved = savedContext();
  EXPECT_EQ(intAt(saved, "counter"), 3);
  EXPECT_EQ(saved.get("contextDirty"), nullptr);
  d->signal(SIGKILL);
  d->waitExit();

  d = restartEcho({"--idle-interval", "0"});
  {
    Client c(d->url());
    EXPECT_EQ(intAt(context(c), "counter"), 3);
    ASSERT_EQ(c.command("echo", request("incr"), token).status, 200);
  }
  stopCleanly(*d);
  d = restartEcho({"--idle-interval", "0"});
  Client c(d->url());
  EXPECT_EQ(intAt(context(c), "counter"), 4);
  // The token made at the first start is kept.
  EXPECT_EQ(readToken(sandbox_), token);
}

TEST_F(AdminhostdTest, CorruptContextIsKeptAsideAndTheDaemonStartsEmpty) {
  std::string garbage = "<?xml version=\"1.0\"?><plist><dict><key>counter</key>";
  sandbox_.write("/var/adminhostd/context/echo.plist", garbage);
  auto d = startEcho({"--idle-interval", "0"});
  Client c(d->url());
  EXPECT_EQ(context(c).get("counter"), nullptr);
  std::vector<std::string> aside;
  for (const auto& e : std::filesystem::directory_iterator(sandbox_.path("/var/adminhostd/context")))
    if (e.path().filename().string().rfind("echo.plist.corrupt-", 0) == 0) aside.push_back(e.path().string());
  ASSERT_EQ(aside.size(), 1u);
  EXPECT_EQ(readFile(aside[0]).value_or(""), garbage);
  EXPECT_NE(d->logText().find("kept as"), std::string::npos) << d->logText();
}

TEST_F(AdminhostdTest, SigtermDuringABurstLosesNoAnsweredChange) {
  auto d = startEcho({"--idle-interval", "0"});
  std::string token = readToken(sandbox_);
  constexpr int kClients = 4;
  std::atomic<long long> highestAnswered{0};
  std::atomic<int> answered{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kClients; ++t) {
    threads.emplace_back([&] {
      Client c(d->url());
      for (;;) {
        Reply r = c.command("echo", request("incr"), token);
        if (r.status != 200 || !r.plist) return;  // the daemon has stopped serving
        long long v = intAt(*r.plist, "counter");
        long long seen = highestAnswered.load();
        while (v > seen && !highestAnswered.compare_exchange_weak(seen, v)) {
        }
        ++answered;
      }
    });
  }
  // Enough answers that the burst is well under way; each one waits for its save to reach disk.
  constexpr int kAnsweredBeforeStop = 50;
  for (int i = 0; i < 4 * kPollSteps && answered.load() < kAnsweredBeforeStop; ++i)
    systemClock().sleepMicros(kPollStepMicros / 4);
  d->signal(SIGTERM);
  for (auto& th : threads) th.join();
  std::optional<int> status = d->waitExit();
  ASSERT_TRUE(status);
  EXPECT_EQ(*status, 0);
  EXPECT_GE(answered.load(), kAnsweredBeforeStop);
  EXPECT_GE(intAt(savedContext(), "counter"), highestAnswered.load());
}

TEST_F(AdminhostdTest, SigtermLetsARunningRequestFinishAndSavesIt) {
  auto d = startEcho({"--idle-interval", "0"});
  std::string token = readToken(sandbox_);
  std::string fifo = sandbox_.root() + "/gate";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  Reply gated;
  std::thread client([&] {
    Client c(d->url());
    gated = c.command("echo", request("gate", {{"fifo", fifo}}), token);
  });
  // Opening the FIFO for writing succeeds only once the plugin has it open for reading, so from
  // here on the request is inside the plugin.
  UniqueFd w;
  for (int i = 0; i < kPollSteps && !w; ++i) {
    w.reset(::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!w) systemClock().sleepMicros(kPollStepMicros / 4);
  }
  ASSERT_TRUE(w);
  d->signal(SIGTERM);
  w.reset();  // lets the plugin return
  client.join();
  EXPECT_EQ(gated.status, 200);
  std::optional<int> status = d->waitExit();
  ASSERT_TRUE(status);
  EXPECT_EQ(*status, 0);
  EXPECT_EQ(intAt(savedContext(), "counter"), 1);
}

TEST_F(AdminhostdTest, SigintSavesAContextChangedWithoutTheDirtyFlag) {
  auto d = startEcho({"--idle-interval", "0"});
  {
    Client c(d->url());  // closed before the signal: an idle keep-alive connection delays the stop
    for (int i = 0; i < 3; ++i) ASSERT_EQ(c.command("echo", request("echo"), readToken(sandbox_)).status, 200);
  }
  EXPECT_EQ(intAt(savedContext(), "calls"), -1);  // echo never marks the context dirty
  d->signal(SIGINT);
  ASSERT_EQ(d->waitExit(), 0);
  EXPECT_EQ(intAt(savedContext(), "calls"), 3);
}

TEST_F(AdminhostdTest, EveryRequestIsLoggedWithCommandStatusAndTime) {
  auto d = startEcho({"--idle-interval", "0"});
  Client c(d->url());
  ASSERT_EQ(c.command("echo", request("echo"), readToken(sandbox_)).status, 200);
  ASSERT_EQ(c.command("echo", request("silent"), readToken(sandbox_)).status, 400);
  ASSERT_EQ(c.command("echo", request("echo"), "").status, 401);
  std::string log = d->logText();
  EXPECT_NE(log.find("POST /commands/echo echo 200 "), std::string::npos) << log;
  EXPECT_NE(log.find("POST /commands/echo silent 400 "), std::string::npos) << log;
  EXPECT_NE(log.find("POST /commands/echo - 401"), std::string::npos) << log;
  EXPECT_NE(log.find("no saved context"), std::string::npos) << log;
}

TEST_F(AdminhostdTest, RefusesAnAddressOtherThanLoopbackWithoutTls) {
  Daemon d(sandbox_, makePluginDir(sandbox_, {{"echo", echoPluginPath()}}), {"--listen", "0.0.0.0:0"});
  EXPECT_FALSE(d.start());
  EXPECT_EQ(d.waitExit(), 2);
  EXPECT_NE(d.stderrText().find("without TLS"), std::string::npos) << d.stderrText();
}

TEST_F(AdminhostdTest, SecondDaemonOnTheSameRootIsRefused) {
  auto first = startEcho({"--idle-interval", "0"});
  Daemon second(sandbox_, sandbox_.root() + "/plugins", {"--idle-interval", "0"});
  EXPECT_FALSE(second.start());
  EXPECT_EQ(second.waitExit(), 1);
  Client c(first->url());
  EXPECT_EQ(c.command("echo", request("echo"), readToken(sandbox_)).status, 200);
}

}  // namespace
}  // namespace velm::test
