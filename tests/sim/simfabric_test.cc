// The fake sysfs Fibre Channel tree: its layout and attribute texts, lost and returning paths,
// disk statistics, and the program's exit statuses.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim/simfabric/fabric_tree.h"
#include "support/run_program.h"
#include "support/sandbox.h"
#include "support/sim_process.h"

namespace velm::test {
namespace {

namespace fs = std::filesystem;
using sim::FabricTree;
using sim::PathState;

constexpr std::uint64_t kWwnn = 0x50012345abcdef00ULL;
constexpr std::uint64_t kOther = 0x50012345abcdef80ULL;
constexpr std::uint64_t kSasWwnn = 0x3000000000beef00ULL;
constexpr char kDev[] = "devices/platform/velm-simfabric/";
const std::string kZeroStat =
    "       0        0        0        0        0        0        0        0        0        0 "
    "       0        0        0        0        0        0        0\n";

class SimFabricTest : public SandboxTest {
 protected:
  ~SimFabricTest() override {
    std::error_code ec;
    if (!memoryDir_.empty()) fs::remove_all(memoryDir_, ec);
  }
  std::string dir() const { return memoryDir_.empty() ? sandbox_.path("/sys") : memoryDir_; }
  // Moves the tree to a directory in memory when the machine has one: thousands of files are
  // made there at once, where a busy disk file system can take long over each new inode.
  void useMemoryDir() {
    std::string tmpl = "/dev/shm/velm-simfabric-XXXXXX";
    if (::access("/dev/shm", W_OK) == 0 && ::mkdtemp(tmpl.data())) memoryDir_ = tmpl;
  }
  std::string at(const std::string& rel) const { return dir() + "/" + rel; }
  std::string read(const std::string& rel) const {
    std::ifstream in(at(rel), std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  bool exists(const std::string& rel) const {
    std::error_code ec;
    return fs::exists(fs::symlink_status(at(rel), ec));
  }
  // The DIR-relative real path a link leads to.
  std::string resolved(const std::string& rel) const {
    std::error_code ec;
    std::string real = fs::canonical(at(rel), ec).string();
    std::string root = fs::canonical(dir(), ec).string() + "/";
    return real.starts_with(root) ? real.substr(root.size()) : "(outside) " + real;
  }
  // The fields of a disk's stat file.
  std::vector<unsigned long long> stat(const std::string& disk) const {
    std::istringstream in(read("block/" + disk + "/stat"));
    std::vector<unsigned long long> fields;
    for (unsigned long long v; in >> v;) fields.push_back(v);
    return fields;
  }
  // Every link under DIR must be relative and lead to a directory (the mirror links aside).
  void expectLinksResolve() const {
    int links = 0;
    for (const fs::directory_entry& e : fs::recursive_directory_iterator(dir())) {
      if (!e.is_symlink()) continue;
      ++links;
      std::string target = fs::read_symlink(e.path()).string();
      EXPECT_FALSE(target.starts_with("/")) << e.path() << " -> " << target;
      EXPECT_TRUE(fs::is_directory(e.path())) << e.path() << " -> " << target;
    }
    EXPECT_GT(links, 0);
  }
  std::vector<std::string> entries(const std::string& rel) const {
    std::vector<std::string> names;
    std::error_code ec;
    for (const fs::directory_entry& e : fs::directory_iterator(at(rel), ec)) {
      names.push_back(e.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  std::string memoryDir_;
};

TEST_F(SimFabricTest, InitAndAddTargetMakeTheLayout) {
  FabricTree tree(dir());
  ASSERT_TRUE(tree.init()) << tree.error();
  EXPECT_EQ(entries("class/fc_host"), (std::vector<std::string>{"host1", "host2"}));
  EXPECT_EQ(resolved("class/fc_host/host2"), std::string(kDev) + "host2/fc_host/host2");
  EXPECT_EQ(read("class/fc_host/host1/port_state"), "Online\n");
  EXPECT_EQ(read("class/fc_host/host1/speed"), "8 Gbit\n");
  EXPECT_EQ(read("class/fc_host/host1/port_id"), "0x010100\n");
  EXPECT_EQ(read("class/fc_host/host1/node_name"), "0x300056454c4d0100\n");
  EXPECT_EQ(read("class/fc_host/host2/port_name"), "0x300056454c4d0201\n");

  ASSERT_TRUE(tree.addTarget(kWwnn, {}, {0, 1})) << tree.error();
  ASSERT_TRUE(tree.addTarget(kOther, {2})) << tree.error();
  EXPECT_EQ(tree.hostsOf(kWwnn), (std::vector<int>{1, 2}));
  EXPECT_EQ(tree.disksOf(kWwnn, 1), (std::vector<std::string>{"sdb", "sdc"}));
  EXPECT_EQ(tree.disksOf(kWwnn, 2), (std::vector<std::string>{"sdd", "sde"}));
  EXPECT_EQ(tree.disksOf(kOther, 2), (std::vector<std::string>{"sdf"}));
  EXPECT_TRUE(tree.disksOf(kOther, 1).empty());

  const std::string rport = std::string(kDev) + "host1/rport-1:0-0/";
  EXPECT_EQ(resolved("class/fc_remote_ports/rport-1:0-0"), rport + "fc_remote_ports/rport-1:0-0");
  EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/node_name"), "0x50012345abcdef00\n");
  EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/port_name"), "0x50012345abcdef01\n");
  EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/port_id"), "0x010200\n");
  EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/roles"), "FCP Target\n");
  EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/port_state"), "Online\n");
  EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/scsi_target_id"), "0\n");
  // The second target on host2 is that host's second rport and scsi target.
  EXPECT_EQ(read("class/fc_remote_ports/rport-2:0-1/node_name"), "0x50012345abcdef80\n");
  EXPECT_EQ(read("class/fc_remote_ports/rport-2:0-1/scsi_target_id"), "1\n");
  EXPECT_EQ(resolved("class/fc_transport/target2:0:1"),
            std::string(kDev) + "host2/rport-2:0-1/target2:0:1/fc_transport/target2:0:1");
  EXPECT_EQ(read("class/fc_transport/target1:0:0/node_name"), "0x50012345abcdef00\n");
  EXPECT_EQ(read("class/fc_transport/target1:0:0/port_id"), "0x010200\n");

  const std::string lun = rport + "target1:0:0/1:0:0:1";
  EXPECT_EQ(resolved("class/scsi_device/1:0:0:1"), lun + "/scsi_device/1:0:0:1");
  EXPECT_EQ(resolved("class/scsi_device/1:0:0:1/device"), lun);
  EXPECT_EQ(read("class/scsi_device/1:0:0:1/device/state"), "running\n");
  EXPECT_EQ(read(lun + "/wwid"), "naa.60012345abcdef000000000000000001\n");
  const unsigned char page[] = {0x00, 0x83, 0x00, 0x14, 0x01, 0x03, 0x00, 0x10,
                                0x60, 0x01, 0x23, 0x45, 0xab, 0xcd, 0xef, 0x00,
                                0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01};
  EXPECT_EQ(read(lun + "/vpd_pg83"), std::string(reinterpret_cast<const char*>(page), sizeof page));
  EXPECT_EQ(resolved("block/sdc"), lun + "/block/sdc");
  EXPECT_EQ(read("block/sdb/dev"), "8:16\n");
  EXPECT_EQ(read("block/sdc/dev"), "8:32\n");
  EXPECT_EQ(read("block/sdc/stat"), kZeroStat);
  EXPECT_EQ(entries("block"), (std::vector<std::string>{"sdb", "sdc", "sdd", "sde", "sdf"}));
  EXPECT_EQ(entries("class/scsi_device"),
            (std::vector<std::string>{"1:0:0:0", "1:0:0:1", "2:0:0:0", "2:0:0:1", "2:0:1:0"}));

  // A SAS target brings a SAS host numbered after the FC ones; no rport, no fc_transport.
  ASSERT_TRUE(tree.addTarget(kSasWwnn, {}, {}, true)) << tree.error();
  EXPECT_EQ(tree.hostsOf(kSasWwnn), (std::vector<int>{3}));
  EXPECT_EQ(resolved("class/sas_host/host3"), std::string(kDev) + "host3/sas_host/host3");
  EXPECT_EQ(resolved("class/scsi_device/3:0:0:0"),
            std::string(kDev) + "host3/target3:0:0/3:0:0:0/scsi_device/3:0:0:0");
  EXPECT_EQ(resolved("block/sdg"), std::string(kDev) + "host3/target3:0:0/3:0:0:0/block/sdg");
  EXPECT_FALSE(exists("class/fc_transport/target3:0:0"));
  EXPECT_EQ(entries("class/fc_remote_ports").size(), 3u);
  expectLinksResolve();

  // No hidden leftovers where readers look.
  for (std::string d : {"block", "class/scsi_device", "class/fc_transport"}) {
    for (const std::string& name : entries(d)) EXPECT_NE(name[0], '.') << d << "/" << name;
  }
}

TEST_F(SimFabricTest, BadRequestsFail) {
  FabricTree tree(dir());
  EXPECT_FALSE(tree.addTarget(kWwnn));
  EXPECT_NE(tree.error().find("init"), std::string::npos) << tree.error();
  ASSERT_TRUE(tree.init(2));
  ASSERT_TRUE(tree.addTarget(kWwnn));
  EXPECT_FALSE(tree.addTarget(kWwnn));
  EXPECT_FALSE(tree.addTarget(kOther, {7}));
  EXPECT_FALSE(tree.addTarget(kOther, {1}, {}, true));  // host1 is FC
  EXPECT_FALSE(tree.removeTarget(kOther));
  EXPECT_FALSE(tree.addLun(kWwnn, 0));
  EXPECT_FALSE(tree.removeLun(kWwnn, 3));
  EXPECT_FALSE(tree.setPathState(kWwnn, 5, PathState::Blocked));
  EXPECT_FALSE(tree.addIo(kOther, 1, 512, 0));
}

TEST_F(SimFabricTest, NotPresentTakesTheTargetAwayAndOnlineBringsItBack) {
  FabricTree tree(dir());
  ASSERT_TRUE(tree.init(2));
  ASSERT_TRUE(tree.addTarget(kWwnn, {}, {0, 1})) << tree.error();
  ASSERT_TRUE(tree.addIo(kWwnn, 1, 4096, 4096));
  const std::string rport = std::string(kDev) + "host1/rport-1:0-0";

  ASSERT_TRUE(tree.setPathState(kWwnn, 1, PathState::Blocked)) << tree.error();
  EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/port_state"), "Blocked\n");
  EXPECT_TRUE(exists(rport + "/target1:0:0/1:0:0:0/block/sdb/stat"));
  EXPECT_TRUE(exists("block/sdb"));

  ASSERT_TRUE(tree.setPathState(kWwnn, 1, PathState::NotPresent)) << tree.error();
  EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/port_state"), "Not Present\n");
  EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/scsi_target_id"), "0\n");
  EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/node_name"), "0x50012345abcdef00\n");
  EXPECT_FALSE(exists(rport + "/target1:0:0"));
  EXPECT_EQ(entries(rport), (std::vector<std::string>{"fc_remote_ports"}));
  EXPECT_FALSE(exists("class/fc_transport/target1:0:0"));
  EXPECT_EQ(entries("class/scsi_device"), (std::vector<std::string>{"2:0:0:0", "2:0:0:1"}));
  EXPECT_EQ(entries("block"), (std::vector<std::string>{"sdd", "sde"}));
  EXPECT_TRUE(tree.disksOf(kWwnn, 1).empty());
  EXPECT_FALSE(tree.addIo(kWwnn, 1, 512, 512));
  expectLinksResolve();

  // A LUN added meanwhile shows up when the path returns.
  ASSERT_TRUE(tree.addLun(kWwnn, 2)) << tree.error();
  EXPECT_EQ(tree.disksOf(kWwnn, 2), (std::vector<std::string>{"sdd", "sde", "sdb"}));
  ASSERT_TRUE(tree.setPathState(kWwnn, 1, PathState::Online)) << tree.error();
  EXPECT_EQ(read("class/fc_remote_ports/rport-1:0-0/port_state"), "Online\n");
  EXPECT_EQ(tree.disksOf(kWwnn, 1), (std::vector<std::string>{"sdc", "sdf", "sdg"}));
  EXPECT_EQ(read("class/fc_transport/target1:0:0/node_name"), "0x50012345abcdef00\n");
  EXPECT_EQ(resolved("class/scsi_device/1:0:0:2/device"), rport + "/target1:0:0/1:0:0:2");
  for (const std::string& disk : tree.disksOf(kWwnn, 1)) {
    EXPECT_EQ(read("block/" + disk + "/stat"), kZeroStat) << disk;
  }
  EXPECT_EQ(entries("class/scsi_device").size(), 6u);
  expectLinksResolve();

  ASSERT_TRUE(tree.setPathState(kWwnn, 2, PathState::Marginal));
  EXPECT_EQ(read("class/fc_remote_ports/rport-2:0-0/port_state"), "Marginal\n");
  EXPECT_EQ(entries("block").size(), 6u);
}

TEST_F(SimFabricTest, IoAddsExactlyToSectorFields) {
  FabricTree tree(dir());
  ASSERT_TRUE(tree.init(2));
  ASSERT_TRUE(tree.addTarget(kWwnn, {}, {0, 1, 2})) << tree.error();
  // 1953 sectors read (and a partial one dropped), 10 written: 651 each; 4, 3, 3.
  ASSERT_TRUE(tree.addIo(kWwnn, 2, 1000000, 5220)) << tree.error();
  std::vector<std::string> disks = tree.disksOf(kWwnn, 2);
  ASSERT_EQ(disks.size(), 3u);
  unsigned long long reads = 0, writes = 0;
  for (size_t i = 0; i < disks.size(); ++i) {
    std::vector<unsigned long long> f = stat(disks[i]);
    ASSERT_EQ(f.size(), 17u) << disks[i];
    EXPECT_EQ(f[2], 651u);
    EXPECT_EQ(f[6], i == 0 ? 4u : 3u);
    for (size_t k = 0; k < f.size(); ++k) {
      if (k != 2 && k != 6) {
        EXPECT_EQ(f[k], 0u) << disks[i] << " field " << k + 1;
      }
    }
    reads += f[2];
    writes += f[6];
  }
  EXPECT_EQ(reads, 1953u);
  EXPECT_EQ(writes, 10u);
  for (const std::string& disk : tree.disksOf(kWwnn, 1))
    EXPECT_EQ(read("block/" + disk + "/stat"), kZeroStat);

  ASSERT_TRUE(tree.addIo(kWwnn, 2, 512, 0));
  EXPECT_EQ(stat(disks[0])[2], 652u);
  EXPECT_EQ(read("block/" + disks[1] + "/stat").size(), kZeroStat.size());
}

TEST_F(SimFabricTest, LunsAndTargetsComeAndGo) {
  FabricTree tree(dir());
  ASSERT_TRUE(tree.init(2));
  ASSERT_TRUE(tree.addTarget(kWwnn, {}, {0})) << tree.error();
  // Another handle on the same tree sees every change.
  FabricTree other(dir());
  ASSERT_TRUE(other.addLun(kWwnn, 5)) << other.error();
  EXPECT_EQ(tree.disksOf(kWwnn, 1), (std::vector<std::string>{"sdb", "sdd"}));
  EXPECT_TRUE(exists("class/scsi_device/2:0:0:5"));
  ASSERT_TRUE(tree.removeLun(kWwnn, 0)) << tree.error();
  EXPECT_EQ(entries("block"), (std::vector<std::string>{"sdd", "sde"}));
  EXPECT_EQ(entries(std::string(kDev) + "host1/rport-1:0-0/target1:0:0"),
            (std::vector<std::string>{"1:0:0:5", "fc_transport"}));
  ASSERT_TRUE(other.setPathState(kWwnn, 2, PathState::NotPresent));
  ASSERT_TRUE(tree.removeTarget(kWwnn)) << tree.error();
  for (const char* d :
       {"block", "class/scsi_device", "class/fc_transport", "class/fc_remote_ports"}) {
    EXPECT_TRUE(entries(d).empty()) << d;
  }
  EXPECT_EQ(entries(std::string(kDev) + "host1"), (std::vector<std::string>{"fc_host"}));
  EXPECT_TRUE(tree.targets().empty());
  // Names and numbers free again.
  ASSERT_TRUE(tree.addTarget(kOther));
  EXPECT_EQ(tree.disksOf(kOther, 1), (std::vector<std::string>{"sdb"}));
  EXPECT_TRUE(exists("class/fc_remote_ports/rport-1:0-0"));
}

TEST_F(SimFabricTest, InitStartsAfreshAndMirrorsTheHost) {
  FabricTree tree(dir());
  ASSERT_TRUE(tree.init(2));
  ASSERT_TRUE(tree.addTarget(kWwnn));
  ASSERT_TRUE(tree.init(1, true)) << tree.error();
  EXPECT_EQ(entries("class/fc_host"), (std::vector<std::string>{"host1"}));
  EXPECT_TRUE(entries("block").empty());
  EXPECT_TRUE(tree.targets().empty());
  EXPECT_EQ(fs::read_symlink(at("class/net")), "/sys/class/net");
  EXPECT_EQ(fs::read_symlink(at("devices/system/cpu")), "/sys/devices/system/cpu");
  EXPECT_EQ(fs::read_symlink(at("class/dmi")), "/sys/class/dmi");
  ASSERT_TRUE(tree.init(1));
  EXPECT_FALSE(exists("class/net"));
  EXPECT_FALSE(FabricTree("/sys").init(1));
}

TEST_F(SimFabricTest, LargeFabric) {
  useMemoryDir();
  std::string error;
  ASSERT_TRUE(sim::generateLargeFabric(dir(), 4, 16, 64, &error)) << error;
  EXPECT_EQ(entries("block").size(), 4096u);
  EXPECT_EQ(entries("class/scsi_device").size(), 4096u);
  EXPECT_EQ(entries("class/fc_remote_ports").size(), 64u);
  FabricTree tree(dir());
  std::vector<sim::FabricTarget> targets = tree.targets();
  ASSERT_EQ(targets.size(), 16u);
  EXPECT_EQ(tree.disksOf(targets[15].wwnn, 4).back(), "sdfao");  // disk index 4096
  EXPECT_EQ(read("block/sdfao/dev"), "8:4096\n");
}

TEST_F(SimFabricTest, ProgramExitStatuses) {
  const std::string d = dir();
  auto run = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"--sysfs", d});
    return runProgram("velm-simfabric", args);
  };
  ProgramResult r = runProgram("velm-simfabric", {});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("usage"), std::string::npos) << r.err;
  EXPECT_EQ(runProgram("velm-simfabric", {"--help"}).status, 0);
  r = run({"show"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("init"), std::string::npos) << r.err;
  EXPECT_EQ(run({"init", "--hosts", "3"}).status, 0);
  EXPECT_EQ(run({"frobnicate"}).status, 2);
  EXPECT_EQ(run({"init", "--hosts", "x"}).status, 2);
  EXPECT_EQ(run({"add-target", "0xzz"}).status, 2);
  EXPECT_EQ(run({"add-target", "50012345abcdef00", "--luns", "3-1"}).status, 2);
  EXPECT_EQ(run({"add-target", "50012345abcdef00", "--bogus"}).status, 2);
  r = run({"add-target", "50012345abcdef00", "--hosts", "1,3", "--luns", "0-3"});
  EXPECT_EQ(r.status, 0) << r.err;
  r = run({"add-target", "0x50012345abcdef00"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  r = run({"remove-target", "0x123"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "velm-simfabric: no target 0x123\n");
  EXPECT_EQ(run({"path", "0x50012345abcdef00", "--host", "1", "--state", "Bogus"}).status, 2);
  EXPECT_EQ(run({"path", "0x50012345abcdef00", "--state", "Online"}).status, 2);
  EXPECT_EQ(run({"path", "0x50012345abcdef00", "--host", "2", "--state", "Blocked"}).status, 1);
  EXPECT_EQ(run({"path", "0x50012345abcdef00", "--host", "3", "--state", "NotPresent"}).status, 0);
  EXPECT_EQ(run({"add-lun", "0x50012345abcdef00", "x"}).status, 2);
  EXPECT_EQ(run({"add-lun", "0x50012345abcdef00", "9"}).status, 0);
  EXPECT_EQ(run({"remove-lun", "0x50012345abcdef00", "8"}).status, 1);
  r = run({"io", "0x50012345abcdef00", "--host", "1", "--read", "5120", "--write", "1024"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(run({"io", "0x50012345abcdef00", "--host", "3", "--read", "512"}).status, 1);
  EXPECT_EQ(run({"io", "0x50012345abcdef00", "--host", "1", "--read", "-5"}).status, 2);
  EXPECT_EQ(run({"traffic"}).status, 2);
  r = run({"show"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("0x50012345abcdef00"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Not Present"), std::string::npos) << r.out;

  FabricTree tree(d);
  std::vector<std::string> disks = tree.disksOf(0x50012345abcdef00ULL, 1);
  ASSERT_EQ(disks.size(), 5u);
  EXPECT_EQ(stat(disks[0])[2], 2u);
  EXPECT_EQ(stat(disks[4])[2], 2u);
  EXPECT_EQ(stat(disks[0])[6], 1u);
  EXPECT_EQ(stat(disks[1])[6], 1u);
  EXPECT_EQ(stat(disks[2])[6], 0u);
}

TEST_F(SimFabricTest, TrafficRunsUntilStopped) {
  FabricTree tree(dir());
  ASSERT_TRUE(tree.init(2));
  ASSERT_TRUE(tree.addTarget(kWwnn, {}, {0, 1})) << tree.error();
  ASSERT_TRUE(tree.setPathState(kWwnn, 2, PathState::Blocked));
  SimProcess traffic;
  // 2 MiB/s: 1 MiB read and written every half second, all on the one working path.
  ASSERT_TRUE(traffic.start("velm-simfabric", {"--sysfs", dir(), "traffic", "--rate", "2097152"},
                            "traffic"))
      << traffic.stderrText();
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  EXPECT_EQ(traffic.stop(), 0) << traffic.stderrText();
  unsigned long long reads = 0, writes = 0;
  for (const std::string& disk : tree.disksOf(kWwnn, 1)) {
    reads += stat(disk)[2];
    writes += stat(disk)[6];
  }
  EXPECT_GE(reads, 2048u);
  EXPECT_EQ(reads % 2048, 0u);
  EXPECT_EQ(reads, writes);
  for (const std::string& disk : tree.disksOf(kWwnn, 2)) {
    EXPECT_EQ(read("block/" + disk + "/stat"), kZeroStat);
  }
}

}  // namespace
}  // namespace velm::test
