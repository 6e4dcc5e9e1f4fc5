// FSM requests against the stand-in FSM (velm-simpm) over loopback, and against small scripted
// peers for what the stand-in never does: short replies, failing memory, whether a request waits
// with a limit.
#include "adminlib/fsm_requests.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "adminlib/adminlib.h"
#include "adminlib/adminlib_test_helpers.h"
#include "adminlib/wire.h"
#include "platform/clock.h"
#include "platform/unique_fd.h"

namespace velm::test {
namespace {

const char kVol1[] =
    "<dict><key>name</key><string>vol1</string><key>capabilities</key><integer>7</integer>\n"
    "<key>statistics</key><dict><key>flags</key><integer>4109</integer>"  // bits 0 2 3 12
    "<key>blockSize</key><integer>4096</integer><key>totalBlocks</key><integer>8589934593</integer>"
    "<key>freeBlocks</key><integer>1234</integer><key>createTime</key>"
    "<integer>1700000000123456</integer><key>msgBufSize</key><integer>65536</integer></dict>\n"
    "<key>stripeGroups</key><array>"
    "<dict><key>name</key><string>MetaFiles</string><key>flags</key><integer>13</integer>"
    "<key>totalBlocks</key><integer>1000</integer><key>reservedBlocks</key><integer>10</integer>"
    "<key>freeBlocks</key><integer>900</integer><key>affinity</key><integer>4294967303</integer>"
    "<key>devices</key><integer>2</integer><key>setting</key><integer>77</integer>"
    "<key>multipath</key><integer>2</integer><key>breadth</key><integer>64</integer>"
    "<key>nativeKey</key><integer>9</integer>"
    "<key>nativeKeys</key><array><integer>1</integer><integer>2</integer><integer>3</integer>"
    "<integer>4</integer></array></dict>"
    "<dict><key>name</key><string>Data</string></dict></array>\n"
    "<key>devices</key><array><dict><key>values</key><array><integer>5000000000</integer>"
    "<integer>6</integer></array><key>words</key><array><integer>1</integer><integer>2</integer>"
    "<integer>3</integer><integer>4</integer></array><key>texts</key><array><string>disk0</string>"
    "<string>serial0</string><string>/dev/sdz</string></array></dict></array>\n"
    "<key>clients</key><array>"
    "<dict><key>index</key><integer>0</integer><key>flags</key><integer>0</integer></dict>"
    "<dict><key>index</key><integer>1</integer><key>address</key><string>10.0.0.7</string>"
    "<key>type</key><integer>2</integer><key>uptime</key><integer>99</integer>"
    "<key>text</key><string>client one</string></dict>"
    "<dict><key>index</key><integer>3</integer><key>flags</key><integer>1</integer>"
    "<key>address</key><string>10.0.0.9</string></dict></array>\n"
    "<key>userQuotas</key><array>"
    "<dict><key>name</key><string>bob</string><key>hardLimit</key><integer>100</integer>"
    "<key>softLimit</key><integer>80</integer><key>used</key><integer>5</integer>"
    "<key>timeLimit</key><integer>60</integer><key>timeRemaining</key><integer>30</integer></dict>"
    "<dict><key>name</key><string></string><key>status</key><integer>0</integer></dict>"
    "<dict><key>name</key><string>alice</string><key>used</key><integer>7</integer></dict>"
    "</array>\n"
    "<key>groupQuotas</key><array><dict><key>name</key><string>staff</string>"
    "<key>hardLimit</key><integer>1</integer></dict></array>\n"
    "<key>debug</key><integer>3</integer><key>brls</key><integer>1</integer>"
    "<key>lockMeter</key><array><integer>11</integer><integer>22</integer></array>\n"
    "<key>qos</key><array><array><integer>1</integer><integer>2</integer><integer>3</integer>"
    "<integer>4</integer><integer>5</integer><integer>6</integer><integer>7</integer>"
    "<integer>8</integer><integer>9</integer><integer>10</integer></array></array>\n"
    "<key>proxyServers</key><array>"
    "<dict><key>address1</key><string>10.0.0.30</string><key>address2</key>"
    "<string>10.1.0.30</string><key>words</key><array><integer>1</integer><integer>2</integer>"
    "<integer>3</integer><integer>4</integer><integer>5</integer><integer>6</integer>"
    "<integer>7</integer><integer>8</integer><integer>9</integer></array></dict>"
    "<dict><key>address1</key><string>10.0.0.10</string><key>address2</key>"
    "<string>10.1.0.10</string></dict>"
    "<dict><key>address1</key><string>10.0.0.20</string><key>address2</key>"
    "<string>10.1.0.20</string></dict></array>\n"
    "<key>proxyListChanges</key><integer>1</integer>\n"
    "<key>openFileReport</key><string>/var/run/vol1.openfiles</string>\n"
    "</dict>\n";

std::string qosClients(int n) {
  std::string s = "<key>qosClients</key><array>";
  for (int i = 0; i < n; ++i) {
    s += "<array>";
    for (int w : {i, 0, 0, (i % 3 == 0) ? 4 : 1, 100 + i})
      s += "<integer>" + std::to_string(w) + "</integer>";
    s += "</array>";
  }
  return s + "</array>";
}

class FsmRequestsTest : public AdminlibTest {
 protected:
  void SetUp() override {
    AdminlibTest::SetUp();
    if (::access(SimPmProcess::path().c_str(), X_OK) != 0) GTEST_SKIP() << "velm-simpm not built";
    int port = freeLoopbackPort();
    std::string fsports = "altpmap " + std::to_string(port) + "\n";
    writeDrfs("config/fsports", fsports);
    sandbox_.write("/sim/Library/Filesystems/Velm/config/fsports", fsports);
    AltGetportResetForTest();
  }
  void TearDown() override {
    fds_.clear();
    if (sim_) {
      int status = sim_->stop();
      EXPECT_EQ(status, 0) << "status " << status;
    }
    AdminlibTest::TearDown();
  }
  // Starts the stand-in with vol1 and the given further fsms entries.
  bool startSim(const std::string& moreFsms = "") {
    sandbox_.write("/sim/simpm.plist",
                   "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                   "<key>fsms</key><array>\n" +
                       std::string(kVol1) + moreFsms + "</array>\n</dict>\n</plist>\n");
    sim_ = std::make_unique<SimPmProcess>();
    bool ok = sim_->start({"--root", sandbox_.path("/sim"), "--listen", "127.0.0.1"});
    EXPECT_TRUE(ok) << sim_->stderrText();
    AuthenticationInit();
    return ok;
  }
  int connect(const char* name, std::uint32_t* caps = nullptr) {
    char err[ADMIN_ERRBUF_LEN] = {};
    std::uint32_t c = 0;
    int fd = FsmGetSocket("localhost", name, 0, err, 1, &c);
    EXPECT_GE(fd, 0) << err;
    if (caps) *caps = c;
    fds_.emplace_back(fd);
    return fd;
  }

