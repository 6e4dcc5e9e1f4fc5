#include "node/directory.h"

#include <atomic>

#include "adminhost/host_common.h"
#include "node/search_policy.h"
#include "platform/paths.h"

namespace velm {
namespace {

class NoDirectory : public Directory {
 public:
  std::optional<PropertyList> valueMatchedListOfRecords(const std::string&, const PropertyList*,
                                                        const PropertyList*, const std::string*,
                                                        const std::string*, const PropertyList*,
                                                        const PropertyList*) override {
    return std::nullopt;
  }
};

std::atomic<Directory*> gTestDirectory{nullptr};

}  // namespace

Directory& directory() {
  static NoDirectory none;
  Directory* d = gTestDirectory.load();
  return d ? *d : none;
}

void setDirectoryForTest(Directory* d) { gTestDirectory.store(d); }

PropertyList preflightReplica(const std::string& masterAddress, const std::string& rootPassword,
                              const std::string& adminName, const std::string& adminPassword,
                              bool isMaster) {
  int result;
  if (isMaster) {
    result = 255;
    if (launch_task_with_input(hostPath(kRosterctl), {".", "-auth", "root"}, rootPassword + "\n")
            .status == 0) {
      int admin = launch_task_with_input(hostPath(kRosterctl),
                                         {"/LDAPv3/127.0.0.1", "-auth", adminName},
                                         adminPassword + "\n")
                      .status;
      result = admin == 0 ? 0 : 77;
    }
  } else {
    result = launch_task_with_input(hostPath(kReplicaTool),
                                    {"-preflightreplica", adminName, masterAddress},
                                    rootPassword + "\n" + adminPassword + "\n")
                 .status;
  }
  PropertyList r = PropertyList::dict();
  r.set("authStatus", result);
  if (result == 0) {
    r.set("rootAuthSucceeded", true);
    r.set("dirAdminAuthSucceeded", true);
  } else if (result == 77) {
    r.set("rootAuthSucceeded", true);
    r.set("dirAdminAuthSucceeded", false);
  } else if (result == 255) {
    r.set("rootAuthSucceeded", false);
  } else if (result == -1) {
    r.set("status", -1);
  }
  return r;
}

}  // namespace velm
