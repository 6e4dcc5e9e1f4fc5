// PowerEventSource: the host asks whether it may sleep. On Linux logind asks nothing; the plugin
// takes its inhibitor locks ahead (org.freedesktop.login1 over sd-bus) and watches PrepareForSleep.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace velm {

class EventLoop;

// The host's messages.
inline constexpr std::uint32_t kPowerCanSystemSleep = 0xe0000270;  // may the system idle-sleep?
inline constexpr std::uint32_t kPowerSystemWillSleep = 0xe0000280;

enum class PowerAction {
  kIgnore,           // answer nothing
  kAllow,            // let it sleep
  kCancelIdleSleep,  // refuse the idle sleep
};

struct PowerDecision {
  PowerAction action = PowerAction::kIgnore;
  const char* line = nullptr;  // the log line, or null for none
  bool error = false;          // the line goes to NError
};

// The decision table: a pure function of the message and the machine's role.
PowerDecision decidePower(std::uint32_t message, bool isController);
// Writes decision.line, if any, with NLog or (error) NError.
void logPowerDecision(const PowerDecision& decision);
// Logged (NLog) when the idle sleep could not be refused; the sleep is still not allowed.
inline constexpr const char* kPowerCancelFailedLine =
    "WARNING: Unable to cancel system idle sleep on Controller!";

// start(), reevaluate() and the destructor may come from any thread, the loop's own too. The
// role callback is asked with the source's lock held, on the loop's thread or the caller's: it
// must not wait for anything that calls into the source.
class PowerEventSource {
 public:
  virtual ~PowerEventSource() = default;
  // Attaches to the host's power events on loop; isController is asked at each decision. False
  // when the host's power service can't be reached (the caller logs it and goes on).
  virtual bool start(EventLoop& loop, std::function<bool()> isController) = 0;
  // Asks again whether idle sleep is to be refused (the role may have changed): an idle tick.
  virtual void reevaluate() = 0;
};

std::unique_ptr<PowerEventSource> makeLogindPowerEventSource();
// How long start() waits for logind's first answer; the overload shortens it for tests.
inline constexpr std::uint64_t kLogindStartTimeoutMicros = 2'000'000;
std::unique_ptr<PowerEventSource> makeLogindPowerEventSource(std::uint64_t startTimeoutMicros);
using PowerEventSourceFactory = std::function<std::unique_ptr<PowerEventSource>()>;
// The source in force: logind's unless a test installed a factory (an empty one restores it).
std::unique_ptr<PowerEventSource> makePowerEventSource();
void setPowerEventSourceFactoryForTest(PowerEventSourceFactory factory);

}  // namespace velm
