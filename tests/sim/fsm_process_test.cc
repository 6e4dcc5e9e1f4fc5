// velm-simpm's FSM processes: a running local FSM is a real child whose pid the list reports,
// linked into a sandbox process table; it ends with a stop, a fail-over gives a new one, and a
// configured pid still wins.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim/port_mapper_client.h"

namespace velm::test {
namespace {

namespace fs = std::filesystem;

std::string readText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Field 24 of /proc/<pid>/stat, in bytes.
long long residentBytes(int pid) {
  std::string stat = readText("/proc/" + std::to_string(pid) + "/stat");
  std::size_t close = stat.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream fields(stat.substr(close + 2));
  std::string field;
  for (int i = 3; i <= 24 && fields >> field; ++i)
    if (i == 24) return std::stoll(field) * ::sysconf(_SC_PAGESIZE);
  return -1;
}

bool gone(int pid) { return ::kill(pid, 0) != 0 && errno == ESRCH; }

// Running or sleeping, not a zombie.
bool alive(int pid) {
  std::string stat = readText("/proc/" + std::to_string(pid) + "/stat");
  std::size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

class FsmProcessTest : public PortMapperClientTest {
 protected:
  void SetUp() override {
    PortMapperClientTest::SetUp();
    sandbox_.write("/proc/self/mountinfo", "");
  }
  bool startSim() {
    return sim_.start("velm-simpm", {"--root", sandbox_.root()}, "listening on",
                      {{"VELM_PROCFS", sandbox_.path("/proc")}});
  }
  int pidOf(int h, const std::string& name, int state) {
    for (const QMAdminFsmRecord& r : walk(h))
      if (name == r.name && r.state == state) return r.pid;
    return -1;
  }
};

TEST_F(FsmProcessTest, RunningFsmsAreRealProcessesThatEndWithTheirFsm) {
  sandbox_.write("/simpm.plist",
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                 "<key>fsms</key><array>"
                 "<dict><key>name</key><string>busy</string>"
                 "<key>residentBytes</key><integer>33554432</integer>"
                 "<key>cpuLoad</key><integer>5</integer></dict>"
                 "<dict><key>name</key><string>busy</string><key>active</key><false/>"
                 "<key>priority</key><integer>1</integer></dict>"
                 "<dict><key>name</key><string>fixed</string><key>pid</key>"
                 "<integer>4242</integer></dict>"
                 "</array>\n</dict>\n</plist>\n");
  ASSERT_TRUE(startSim()) << sim_.stderrText();
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;

  EXPECT_EQ(pidOf(h, "fixed", QMADMIN_STATE_ACTIVE), 4242);
  EXPECT_FALSE(fs::exists(fs::symlink_status(sandbox_.path("/proc/4242"))));
  int active = pidOf(h, "busy", QMADMIN_STATE_ACTIVE);
  int standby = pidOf(h, "busy", QMADMIN_STATE_STANDBY);
  ASSERT_GT(active, 0);
  ASSERT_GT(standby, 0);
  EXPECT_NE(active, standby);
  // It names itself once it runs.
  std::string comm;
  for (int i = 0; i < 200 && comm != "fsm\n"; ++i) {
    comm = readText("/proc/" + std::to_string(active) + "/comm");
    if (comm != "fsm\n") std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(comm, "fsm\n");
  EXPECT_EQ(fs::read_symlink(sandbox_.path("/proc/" + std::to_string(active))).string(),
            "/proc/" + std::to_string(active));
  EXPECT_EQ(fs::read_symlink(sandbox_.path("/proc/stat")).string(), "/proc/stat");
  // The memory is touched at once, before the first burst of work.
  long long rss = 0;
  for (int i = 0; i < 200 && rss < 32LL << 20; ++i) {
    rss = residentBytes(active);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_GE(rss, 32LL << 20);

  // The active one fails away to the standby: both get new processes.
  ASSERT_EQ(QMAdmin_FSMStop(h, "busy", 1, err), QMFS_OK) << err;
  int nowActive = pidOf(h, "busy", QMADMIN_STATE_ACTIVE);
  int nowStandby = pidOf(h, "busy", QMADMIN_STATE_STANDBY);
  EXPECT_TRUE(gone(active));
  EXPECT_TRUE(gone(standby));
  EXPECT_GT(nowActive, 0);
  EXPECT_GT(nowStandby, 0);
  EXPECT_FALSE(fs::exists(fs::symlink_status(sandbox_.path("/proc/" + std::to_string(active)))));
  // They outlive the connection whose request started them.
  QMAdmin_NSDisconnect(h);
  h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(alive(nowActive));
  EXPECT_EQ(pidOf(h, "busy", QMADMIN_STATE_ACTIVE), nowActive);

  // A stop ends the process before its answer comes back.
  ASSERT_EQ(QMAdmin_FSMStopByHost(h, "fixed", "127.0.0.1", err), QMFS_OK) << err;
  ASSERT_EQ(QMAdmin_FSMStopByHost(h, "busy", "127.0.0.1", err), QMFS_OK) << err;
  EXPECT_TRUE(gone(nowActive));
  QMAdmin_NSDisconnect(h);

  EXPECT_EQ(sim_.stop(), 0) << sim_.stderrText();
  EXPECT_TRUE(gone(nowStandby));
  EXPECT_FALSE(fs::exists(fs::symlink_status(sandbox_.path("/proc/" + std::to_string(nowStandby)))));
}

TEST_F(FsmProcessTest, FreeSpaceFollowsTheVolumesFilesAndATakeoverRunsTheHook) {
  std::string content = sandbox_.path("/shared/Projects");
  sandbox_.write("/simpm.plist",
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                 "<key>failoverHook</key><array><string>touch</string><string>" +
                     sandbox_.path("/took-over-%v-at-%h") +
                     "</string></array>"
                     "<key>fsms</key><array>"
                     "<dict><key>name</key><string>Projects</string><key>contentDir</key><string>" +
                     content +
                     "</string><key>statistics</key><dict><key>totalBlocks</key>"
                     "<integer>1000</integer><key>blockSize</key><integer>4096</integer></dict>"
                     "</dict>"
                     "<dict><key>name</key><string>Projects</string><key>active</key><false/>"
                     "<key>priority</key><integer>1</integer></dict>"
                     "</array>\n</dict>\n</plist>\n");
  ASSERT_TRUE(startSim()) << sim_.stderrText();
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;
  auto freeBlocks = [&]() -> long long {
    QMAdminFsmRecord rec{};
    for (const QMAdminFsmRecord& r : walk(h))
      if (r.state == QMADMIN_STATE_ACTIVE) rec = r;
    int fsm = QMAdmin_FSMConnect(h, &rec, err);
    if (fsm < 0) return -1;
    QMAdminFsStat st{};
    long long out = QMAdmin_FSMStat(fsm, &st) == 0 ? static_cast<long long>(st.freeBlocks) : -1;
    QMAdmin_FSMDisconnect(fsm);
    return out;
  };
  EXPECT_EQ(freeBlocks(), 500000) << "no folder: the configured free space";
  fs::create_directories(content + "/clips");
  {
    std::ofstream(content + "/clips/a.mov").close();
    fs::resize_file(content + "/clips/a.mov", 4096 * 700 + 1);  // sparse: apparent size counts
  }
  EXPECT_EQ(freeBlocks(), 1000 - 701);
  fs::resize_file(content + "/clips/a.mov", 4096 * 5000);
  EXPECT_EQ(freeBlocks(), 0);

  ASSERT_EQ(QMAdmin_FSMStop(h, "Projects", 1, err), QMFS_OK) << err;
  std::string marker = sandbox_.path("/took-over-Projects-at-127.0.0.1");
  for (int i = 0; i < 200 && !fs::exists(marker); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(fs::exists(marker)) << sim_.stderrText();
  QMAdmin_NSDisconnect(h);
}

TEST_F(FsmProcessTest, LoadOutsideAPercentageIsRefused) {
  sandbox_.write("/simpm.plist",
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                 "<key>fsms</key><array><dict><key>name</key><string>v</string>"
                 "<key>cpuLoad</key><integer>150</integer></dict></array>\n</dict>\n</plist>\n");
  EXPECT_FALSE(startSim());
  EXPECT_NE(sim_.stderrText().find("'cpuLoad' is not a percentage"), std::string::npos)
      << sim_.stderrText();
  EXPECT_EQ(sim_.stop(), 1);
}

}  // namespace
}  // namespace velm::test
