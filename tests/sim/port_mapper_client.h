// The fixture of tests that talk to one velm-simpm through the admin library: a sandbox root
// whose fsports names a free discovery port, the library started afresh, no authentication.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "adminlib/auth.h"
#include "adminlib/fsmcomm.h"
#include "adminlib/qmadminlib.h"
#include "adminlib/subr2.h"
#include "support/ports.h"
#include "support/sandbox.h"
#include "support/sim_process.h"

namespace velm::test {

class PortMapperClientTest : public SandboxTest {
 protected:
  void SetUp() override {
    sandbox_.write("/Library/Filesystems/Velm/config/fsports",
                   "altpmap " + std::to_string(freeLoopbackPort()) + "\n");
    AltGetportResetForTest();
    SetAuthenticateConnection(0);
    authentication_check();
    QMAdmin_Teardown();
    QMAdmin_Init();
    QMAdmin_SetPrivilegedForTest(1);
  }
  void TearDown() override {
    QMAdmin_Teardown();
    if (sim_.pid() > 0) {
      EXPECT_EQ(sim_.stop(), 0) << sim_.stderrText();
    }
    AltGetportResetForTest();
  }
  // Every FSM the port mapper lists, in its order.
  std::vector<QMAdminFsmRecord> walk(int h) {
    std::vector<QMAdminFsmRecord> out;
    char err[ADMIN_ERRBUF_LEN] = {};
    for (int i = 0; i < 100; ++i) {
      QMAdminFsmRecord rec{};
      if (QMAdmin_NSListFsm(h, i, &rec, err) != 0) break;
      out.push_back(rec);
    }
    return out;
  }

  SimProcess sim_;
};

}  // namespace velm::test
