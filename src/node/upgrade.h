// Carrying a machine set up by an earlier release over: fsmlist lines in the new form, volume
// limits raised on a controller, and the legacy role and SAN plists merged into config.plist.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm {

// The fsmlist text in the new form: comments copied, every other line's second field a full
// stop, each line's run of newlines kept, a last line without one given one.
std::string upgradedFsmList(std::string_view text);

// What the upgrade ended with: nothing when it went through, else the error to answer.
struct UpgradeOutcome {
  std::optional<PropertyList> error;
  bool restart = false;  // the legacy plists were merged
  // Without writeConfig: config.plist as the merge makes it, for the caller to write with its
  // own changes and then call removeLegacyPlists().
  std::optional<PropertyList> mergedConfig;
};

// The three stages; controller says whether volume limits are raised. writeConfig false leaves
// config.plist to the caller, so a command that changes it too writes it once: a kill between
// two writes would leave a state neither old nor new.
UpgradeOutcome doUpgradeToVelm2(bool controller, bool writeConfig = true);
// Removes role.plist and saninfo.plist, whose keys config.plist holds now.
void removeLegacyPlists();

}  // namespace velm
