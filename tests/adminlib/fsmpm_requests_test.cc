// Port-mapper requests against the stand-in port mapper (velm-simpm) on loopback: each request in
// its newest form, the older forms an older peer is asked, the disk-list generation, the client
// name cache, RAS events, and a SAN of two port mappers where a fail-over moves the active FSM.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "adminlib/adminlib.h"
#include "adminlib/adminlib_test_helpers.h"
#include "platform/clock.h"
#include "platform/unique_fd.h"

namespace velm::test {
namespace {

unsigned short noPmap(const struct sockaddr_in*, unsigned long, unsigned long, unsigned int) {
  return 0;
}

struct ListEntry {
  int type, port, status, flags, pid;
  std::string name;
  struct in6_addr addr;
  std::uint32_t ipv4;
};

ListEntry entryOf(const std::uint8_t* msg) {
  ListEntry e{};
  e.type = PmHost16(msg, kPmType);
  e.port = PmHost16(msg, kPmPort);
  e.status = PmHost16(msg, kPmStatus);
  e.flags = PmHost16(msg, kPmIndex);
  e.pid = static_cast<int>(PmHost32(msg, kPmWord));
  e.ipv4 = PmHost32(msg, kPmIpv4);
  char name[kPmNameLen];
  PmGetName(msg, name, sizeof name);
  e.name = name;
  std::memcpy(e.addr.s6_addr, msg + kPmAddr, 16);
  return e;
}

std::string ipOf(const struct in6_addr& a) {
  char ip[kRawIpLen];
  return RawIp(&a, ip, sizeof ip);
}

class FsmPmRequestsTest : public AdminlibTest {
 protected:
  void SetUp() override {
    AdminlibTest::SetUp();
    if (::access(SimPmProcess::path().c_str(), X_OK) != 0) GTEST_SKIP() << "velm-simpm not built";
    altpmap_ = freeLoopbackPort();
    writeDrfs("config/fsports", "altpmap " + std::to_string(altpmap_) + "\n");
    savedPmap_ = PmapGetportHook;
    PmapGetportHook = noPmap;
    FsmPMDecodeIDResetForTest();
  }
  void TearDown() override {
    for (auto& [name, sim] : sims_) {
      int status = sim->stop();
      EXPECT_EQ(status, 0) << name << " status " << status;
    }
    PmapGetportHook = savedPmap_;
    FsmPMDecodeIDResetForTest();
    AdminlibTest::TearDown();
  }

  // A velm-simpm with its own root (same altpmap port) listening on addr.
  SimPmProcess* startSim(const std::string& name, const std::string& addr,
                         const std::string& body) {
    std::string root = "/" + name;
    sandbox_.write(root + "/Library/Filesystems/Velm/config/fsports",
                   "altpmap " + std::to_string(altpmap_) + "\n");
    sandbox_.write(root + "/simpm.plist",
                   "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" +
                       body + "</dict>\n</plist>\n");
    auto sim = std::make_unique<SimPmProcess>();
    bool ok = sim->start({"--root", sandbox_.path(root), "--listen", addr});
    EXPECT_TRUE(ok) << sim->stderrText();
    SimPmProcess* raw = sim.get();
    sims_[name] = std::move(sim);
    return ok ? raw : nullptr;
  }

  UniqueFd connect(const char* host = nullptr) {
    char err[ADMIN_ERRBUF_LEN] = {};
    UniqueFd fd(FsmPMConnect(host, err));
    EXPECT_TRUE(fd.valid()) << err;
    return fd;
  }

  // The whole service list, or the entries up to a failure.
  std::vector<ListEntry> listAll(int sock) {
    std::vector<ListEntry> out;
    for (int i = 0; i < 32; ++i) {
      std::uint8_t msg[kPmMsgLen];
      char err[ADMIN_ERRBUF_LEN];
      int rc = FsmPMListFsm(sock, i, msg, err);
      if (rc != 0) {
        EXPECT_EQ(rc, 2) << err;
        break;
      }
      out.push_back(entryOf(msg));
    }
    return out;
  }