  std::unique_ptr<SimPmProcess> sim_;
  std::vector<UniqueFd> fds_;
};

TEST_F(FsmRequestsTest, StatisticsAndStripeGroupsInBothForms) {
  ASSERT_TRUE(startSim(
      "<dict><key>name</key><string>old</string><key>unknownTypes</key><array>"
      "<integer>18</integer></array><key>stripeGroups</key><array><dict><key>name</key>"
      "<string>G</string><key>reservedBlocks</key><integer>10</integer><key>freeBlocks</key>"
      "<integer>5</integer><key>breadth</key><integer>8</integer></dict></array></dict>\n"));
  int s = connect("vol1");
  FsmFsStatRec st{};
  int err = -5;
  ASSERT_EQ(FsmFsStat(s, &st, &err), 0);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(st.flags, 4109 | kFsStatQuotas);
  EXPECT_EQ(st.clients, 2);  // slot 0 is listed but not in use
  EXPECT_EQ(st.stripeGroups, 2);
  EXPECT_EQ(st.devices, 1);
  EXPECT_EQ(st.blockSize, 4096u);
  EXPECT_EQ(st.msgBufSize, 65536u);
  EXPECT_EQ(st.createTimeUs, 1700000000123456ull);
  EXPECT_EQ(st.totalBlocks, 8589934593ull);  // high word first
  EXPECT_EQ(st.freeBlocks, 1234u);

  FsmPartitionRec g{};
  ASSERT_EQ(FsmGetPartition(s, 0, &g, &st, &err), 0);
  EXPECT_STREQ(g.name, "MetaFiles");
  EXPECT_EQ(g.flags, 13u);
  EXPECT_EQ(g.totalBlocks, 1000u);
  EXPECT_EQ(g.reservedBlocks, 10u);
  EXPECT_EQ(g.freeBlocks, 900u);
  EXPECT_EQ(static_cast<std::uint32_t>(g.affinity), 7u);
  EXPECT_EQ(g.devices, 2u);
  EXPECT_EQ(g.setting, 77u);
  EXPECT_EQ(g.multipath, 2);
  EXPECT_EQ(g.breadth, 64u);
  EXPECT_EQ(g.nativeKey, 9u);
  EXPECT_EQ(FsmGetPartition(s, 5, &g, &st, &err), -1);
  EXPECT_EQ(err, ENOENT);

  // An FSM without the newer record says so in its flags, and gets the older request.
  int o = connect("old");
  ASSERT_EQ(FsmFsStat(o, &st, &err), 0);
  EXPECT_EQ(st.flags & kFsStatNewPartition, 0);
  ASSERT_EQ(FsmGetPartition(o, 0, &g, &st, &err), 0);
  EXPECT_STREQ(g.name, "G");
  EXPECT_EQ(g.reservedBlocks, 0u);
  EXPECT_EQ(g.freeBlocks, 5u);
  EXPECT_EQ(g.breadth, 8u);
  // Asked the newer form anyway, it answers as an older peer.
  st.flags |= kFsStatNewPartition;
  EXPECT_EQ(FsmGetPartition(o, 0, &g, &st, &err), -1);
  EXPECT_EQ(err, 1);
}

TEST_F(FsmRequestsTest, StripeGroupCommandsChangeTheFsm) {
  ASSERT_TRUE(startSim());
  int s = connect("vol1");
  FsmFsStatRec st{};
  FsmPartitionRec g{};
  int err = 0;
  ASSERT_EQ(FsmFsStat(s, &st, &err), 0);
  ASSERT_EQ(FSMModifyPartition(s, 1, 2, 5, 3, &err), 0) << err;
  // Seen on another connection to the same FSM.
  int t = connect("vol1");
  ASSERT_EQ(FsmGetPartition(t, 1, &g, &st, &err), 0);
  EXPECT_EQ(g.flags & (kPartUp | kPartDown), kPartDown);
  EXPECT_EQ(g.setting, 5u);
  EXPECT_EQ(g.multipath, 3);
  ASSERT_EQ(FSMModifyPartition(s, 1, 1, 5, 3, &err), 0);
  ASSERT_EQ(FsmGetPartition(s, 1, &g, &st, &err), 0);
  EXPECT_EQ(g.flags & (kPartUp | kPartDown), kPartUp);
  EXPECT_EQ(FSMModifyPartition(s, 1, 9, 0, 0, &err), -1);
  EXPECT_EQ(err, EINVAL);

  FsmNativeKeyPair* keys = nullptr;
  ASSERT_EQ(FsmGetPartitionNativeKeys(s, 0, &keys, &err), 2);
  ASSERT_NE(keys, nullptr);
  EXPECT_EQ(keys[0].word[0], 1u);  // as they stand: the stand-in runs on this host
  EXPECT_EQ(keys[1].word[1], 4u);
  FreeMemory(keys);
  EXPECT_EQ(FsmGetPartitionNativeKeys(s, 1, &keys, &err), 0);
  EXPECT_EQ(keys, nullptr);

  FsmDeviceRec d{};
  ASSERT_EQ(FsmGetDevice(s, 0, &d, &err), 0);
  EXPECT_EQ(d.value24, 5000000000ull);
  EXPECT_EQ(d.value32, 6u);
  EXPECT_EQ(d.word52, 4u);
  EXPECT_STREQ(d.text56, "disk0");
  EXPECT_STREQ(d.text312, "serial0");
  EXPECT_STREQ(d.text568, "/dev/sdz");
  EXPECT_EQ(FsmGetDevice(s, 1, &d, &err), -1);
  EXPECT_EQ(err, ENOENT);
}

TEST_F(FsmRequestsTest, ReportsSettingsAndCommands) {
  ASSERT_TRUE(startSim(
      "<dict><key>name</key><string>stuck</string><key>debugReadOnly</key><true/></dict>\n"));
  int s = connect("vol1");
  char text[ADMIN_ERRBUF_LEN] = {};
  int err = 0;
  std::uint32_t w = 0, w2 = 0;
  ASSERT_EQ(FsmGenOpenFileReport(s, text, &err), 0);
  EXPECT_STREQ(text, "/var/run/vol1.openfiles");
  ASSERT_EQ(FsmGenReport(s, 42, text, &err), 0);
  EXPECT_STREQ(text, "report 42");
  ASSERT_EQ(FsmDebug(s, 0, 0, &w, text, &err), 0);
  EXPECT_EQ(w, 3u);
  ASSERT_EQ(FsmDebug(s, 1, 0x20, &w, text, &err), 0);
  ASSERT_EQ(FsmDebug(s, 0, 0, &w, text, &err), 0);
  EXPECT_EQ(w, 0x20u);
  int t = connect("stuck");
  EXPECT_EQ(FsmDebug(t, 1, 0x20, &w, text, &err), -1);
  EXPECT_EQ(err, ENOSYS);
  EXPECT_EQ(w, 0u);
  ASSERT_EQ(FsmBrls(s, 0, 0, &w, &err), 0);
  EXPECT_EQ(w, 1u);
  ASSERT_EQ(FsmLockMeter(s, 0, 0, &w, &w2, text, &err), 0);
  EXPECT_EQ(w, 11u);  // from offset 28
  EXPECT_EQ(w2, 22u);
  FsmQosRec q{};
  ASSERT_EQ(FsmGetQos(s, 0, &q, &err), 0);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(q.word[i], static_cast<std::uint32_t>(i + 1));
  EXPECT_EQ(FsmGetQos(s, 1, &q, &err), -1);

  ASSERT_EQ(FsmRollRJCmd(s, &w, &err), 0);
  ASSERT_EQ(FsmRollRJCmd(s, &w, &err), 0);
  EXPECT_EQ(w, 2u);
  EXPECT_EQ(FsmStopRJCmd(s, &err), 0);
  EXPECT_EQ(FsmSuspendCreates(s, 513), 0);
  EXPECT_EQ(FsmResetRPL(s), 0);
  EXPECT_TRUE(sim_->waitForText("fsm 'vol1': suspend creates 513"));
  EXPECT_TRUE(sim_->waitForText("fsm 'vol1': RPL reset"));

  EXPECT_EQ(FsmStartIoTest(s, 0, 1, 3, text), -1);
  EXPECT_STREQ(text, "FSM does not support I/O testing");
  for (auto [asked, sent] : std::map<int, int>{{0, 2}, {-4, 2}, {11, 10}, {7, 7}}) {
    ASSERT_EQ(FsmStartIoTest(s, kFsmCapIoTest, 5, asked, text), 0);
    EXPECT_TRUE(sim_->waitForText("I/O test word 5 count " + std::to_string(sent)));
  }
}

TEST_F(FsmRequestsTest, QuotaWalksGetsAndSets) {
  ASSERT_TRUE(
      startSim("<dict><key>name</key><string>noquota</string><key>quotasEnabled</key>"
               "<false/><key>userQuotas</key><array><dict><key>name</key>"
               "<string>x</string></dict></array></dict>\n"));
  int s = connect("vol1");
  char name[kQuotaNameLen] = "";
  std::uint64_t hard = 0, soft = 0, used = 0;
  std::uint32_t limit = 0, remaining = 0;
  int found = 0, err = 0;
  std::vector<std::string> walk;
  std::vector<std::uint64_t> usedSeen;
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(
        FsmQuotaRec(s, kQuotaNextUser, name, &hard, &soft, &limit, &remaining, &used, &found, &err),
        0);
    if (!found) break;
    walk.push_back(name);
    usedSeen.push_back(used);
    // The entry without a name is where the facade puts "????" (and reports 22); the walk goes
    // on from that cursor.
    if (!name[0]) std::strcpy(name, "????");
  }
  EXPECT_EQ(walk, (std::vector<std::string>{"", "alice", "bob"}));
  EXPECT_EQ(usedSeen.back(), 5u);
  EXPECT_EQ(hard, 100u);
  EXPECT_EQ(soft, 80u);
  EXPECT_EQ(limit, 60u);
  EXPECT_EQ(remaining, 30u);
  // The end leaves every field and the cursor as they were (the facade's 6).
  EXPECT_STREQ(name, "bob");
  EXPECT_EQ(err, 0);

