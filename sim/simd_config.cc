#include "sim/simd_config.h"

#include <cstdint>
#include <vector>

#include "platform/files.h"
#include "plist/plist.h"
#include "sim/simd_log.h"

namespace velm::sim {
namespace {

// Delays beyond this are a mistake in a test, not a behaviour worth waiting for.
constexpr std::int64_t kMaxDelayMs = 3600 * 1000;

std::optional<std::string> endingText(const std::string& name) {
  if (name == "newline") return std::string("\n");
  if (name == "none") return std::string();
  if (name == "nul") return std::string(1, '\0');
  if (name == "newline-nul") return std::string("\n\0", 2);
  if (name == "two-newlines") return std::string("\n\n");
  return std::nullopt;
}

std::optional<int> milliseconds(const PropertyList& v) {
  if (!v.isInteger()) return std::nullopt;
  std::optional<std::int64_t> ms = v.int64Value();
  if (!ms || *ms < 0 || *ms > kMaxDelayMs) return std::nullopt;
  return static_cast<int>(*ms);
}

// Reads one command's entry; faults are added to problems and leave the default in place.
SimdBehaviour parseEntry(const std::string& command, const PlistDict& entry,
                         std::vector<std::string>& problems) {
  SimdBehaviour b;
  auto bad = [&](std::string_view key, const char* what) {
    problems.push_back("commands." + command + "." + std::string(key) + ": " + what);
  };
  for (const auto& [key, value] : entry) {
    if (key == kSimdError || key == kSimdReply) {
      if (!value.isString()) {
        bad(key, "not a string");
        continue;
      }
      (key == kSimdError ? b.error : b.reply) = *value.asString();
    } else if (key == kSimdEnding) {
      std::optional<std::string> text =
          value.isString() ? endingText(*value.asString()) : std::nullopt;
      if (!text) {
        bad(key, "not one of newline, none, nul, newline-nul, two-newlines");
        continue;
      }
      b.ending = *text;
    } else if (key == kSimdChunkSize) {
      std::optional<std::int64_t> n = value.isInteger() ? value.int64Value() : std::nullopt;
      if (!n || *n <= 0) {
        bad(key, "not an integer above 0");
        continue;
      }
      b.chunkSize = static_cast<std::size_t>(*n);
    } else if (key == kSimdChunkDelayMs || key == kSimdDelayMs) {
      std::optional<int> ms = milliseconds(value);
      if (!ms) {
        bad(key, "not a number of milliseconds");
        continue;
      }
      (key == kSimdDelayMs ? b.delayMs : b.chunkDelayMs) = *ms;
    } else if (key == kSimdSilent || key == kSimdCloseWithoutReply) {
      if (!value.isBool()) {
        bad(key, "not a boolean");
        continue;
      }
      (key == kSimdSilent ? b.silent : b.closeWithoutReply) = *value.asBool();
    } else {
      bad(key, "unknown key");
    }
  }
  return b;
}

}  // namespace

SimdBehaviour SimdConfig::behaviourFor(const std::string& command) {
  std::optional<std::string> text = readFile(path_);
  // What the file looked like, so its faults are logged once per change.
  std::string seen = text ? "=" + *text : pathExists(path_) ? "unreadable" : "missing";
  std::vector<std::string> problems;
  SimdBehaviour found;
  if (!text) {
    if (seen == "unreadable") problems.push_back("cannot be read");
  } else {
    PlistReadOptions options;
    options.requireDictionary = true;
    PlistReadResult doc = readXmlPlist(*text, options);
    const PropertyList* commands = doc ? doc.value->get(kSimdCommands) : nullptr;
    if (!doc) {
      problems.push_back("malformed: " + doc.error);
    } else if (commands && !commands->isDict()) {
      problems.push_back("'commands' is not a dictionary");
    } else if (commands) {
      // Every entry is checked, not just this command's, so a fault shows at the first request.
      for (const auto& [name, entry] : *commands->asDict()) {
        if (!entry.isDict()) {
          problems.push_back("commands." + name + ": not a dictionary");
          continue;
        }
        SimdBehaviour b = parseEntry(name, *entry.asDict(), problems);
        if (name == command) found = b;
      }
    }
  }

  std::scoped_lock lock(mutex_);
  if (seen != lastSeen_) {
    for (const std::string& p : problems) simdLog("config %s: %s", path_.c_str(), p.c_str());
    lastSeen_ = std::move(seen);
  }
  return found;
}

}  // namespace velm::sim