  int startStop(int sock, int op, const char* name, std::string* text) {
    std::uint8_t msg[kPmMsgLen] = {};
    std::uint16_t port = 0;
    std::memcpy(msg + kPmPort, &port, sizeof port);
    char err[ADMIN_ERRBUF_LEN] = {};
    int rc = FsmPMStartStopFsm(sock, op, name, msg, err);
    *text = err;
    return rc;
  }

  int altpmap_ = 0;
  PmapGetportFunc savedPmap_ = nullptr;
  std::map<std::string, std::unique_ptr<SimPmProcess>> sims_;
};

constexpr char kTwoFsms[] =
    "<key>fsms</key><array>\n"
    "<dict><key>name</key><string>vol1</string><key>priority</key><integer>0</integer>"
    "<key>pid</key><integer>101</integer></dict>\n"
    "<dict><key>name</key><string>vol2</string><key>priority</key><integer>3</integer>"
    "<key>active</key><false/><key>pid</key><integer>102</integer></dict>\n"
    "<dict><key>name</key><string>dmig</string><key>serviceType</key><integer>3</integer></dict>\n"
    "<dict><key>name</key><string>far</string><key>address</key><string>127.0.0.9</string>"
    "<key>port</key><integer>4444</integer></dict>\n"
    "</array>\n";

TEST_F(FsmPmRequestsTest, ListFsmNewestFormGivesEveryService) {
  SimPmProcess* sim = startSim("a", "127.0.0.1", kTwoFsms);
  ASSERT_TRUE(sim);
  UniqueFd fd = connect();
  std::vector<ListEntry> all = listAll(fd.get());
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[0].name, "vol1");
  EXPECT_EQ(all[0].type, 1);
  EXPECT_EQ(all[0].flags, 0x8000);
  EXPECT_EQ(all[0].pid, 101);
  EXPECT_GT(all[0].port, 0);
  EXPECT_EQ(ipOf(all[0].addr), "127.0.0.1");
  EXPECT_EQ(all[1].flags, 3);  // standby, priority 3
  EXPECT_EQ(all[2].type, 3);
  EXPECT_EQ(all[3].port, 4444);
  EXPECT_EQ(ipOf(all[3].addr), "127.0.0.9");
  EXPECT_TRUE(sim->waitForText("list 0x0024 index 4 -> end"));
}

TEST_F(FsmPmRequestsTest, ListFsmOlderPeersKnowOnlyFsms) {
  SimPmProcess* sim = startSim(
      "a", "127.0.0.1",
      std::string(kTwoFsms) + "<key>unknownTypes</key><array><integer>36</integer></array>\n");
  ASSERT_TRUE(sim);
  UniqueFd fd = connect();
  std::vector<ListEntry> all = listAll(fd.get());
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[2].type, 1);  // the DMIG service reads as an FSM
  EXPECT_EQ(ipOf(all[3].addr), "127.0.0.9");
  EXPECT_TRUE(sim->waitForText("list 0x0083 index 0"));
}

TEST_F(FsmPmRequestsTest, ListFsmOldestFormTakesTheAddressFromOffset32) {
  SimPmProcess* sim = startSim(
      "a", "127.0.0.1",
      std::string(kTwoFsms) +
          "<key>unknownTypes</key><array><integer>36</integer><integer>131</integer></array>\n");
  ASSERT_TRUE(sim);
  UniqueFd fd = connect();
  std::vector<ListEntry> all = listAll(fd.get());
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[3].ipv4, 0x7f000009u);
  // The host-order word lands in the address as it stands.
  std::uint32_t word = 0x7f000009u;
  EXPECT_EQ(std::memcmp(all[3].addr.s6_addr + 12, &word, 4), 0);
  EXPECT_EQ(all[3].addr.s6_addr[10], 0xff);
  EXPECT_EQ(all[2].type, 1);
  EXPECT_TRUE(sim->waitForText("list 0x0003 index 4 -> end"));
}

TEST_F(FsmPmRequestsTest, ListFsmWithNoFormLeftIsUnsupported) {
  ASSERT_TRUE(startSim("a", "127.0.0.1",
                       "<key>unknownTypes</key><array><integer>36</integer><integer>131</integer>"
                       "<integer>3</integer></array>\n"));
  UniqueFd fd = connect();
  std::uint8_t msg[kPmMsgLen];
  char err[ADMIN_ERRBUF_LEN];
  EXPECT_EQ(FsmPMListFsm(fd.get(), 0, msg, err), -1);
  EXPECT_STREQ(err, "unsupported message");
}