  std::strcpy(name, "");
  ASSERT_EQ(
      FsmQuotaRec(s, kQuotaNextGroup, name, &hard, &soft, &limit, &remaining, &used, &found, &err),
      0);
  EXPECT_TRUE(found);
  EXPECT_STREQ(name, "staff");

  std::strcpy(name, "carol");
  hard = 1000, soft = 900, limit = 15;
  ASSERT_EQ(
      FsmQuotaRec(s, kQuotaSetUser, name, &hard, &soft, &limit, &remaining, &used, &found, &err),
      0);
  EXPECT_TRUE(found);
  hard = soft = 0;
  ASSERT_EQ(
      FsmQuotaRec(s, kQuotaGetUser, name, &hard, &soft, &limit, &remaining, &used, &found, &err),
      0);
  EXPECT_TRUE(found);
  EXPECT_EQ(hard, 1000u);
  EXPECT_EQ(soft, 900u);
  EXPECT_EQ(limit, 15u);
  std::strcpy(name, "nobody");
  ASSERT_EQ(
      FsmQuotaRec(s, kQuotaGetGroup, name, &hard, &soft, &limit, &remaining, &used, &found, &err),
      0);
  EXPECT_FALSE(found);
  EXPECT_EQ(hard, 1000u);

  std::uint32_t w = 9;
  char text[ADMIN_ERRBUF_LEN];
  ASSERT_EQ(FsmQuotaCmd(s, kQuotaCmdRebuild, &w, nullptr, &err), 0);
  EXPECT_EQ(err, 0);
  ASSERT_EQ(FsmQuotaCmd(s, 7, &w, text, &err), 0);
  EXPECT_EQ(err, EINVAL);  // the FSM's own error word
  EXPECT_STREQ(text, "Quota command refused");

