#include "controller_helpers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "adminlib/fsmcomm.h"
#include "adminlib/qmadminlib.h"
#include "adminlib/sock46.h"
#include "core/san_computer.h"
#include "gateway/san_filesystem.h"
#include "platform/paths.h"
#include "support/plugin_command.h"
#include "support/ports.h"
#include "volumes/volume_state.h"

namespace velm::test {
namespace {

unsigned short noRpcbind(const struct sockaddr_in*, unsigned long, unsigned long, unsigned int) {
  return 0;
}

PmapGetportFunc gSavedPmap = nullptr;

}  // namespace

std::string fsmEntry(const std::string& name, bool active, bool running, const std::string& extra) {
  return "<dict><key>name</key><string>" + name +
         "</string><key>priority</key><integer>1</integer>" + "<key>active</key><" +
         (active ? "true" : "false") + "/><key>running</key><" + (running ? "true" : "false") +
         "/>" + extra + "</dict>";
}

void ControllerTest::SetUp() {
  ::setenv("VELM_HOST_ADDRESSES", kControllerA, 1);
  ::setenv("VELM_PROCFS", sandbox_.path("/proc").c_str(), 1);
  resetPathsForTest();
  gSavedPmap = PmapGetportHook;
  PmapGetportHook = noRpcbind;
  AltGetportResetForTest();
  ResetAddrLists();
  QMAdmin_SetPrivilegedForTest(1);
  resetVolumeStateForTest();
  SANFilesystem::resetForTest();
  SANComputer::resetForTest();
  usePort(freeLoopbackPort());
}

void ControllerTest::TearDown() {
  QMAdmin_Teardown();
  for (auto* pm : {pmA_.get(), pmB_.get()}) {
    // -1: a test stopped it already.
    if (int status = pm ? pm->stop() : -1; status != -1) {
      EXPECT_EQ(status, 0) << pm->stderrText();
    }
  }
  PmapGetportHook = gSavedPmap;
  AltGetportResetForTest();
  ::unsetenv("VELM_HOST_ADDRESSES");
  ::unsetenv("VELM_PROBE_PORT");
  ::unsetenv("VELM_PROCFS");
  resetPathsForTest();
  ResetAddrLists();
  resetVolumeStateForTest();
  SANFilesystem::resetForTest();
  SANComputer::resetForTest();
}

PropertyList ControllerTest::run(std::string_view command,
                                 std::vector<std::pair<std::string, PropertyList>> keys) {
  return runCommand(plugin_, context_, command, std::move(keys));
}

void ControllerTest::usePort(int port) {
  port_ = port;
  ::setenv("VELM_PROBE_PORT", std::to_string(port_).c_str(), 1);
  std::string fsports = "altpmap " + std::to_string(port_) + "\n";
  sandbox_.write("/Library/Filesystems/Velm/config/fsports", fsports);
  sandbox_.write("/b/Library/Filesystems/Velm/config/fsports", fsports);
  AltGetportResetForTest();
}

bool ControllerTest::startSan(const std::string& fsmsOfA, const std::string& fsmsOfB) {
  auto config = [this](const std::string& fsms, const char* peer) {
    return "<plist version=\"1.0\"><dict><key>fsms</key><array>" + fsms +
           "</array><key>peers</key><array><string>" + peer + ":" + std::to_string(port_) +
           "</string></array></dict></plist>\n";
  };
  bool a = false, b = false;
  // The port was free on 127.0.0.1 when chosen; a test running beside this one may have taken it
  // on the controllers' addresses since. Then another port will do.
  for (int attempt = 0; attempt < 5 && !(a && b); ++attempt) {
    if (attempt > 0) {
      pmA_.reset();
      pmB_.reset();
      usePort(freeLoopbackPort());
    }
    sandbox_.write("/simpm.plist", config(fsmsOfA, kControllerB));
    sandbox_.write("/b/simpm.plist", config(fsmsOfB, kControllerA));
    pmA_ = std::make_unique<SimProcess>();
    pmB_ = std::make_unique<SimProcess>();
    a = pmA_->start("velm-simpm", {"--root", sandbox_.root(), "--listen", kControllerA},
                    "listening on");
    b = pmB_->start("velm-simpm", {"--root", sandbox_.path("/b"), "--listen", kControllerB},
                    "listening on");
  }
  EXPECT_TRUE(a) << pmA_->stderrText();
  EXPECT_TRUE(b) << pmB_->stderrText();
  QMAdmin_Init();
  return a && b;
}

void ControllerTest::writeVolumeConfig(const std::string& volume,
                                       const std::vector<std::string>& controllers) {
  std::string computers, priorities;
  int n = 0;
  for (const std::string& address : controllers) {
    std::string uuid = "00000000-0000-4000-8000-00000000000" + std::to_string(++n);
    if (address == kControllerA) sandbox_.write("/Library/Filesystems/Velm/config/uuid", uuid);
    computers += "<dict><key>uuid</key><string>" + uuid +
                 "</string><key>ipAddresses</key><array><string>" + address +
                 "</string></array></dict>";
    priorities += "<dict><key>controllerUUID</key><string>" + uuid +
                  "</string><key>enabled</key><true/></dict>";
  }
  sandbox_.write(
      "/Library/Filesystems/Velm/config/config.plist",
      "<plist version=\"1.0\"><dict><key>role</key><string>CONTROLLER</string>"
      "<key>metadataNetwork</key><string>127.0.0.0/8</string><key>computers</key><array>" +
          computers + "</array></dict></plist>\n");
  sandbox_.write("/Library/Filesystems/Velm/config/" + volume + "-auxdata.plist",
                 "<plist version=\"1.0\"><dict><key>FailoverPriorities</key><array>" + priorities +
                     "</array></dict></plist>\n");
}

}  // namespace velm::test