TEST_F(FsmPmRequestsTest, StartStopChangeTheFsmTable) {
  ASSERT_TRUE(startSim("a", "127.0.0.1", kTwoFsms));
  UniqueFd fd = connect();
  std::string text;
  EXPECT_EQ(startStop(fd.get(), kPmOpStart, "vol1", &text), 1);
  EXPECT_EQ(text, "FSM already exists");
  EXPECT_EQ(startStop(fd.get(), kPmOpStop, "vol1", &text), 0);
  EXPECT_EQ(text, "Success");
  std::vector<ListEntry> all = listAll(fd.get());
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].name, "vol2");
  EXPECT_EQ(startStop(fd.get(), kPmOpStop, "vol1", &text), 2);
  EXPECT_EQ(text, "No FSM found");
  EXPECT_EQ(startStop(fd.get(), kPmOpStart, "vol1", &text), 0);
  all = listAll(fd.get());
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[0].flags & 0x8000, 0x8000);  // nothing else of vol1 was active
  EXPECT_EQ(startStop(fd.get(), kPmOpStart, "nothing", &text), 3);
  EXPECT_EQ(text, "FSM not configured");
  EXPECT_EQ(startStop(fd.get(), kPmOpStop, "far", &text), 4);
  EXPECT_EQ(text, "FSM not local");
  EXPECT_EQ(startStop(fd.get(), kPmOp3, "vol1", &text), 0);
}

TEST_F(FsmPmRequestsTest, StartStopOlderPeerGetsOlderFormsButNotForOperation3) {
  SimPmProcess* sim = startSim("a", "127.0.0.1",
                               std::string(kTwoFsms) +
                                   "<key>unknownTypes</key><array><integer>2053</integer>"
                                   "<integer>133</integer><integer>2075</integer></array>\n");
  ASSERT_TRUE(sim);
  UniqueFd fd = connect();
  std::string text;
  EXPECT_EQ(startStop(fd.get(), kPmOpStop, "vol1", &text), 0);
  EXPECT_TRUE(sim->waitForText("start/stop 0x0005 op 0 'vol1' -> status 0")) << sim->stderrText();
  EXPECT_EQ(startStop(fd.get(), kPmOp3, "vol1", &text), -1);
  EXPECT_EQ(text, "unsupported message");
  EXPECT_EQ(startStop(fd.get(), 7, "vol1", &text), -1);
}

TEST_F(FsmPmRequestsTest, FailoverWithinOnePortMapperActivatesTheStandby) {
  ASSERT_TRUE(startSim("a", "127.0.0.1",
                       "<key>fsms</key><array>\n"
                       "<dict><key>name</key><string>vol1</string><key>priority</key>"
                       "<integer>0</integer></dict>\n"
                       "<dict><key>name</key><string>vol1</string><key>priority</key>"
                       "<integer>1</integer><key>active</key><false/></dict>\n"
                       "</array>\n"));
  UniqueFd fd = connect();
  std::string text;
  EXPECT_EQ(startStop(fd.get(), kPmOpFailover, "vol1", &text), 0);
  std::vector<ListEntry> all = listAll(fd.get());
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].flags, 0);
  EXPECT_EQ(all[1].flags, 0x8000 | 1);
  // Stopping the active one hands over again.
  EXPECT_EQ(startStop(fd.get(), kPmOpStop, "vol1", &text), 0);
  all = listAll(fd.get());
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].flags, 0x8000);
  char err[ADMIN_ERRBUF_LEN];
  UniqueFd fsm(FsmGetSocket(nullptr, "vol1", 0, err, 1, nullptr));
  EXPECT_TRUE(fsm.valid()) << err;
}