  // Quotas off: a walk ends at once, and the statistics lose the quota flag.
  ASSERT_EQ(FsmQuotas(s, 1, 0, &w, text, &err), 0);
  EXPECT_EQ(w, 0u);
  FsmFsStatRec st{};
  ASSERT_EQ(FsmFsStat(s, &st, &err), 0);
  EXPECT_EQ(st.flags & kFsStatQuotas, 0);
  name[0] = '\0';
  ASSERT_EQ(
      FsmQuotaRec(s, kQuotaNextUser, name, &hard, &soft, &limit, &remaining, &used, &found, &err),
      0);
  EXPECT_FALSE(found);
  int t = connect("noquota");
  ASSERT_EQ(FsmQuotas(t, 0, 0, &w, text, &err), 0);
  EXPECT_EQ(w, 0u);
  EXPECT_STREQ(text, "Quotas are disabled");
}

TEST_F(FsmRequestsTest, ClientListsInBothForms) {
  ASSERT_TRUE(startSim(
      "<dict><key>name</key><string>old</string><key>capabilities</key><integer>7</integer>"
      "<key>unknownTypes</key><array><integer>22</integer></array><key>clients</key><array>"
      "<dict><key>index</key><integer>0</integer><key>flags</key><integer>0</integer></dict>"
      "<dict><key>index</key><integer>2</integer><key>address</key><string>10.0.0.8</string>"
      "<key>uptime</key><integer>5</integer></dict></array></dict>\n"
      "<dict><key>name</key><string>lonely</string><key>clients</key><array><dict>"
      "<key>flags</key><integer>0</integer></dict></array></dict>\n"));
  char text[ADMIN_ERRBUF_LEN] = {};
  std::uint32_t caps = 0;
  int s = connect("vol1", &caps);
  WhoRD* recs = nullptr;
  ASSERT_EQ(FsmWho(s, caps, &recs, text), 3) << text;
  EXPECT_EQ(recs[0].index, 0u);  // slot 0 even though free
  EXPECT_EQ(recs[1].index, 1u);
  EXPECT_EQ(recs[2].index, 3u);  // slot 2 is free and skipped
  EXPECT_EQ(recs[1].type, 2u);
  EXPECT_EQ(recs[1].uptime, 99u);
  EXPECT_STREQ(recs[1].text, "client one");
  struct in6_addr a;
  std::memcpy(&a, recs[1].addr2, 16);
  char ip[kRawIpLen];
  EXPECT_STREQ(RawIp(&a, ip, sizeof ip), "10.0.0.7");
  FreeMemory(recs);

  WhoRD one{};
  ASSERT_EQ(FsmOneWho(s, caps, 3, &one, text), 0);
  std::memcpy(&a, one.addr2, 16);
  EXPECT_STREQ(RawIp(&a, ip, sizeof ip), "10.0.0.9");
  EXPECT_EQ(FsmOneWho(s, caps, 2, &one, text), -1);
  EXPECT_STREQ(text, "Who failed - no such client");
  EXPECT_EQ(FsmOneWho(s, caps, 9, &one, text), -1);
  EXPECT_STREQ(text, "Who failed - [errno 2]: No such file or directory");

  // The older FSM clears the capability bit; its short records become full ones.
  int o = connect("old", &caps);
  EXPECT_EQ(caps & kFsmCapNewWho, 0u);
  ASSERT_EQ(FsmWho(o, caps, &recs, text), 2) << text;
  EXPECT_EQ(recs[1].index, 2u);
  EXPECT_EQ(recs[1].uptime, 5u);
  std::memcpy(&a, recs[1].addr2, 16);
  EXPECT_STREQ(RawIp(&a, ip, sizeof ip), "10.0.0.8");
  EXPECT_EQ(recs[0].addr2[10], 0);  // a zero IPv4 address stays zero, not mapped
  FreeMemory(recs);
  ASSERT_EQ(FsmOneWho(o, caps, 2, &one, text), 0);
  EXPECT_EQ(one.uptime, 5u);
  EXPECT_EQ(FsmOneWho(o, caps, 1, &one, text), -1);
  EXPECT_STREQ(text, "Who failed - no such client");
  // Forcing the newer request on it fails as an unknown request would.
  EXPECT_EQ(FsmWho(o, kFsmCapNewWho, &recs, text), -1);
  EXPECT_STREQ(text, "Who failed - [errno 1]: Operation not permitted");

  int l = connect("lonely", &caps);
  ASSERT_EQ(FsmWho(l, caps, &recs, text), 1);
  FreeMemory(recs);
}

TEST_F(FsmRequestsTest, BandwidthPagesAndProxyServers) {
  ASSERT_TRUE(
      startSim("<dict><key>name</key><string>busy</string>" + qosClients(70) + "</dict>\n"));
  int b = connect("busy");
  FsmQosStatRec* recs = nullptr;
  int count = -1, err = 0;
  ASSERT_EQ(FsmGetQosStat(b, 7, &recs, &count, &err), 0);
  ASSERT_EQ(count, 24);  // every third of 70 has the flag value 4, across three pages
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(recs[i].word0, static_cast<std::uint32_t>(3 * i));
    EXPECT_EQ(recs[i].word4, static_cast<std::uint32_t>(100 + 3 * i));
  }
  FreeMemory(recs);

