// The fixture of the node command tests: a sandbox machine with its identity, one Ethernet port
// and the tool stand-ins, the plugin, and a fake clock.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <utility>
#include <vector>

#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "gateway/san_filesystem.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "support/log_capture.h"
#include "support/plugin_command.h"
#include "support/sandbox.h"
#include "support/sim_node.h"

namespace velm::test {

class NodeTest : public SandboxTest {
 protected:
  void SetUp() override {
    installNodeTools(sandbox_);
    sandbox_.write("/Library/Filesystems/Velm/config/uuid", kUuid);
    sandbox_.write("/Library/Filesystems/Velm/config/fsports", "altpmap 1\n");
    sandbox_.write("/sys/class/net/eth0/ifindex", "2\n");
    sandbox_.write("/sys/class/net/eth0/ifalias", "\n");
    ::setenv("VELM_SYSFS", sandbox_.path("/sys").c_str(), 1);
    resetPathsForTest();
    // The plugin's start read an identity before this one was written.
    SANComputer::resetForTest();
    SANFilesystem::resetForTest();
  }
  void TearDown() override {
    // A velmd that svcload started (teardown restarts it) goes with the sandbox.
    stopSimdServing(sandbox_);
    ::unsetenv("VELM_SYSFS");
    resetPathsForTest();
    SANComputer::resetForTest();
    SANFilesystem::resetForTest();
  }
  PropertyList run(std::string_view command,
                   std::vector<std::pair<std::string, PropertyList>> keys = {}) {
    return runCommand(plugin_, context_, command, std::move(keys));
  }
  static long long status(const PropertyList& r, const char* key = "status") {
    const PropertyList* s = r.get(key);
    return s ? s->int64Value().value_or(-99) : -99;
  }
  static constexpr const char* kUuid = "0A0A0A0A-0000-4000-8000-00000000000A";
  ScopedFakeClock clock_;
  LogCapture log_;
  VelmPlugin plugin_;
  PropertyList context_ = PropertyList::dict();
};

}  // namespace velm::test