TEST_F(FsmPmRequestsTest, SanOfTwoPortMappersMovesTheActiveFsmOnFailover) {
  auto body = [&](const char* peer, bool active, int priority) {
    return std::string("<key>fsms</key><array><dict><key>name</key><string>vol1</string>") +
           "<key>priority</key><integer>" + std::to_string(priority) +
           "</integer><key>active</key>" + (active ? "<true/>" : "<false/>") +
           "</dict></array>\n<key>peers</key><array><string>" + peer + "</string></array>\n";
  };
  SimPmProcess* a = startSim("a", "127.0.0.1", body("127.0.0.2", true, 0));
  SimPmProcess* b = startSim("b", "127.0.0.2", body("127.0.0.1", false, 1));
  ASSERT_TRUE(a && b);
  UniqueFd fd = connect("127.0.0.1");
  std::vector<ListEntry> all = listAll(fd.get());
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(ipOf(all[0].addr), "127.0.0.1");
  EXPECT_EQ(all[0].flags, 0x8000);
  EXPECT_EQ(ipOf(all[1].addr), "127.0.0.2");
  EXPECT_EQ(all[1].flags, 1);

  // The local list of each holds only its own.
  std::uint8_t msg[kPmMsgLen];
  char err[ADMIN_ERRBUF_LEN];
  EXPECT_EQ(FsmPMListLocalFsm(fd.get(), 0, msg, err), 0);
  EXPECT_EQ(FsmPMListLocalFsm(fd.get(), 1, msg, err), 2);

  std::string text;
  EXPECT_EQ(startStop(fd.get(), kPmOpFailover, "vol1", &text), 0);
  EXPECT_TRUE(b->waitForText("activate 0x080a 'vol1' -> status 0")) << b->stderrText();
  all = listAll(fd.get());
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].flags, 0);
  EXPECT_EQ(all[1].flags, 0x8000 | 1);
  // Asked through the other port mapper, the SAN looks the same.
  UniqueFd fdB = connect("127.0.0.2");
  std::vector<ListEntry> fromB = listAll(fdB.get());
  ASSERT_EQ(fromB.size(), 2u);
  EXPECT_EQ(ipOf(fromB[0].addr), "127.0.0.2");
  EXPECT_EQ(fromB[0].flags, 0x8000 | 1);
  UniqueFd fsm(FsmGetSocket("127.0.0.2", "vol1", 0, err, 1, nullptr));
  EXPECT_TRUE(fsm.valid()) << err;
  EXPECT_EQ(FsmGetSocket("127.0.0.1", "vol1", 0, err, 1, nullptr), -1);
  EXPECT_STREQ(err, "File System Manager \"vol1\" on 127.0.0.1 is on standby.\n");
}

constexpr char kClients[] =
    "<key>clients</key><array><dict><key>address</key><string>127.0.0.5</string>"
    "<key>name</key><string>client-five</string></dict></array>\n";

TEST_F(FsmPmRequestsTest, QueryIdNamesKnownClients) {
  ASSERT_TRUE(startSim("a", "127.0.0.1", kClients));
  UniqueFd fd = connect();
  struct in6_addr five, six;
  ASSERT_EQ(GetHostByName("127.0.0.5", &five), 0);
  ASSERT_EQ(GetHostByName("127.0.0.6", &six), 0);
  char name[64], err[ADMIN_ERRBUF_LEN];
  EXPECT_EQ(FsmPMQueryID(fd.get(), &five, name, sizeof name, err), 0);
  EXPECT_STREQ(name, "client-five");
  EXPECT_EQ(FsmPMQueryID(fd.get(), &five, name, 7, err), 0);
  EXPECT_STREQ(name, "client");
  EXPECT_EQ(FsmPMQueryID(fd.get(), &six, name, sizeof name, err), 1);
  EXPECT_STREQ(name, "");
}

TEST_F(FsmPmRequestsTest, DecodeIdCachesForFiveMinutes) {
  ScopedFakeClock clock;
  SimPmProcess* sim = startSim("a", "127.0.0.1", kClients);
  ASSERT_TRUE(sim);
  struct in6_addr five, pm;
  ASSERT_EQ(GetHostByName("127.0.0.5", &five), 0);
  AddrSetLoopback4(&pm);
  char name[64];
  EXPECT_STREQ(FsmPMDecodeID(&five, &pm, name, sizeof name), "client-five");
  // With the port mapper gone, the cached name still answers.
  sims_["a"]->stop();
  sims_.erase("a");
  clock->advanceMicros(300000000);
  EXPECT_STREQ(FsmPMDecodeID(&five, &pm, name, sizeof name), "client-five");
  EXPECT_STREQ(FsmPMDecodeID(&five, &pm, name, 4), "cli");
  // Past five minutes the port mapper is asked again; unreachable, the reverse look-up answers.
  clock->advanceMicros(1);
  char reverse[kRawIpLen];
  GetHostFromIp(&five, reverse, sizeof reverse);
  EXPECT_STREQ(FsmPMDecodeID(&five, &pm, name, sizeof name), reverse);
}

