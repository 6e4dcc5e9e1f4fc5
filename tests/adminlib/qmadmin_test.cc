// The QMAdmin_ facade: its connection table, lifecycle, result mapping and conversions, against
// a scripted port mapper and against velm-simpm on loopback (one instance, and two forming one
// SAN).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "adminlib/adminlib.h"
#include "adminlib/adminlib_test_helpers.h"
#include "adminlib/qmadminlib.h"

namespace velm::test {
namespace {

class QMAdminTest : public AdminlibTest {
 protected:
  void SetUp() override {
    AdminlibTest::SetUp();
    QMAdmin_Teardown();
    QMAdmin_Init();
    QMAdmin_SetPrivilegedForTest(1);
    port_ = freeLoopbackPort();
    writeFsports(0);
  }
  void TearDown() override {
    QMAdmin_Teardown();
    for (auto& sim : sims_) {
      int status = sim->stop();
      EXPECT_EQ(status, 0) << "status " << status;
    }
    AdminlibTest::TearDown();
  }

  std::string simRoot(int n = 0) const { return sandbox_.path("/sim" + std::to_string(n)); }
  // One altpmap port for the whole SAN, as on real controllers.
  void writeFsports(int n) {
    std::string fsports = "altpmap " + std::to_string(port_) + "\n";
    writeDrfs("config/fsports", fsports);
    sandbox_.write("/sim" + std::to_string(n) + "/Library/Filesystems/Velm/config/fsports",
                   fsports);
    AltGetportResetForTest();
  }
  void writeConfig(const std::string& body, int n = 0) {
    sandbox_.write("/sim" + std::to_string(n) + "/simpm.plist",
                   "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" +
                       body + "</dict>\n</plist>\n");
  }
  bool startSim(int n = 0, const std::string& listen = "127.0.0.1") {
    if (::access(SimPmProcess::path().c_str(), X_OK) != 0) return false;
    writeFsports(n);
    auto sim = std::make_unique<SimPmProcess>();
    bool ok = sim->start({"--root", simRoot(n), "--listen", listen});
    EXPECT_TRUE(ok) << sim->stderrText();
    sims_.push_back(std::move(sim));
    return ok;
  }
  SimPmProcess& sim(int n = 0) { return *sims_.at(static_cast<std::size_t>(n)); }

  // Every FSM entry of the list, by walking it the way the volume layer does.
  std::vector<QMAdminFsmRecord> walk(int h) {
    std::vector<QMAdminFsmRecord> out;
    char err[ADMIN_ERRBUF_LEN] = {};
    for (int i = 0; i < 100; ++i) {
      QMAdminFsmRecord rec{};
      int s = QMAdmin_NSListFsm(h, i, &rec, err);
      if (s == QMFS_EOF) break;
      EXPECT_EQ(s, 0) << err;
      if (s != 0) break;
      out.push_back(rec);
    }
    return out;
  }
  static const QMAdminFsmRecord* find(const std::vector<QMAdminFsmRecord>& list,
                                      const std::string& name, int state) {
    for (const auto& r : list)
      if (name == r.name && r.state == state) return &r;
    return nullptr;
  }

