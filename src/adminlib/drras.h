// RAS event reporting of the admin library.
#pragma once

#include <cstdint>
#include <ctime>

// Receives formatted RAS events; without one, events go to standard error.
using RasHookFunc = int (*)(const char* eventName, const char* text, time_t when);
extern RasHookFunc RasHook;

// Formats the event (at most 511 characters) as "<prog>[PID=<pid>]: [fs '<FsName>': ]<text>"
// and hands it to RasHook; without a hook writes the bare text and a newline to standard error.
// Returns the hook's result, or 0.
int RasEvent(const char* eventName, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

inline constexpr int kRasClientEvents = 32;

// Whether a per-client event is due: 1 for a client not reported in the last 3600 seconds (or
// never, or when no record can be kept), else 0. eventIndex is below kRasClientEvents.
int NeedPerClntRas(int eventIndex, const std::uint8_t clientId[16]);