  int s = connect("vol1");
  ListHdr list;
  InitHdr(&list);
  // The list changes once during the walk: it starts over, no node twice, sorted by address.
  ASSERT_EQ(FsmGetProxySrvAt(s, &list), 0);
  std::vector<std::string> order;
  int pair = FpSetMarker(&list);
  while (void* o = FpIterate(&list, pair)) {
    auto* srv = static_cast<FsmProxySrv*>(o);
    char ip[kRawIpLen];
    order.push_back(RawIp(&srv->addr1, ip, sizeof ip));
    if (order.back() == "10.0.0.30") {
      EXPECT_EQ(srv->word[0], 1u);
      EXPECT_EQ(srv->word2[0], 4u);
      EXPECT_EQ(srv->word2[5], 9u);
    }
  }
  FpClearMarker(&list, pair);
  EXPECT_EQ(order, (std::vector<std::string>{"10.0.0.10", "10.0.0.20", "10.0.0.30"}));
  FreeAllSrvAddr(&list);
  EXPECT_EQ(FpFirstNode(&list), nullptr);
}

// ---- Scripted peers ----

// Answers each request with the reply that reply(type, request) gives (empty: close).
LoopbackPeer scriptedFsm(std::function<Bytes(std::uint8_t, const Bytes&)> reply) {
  return LoopbackPeer([reply](int fd) {
    while (true) {
      Bytes head = readBytes(fd, kFrameHeaderLen);
      if (head.size() < kFrameHeaderLen) return;
      Bytes rest = readBytes(fd, get_be24(head.data() + kFhLength) - kFrameHeaderLen);
      head.insert(head.end(), rest.begin(), rest.end());
      Bytes out = reply(head[kFhType], head);
      if (out.empty() || !writeBytes(fd, out)) return;
    }
  });
}