  int port_ = 0;
  std::vector<std::unique_ptr<SimPmProcess>> sims_;
};

#define REQUIRE_SIM(...) \
  if (!startSim(__VA_ARGS__)) GTEST_SKIP() << "velm-simpm not available"

const char kThreeFsms[] =
    "<key>fsms</key><array>\n"
    "<dict><key>name</key><string>vol1</string><key>priority</key><integer>0</integer>"
    "<key>pid</key><integer>101</integer></dict>\n"
    "<dict><key>name</key><string>vol2</string><key>priority</key><integer>1</integer>"
    "<key>active</key><false/><key>pid</key><integer>102</integer></dict>\n"
    "<dict><key>name</key><string>vol3</string><key>priority</key><integer>2</integer>"
    "<key>pid</key><integer>103</integer></dict>\n"
    "</array>\n";

// ---- Pure functions ----

TEST_F(QMAdminTest, SizeStrPicksTheFirstThresholdStrictlyExceeded) {
  struct Row {
    std::uint64_t size;
    const char* num;
    const char* unit;
  } rows[] = {
      {0, "0.00", "B"},
      {1024, "1024.00", "B"},  // not strictly above 1 KB
      {1025, "1.00", "KB"},
      {1536, "1.50", "KB"},
      {(1ull << 20) * 3, "3.00", "MB"},
      {(1ull << 40) + (1ull << 39), "1.50", "TB"},
      {(1ull << 60) + (1ull << 59), "1.50", "EB"},
      {~0ull, "-1.00", "B"},  // top bit set: a negative number
  };
  for (const Row& r : rows) {
    char num[QMADMIN_SIZESTR_LEN], unit[8];
    EXPECT_EQ(QMAdmin_SizeStr(r.size, num, unit), unit);
    EXPECT_STREQ(num, r.num) << r.size;
    EXPECT_STREQ(unit, r.unit) << r.size;
  }
}

TEST_F(QMAdminTest, TypeNames) {
  char name[32];
  EXPECT_STREQ(QMAdmin_NSTypeName(0, name), "Empty");
  EXPECT_STREQ(QMAdmin_NSTypeName(1, name), "FSM");
  EXPECT_STREQ(QMAdmin_NSTypeName(7, name), "qmmetadump");
  EXPECT_STREQ(QMAdmin_NSTypeName(8, name), "Unknown");
  EXPECT_STREQ(QMAdmin_NSTypeName(-1, name), "Unknown");
}

TEST_F(QMAdminTest, LogLinesForEveryStatus) {
  for (int s : {0, -1, 1, 2, 3, 4, 5, 6, 7}) log_qmfs_error(s, "ctx");
  std::vector<std::string> expected = {
      "velm: ctx: QMFS Generic Error",           "velm: ctx: QMFS Permission Error",
      "velm: ctx: QMFS No Entry Found Error",    "velm: ctx: QMFS Object Exists Error",
      "velm: ctx: QMFS No Configuration Error",  "velm: ctx: QMFS Object Not Local Error",
      "velm: ctx: QMFS End Of File Error",       "velm: ctx: QMFS UNKNOWN Error (7)"};
  EXPECT_EQ(logLines(), expected);
}

TEST_F(QMAdminTest, MultiPathMethodDoesNothing) {
  EXPECT_EQ(QMAdmin_MultiPathMethod(-1, 0, 0), -1);
  EXPECT_EQ(QMAdmin_MultiPathMethod(0, 0, 0), -1);
  QMAdmin_SetPrivilegedForTest(0);
  EXPECT_EQ(QMAdmin_MultiPathMethod(0, 0, 0), 1);
}

// ---- Lifecycle and table ----

TEST_F(QMAdminTest, LifecycleRunsReadyNotReadyReady) {
  REQUIRE_SIM();
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("localhost", err);
  ASSERT_GE(h, 0) << err;
  // A second init while ready keeps the table.
  EXPECT_EQ(QMAdmin_Init(), 0);
  EXPECT_EQ(QMAdmin_SlotTypeForTest(h), QMADMIN_NS);

  EXPECT_EQ(QMAdmin_Teardown(), 0);
  EXPECT_EQ(QMAdmin_ReadyForTest(), 0);
  EXPECT_EQ(QMAdmin_SlotTypeForTest(h), QMADMIN_FREE);
  EXPECT_EQ(QMAdmin_SlotSocketForTest(h), -1);
  EXPECT_EQ(QMAdmin_Teardown(), 0);  // again: nothing to do
  EXPECT_EQ(QMAdmin_NSConnect("localhost", err), -1);
  QMAdminFsmRecord rec{};
  EXPECT_EQ(QMAdmin_NSListFsm(h, 0, &rec, err), -1);
  EXPECT_EQ(QMAdmin_NSDisconnect(h), -1);

  EXPECT_EQ(QMAdmin_Init(), 0);
  EXPECT_EQ(QMAdmin_ReadyForTest(), 1);
  int again = QMAdmin_NSConnect("localhost", err);
  EXPECT_GE(again, 0) << err;
  EXPECT_EQ(QMAdmin_NSDisconnect(again), 0);
}

TEST_F(QMAdminTest, SharedHandlesCountReferences) {
  REQUIRE_SIM();
  char err[ADMIN_ERRBUF_LEN] = {};
  int a = QMAdmin_NSConnect("localhost", err);
  ASSERT_GE(a, 0) << err;
  int b = QMAdmin_NSConnect("localhost", err);
  EXPECT_EQ(a, b);
  EXPECT_EQ(QMAdmin_SlotReferencesForTest(a), 2);
  EXPECT_EQ(QMAdmin_NSName2Handle("localhost"), a);
  int sock = QMAdmin_SlotSocketForTest(a);

  EXPECT_EQ(QMAdmin_NSDisconnect(a), 0);
  EXPECT_EQ(QMAdmin_SlotSocketForTest(a), sock);  // still open for the other holder
  EXPECT_EQ(QMAdmin_NSDisconnect(a), 0);
  EXPECT_EQ(QMAdmin_SlotTypeForTest(a), QMADMIN_FREE);
  EXPECT_EQ(QMAdmin_SlotSocketForTest(a), -1);
  EXPECT_EQ(QMAdmin_NSName2Handle("localhost"), -1);
}

TEST_F(QMAdminTest, DisconnectChecks) {
  EXPECT_EQ(QMAdmin_NSDisconnect(-1), -1);
  EXPECT_EQ(QMAdmin_NSDisconnect(10), -2);
  EXPECT_EQ(QMAdmin_FSMDisconnect(10), -1);
  EXPECT_EQ(QMAdmin_NSDisconnect(3), -3);  // a free slot is no name-service slot
  EXPECT_EQ(QMAdmin_FSMDisconnect(3), 0);  // the FSM disconnect checks no type
}

TEST_F(QMAdminTest, EleventhHostFindsTheTableFull) {
  REQUIRE_SIM();
  char err[ADMIN_ERRBUF_LEN] = {};
  std::vector<int> handles;
  // Distinct names that all reach this machine's loopback.
  for (int i = 0; i < QMADMIN_MAX_CONNECTIONS; ++i) {
    int h = QMAdmin_NSConnect(("localhost." + std::to_string(i)).c_str(), err);
    ASSERT_EQ(h, i) << err;
    handles.push_back(h);
  }
  std::vector<int> sockets;
  for (int h : handles) sockets.push_back(QMAdmin_SlotSocketForTest(h));
  EXPECT_EQ(QMAdmin_NSConnect("localhost.10", err), -2);
  for (int h : handles) {
    EXPECT_EQ(QMAdmin_SlotSocketForTest(h), sockets[static_cast<std::size_t>(h)]);
    EXPECT_EQ(QMAdmin_SlotReferencesForTest(h), 1);
  }
  // A known host still shares its slot.
  EXPECT_EQ(QMAdmin_NSConnect("localhost.3", err), 3);
  EXPECT_EQ(QMAdmin_NSDisconnect(3), 0);
  EXPECT_EQ(QMAdmin_NSDisconnect(4), 0);
  EXPECT_EQ(QMAdmin_NSConnect("localhost.10", err), 4);
}

TEST_F(QMAdminTest, ConnectFailureLeavesTheSlotFree) {
  // No port mapper listens: discovery and the fallback both fail.
  char err[ADMIN_ERRBUF_LEN] = {};
  PmapGetportFunc old = PmapGetportHook;
  PmapGetportHook = [](const struct sockaddr_in*, unsigned long, unsigned long,
                       unsigned int) -> unsigned short { return 0; };
  EXPECT_EQ(QMAdmin_NSConnect("localhost", err), -3);
  PmapGetportHook = old;
  EXPECT_NE(std::string(err).find("may be stopped"), std::string::npos) << err;
  EXPECT_EQ(QMAdmin_SlotTypeForTest(0), QMADMIN_FREE);
}

// ---- Name service and FSM connections on velm-simpm ----

TEST_F(QMAdminTest, ListWalkAndLocate) {
  writeConfig(kThreeFsms);
  REQUIRE_SIM();
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;
  auto list = walk(h);
  ASSERT_EQ(list.size(), 3u);
  EXPECT_STREQ(list[0].name, "vol1");
  EXPECT_EQ(list[0].state, QMADMIN_STATE_ACTIVE);
  EXPECT_EQ(list[0].pid, 101);
  EXPECT_GT(list[0].port, 0);
  EXPECT_STREQ(list[1].name, "vol2");
  EXPECT_EQ(list[1].state, QMADMIN_STATE_STANDBY);
  EXPECT_EQ(list[1].priority, 1);
  EXPECT_EQ(list[2].index, 2);

  QMAdminFsmRecord rec{};
  EXPECT_EQ(QMAdmin_NSFsmLocate(h, "vol3", 2, &rec), 0);
  EXPECT_EQ(rec.pid, 103);
  EXPECT_EQ(QMAdmin_NSFsmLocate(h, "vol3", 1, &rec), -1);
  EXPECT_EQ(QMAdmin_NSFsmLocate(h, "vol2", -1, &rec), -1);  // on standby only
  EXPECT_EQ(QMAdmin_NSFsmLocate(h, "vol1", -1, &rec), 0);

  QMAdminServiceRecord svc{};
  EXPECT_EQ(QMAdmin_NSListService(h, 1, &svc, err), 0);
  EXPECT_EQ(svc.type, 1);
  EXPECT_EQ(svc.state, QMADMIN_STATE_STANDBY);
  EXPECT_EQ(QMAdmin_NSListService(h, 3, &svc, err), QMFS_EOF);
  EXPECT_EQ(QMAdmin_NSDisconnect(h), 0);
}

TEST_F(QMAdminTest, ServiceThatIsNoFsmEndsAnFsmWalk) {
  writeConfig(
      "<key>fsms</key><array>\n"
      "<dict><key>name</key><string>tool</string><key>serviceType</key><integer>4</integer>"
      "<key>priority</key><integer>3</integer></dict>\n"
      "<dict><key>name</key><string>vol1</string></dict>\n"
      "</array>\n");
  REQUIRE_SIM();
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;
  QMAdminFsmRecord rec{};
  EXPECT_EQ(QMAdmin_NSListFsm(h, 0, &rec, err), QMFS_ENOENT);
  QMAdminServiceRecord svc{};
  ASSERT_EQ(QMAdmin_NSListService(h, 0, &svc, err), 0) << err;
  EXPECT_EQ(svc.type, 4);
  EXPECT_EQ(svc.state, 0);
  EXPECT_EQ(svc.priority & 0x7fff, 3);  // the raw flags word
  char type[32];
  EXPECT_STREQ(QMAdmin_NSTypeName(svc.type, type), "drmkfs");
  EXPECT_EQ(QMAdmin_NSListFsm(h, 1, &rec, err), 0);
  EXPECT_EQ(QMAdmin_NSDisconnect(h), 0);
}

TEST_F(QMAdminTest, FsmConnectSharesOneSlotPerVolume) {
  writeConfig(
      "<key>fsms</key><array>\n"
      "<dict><key>name</key><string>vol1</string><key>capabilities</key><integer>5</integer>"
      "</dict>\n"
      "<dict><key>name</key><string>vol2</string><key>active</key><false/></dict>\n"
      "</array>\n");
  REQUIRE_SIM();
  char err[ADMIN_ERRBUF_LEN] = {};
  int ns = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(ns, 0) << err;
  auto list = walk(ns);
  ASSERT_EQ(list.size(), 2u);

  int f = QMAdmin_FSMConnect(ns, &list[0], err);
  ASSERT_GE(f, 0) << err;
  EXPECT_NE(f, ns);
  EXPECT_EQ(QMAdmin_SlotTypeForTest(f), QMADMIN_FSM);
  char text[QMADMIN_NAME_LEN];
  EXPECT_EQ(QMAdmin_FSMHandle2Name(f, text), 0);
  EXPECT_STREQ(text, "vol1");
  EXPECT_EQ(QMAdmin_FSMHostname(f, text), 0);
  EXPECT_EQ(QMAdmin_FSMName2Handle("vol1"), f);
  EXPECT_EQ(QMAdmin_FSMHandle2Name(ns, text), -1);

  // Another host in the record still finds the volume's slot.
  QMAdminFsmRecord other = list[0];
  std::memset(&other.address, 0, sizeof other.address);
  other.priority = 7;
  EXPECT_EQ(QMAdmin_FSMConnect(ns, &other, err), f);
  EXPECT_EQ(QMAdmin_SlotReferencesForTest(f), 2);
  EXPECT_EQ(QMAdmin_FSMConnect(-1, &list[0], err), -1);

  // A standby FSM can't be reached; its slot stays free.
  EXPECT_EQ(QMAdmin_FSMConnect(ns, &list[1], err), -1);
  EXPECT_NE(std::string(err).find("is on standby"), std::string::npos) << err;
  EXPECT_EQ(QMAdmin_FSMName2Handle("vol2"), -1);

  // FSM calls refuse a name-service handle.
  QMAdminFsStat st{};
  EXPECT_EQ(QMAdmin_FSMStat(ns, &st), -1);
  EXPECT_EQ(QMAdmin_FSMStat(f, &st), 0);
  QMAdminProxyServer* servers = nullptr;
  EXPECT_GE(QMAdmin_FSGetProxyServers(f, &servers), 0);
  QMAdmin_FSFreeProxyServers(servers);

  EXPECT_EQ(QMAdmin_FSMDisconnect(f), 0);
  EXPECT_EQ(QMAdmin_SlotTypeForTest(f), QMADMIN_FSM);
  EXPECT_EQ(QMAdmin_FSMDisconnect(f), 0);
  EXPECT_EQ(QMAdmin_SlotTypeForTest(f), QMADMIN_FREE);
  EXPECT_EQ(QMAdmin_NSDisconnect(ns), 0);
}

TEST_F(QMAdminTest, DiskWalkEndsWithEndOfFile) {
  writeConfig(
      "<key>disks</key><array>"
      "<dict><key>label</key><string>lun0</string><key>device</key><string>/dev/sdb</string>"
      "<key>size</key><integer>1073741824</integer><key>lunId</key><integer>3</integer></dict>"
      "</array>\n");
  REQUIRE_SIM();
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;
  EXPECT_EQ(QMAdmin_NSRefreshDisks(h), 0);
  QMAdminDisk disk{};
  ASSERT_EQ(QMAdmin_NSGetDisk(h, 0, &disk, err), 0) << err;
  EXPECT_STREQ(disk.label, "lun0");
  EXPECT_STREQ(disk.device, "/dev/sdb");
  EXPECT_EQ(disk.size, 1073741824u);
  EXPECT_EQ(disk.lunId, 3);
  EXPECT_EQ(QMAdmin_NSGetDisk(h, 1, &disk, err), QMFS_EOF);
  int n = 0;
  EXPECT_EQ(QMAdmin_NSGetDisks(h, 0, 1, &disk, nullptr, nullptr, err), -1);  // no count out
  EXPECT_EQ(QMAdmin_NSGetDisks(QMADMIN_MAX_CONNECTIONS, 0, 1, &disk, &n, nullptr, err), -1);
  EXPECT_EQ(QMAdmin_NSDisconnect(h), 0);
}

// ---- Start, stop, activate ----

TEST_F(QMAdminTest, StartStopAndActivateChangeTheList) {
  writeConfig(
      "<key>fsms</key><array>\n"
      "<dict><key>name</key><string>vol1</string></dict>\n"
      "<dict><key>name</key><string>vol2</string><key>running</key><false/></dict>\n"
      "</array>\n");
  REQUIRE_SIM();
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;
  EXPECT_EQ(find(walk(h), "vol2", QMADMIN_STATE_ACTIVE), nullptr);

  EXPECT_EQ(QMAdmin_FSMStart(h, "vol2", "127.0.0.1", err), 0) << err;
  auto list = walk(h);
  EXPECT_TRUE(find(list, "vol2", QMADMIN_STATE_STANDBY) || find(list, "vol2", QMADMIN_STATE_ACTIVE));
  EXPECT_EQ(QMAdmin_FSMStart(h, "vol2", "127.0.0.1", err), QMFS_EEXIST) << err;
  EXPECT_EQ(QMAdmin_FSMActivate(h, "vol2", "127.0.0.1", err), 0) << err;
  EXPECT_NE(find(walk(h), "vol2", QMADMIN_STATE_ACTIVE), nullptr);
  // The start shared the handle's slot and gave its reference back.
  EXPECT_EQ(QMAdmin_SlotReferencesForTest(h), 1);

  EXPECT_EQ(QMAdmin_FSMStop(h, "vol1", 0, err), 0) << err;
  EXPECT_EQ(find(walk(h), "vol1", QMADMIN_STATE_ACTIVE), nullptr);
  EXPECT_EQ(QMAdmin_FSMStop(h, "vol1", 0, err), QMFS_ENOENT);  // no active entry any more

  EXPECT_EQ(QMAdmin_FSMStopByHost(h, "vol2", "127.0.0.1", err), 0) << err;
  EXPECT_EQ(find(walk(h), "vol2", QMADMIN_STATE_ACTIVE), nullptr);
  EXPECT_EQ(QMAdmin_FSMStopByHost(h, "vol2", "127.0.0.1", err), QMFS_ENOENT);
  EXPECT_STREQ(err, "FSM not found");
  EXPECT_EQ(QMAdmin_FSMStopByHost(h, "vol2", "no-such-host.invalid", err), QMFS_ENOENT);
  EXPECT_STREQ(err, "Unknown Host");
  EXPECT_EQ(QMAdmin_NSDisconnect(h), 0);
}

TEST_F(QMAdminTest, UnprivilegedStartSendsNothing) {
  writeConfig(
      "<key>fsms</key><array>\n"
      "<dict><key>name</key><string>vol2</string><key>running</key><false/></dict>\n"
      "</array>\n");
  REQUIRE_SIM();
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;
  QMAdmin_SetPrivilegedForTest(0);
  EXPECT_EQ(QMAdmin_FSMStart(h, "vol2", "127.0.0.1", err), QMFS_EPERM);
  EXPECT_STREQ(err, "Permission denied");
  EXPECT_EQ(QMAdmin_FSMStop(h, "vol2", 0, err), QMFS_EPERM);
  EXPECT_EQ(QMAdmin_FSMStopByHost(h, "vol2", "127.0.0.1", err), QMFS_EPERM);
  EXPECT_EQ(QMAdmin_FSMActivate(h, "vol2", "127.0.0.1", err), QMFS_EPERM);
  EXPECT_EQ(QMAdmin_SlotReferencesForTest(h), 1);
  // A list request on the same socket marks the point; nothing came before it.
  QMAdminFsmRecord rec{};
  EXPECT_EQ(QMAdmin_NSListFsm(h, 0, &rec, err), QMFS_EOF);
  ASSERT_TRUE(sim().waitForText("0x0024"));
  std::string log = sim().stderrText();
  EXPECT_EQ(log.find("0x0804"), std::string::npos) << log;
  EXPECT_EQ(log.find("0x0805"), std::string::npos) << log;
  EXPECT_EQ(log.find("0x080a"), std::string::npos) << log;
  EXPECT_EQ(QMAdmin_NSDisconnect(h), 0);
}

// A port mapper that answers every framed request with one reply status at offset 28: the
// discovery exchange on the altpmap port, then one service connection.
class ScriptedPortMapper {
 public:
  ScriptedPortMapper(int discoveryPort, std::uint16_t status)
      : status_(status),
        service_([this](int fd) { serve(fd); }, 1),
        discovery_([this](int fd) { discover(fd); }, 1, discoveryPort) {}
  int requests() const { return requests_.load(); }