TEST_F(FsmPmRequestsTest, ProxyConnectionsRestartWhenTheListChanges) {
  ASSERT_TRUE(startSim("a", "127.0.0.1",
                       "<key>proxies</key><array>\n"
                       "<dict><key>name</key><string>p1</string><key>address1</key>"
                       "<string>127.0.0.7</string><key>port</key><integer>7001</integer>"
                       "<key>counter1</key><integer>5000000000</integer></dict>\n"
                       "<dict><key>name</key><string>p2</string></dict>\n"
                       "</array><key>proxyListChangesOnce</key><true/>\n"));
  UniqueFd fd = connect();
  std::uint8_t msg[kPmMsgLen];
  char err[ADMIN_ERRBUF_LEN];
  ASSERT_EQ(FsmPMListProxyConnection(fd.get(), 0, msg, err), 0) << err;
  EXPECT_EQ(get_be16(msg + kPmProxyPort), 7001);
  EXPECT_EQ(get_be64(msg + kPmProxyCounter1), 5000000000ull);
  EXPECT_STREQ(reinterpret_cast<char*>(msg + kPmProxyName), "p1");
  EXPECT_EQ(FsmPMListProxyConnection(fd.get(), 1, msg, err), 1);
  EXPECT_EQ(FsmPMListProxyConnection(fd.get(), 0, msg, err), 0);
  EXPECT_EQ(FsmPMListProxyConnection(fd.get(), 1, msg, err), 0);
  EXPECT_STREQ(reinterpret_cast<char*>(msg + kPmProxyName), "p2");
  EXPECT_EQ(FsmPMListProxyConnection(fd.get(), 2, msg, err), 2);
}

constexpr char kDisks[] =
    "<key>disks</key><array>\n"
    "<dict><key>label</key><string>lun-a</string><key>serial</key><string>SER-A</string>"
    "<key>device</key><string>/dev/sda</string><key>inquiry</key><string>VENDOR A</string>"
    "<key>size</key><integer>1099511627776</integer><key>lunId</key><integer>4</integer>"
    "<key>sectorSize</key><integer>4096</integer></dict>\n"
    "<dict><key>label</key><string>lun-b</string></dict>\n"
    "<dict><key>label</key><string>lun-c</string></dict>\n"
    "</array>\n";

TEST_F(FsmPmRequestsTest, GetDisksWalksTheList) {
  SimPmProcess* sim = startSim("a", "127.0.0.1", kDisks);
  ASSERT_TRUE(sim);
  UniqueFd fd = connect();
  PmDiskRecord disks[2];
  std::uint32_t gen = 0;
  char err[ADMIN_ERRBUF_LEN];
  ASSERT_EQ(FsmPMGetDisks(fd.get(), 0, 2, 0, disks, &gen, err), 2) << err;
  EXPECT_EQ(gen, 1u);
  EXPECT_STREQ(disks[0].label, "lun-a");
  EXPECT_STREQ(disks[0].serial, "SER-A");
  EXPECT_STREQ(disks[0].device, "/dev/sda");
  EXPECT_STREQ(disks[0].inquiry, "VENDOR A");
  EXPECT_EQ(disks[0].size, 1099511627776ull);
  EXPECT_EQ(disks[0].lunId, 4);
  EXPECT_EQ(disks[0].sectorSize, 4096u);
  EXPECT_STREQ(disks[1].label, "lun-b");
  EXPECT_EQ(FsmPMGetDisks(fd.get(), 2, 2, 0, disks, &gen, err), 1);
  EXPECT_STREQ(disks[0].label, "lun-c");
  EXPECT_EQ(FsmPMGetDisks(fd.get(), 3, 2, 0, disks, &gen, err), 0);
}