Bytes frameOf(std::size_t len, std::uint8_t status = 0, std::uint16_t error = 0) {
  Bytes b(len, 0);
  std::memcpy(b.data(), kFrameMagic, sizeof kFrameMagic);
  put_be24(b.data() + kFhLength, static_cast<std::uint32_t>(len));
  b[kFhStatus] = status;
  put_be16(b.data() + kFhError, error);
  return b;
}

int connectTo(int port) {
  struct in6_addr a;
  AddrSetLoopback4(&a);
  int err = 0;
  return SockConnect(&a, port, &err);
}

TEST_F(AdminlibTest, FsmShortRepliesAreRefused) {
  LoopbackPeer peer = scriptedFsm([](std::uint8_t type, const Bytes&) {
    if (type == kFsmTypeFsStat) return frameOf(40);  // statistics end at 96
    if (type == kFsmTypeNativeKeys) {
      Bytes b = frameOf(40);
      put_be32(b.data() + 24, 5);  // five pairs announced, one carried
      return b;
    }
    if (type == kFsmTypeQuotaRec) {
      Bytes b = frameOf(30);
      put_be32(b.data() + 24, 1);  // an entry, but no fields
      return b;
    }
    if (type == kFsmTypeOpenFileReport) return frameOf(24, 1, 0);  // failed, no error number
    return frameOf(24);
  });
  UniqueFd s(connectTo(peer.port()));
  ASSERT_TRUE(s.valid());
  int err = 0;
  FsmFsStatRec st{};
  EXPECT_EQ(FsmFsStat(s.get(), &st, &err), -1);
  EXPECT_EQ(err, EINVAL);
  FsmNativeKeyPair* keys = nullptr;
  EXPECT_EQ(FsmGetPartitionNativeKeys(s.get(), 0, &keys, &err), -1);
  EXPECT_EQ(err, EINVAL);
  char name[kQuotaNameLen] = "keep";
  std::uint64_t hard = 3;
  int found = 0;
  EXPECT_EQ(FsmQuotaRec(s.get(), kQuotaGetUser, name, &hard, nullptr, nullptr, nullptr, nullptr,
                        &found, &err),
            -1);
  EXPECT_STREQ(name, "keep");
  EXPECT_EQ(hard, 3u);
  char text[ADMIN_ERRBUF_LEN];
  EXPECT_EQ(FsmGenOpenFileReport(s.get(), text, &err), -1);
  EXPECT_EQ(err, EIO);
  std::uint32_t w = 0;
  EXPECT_EQ(FsmBrls(s.get(), 0, 0, &w, &err), -1);  // 24 bytes: no word
  EXPECT_EQ(FsmStopRJCmd(s.get(), &err), 0);        // nothing to read
}