 private:
  void discover(int fd) {
    Bytes hello(32, 0);
    put_be32(hello.data(), kDiscoveryHello);
    put_be32(hello.data() + 4, 1);
    writeBytes(fd, hello);
    Bytes req = readBytes(fd, 32);
    Bytes reply(32, 0);
    put_be32(reply.data(), kDiscoveryReply);
    put_be32(reply.data() + 4, static_cast<std::uint32_t>(service_.port()));
    writeBytes(fd, reply);
  }
  void serve(int fd) {
    for (;;) {
      Bytes head = readBytes(fd, kFrameHeaderLen);
      if (head.size() < kFrameHeaderLen) return;
      std::uint32_t len = get_be24(head.data() + kFhLength);
      if (len < kFrameHeaderLen) return;
      Bytes rest = readBytes(fd, len - kFrameHeaderLen);
      head.insert(head.end(), rest.begin(), rest.end());
      if (head.size() > kPmStatus + 1) put_be16(head.data() + kPmStatus, status_);
      ++requests_;
      if (!writeBytes(fd, head)) return;
    }
  }

  std::uint16_t status_;
  std::atomic<int> requests_{0};
  LoopbackPeer service_;
  LoopbackPeer discovery_;
};

TEST_F(QMAdminTest, StartResultsMapOntoTheFacadeStatuses) {
  // The port mapper's status, then the facade's status.
  struct Row {
    std::uint16_t wire;
    int facade;
  } rows[] = {{0, 0}, {1, QMFS_ENOENT}, {2, QMFS_EEXIST}, {3, QMFS_ENOCONFIG},
              {4, QMFS_ENOTLOCAL}, {9, 0}};
  for (const Row& r : rows) {
    AltGetportResetForTest();
    ScriptedPortMapper pm(port_, r.wire);
    char err[ADMIN_ERRBUF_LEN] = {};
    int h = QMAdmin_NSConnect("127.0.0.1", err);
    ASSERT_GE(h, 0) << err;
    EXPECT_EQ(QMAdmin_FSMStart(h, "vol1", "127.0.0.1", err), r.facade) << r.wire;
    EXPECT_EQ(pm.requests(), 1);
    EXPECT_EQ(QMAdmin_NSDisconnect(h), 0);
  }
}

TEST_F(QMAdminTest, FailedExchangeReadsAsSuccess) {
  AltGetportResetForTest();
  // The service connection closes at once: the request fails below the facade.
  LoopbackPeer service([](int) {}, 1);
  LoopbackPeer discovery(
      [&](int fd) {
        Bytes hello(32, 0);
        put_be32(hello.data(), kDiscoveryHello);
        put_be32(hello.data() + 4, 1);
        writeBytes(fd, hello);
        readBytes(fd, 32);
        Bytes reply(32, 0);
        put_be32(reply.data(), kDiscoveryReply);
        put_be32(reply.data() + 4, static_cast<std::uint32_t>(service.port()));
        writeBytes(fd, reply);
      },
      1, port_);
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;
  EXPECT_EQ(QMAdmin_FSMStart(h, "vol1", "127.0.0.1", err), 0);
  EXPECT_FALSE(std::string(err).empty());
  QMAdminFsmRecord rec{};
  EXPECT_EQ(QMAdmin_NSListFsm(h, 0, &rec, err), -1);
  EXPECT_EQ(QMAdmin_NSDisconnect(h), 0);
}

// ---- Quotas ----

const char kQuotaFsm[] =
    "<key>fsms</key><array>\n"
    "<dict><key>name</key><string>vol1</string>"
    "<key>statistics</key><dict><key>blockSize</key><integer>4096</integer></dict>"
    "<key>userQuotas</key><array>\n"
    "<dict><key>name</key><string>alice</string>"
    "<key>hardLimit</key><integer>100</integer><key>softLimit</key><integer>50</integer>"
    "<key>timeLimit</key><integer>60</integer><key>used</key><integer>10</integer></dict>\n"
    "<dict><key>name</key><string>bob</string>"
    "<key>hardLimit</key><integer>8</integer><key>softLimit</key><integer>4</integer></dict>\n"
    "</array>"
    "<key>groupQuotas</key><array>\n"
    "<dict><key>name</key><string>staff</string><key>hardLimit</key><integer>1000</integer>"
    "</dict>\n"
    "</array></dict>\n"
    "<dict><key>name</key><string>vol2</string><key>quotasEnabled</key><false/></dict>\n"
    "</array>\n";

class QMAdminQuotaTest : public QMAdminTest {
 protected:
  // An FSM handle on the volume, or -1.
  int connect(const char* volume) {
    char err[ADMIN_ERRBUF_LEN] = {};
    ns_ = QMAdmin_NSConnect("127.0.0.1", err);
    EXPECT_GE(ns_, 0) << err;
    if (ns_ < 0) return -1;
    QMAdminFsmRecord rec{};
    EXPECT_EQ(QMAdmin_NSFsmLocate(ns_, volume, -1, &rec), 0);
    int f = QMAdmin_FSMConnect(ns_, &rec, err);
    EXPECT_GE(f, 0) << err;
    return f;
  }
  int ns_ = -1;
};

TEST_F(QMAdminQuotaTest, WalksConvertBlocksToBytes) {
  writeConfig(kQuotaFsm);
  REQUIRE_SIM();
  int f = connect("vol1");
  ASSERT_GE(f, 0);
  QMAdminQuota rec{};
  std::vector<std::string> users;
  int s;
  while ((s = QMAdmin_ListUserQuotas(f, &rec)) == 0) {
    users.push_back(rec.name);
    EXPECT_EQ(rec.type, QMADMIN_QUOTA_USER);
    if (users.back() == "alice") {
      EXPECT_EQ(rec.hardLimit, 100u * 4096);
      EXPECT_EQ(rec.softLimit, 50u * 4096);
      EXPECT_EQ(rec.used, 10u * 4096);
      EXPECT_EQ(rec.timeLimit, 60u);
    }
    if (users.size() > 10) break;
  }
  EXPECT_EQ(s, QMFS_EOF);
  EXPECT_EQ(users, (std::vector<std::string>{"alice", "bob"}));
  QMAdminQuota g{};
  ASSERT_EQ(QMAdmin_ListGroupQuotas(f, &g), 0);
  EXPECT_STREQ(g.name, "staff");
  EXPECT_EQ(g.type, QMADMIN_QUOTA_GROUP);
  EXPECT_EQ(g.hardLimit, 1000u * 4096);
  EXPECT_EQ(QMAdmin_ListGroupQuotas(f, &g), QMFS_EOF);

  QMAdmin_SetPrivilegedForTest(0);
  QMAdminQuota fresh{};
  EXPECT_EQ(QMAdmin_ListUserQuotas(f, &fresh), QMFS_EPERM);
}

TEST_F(QMAdminQuotaTest, GetAndSetRoundToBlocks) {
  writeConfig(kQuotaFsm);
  REQUIRE_SIM();
  int f = connect("vol1");
  ASSERT_GE(f, 0);
  QMAdminQuota q{};
  ASSERT_EQ(QMAdmin_GetUserQuota(f, "bob", &q), 0);
  EXPECT_EQ(q.hardLimit, 8u * 4096);
  EXPECT_EQ(q.softLimit, 4u * 4096);
  EXPECT_STREQ(q.name, "bob");
  EXPECT_EQ(QMAdmin_GetUserQuota(f, "nobody", &q), QMFS_ENOENT);

  QMAdminQuota set{};
  set.hardLimit = 3 * 4096 + 4095;  // rounds down to 3 blocks
  set.softLimit = 4095;             // rounds down to 0
  set.timeLimit = 30;
  ASSERT_EQ(QMAdmin_SetUserQuota(f, "bob", &set), 0);
  EXPECT_EQ(set.hardLimit, 3u * 4096);  // what the FSM kept
  EXPECT_EQ(set.softLimit, 0u);
  ASSERT_EQ(QMAdmin_GetUserQuota(f, "bob", &q), 0);
  EXPECT_EQ(q.hardLimit, 3u * 4096);
  EXPECT_EQ(q.timeLimit, 30u);

  QMAdmin_SetPrivilegedForTest(0);
  EXPECT_EQ(QMAdmin_SetGroupQuota(f, "staff", &set), QMFS_EPERM);
  EXPECT_EQ(QMAdmin_GetGroupQuota(f, "staff", &q), 0);  // reading needs no privilege
}

TEST_F(QMAdminQuotaTest, WalkWithoutQuotasEndsAtOnce) {
  writeConfig(kQuotaFsm);
  REQUIRE_SIM();
  int f = connect("vol2");
  ASSERT_GE(f, 0);
  QMAdminQuota rec{};
  EXPECT_EQ(QMAdmin_ListUserQuotas(f, &rec), QMFS_EOF);
  EXPECT_EQ(QMAdmin_ListGroupQuotas(f, &rec), QMFS_EOF);
}

TEST_F(QMAdminQuotaTest, NamelessEntrySurfacesAsQuestionMarks) {
  writeConfig(
      "<key>fsms</key><array><dict><key>name</key><string>vol1</string>"
      "<key>userQuotas</key><array>"
      "<dict><key>name</key><string></string>"
      "<key>hardLimit</key><integer>1</integer></dict>"
      "</array></dict></array>\n");
  REQUIRE_SIM();
  int f = connect("vol1");
  ASSERT_GE(f, 0);
  QMAdminQuota rec{};
  EXPECT_EQ(QMAdmin_ListUserQuotas(f, &rec), EINVAL);
  EXPECT_STREQ(rec.name, "????");
}

// ---- Other FSM-handle calls ----

class QMAdminFsmTest : public QMAdminQuotaTest {
 protected:
  static in6_addr ip(const char* text) {
    in6_addr a{};
    std::uint8_t v4[4];
    if (::inet_pton(AF_INET, text, v4) == 1)
      AddrSetMapped(&a, v4);
    else
      ::inet_pton(AF_INET6, text, &a);
    return a;
  }
};

// Flags 1293 = up, metadata, journal, realtime, exclusive. The groups' wire multipath methods
// run 0..4, then 5, which has no name.
const char kStripeGroups[] = R"(<key>fsms</key><array>
<dict><key>name</key><string>vol1</string><key>stripeGroups</key><array>
<dict><key>name</key><string>meta</string><key>flags</key><integer>1293</integer></dict>
<dict><key>name</key><string>data1</string><key>flags</key><integer>2</integer>
 <key>multipath</key><integer>1</integer><key>totalBlocks</key><integer>5000000000</integer>
 <key>freeBlocks</key><integer>4000000000</integer><key>reservedBlocks</key><integer>7</integer>
 <key>affinity</key><integer>4294967299</integer><key>devices</key><integer>4</integer>
 <key>breadth</key><integer>32</integer><key>nativeKey</key><integer>9</integer></dict>
<dict><key>name</key><string>sg2</string><key>multipath</key><integer>2</integer></dict>
<dict><key>name</key><string>sg3</string><key>multipath</key><integer>3</integer>
 <key>setting</key><integer>77</integer></dict>
<dict><key>name</key><string>sg4</string><key>multipath</key><integer>4</integer></dict>
<dict><key>name</key><string>sg5</string><key>multipath</key><integer>5</integer></dict>
</array></dict>
<dict><key>name</key><string>nostat</string><key>unknownTypes</key><array><integer>2</integer>
</array><key>stripeGroups</key><array><dict><key>name</key><string>g</string></dict></array></dict>
</array>
)";

TEST_F(QMAdminFsmTest, StripeGroupStatMapsFlagsAndMultipath) {
  writeConfig(kStripeGroups);
  REQUIRE_SIM();
  int f = connect("vol1");
  ASSERT_GE(f, 0);
  const int methods[] = {1, 3, 2, 4, 5, 0};
  for (int i = 0; i < 6; ++i) {
    QMAdminStripeGroup sg{};
    ASSERT_EQ(QMAdmin_StripeGroupStat(f, i, &sg), 0) << i;
    EXPECT_EQ(sg.multipathMethod, methods[i]) << i;
    EXPECT_EQ(sg.number, i + 1);
    EXPECT_EQ(sg.index, i);
    EXPECT_EQ(sg.one, 1);
  }
  QMAdminStripeGroup sg{};
  ASSERT_EQ(QMAdmin_StripeGroupStat(f, 0, &sg), 0);
  EXPECT_STREQ(sg.name, "meta");
  EXPECT_EQ(sg.up + sg.metadata + sg.journal + sg.realtime + sg.exclusive, 5);
  ASSERT_EQ(QMAdmin_StripeGroupStat(f, 1, &sg), 0);
  EXPECT_STREQ(sg.name, "data1");
  EXPECT_EQ(sg.up + sg.metadata + sg.journal + sg.realtime + sg.exclusive, 0);
  EXPECT_EQ(sg.totalBlocks, 5000000000u);  // 64-bit counts survive
  EXPECT_EQ(sg.freeBlocks, 4000000000u);
  EXPECT_EQ(sg.reservedBlocks, 7u);
  EXPECT_EQ(sg.affinity, 3u);  // the low word only
  EXPECT_EQ(sg.devices, 4);
  EXPECT_EQ(sg.breadth, 32u);
  EXPECT_EQ(sg.nativeKey, 9u);

  // A failed read still leaves a cleared record behind.
  EXPECT_EQ(QMAdmin_StripeGroupStat(f, 6, &sg), -1);
  EXPECT_EQ(sg.name[0], '\0');
  EXPECT_EQ(QMAdmin_StripeGroupStat(ns_, 0, &sg), -1);
}

TEST_F(QMAdminFsmTest, UpAndDownKeepTheGroupsOwnSettings) {
  writeConfig(kStripeGroups);
  REQUIRE_SIM();
  int f = connect("vol1");
  ASSERT_GE(f, 0);
  EXPECT_EQ(QMAdmin_UpStripeGroup(f, 0), QMFS_EEXIST);
  EXPECT_EQ(QMAdmin_DownStripeGroup(f, 1), QMFS_EEXIST);
  EXPECT_EQ(QMAdmin_UpStripeGroup(f, 9), -1);
  EXPECT_EQ(QMAdmin_DownStripeGroup(f, 9), -1);

  // The wire method goes back as it came, not the facade's number for it.
  ASSERT_EQ(QMAdmin_DownStripeGroup(f, 3), 0);
  QMAdminStripeGroup sg{};
  ASSERT_EQ(QMAdmin_StripeGroupStat(f, 3, &sg), 0);
  EXPECT_EQ(sg.up, 0);
  EXPECT_EQ(sg.multipathMethod, 4);
  EXPECT_EQ(QMAdmin_DownStripeGroup(f, 3), QMFS_EEXIST);
  ASSERT_EQ(QMAdmin_UpStripeGroup(f, 3), 0);
  ASSERT_EQ(QMAdmin_StripeGroupStat(f, 3, &sg), 0);
  EXPECT_EQ(sg.up, 1);
  EXPECT_EQ(sg.multipathMethod, 4);
  EXPECT_TRUE(sim().waitForText("stripe group 3 'sg3' up"));

  ASSERT_EQ(QMAdmin_UpStripeGroup(f, 1), 0);
  ASSERT_EQ(QMAdmin_StripeGroupStat(f, 1, &sg), 0);
  EXPECT_EQ(sg.up, 1);
}

TEST_F(QMAdminFsmTest, UpAsksAboutPrivilegeAfterTheStatisticsDownBeforeAll) {
  writeConfig(kStripeGroups);
  REQUIRE_SIM();
  int f = connect("vol1");
  ASSERT_GE(f, 0);
  QMAdminFsmRecord rec{};
  ASSERT_EQ(QMAdmin_NSFsmLocate(ns_, "nostat", -1, &rec), 0);
  char err[ADMIN_ERRBUF_LEN] = {};
  int nostat = QMAdmin_FSMConnect(ns_, &rec, err);
  ASSERT_GE(nostat, 0) << err;

  QMAdmin_SetPrivilegedForTest(0);
  EXPECT_EQ(QMAdmin_UpStripeGroup(f, 1), QMFS_EPERM);
  EXPECT_EQ(QMAdmin_DownStripeGroup(f, 0), QMFS_EPERM);
  // A bad handle or an unreadable statistics record is found before the privilege by Up only.
  EXPECT_EQ(QMAdmin_UpStripeGroup(QMADMIN_MAX_CONNECTIONS, 0), -1);
  EXPECT_EQ(QMAdmin_DownStripeGroup(QMADMIN_MAX_CONNECTIONS, 0), QMFS_EPERM);
  EXPECT_EQ(QMAdmin_UpStripeGroup(nostat, 0), -1);
  EXPECT_EQ(QMAdmin_DownStripeGroup(nostat, 0), QMFS_EPERM);
  QMAdmin_SetPrivilegedForTest(1);
  EXPECT_EQ(QMAdmin_UpStripeGroup(nostat, 0), -1);  // that -1 came from the statistics
  QMAdminStripeGroup sg{};
  ASSERT_EQ(QMAdmin_StripeGroupStat(f, 1, &sg), 0);
  EXPECT_EQ(sg.up, 0);
  EXPECT_EQ(sim().stderrText().find("stripe group"), std::string::npos);
}

TEST_F(QMAdminFsmTest, ClientListPutsTheClientsAddressFirst) {
  const std::string clients = R"(<key>clients</key><array>
<dict><key>flags</key><integer>0</integer><key>address</key><string>10.0.0.1</string></dict>
<dict><key>index</key><integer>2</integer><key>type</key><integer>5</integer>
 <key>uptime</key><integer>99</integer><key>address</key><string>10.1.2.3</string>
 <key>text</key><string>host-b</string></dict>
<dict><key>index</key><integer>3</integer><key>flags</key><integer>0</integer></dict>
<dict><key>index</key><integer>4</integer><key>flags</key><integer>1</integer>
 <key>address</key><string>fe80::1</string></dict>
</array>)";
  writeConfig("<key>fsms</key><array>\n<dict><key>name</key><string>vol1</string>" + clients +
              "</dict>\n<dict><key>name</key><string>old</string><key>unknownTypes</key><array>"
              "<integer>22</integer></array>" +
              clients + "</dict>\n<dict><key>name</key><string>empty</string></dict>\n</array>\n");
  REQUIRE_SIM();
  int f = connect("vol1");
  ASSERT_GE(f, 0);
  QMAdminClient* list = nullptr;
  // Slot 0 counts even when free; free slots past it don't.
  ASSERT_EQ(QMAdmin_GetClientList(f, &list), 3);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list[0].index, 0u);
  EXPECT_EQ(list[1].index, 2u);
  EXPECT_EQ(list[2].index, 4u);
  in6_addr a = ip("10.1.2.3"), zero{};
  EXPECT_EQ(std::memcmp(list[1].addr, &a, 16), 0);
  EXPECT_EQ(std::memcmp(list[1].addr1, &zero, 16), 0);
  EXPECT_EQ(list[1].type, 5u);
  EXPECT_EQ(list[1].uptime, 99u);
  EXPECT_STREQ(list[1].text, "host-b");
  a = ip("fe80::1");
  EXPECT_EQ(std::memcmp(list[2].addr, &a, 16), 0);
  QMAdmin_FreeClientList(list);

  // The older record carries an IPv4 address only, and it lands in the same place.
  int old = connect("old");
  ASSERT_GE(old, 0);
  ASSERT_EQ(QMAdmin_GetClientList(old, &list), 3);
  a = ip("10.1.2.3");
  EXPECT_EQ(std::memcmp(list[1].addr, &a, 16), 0);
  EXPECT_EQ(std::memcmp(list[2].addr, &zero, 16), 0);
  QMAdmin_FreeClientList(list);

  int empty = connect("empty");
  ASSERT_GE(empty, 0);
  list = reinterpret_cast<QMAdminClient*>(&a);
  EXPECT_EQ(QMAdmin_GetClientList(empty, &list), 0);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(QMAdmin_GetClientList(QMADMIN_MAX_CONNECTIONS, &list), -1);
}