TEST_F(FsmPmRequestsTest, GetDisksReportsAChangedListOnceThenGoesOn) {
  ASSERT_TRUE(startSim("a", "127.0.0.1", kDisks));
  UniqueFd fd = connect();
  PmDiskRecord disk;
  std::uint32_t gen = 0;
  char err[ADMIN_ERRBUF_LEN];
  ASSERT_EQ(FsmPMGetDisks(fd.get(), 0, 1, 0, &disk, &gen, err), 1);
  EXPECT_EQ(gen, 1u);
  // Someone else rescans in the middle of the walk.
  UniqueFd other = connect();
  EXPECT_EQ(FsmPMGetDisks(other.get(), 0, 0, 1, nullptr, nullptr, err), 0);
  EXPECT_EQ(FsmPMGetDisks(fd.get(), 1, 1, 0, &disk, &gen, err), -2);
  EXPECT_EQ(gen, 2u);
  EXPECT_EQ(FsmPMGetDisks(fd.get(), 1, 1, 0, &disk, &gen, err), 1);
  EXPECT_STREQ(disk.label, "lun-b");
  // Index 0 never compares.
  gen = 77;
  EXPECT_EQ(FsmPMGetDisks(fd.get(), 0, 1, 0, &disk, &gen, err), 1);
  EXPECT_EQ(gen, 2u);
}

TEST_F(FsmPmRequestsTest, GetDisksOlderForms) {
  SimPmProcess* sim = startSim(
      "a", "127.0.0.1",
      std::string(kDisks) + "<key>unknownTypes</key><array><integer>2062</integer></array>\n");
  ASSERT_TRUE(sim);
  UniqueFd fd = connect();
  PmDiskRecord disks[3];
  std::uint32_t gen = 0;
  char err[ADMIN_ERRBUF_LEN];
  EXPECT_EQ(FsmPMGetDisks(fd.get(), 0, 3, 0, disks, &gen, err), 3);
  EXPECT_TRUE(sim->waitForText("disks 0x0017 index 0 count 3 -> 3 disks"));

  SimPmProcess* old = startSim("b", "127.0.0.2",
                               std::string(kDisks) +
                                   "<key>unknownTypes</key><array><integer>2062</integer>"
                                   "<integer>23</integer></array>\n");
  ASSERT_TRUE(old);
  UniqueFd fdOld = connect("127.0.0.2");
  gen = 9;
  EXPECT_EQ(FsmPMGetDisks(fdOld.get(), 0, 3, 1, disks, &gen, err), 1);
  EXPECT_EQ(gen, 0u);
  EXPECT_STREQ(disks[0].label, "lun-a");
  EXPECT_STREQ(disks[0].inquiry, "VENDOR A");
  EXPECT_EQ(disks[0].sectorSize, 4096u);
  EXPECT_TRUE(old->waitForText("disks 0x0015 index 0 refresh -> one disk"));
  EXPECT_EQ(FsmPMGetDisks(fdOld.get(), 3, 3, 0, disks, &gen, err), 0);
}

TEST_F(FsmPmRequestsTest, GetDisksWithNoFormLeft) {
  ASSERT_TRUE(startSim("a", "127.0.0.1",
                       "<key>unknownTypes</key><array><integer>2062</integer><integer>23</integer>"
                       "<integer>21</integer></array>\n"));
  UniqueFd fd = connect();
  PmDiskRecord disk;
  char err[ADMIN_ERRBUF_LEN];
  EXPECT_EQ(FsmPMGetDisks(fd.get(), 0, 1, 0, &disk, nullptr, err), -1);
  EXPECT_STREQ(err, "message not supported");
}