std::atomic<int> gAllocCalls{0};
int gFailFrom = 0;  // the allocation number from which every one fails
void* failingAlloc(std::size_t align, std::size_t size, const char* file, int line) {
  if (++gAllocCalls >= gFailFrom) return nullptr;
  return MyMemalign(align, size, file, line);
}

TEST_F(AdminlibTest, FsmAllocationFailures) {
  LoopbackPeer peer = scriptedFsm([](std::uint8_t type, const Bytes& req) {
    if (type == kFsmTypeWho && get_be32(req.data() + 24) > 1) return frameOf(24, 1, ENOENT);
    Bytes b = frameOf(type == kFsmTypeWho ? 24 + kWhoWireLen : 200);
    if (type == kFsmTypeWho) put_be32(b.data() + 28, 3);
    if (type == kFsmTypeProxySrv) b[63] = 1;  // a second address
    if (type == kFsmTypeProxySrv && get_be32(req.data() + 24) > 0) return frameOf(24, 1, ENOENT);
    return b;
  });
  UniqueFd s(connectTo(peer.port()));
  ASSERT_TRUE(s.valid());
  struct Restore {
    ~Restore() { AllocMemory = MyMemalign; }
  } restore;
  AllocMemory = failingAlloc;
  auto failFrom = [](int n) {
    gAllocCalls = 0;
    gFailFrom = n;
  };
  int err = 0;
  char text[ADMIN_ERRBUF_LEN];
  failFrom(1);
  FsmFsStatRec st{};
  EXPECT_EQ(FsmFsStat(s.get(), &st, &err), -1);
  EXPECT_EQ(err, ENOMEM);
  EXPECT_EQ(FsmSuspendCreates(s.get(), 1), -1);
  EXPECT_EQ(FsmStartIoTest(s.get(), kFsmCapIoTest, 1, 1, text), -1);
  EXPECT_STREQ(text, "StartIoTest failed - out of memory");
  // The request buffer is had, the first array buffer is not.
  failFrom(2);
  WhoRD* recs = nullptr;
  EXPECT_EQ(FsmWho(s.get(), kFsmCapNewWho, &recs, text), -1);
  EXPECT_STREQ(text, "Who failed - out of memory\n");
  EXPECT_EQ(recs, nullptr);
  failFrom(2);
  EXPECT_EQ(FsmWho(s.get(), 0, &recs, text), -1);
  EXPECT_STREQ(text, "Who failed - out of memory");
  failFrom(2);
  ListHdr list;
  InitHdr(&list);
  EXPECT_EQ(FsmGetProxySrvAt(s.get(), &list), ENOTDIR);
  EXPECT_EQ(FpFirstNode(&list), nullptr);
  failFrom(1000);
  EXPECT_EQ(FsmWho(s.get(), kFsmCapNewWho, &recs, text), 2);
  FreeMemory(recs);
}