TEST_F(QMAdminFsmTest, ProxyWalkStartsOverWhenTheListChanges) {
  writeConfig(R"(<key>proxyListChangesOnce</key><true/><key>proxies</key><array>
<dict><key>name</key><string>p0</string><key>address1</key><string>10.0.0.1</string>
 <key>address2</key><string>10.0.0.2</string><key>port</key><integer>4000</integer>
 <key>counter1</key><integer>5000000000</integer><key>counter2</key><integer>7</integer></dict>
<dict><key>name</key><string>p1</string></dict>
<dict><key>name</key><string>p2</string></dict>
</array>
)");
  REQUIRE_SIM();
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;
  QMAdminProxyConnection* list = nullptr;
  ASSERT_EQ(QMAdmin_NSGetProxyConnections(h, &list), 3);  // not 4: p0 is not kept twice
  EXPECT_TRUE(sim().waitForText("list changed"));
  EXPECT_STREQ(list[0].name, "p0");
  EXPECT_STREQ(list[1].name, "p1");
  EXPECT_STREQ(list[2].name, "p2");
  in6_addr a1 = ip("10.0.0.1"), a2 = ip("10.0.0.2");
  EXPECT_EQ(std::memcmp(&list[0].addr1, &a1, 16), 0);
  EXPECT_EQ(std::memcmp(&list[0].addr2, &a2, 16), 0);
  EXPECT_EQ(list[0].port, 4000);
  EXPECT_EQ(list[0].counter1, 5000000000u);
  EXPECT_EQ(list[0].counter2, 7u);
  QMAdmin_NSFreeProxyConnections(list);
  EXPECT_EQ(QMAdmin_NSGetProxyConnections(h, nullptr), -1);
  EXPECT_EQ(QMAdmin_NSDisconnect(h), 0);
}

