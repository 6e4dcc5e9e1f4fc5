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
};

// The three stages; controller says whether volume limits are raised.
UpgradeOutcome doUpgradeToVelm2(bool controller);

}  // namespace velm
