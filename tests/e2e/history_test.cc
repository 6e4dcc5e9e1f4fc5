// History through the real daemon: rows kept across a clean stop and a crash of adminhostd, a
// damaged saved context, and, on the two-controller SAN, what an administrator sees through
// velmadmin as a volume's FSM runs and stops.
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <string>
#include <vector>

#include "e2e/two_controllers.h"
#include "platform/clock.h"
#include "platform/files.h"

namespace velm::test {
namespace {

constexpr int kPollStepMicros = 20'000;
constexpr int kPollSteps = 1500;  // 30 s at most
constexpr double kUnixOf2001 = 978307200.0;

long long intAt(const PropertyList& dict, std::string_view key) {
  const PropertyList* v = dict.get(key);
  return v && v->isNumber() ? v->int64Value().value_or(-1) : -1;
}

std::vector<PropertyList> samplesOf(const PropertyList& answer) {
  const PropertyList* s = answer.get("samplesArray");
  return s && s->asArray() ? *s->asArray() : std::vector<PropertyList>{};
}

std::vector<long long> timesOf(const std::vector<PropertyList>& samples) {
  std::vector<long long> times;
  for (const PropertyList& s : samples) times.push_back(intAt(s, "time"));
  return times;
}

// A client machine on fake counters: one Ethernet interface whose bytes the test moves, and a
// two-processor /proc/stat.
class HistoryPersistenceTest : public SandboxTest {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    std::string net = "/sys/class/net/eth0";
    sandbox_.write(net + "/ifindex", "2\n");
    sandbox_.write(net + "/address", "52:54:00:12:34:56\n");
    for (const char* c : {"tx_bytes", "rx_packets", "tx_packets"})
      sandbox_.write(net + "/statistics/" + c, "0\n");
    setReceived(1000);
    sandbox_.write("/proc/stat",
                   "cpu  200 0 200 1600 0 0 0 0 0 0\ncpu0 100 0 100 800 0 0 0 0 0 0\n"
                   "cpu1 100 0 100 800 0 0 0 0 0 0\n");
    sandbox_.write("/proc/self/mountinfo", "");
    ::setenv("VELM_SYSFS", sandbox_.path("/sys").c_str(), 1);
    ::setenv("VELM_PROCFS", sandbox_.path("/proc").c_str(), 1);
    plugins_ = makePluginDir(sandbox_, {{"velm", velmPluginPath()}});
  }
  void TearDown() override {
    ::unsetenv("VELM_SYSFS");
    ::unsetenv("VELM_PROCFS");
  }
  void setReceived(long long bytes) {
    writeFileAtomically(sandbox_.path("/sys/class/net/eth0/statistics/rx_bytes"),
                        std::to_string(bytes) + "\n");
  }
  std::unique_ptr<Daemon> start(const char* saveInterval = "1") {
    auto d = std::make_unique<Daemon>(
        sandbox_, plugins_,
        std::vector<std::string>{"--idle-interval", "0.1", "--context-save-interval",
                                 saveInterval});
    EXPECT_TRUE(d->start()) << d->stderrText() << d->logText();
    return d;
  }
  PropertyList history(Daemon& d) {
    Client c(d.url());
    Reply r = c.command("velm", request("getHistory", {{"identifier", PropertyList("system")}}),
                        readToken(sandbox_));
    EXPECT_EQ(r.status, 200) << r.body;
    return r.plist ? *r.plist : PropertyList::dict();
  }
  // Polls until the system table holds more than count rows; its samples.
  std::vector<PropertyList> rowsBeyond(Daemon& d, std::size_t count) {
    std::vector<PropertyList> rows;
    for (int i = 0; i < kPollSteps && rows.size() <= count; ++i) {
      if (i > 0) systemClock().sleepMicros(kPollStepMicros);
      rows = samplesOf(history(d));
    }
    return rows;
  }
  std::string contextPath() { return sandbox_.path("/var/adminhostd/context/velm.plist"); }
  PropertyList savedContext() {
    PlistReadResult r = readXmlPlistFile(contextPath());
    return r ? *r.value : PropertyList::dict();
  }