TEST_F(QMAdminFsmTest, DiskWalkSeesAChangedList) {
  writeConfig(R"(<key>disks</key><array>
<dict><key>label</key><string>lun0</string></dict><dict><key>label</key><string>lun1</string></dict>
</array>
)");
  REQUIRE_SIM();
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;
  QMAdminDisk disk{};
  int n = 0;
  std::uint32_t gen = 0;
  ASSERT_EQ(QMAdmin_NSGetDisks(h, 0, 1, &disk, &n, &gen, err), 0) << err;
  EXPECT_EQ(n, 1);
  std::uint32_t first = gen;
  ASSERT_EQ(QMAdmin_NSRefreshDisks(h), 0);
  EXPECT_EQ(QMAdmin_NSGetDisks(h, 1, 1, &disk, &n, &gen, err), QMFS_ECHANGED);
  EXPECT_NE(gen, first);  // the new generation, for the walk that starts over
  ASSERT_EQ(QMAdmin_NSGetDisks(h, 1, 1, &disk, &n, &gen, err), 0) << err;
  EXPECT_STREQ(disk.label, "lun1");
  EXPECT_EQ(QMAdmin_NSDisconnect(h), 0);
}

TEST_F(QMAdminFsmTest, QuotaStateAndRebuild) {
  writeConfig(kQuotaFsm);
  REQUIRE_SIM();
  int f = connect("vol1");
  int off = connect("vol2");
  ASSERT_GE(f, 0);
  ASSERT_GE(off, 0);
  EXPECT_EQ(QMAdmin_GetQuotasState(f), 1);
  EXPECT_EQ(QMAdmin_GetQuotasState(off), 0);
  ASSERT_EQ(QMAdmin_SetQuotasState(f, 0), 0);
  EXPECT_EQ(QMAdmin_GetQuotasState(f), 0);
  QMAdminFsStat st{};
  ASSERT_EQ(QMAdmin_FSMStat(f, &st), 0);
  EXPECT_EQ(st.quotas, 0);
  ASSERT_EQ(QMAdmin_SetQuotasState(f, 5), 0);  // any non-zero turns them on
  EXPECT_EQ(QMAdmin_GetQuotasState(f), 1);
  EXPECT_EQ(QMAdmin_RebuildQuotaDatabase(f), 0);
  // A refused rebuild is told in the reply's word and error, which the facade doesn't read.
  EXPECT_EQ(QMAdmin_RebuildQuotaDatabase(off), 0);

  QMAdmin_SetPrivilegedForTest(0);
  EXPECT_EQ(QMAdmin_SetQuotasState(f, 0), QMFS_EPERM);
  EXPECT_EQ(QMAdmin_RebuildQuotaDatabase(f), QMFS_EPERM);
  EXPECT_EQ(QMAdmin_GetQuotasState(f), 1);
  EXPECT_EQ(QMAdmin_GetQuotasState(ns_), -1);
  EXPECT_EQ(QMAdmin_SetQuotasState(ns_, 1), -1);
}