// Which requests wait with a limit: under the test clock a limited wait moves the clock, one
// without limit doesn't. The peer answers once the clock moved, or after a short real pause.
TEST_F(AdminlibTest, FsmTimedAndUntimedRequests) {
  ScopedFakeClock clock;
  std::map<int, bool> timed;
  std::mutex mutex;
  LoopbackPeer peer = scriptedFsm([&](std::uint8_t type, const Bytes&) {
    std::uint64_t start = velm::clock().monotonicMicros();
    bool moved = false;
    for (int i = 0; i < 40 && !moved; ++i) {
      ::poll(nullptr, 0, 5);
      moved = velm::clock().monotonicMicros() > start;
    }
    std::scoped_lock lock(mutex);
    timed[type] = moved;
    return frameOf(400);
  });
  UniqueFd s(connectTo(peer.port()));
  ASSERT_TRUE(s.valid());
  int err = 0;
  std::uint32_t w = 0;
  char text[ADMIN_ERRBUF_LEN];
  FsmFsStatRec st{};
  ASSERT_EQ(FsmFsStat(s.get(), &st, &err), 0);
  ASSERT_EQ(FsmBrls(s.get(), 0, 0, &w, &err), 0);
  ASSERT_EQ(FsmQuotas(s.get(), 0, 0, &w, text, &err), 0);
  ASSERT_EQ(FsmQuotaCmd(s.get(), 2, &w, text, &err), 0);
  ASSERT_EQ(FsmRollRJCmd(s.get(), &w, &err), 0);
  ASSERT_EQ(FsmStopRJCmd(s.get(), &err), 0);
  ASSERT_EQ(FsmSuspendCreates(s.get(), 0), 0);
  ASSERT_EQ(FsmResetRPL(s.get()), 0);
  char name[kQuotaNameLen] = "";
  int found = 0;
  ASSERT_EQ(
      FsmQuotaRec(s.get(), 0, name, nullptr, nullptr, nullptr, nullptr, nullptr, &found, &err), 0);
  std::scoped_lock lock(mutex);
  EXPECT_EQ(timed, (std::map<int, bool>{{kFsmTypeFsStat, true},
                                        {kFsmTypeBrls, true},
                                        {kFsmTypeQuotaRec, true},
                                        {kFsmTypeQuotas, false},
                                        {kFsmTypeQuotaCmd, false},
                                        {kFsmTypeRollRJ, false},
                                        {kFsmTypeStopRJ, false},
                                        {kFsmTypeSuspendCreates, false},
                                        {kFsmTypeResetRPL, false}}));
}

}  // namespace
}  // namespace velm::test