  std::string plugins_;
};

TEST_F(HistoryPersistenceTest, RowsSurviveARestartAndTheFirstRateCoversTheWholeGap) {
  std::vector<long long> before;
  {
    auto d = start();
    before = timesOf(rowsBeyond(*d, 3));
    ASSERT_GE(before.size(), 4u);
    d->signal(SIGTERM);
    ASSERT_EQ(d->waitExit(), 0) << d->logText();
  }
  // A long downtime: the saved sample times go back 100 s, and the interface moved meanwhile.
  PropertyList ctx = savedContext();
  ASSERT_TRUE(ctx.get("history")) << describe(ctx);
  for (const char* key : {"networkThroughputSampleTime", "cpuUsageSampleTime"}) {
    std::optional<PlistDate> when = ctx.get(key) ? ctx.get(key)->asDate() : std::nullopt;
    ASSERT_TRUE(when) << key;
    ctx.set(key, PropertyList(PlistDate{when->secondsSince2001 - 100.0}));
  }
  ASSERT_EQ(writeFileAtomically(contextPath(), writeXmlPlist(ctx)), 0);
  double lastSample = ctx.get("networkThroughputSampleTime")->asDate()->secondsSince2001;
  setReceived(1000 + 1'600'000);

  auto d = start();
  std::vector<PropertyList> after = rowsBeyond(*d, before.size());
  std::vector<long long> times = timesOf(after);
  // The earlier rows, then new ones.
  ASSERT_GT(times.size(), before.size());
  EXPECT_TRUE(std::equal(before.begin(), before.end(), times.begin()));
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
  // The first new row's input rate divides by the whole gap since the last sample.
  const PropertyList& first = after[before.size()];
  double gap = static_cast<double>(first.get("time")->int64Value().value_or(0)) -
               (lastSample + kUnixOf2001);
  ASSERT_GT(gap, 99.0);
  long long input = intAt(first, "v5");
  EXPECT_GE(input, static_cast<long long>(1'600'000 / (gap + 2)));
  EXPECT_LE(input, static_cast<long long>(1'600'000 / (gap - 1)));
}

TEST_F(HistoryPersistenceTest, ACrashLosesAtMostTheLastSaveInterval) {
  auto d = start("1");
  std::vector<long long> times = timesOf(rowsBeyond(*d, 25));
  ASSERT_GT(times.size(), 25u);
  d->signal(SIGKILL);
  d->waitExit();
  long long newest = times.back();

  auto again = start("1");
  std::vector<long long> kept = timesOf(samplesOf(history(*again)));
  // The rows that came back are the earlier ones up to a save at most a second (and a tick)
  // before the kill; the new daemon's rows follow them.
  auto common = std::mismatch(kept.begin(), kept.end(), times.begin(), times.end());
  ASSERT_NE(common.first, kept.begin());
  EXPECT_GE(*(common.first - 1), newest - 2)
      << ::testing::PrintToString(times) << "\n" << ::testing::PrintToString(kept);
  EXPECT_TRUE(std::is_sorted(kept.begin(), kept.end()));
}

TEST_F(HistoryPersistenceTest, ADamagedContextIsRepairedEntryByEntry) {
  PropertyList ctx = PropertyList::dict();
  ctx.set("history", "not a table");
  ctx.set("history_Projects", PropertyList(PlistData(40, 0x41)));  // truncated
  ctx.set("NICs", PlistArray{PropertyList("eth0"), PropertyList(7)});
  ctx.set("cpuUsageStore", "wrong type");
  ctx.set("networkThroughputStore", PlistArray{});
  ctx.set("FSMStore_Projects", 12);
  ctx.set("somethingElse", "kept");
  sandbox_.write("/var/adminhostd/context/velm.plist", writeXmlPlist(ctx));

  auto d = start();
  std::vector<PropertyList> rows = rowsBeyond(*d, 2);
  ASSERT_GE(rows.size(), 3u) << d->logText();
  EXPECT_NE(d->logText().find("the table 'history' is damaged"), std::string::npos);
  d->signal(SIGTERM);
  ASSERT_EQ(d->waitExit(), 0) << d->logText();
  PropertyList saved = savedContext();
  EXPECT_EQ(*saved.getString("somethingElse"), "kept");
  EXPECT_TRUE(saved.get("history")->asData());
  const PropertyList* nics = saved.get("NICs");
  ASSERT_TRUE(nics && nics->asArray());
  EXPECT_TRUE(std::all_of(nics->asArray()->begin(), nics->asArray()->end(),
                          [](const PropertyList& n) { return n.isDict(); }));
}

// The demo's SAN with idle ticks, and Projects' stand-in FSM burning a fifth of a CPU in 32 MiB.
class HistoryOnTwoControllersTest : public VelmadminOnTwoControllersTest {
 protected:
  std::string idleInterval() const override { return "0.5"; }
  std::string projectsFsmKeys() const override {
    return "<key>cpuLoad</key><integer>20</integer>"
           "<key>residentBytes</key><integer>33554432</integer>";
  }
  std::vector<PropertyList> rows(const char* identifier) {
    return samplesOf(velmadmin(a_, "getHistory", {{"identifier", PropertyList(identifier)}}));
  }
  PropertyList health() {
    PropertyList props = velmadmin(a_, "getComputerProperties");
    const PropertyList* h = props.get("clientHealth");
    return h ? *h : PropertyList::dict();
  }
};

TEST_F(HistoryOnTwoControllersTest, VolumeFiguresFollowTheFsmAndStopAtZero) {
  ASSERT_EQ(status(setState(a_, "START")), 0);
  // Six rows taken while the FSM ran.
  std::vector<PropertyList> running;
  for (int i = 0; i < kPollSteps; ++i) {
    std::vector<PropertyList> all = rows("volumeHistory:Projects");
    running.clear();
    for (const PropertyList& r : all)
      if (intAt(r, "v2") > 0) running.push_back(r);
    if (running.size() >= 6) break;
    systemClock().sleepMicros(kPollStepMicros);
  }
  ASSERT_GE(running.size(), 6u);

  PropertyList info = velmadmin(a_, "getHistoryInfo");
  std::vector<std::string> tables;
  for (const PropertyList& t : *info.get("historyInfo")->asArray())
    tables.push_back(*t.getString("identifier"));
  EXPECT_NE(std::find(tables.begin(), tables.end(), "system"), tables.end());
  EXPECT_NE(std::find(tables.begin(), tables.end(), "volumeHistory:Projects"), tables.end());
  PropertyList system = rows("system").back();
  for (const char* column : {"v1", "v3", "v5", "v7"})
    EXPECT_TRUE(system.get(column) && system.get(column)->isNumber()) << column;

  // CPU in hundredths of a percent: about 2000 over the last ticks; resident at least 32 MiB.
  std::vector<long long> cpu;
  for (auto it = running.end() - 4; it != running.end(); ++it) cpu.push_back(intAt(*it, "v1"));
  long long mean = std::accumulate(cpu.begin(), cpu.end(), 0LL) / 4;
  EXPECT_GE(mean, 1000);
  EXPECT_LE(mean, 3000);
  EXPECT_GE(intAt(running.back(), "v2"), 32LL << 20);
  EXPECT_LE(intAt(running.back(), "v2"), 160LL << 20);
  EXPECT_TRUE(health().get("fsmRunning_Projects")->boolValue());

  long long stoppedAt = intAt(running.back(), "time");
  ASSERT_EQ(status(velmadmin(a_, "setVolumeState",
                             {{"name", PropertyList("Projects")}, {"state", PropertyList("STOP")}})),
            0);
  PropertyList last;
  for (int i = 0; i < kPollSteps; ++i) {
    last = rows("volumeHistory:Projects").back();
    if (intAt(last, "time") > stoppedAt + 1 && intAt(last, "v2") == 0) break;
    systemClock().sleepMicros(kPollStepMicros);
  }
  EXPECT_EQ(intAt(last, "v1"), 0);
  EXPECT_EQ(intAt(last, "v2"), 0);
  EXPECT_EQ(intAt(last, "v3"), 0);
  EXPECT_FALSE(health().get("fsmRunning_Projects")->boolValue());

  a_.root.write("/Library/Filesystems/Velm/config/notifications.plist",
                "<plist version=\"1.0\"><dict/></plist>\n");
  EXPECT_TRUE(health().get("configParsable_notifications.plist")->boolValue());
  a_.root.write("/Library/Filesystems/Velm/config/notifications.plist", "<plist><dict><key>");
  EXPECT_FALSE(health().get("configParsable_notifications.plist")->boolValue());
}

}  // namespace
}  // namespace velm::test