TEST_F(QMAdminFsmTest, DebugBrlsQosAndCommands) {
  writeConfig(R"(<key>fsms</key><array>
<dict><key>name</key><string>vol1</string><key>debug</key><integer>16</integer>
 <key>brls</key><integer>3</integer><key>qos</key><array><array><integer>1</integer>
 <integer>2</integer><integer>3</integer><integer>4</integer><integer>5</integer>
 <integer>6</integer><integer>7</integer><integer>8</integer><integer>9</integer>
 <integer>10</integer></array></array></dict>
<dict><key>name</key><string>vol2</string><key>debugReadOnly</key><true/></dict>
</array>
)");
  REQUIRE_SIM();
  int f = connect("vol1");
  int ro = connect("vol2");
  ASSERT_GE(f, 0);
  ASSERT_GE(ro, 0);
  std::uint32_t word = 0;
  ASSERT_EQ(QMAdmin_FSMGetDebug(f, &word), 0);
  EXPECT_EQ(word, 16u);
  ASSERT_EQ(QMAdmin_FSMSetDebug(f, 0x20), 0);
  ASSERT_EQ(QMAdmin_FSMGetDebug(f, &word), 0);
  EXPECT_EQ(word, 0x20u);
  // An FSM that keeps its old value fails the set.
  EXPECT_EQ(QMAdmin_FSMSetDebug(ro, 1), -1);
  ASSERT_EQ(QMAdmin_FSMGetDebug(ro, &word), 0);
  EXPECT_EQ(word, 0u);

  EXPECT_EQ(QMAdmin_GetBrlsState(f), 1);
  EXPECT_EQ(QMAdmin_GetBrlsState(ro), 0);

  QMAdminQos qos{};
  ASSERT_EQ(QMAdmin_QosStat(f, 0, &qos), 0);
  for (std::uint32_t i = 0; i < 10; ++i) EXPECT_EQ(qos.word[i], i + 1);
  EXPECT_EQ(QMAdmin_QosStat(f, 1, &qos), -1);

  EXPECT_EQ(QMAdmin_FSMSuspendCreates(f, 7), 0);
  EXPECT_TRUE(sim().waitForText("fsm 'vol1': suspend creates 7"));
  EXPECT_EQ(QMAdmin_FsmResetRPL(f), 0);
  EXPECT_TRUE(sim().waitForText("fsm 'vol1': RPL reset"));

  // None of them goes to a port mapper.
  EXPECT_EQ(QMAdmin_FSMGetDebug(ns_, &word), -1);
  EXPECT_EQ(QMAdmin_FSMSetDebug(ns_, 1), -1);
  EXPECT_EQ(QMAdmin_GetBrlsState(ns_), -1);
  EXPECT_EQ(QMAdmin_QosStat(ns_, 0, &qos), -1);
  EXPECT_EQ(QMAdmin_FSMSuspendCreates(ns_, 7), -1);
  EXPECT_EQ(QMAdmin_FsmResetRPL(ns_), -1);
}

