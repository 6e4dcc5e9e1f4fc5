// A small SAN on loopback for the volume tests: this process is the controller at 127.0.0.2
// (VELM_HOST_ADDRESSES), with velm-simpm as its port mapper in the test's root, and a second
// controller's velm-simpm at 127.0.0.3 in a root of its own; the two are peers. The probe port is
// the port mappers' own, so both controllers count as reachable. Every wait runs on a fake clock.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/velm_plugin.h"
#include "platform/clock.h"
#include "support/log_capture.h"
#include "support/sandbox.h"
#include "support/sim_process.h"

namespace velm::test {

inline constexpr const char* kControllerA = "127.0.0.2";
inline constexpr const char* kControllerB = "127.0.0.3";

class ControllerTest : public SandboxTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts the port mappers with the given <key>fsms</key>... entries of each (plist XML text
  // inside <array>...</array>); false when either did not come up.
  bool startSan(const std::string& fsmsOfA, const std::string& fsmsOfB);
  // The port mappers' port, which is also the probe port.
  void usePort(int port);
  // config.plist, uuid and <volume>-auxdata.plist: the volume's controllers in failover order.
  void writeVolumeConfig(const std::string& volume, const std::vector<std::string>& controllers);
  // Runs a command through the plugin; null when it gave no response at all.
  PropertyList run(std::string_view command,
                   std::vector<std::pair<std::string, PropertyList>> keys = {});
  // The stand-in of controller A or B.
  SimProcess& portMapper(char which) { return which == 'A' ? *pmA_ : *pmB_; }

  LogCapture log_;
  ScopedFakeClock clock_;
  VelmPlugin plugin_;
  PropertyList context_ = PropertyList::dict();
  int port_ = 0;

 private:
  std::unique_ptr<SimProcess> pmA_, pmB_;
};

// <dict> of one FSM for a stand-in's config.
std::string fsmEntry(const std::string& name, bool active, bool running = true,
                     const std::string& extra = "");

}  // namespace velm::test
