// velm-simpm following the machine's fsmlist: a listed volume it has no FSM for starts on a start
// request, with an admin port of its own, and leaves the list once stopped and unlisted.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "adminlib/qmadminlib.h"
#include "sim/port_mapper_client.h"

namespace velm::test {
namespace {

class FsmListTest : public PortMapperClientTest {
 protected:
  void writeFsmList(const std::string& text) {
    sandbox_.write("/Library/Filesystems/Velm/config/fsmlist", text);
  }
  static const QMAdminFsmRecord* find(const std::vector<QMAdminFsmRecord>& list,
                                      const std::string& name) {
    for (const auto& r : list)
      if (name == r.name) return &r;
    return nullptr;
  }
};

TEST_F(FsmListTest, ListedVolumeStartsAndLeavesWhenUnlisted) {
  // A configured FSM stays whatever fsmlist says.
  sandbox_.write("/simpm.plist",
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                 "<key>fsms</key><array><dict><key>name</key><string>cfgvol</string>"
                 "<key>running</key><false/></dict></array>\n</dict>\n</plist>\n");
  writeFsmList("# volumes of this machine\n\nvol2 . 3\n");
  ASSERT_TRUE(sim_.start("velm-simpm", {"--root", sandbox_.root()}, "listening on"))
      << sim_.stderrText();
  char err[ADMIN_ERRBUF_LEN] = {};
  int h = QMAdmin_NSConnect("127.0.0.1", err);
  ASSERT_GE(h, 0) << err;

  EXPECT_EQ(QMAdmin_FSMStart(h, "unlisted", "127.0.0.1", err), QMFS_ENOCONFIG) << err;
  EXPECT_EQ(QMAdmin_FSMStart(h, "vol2", "127.0.0.1", err), QMFS_OK) << err;
  std::vector<QMAdminFsmRecord> list = walk(h);
  const QMAdminFsmRecord* rec = find(list, "vol2");
  ASSERT_NE(rec, nullptr) << sim_.stderrText();
  EXPECT_EQ(rec->state, QMADMIN_STATE_ACTIVE);
  EXPECT_EQ(rec->priority, 3);
  int port = rec->port;
  EXPECT_GT(port, 0);
  // Its admin port answers like a configured FSM's.
  int fsm = QMAdmin_FSMConnect(h, rec, err);
  EXPECT_GE(fsm, 0) << err << sim_.stderrText();
  if (fsm >= 0) {
    EXPECT_EQ(QMAdmin_FSMDisconnect(fsm), 0);
  }
  EXPECT_EQ(QMAdmin_FSMStart(h, "vol2", "127.0.0.1", err), QMFS_EEXIST) << err;

  // Unlisted while running: it stays until stopped, then it is gone.
  writeFsmList("");
  EXPECT_NE(find(walk(h), "vol2"), nullptr);
  EXPECT_EQ(QMAdmin_FSMStopByHost(h, "vol2", "127.0.0.1", err), QMFS_OK) << err;
  EXPECT_EQ(find(walk(h), "vol2"), nullptr);
  EXPECT_TRUE(sim_.waitForText("'vol2': no longer in fsmlist; dropped")) << sim_.stderrText();
  EXPECT_EQ(QMAdmin_FSMStart(h, "vol2", "127.0.0.1", err), QMFS_ENOCONFIG) << err;

  // Listed again, it comes back on the same port.
  writeFsmList("vol2 .\n");
  EXPECT_EQ(QMAdmin_FSMStart(h, "vol2", "127.0.0.1", err), QMFS_OK) << err;
  list = walk(h);
  rec = find(list, "vol2");
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(rec->port, port);
  EXPECT_EQ(rec->priority, 1);

  // The configured FSM, never in fsmlist, starts, stops and starts again.
  EXPECT_EQ(QMAdmin_FSMStart(h, "cfgvol", "127.0.0.1", err), QMFS_OK) << err;
  EXPECT_EQ(QMAdmin_FSMStopByHost(h, "cfgvol", "127.0.0.1", err), QMFS_OK) << err;
  EXPECT_EQ(QMAdmin_FSMStart(h, "cfgvol", "127.0.0.1", err), QMFS_OK) << err;
  EXPECT_EQ(QMAdmin_NSDisconnect(h), 0);
}

}  // namespace
}  // namespace velm::test