TEST_F(FsmPmRequestsTest, ClusterControls) {
  ASSERT_TRUE(startSim("a", "127.0.0.1",
                       "<key>cctls</key><array>\n"
                       "<dict><key>name</key><string>fs-one</string><key>value</key>"
                       "<integer>12345678901</integer></dict>\n"
                       "<dict><key>name</key><string>fs-two</string><key>value</key>"
                       "<integer>2</integer></dict>\n"
                       "</array><key>cctlGeneration</key><integer>5</integer>\n"));
  UniqueFd fd = connect();
  char err[ADMIN_ERRBUF_LEN];
  std::uint64_t value = 0;
  std::uint32_t word = 9;
  EXPECT_EQ(FsmPMGetLocalCctls(fd.get(), "fs-one", &value, &word, err), 0);
  EXPECT_EQ(value, 12345678901ull);
  EXPECT_EQ(word, 0u);
  EXPECT_EQ(FsmPMGetLocalCctls(fd.get(), "fs-none", &value, nullptr, err), 2);

  struct in6_addr nss;
  AddrSetLoopback4(&nss);
  CctlList list{};
  ASSERT_EQ(FsmPMGetCctlsFromNss(fd.get(), &list, &nss, err), 0) << err;
  EXPECT_EQ(list.state, kCctlStateFilled);
  EXPECT_EQ(list.generation, 5u);
  ASSERT_EQ(list.count, 2);
  EXPECT_STREQ(list.entries[1].name, "fs-two");
  EXPECT_EQ(list.entries[0].value, 12345678901ull);
  // Unchanged: the holder is emptied and keeps the state.
  ASSERT_EQ(FsmPMGetCctlsFromNss(fd.get(), &list, &nss, err), 0);
  EXPECT_EQ(list.state, kCctlStateUnchanged);
  EXPECT_EQ(list.count, 0);
  FreeCctlList(&list);
}

TEST_F(FsmPmRequestsTest, ClusterControlsFromAnOlderPeer) {
  ASSERT_TRUE(startSim("a", "127.0.0.1",
                       "<key>unknownTypes</key><array><integer>38</integer><integer>39</integer>"
                       "</array>\n"));
  UniqueFd fd = connect();
  char err[ADMIN_ERRBUF_LEN];
  std::uint64_t value = 0;
  EXPECT_EQ(FsmPMGetLocalCctls(fd.get(), "x", &value, nullptr, err), -1);
  EXPECT_STREQ(err, "unsupported message");
  CctlList list{};
  EXPECT_EQ(FsmPMGetCctlsFromNss(fd.get(), &list, nullptr, err), 1);
  EXPECT_EQ(list.state, kCctlStateUnchanged);
  EXPECT_STREQ(err, "unsupported message");
}

TEST_F(FsmPmRequestsTest, RasEvents) {
  SimPmProcess* sim = startSim("a", "127.0.0.1", "");
  ASSERT_TRUE(sim);
  UniqueFd fd = connect();
  std::string longText(600, 'x');
  EXPECT_EQ(FsmPmRasEvent(fd.get(), "DiskFailure", longText.c_str(), 3, -1), 0);
  EXPECT_TRUE(sim->waitForText("ras event 'DiskFailure' '" + std::string(511, 'x') + "' 3 -1"));
  // By this machine's own host name, on a connection of its own; the name stands for loopback.
  ScopedEnv addrs("VELM_HOST_ADDRESSES", "127.0.0.1");
  ResetAddrLists();
  ASSERT_EQ(SendPmRasEvent("NodeUp", "hello", 1, 2), 0);
  EXPECT_TRUE(sim->waitForText("ras event 'NodeUp' 'hello' 1 2"));
}

TEST_F(FsmPmRequestsTest, RasEventToAnOlderPeerGivesItsErrorNumber) {
  ASSERT_TRUE(
      startSim("a", "127.0.0.1", "<key>unknownTypes</key><array><integer>31</integer></array>\n"));
  UniqueFd fd = connect();
  EXPECT_EQ(FsmPmRasEvent(fd.get(), "e", "t", 0, 0), 1);
}

TEST_F(FsmPmRequestsTest, SendPmRasEventWithoutAPortMapper) {
  std::string text;
  static std::string* sink = &text;
  sink = &text;
  WriteLog = [](int level, const char* line) { *sink += std::to_string(level) + ":" + line; };
  EXPECT_EQ(SendPmRasEvent("e", "t", 0, 0), -1);
  EXPECT_EQ(text.rfind("2:FsmPmConnect failed: ", 0), 0u) << text;
}

}  // namespace
}  // namespace velm::test
