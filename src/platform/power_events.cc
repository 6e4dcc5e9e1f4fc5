#include "platform/power_events.h"

#include <mutex>
#include <utility>

#include "platform/log.h"

namespace velm {
namespace {

std::mutex gFactoryMutex;  // guards gFactory; leaf
PowerEventSourceFactory gFactory;

}  // namespace

PowerDecision decidePower(std::uint32_t message, bool isController) {
  switch (message) {
    case kPowerCanSystemSleep:
      // A controller that sleeps takes the SAN's metadata service down with it.
      if (isController)
        return {PowerAction::kCancelIdleSleep, "Cancelling system idle sleep on Controller.",
                false};
      return {PowerAction::kAllow, "Allowing system idle sleep on Client.", false};
    case kPowerSystemWillSleep:
      // Too late to refuse: all that is left is to say so.
      if (isController)
        return {PowerAction::kAllow, "WARNING: Controller system is about to sleep!", true};
      return {PowerAction::kAllow, nullptr, false};
    default:
      return {};
  }
}

void logPowerDecision(const PowerDecision& decision) {
  if (!decision.line) return;
  if (decision.error)
    NError("%s", decision.line);
  else
    NLog("%s", decision.line);
}

std::unique_ptr<PowerEventSource> makeLogindPowerEventSource() {
  return makeLogindPowerEventSource(kLogindStartTimeoutMicros);
}

std::unique_ptr<PowerEventSource> makePowerEventSource() {
  PowerEventSourceFactory factory;
  {
    std::scoped_lock lock(gFactoryMutex);
    factory = gFactory;
  }
  // Called outside the lock, so a factory may itself make a source.
  if (factory) return factory();
  return makeLogindPowerEventSource();
}

void setPowerEventSourceFactoryForTest(PowerEventSourceFactory factory) {
  std::scoped_lock lock(gFactoryMutex);
  gFactory = std::move(factory);
}

}  // namespace velm