TEST_F(QMAdminFsmTest, DecodeIdAsksThePortMapperOnce) {
  writeConfig(R"(<key>clients</key><array>
<dict><key>address</key><string>10.9.8.7</string><key>name</key><string>render-7</string></dict>
</array>
)");
  REQUIRE_SIM();
  FsmPMDecodeIDResetForTest();
  in6_addr client = ip("10.9.8.7"), pm = ip("127.0.0.1");
  char name[64] = "x";
  EXPECT_STREQ(QMAdmin_DecodeID(&client, &pm, name, sizeof name), "render-7");
  std::memset(name, 0, sizeof name);
  EXPECT_STREQ(QMAdmin_DecodeID(&client, &pm, name, sizeof name), "render-7");
  // The stand-in logs after it answers: wait for the line before reading the whole log.
  ASSERT_TRUE(sim().waitForText("query id"));
  std::string log = sim().stderrText();
  std::size_t first = log.find("query id");
  ASSERT_NE(first, std::string::npos) << log;
  EXPECT_EQ(log.find("query id", first + 1), std::string::npos) << log;  // the second was cached
  FsmPMDecodeIDResetForTest();
}

// ---- A SAN of two port mappers ----

TEST_F(QMAdminTest, FailoverMovesTheActiveFsmAcrossTheSan) {
  // vol1 is active on the first controller with a standby on the second.
  writeConfig(
      "<key>fsms</key><array><dict><key>name</key><string>vol1</string>"
      "<key>priority</key><integer>0</integer></dict></array>\n"
      "<key>peers</key><array><string>127.0.0.2</string></array>\n",
      0);
  writeConfig(
      "<key>fsms</key><array><dict><key>name</key><string>vol1</string>"
      "<key>priority</key><integer>1</integer><key>active</key><false/></dict></array>\n"
      "<key>peers</key><array><string>127.0.0.1</string></array>\n",
      1);
  REQUIRE_SIM(0, "127.0.0.1");
  REQUIRE_SIM(1, "127.0.0.2");
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;
  auto before = walk(h);
  const QMAdminFsmRecord* active = find(before, "vol1", QMADMIN_STATE_ACTIVE);
  const QMAdminFsmRecord* standby = find(before, "vol1", QMADMIN_STATE_STANDBY);
  ASSERT_TRUE(active && standby) << sim(0).stderrText();
  char ip[64];
  EXPECT_STREQ(RawIp(&active->address, ip, sizeof ip), "127.0.0.1");
  EXPECT_STREQ(RawIp(&standby->address, ip, sizeof ip), "127.0.0.2");

  EXPECT_EQ(QMAdmin_FSMStop(h, "vol1", 1, err), 0) << err;
  auto after = walk(h);
  active = find(after, "vol1", QMADMIN_STATE_ACTIVE);
  ASSERT_NE(active, nullptr) << sim(0).stderrText() << sim(1).stderrText();
  EXPECT_STREQ(RawIp(&active->address, ip, sizeof ip), "127.0.0.2");

  // The FSM connection now reaches the second controller.
  int f = QMAdmin_FSMConnect(h, active, err);
  ASSERT_GE(f, 0) << err;
  EXPECT_EQ(QMAdmin_FSMHostname(f, ip), 0);
  QMAdminFsStat st{};
  EXPECT_EQ(QMAdmin_FSMStat(f, &st), 0);
  EXPECT_EQ(QMAdmin_FSMDisconnect(f), 0);
  EXPECT_EQ(QMAdmin_NSDisconnect(h), 0);
}

}  // namespace
}  // namespace velm::test
