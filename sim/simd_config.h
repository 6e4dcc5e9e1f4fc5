// velm-simd's behaviour file: per command, how to answer other than the normal way. It is read
// again for every request, so a test can change it while the daemon runs.
#pragma once

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace velm::sim {

inline constexpr std::string_view kSimdCommands = "commands";
inline constexpr std::string_view kSimdError = "error";
inline constexpr std::string_view kSimdReply = "reply";
inline constexpr std::string_view kSimdEnding = "ending";
inline constexpr std::string_view kSimdChunkSize = "chunkSize";
inline constexpr std::string_view kSimdChunkDelayMs = "chunkDelayMs";
inline constexpr std::string_view kSimdSilent = "silent";
inline constexpr std::string_view kSimdCloseWithoutReply = "closeWithoutReply";
inline constexpr std::string_view kSimdDelayMs = "delayMs";

// How one command is answered; the defaults answer normally.
struct SimdBehaviour {
  std::optional<std::string> error;  // answer {error = this} instead of doing the command
  std::optional<std::string> reply;  // the command is done, but these bytes are the answer
  std::string ending = "\n";         // what follows "</plist>"
  std::size_t chunkSize = 0;         // 0: the reply goes in one piece
  int chunkDelayMs = 20;
  bool silent = false;
  bool closeWithoutReply = false;
  int delayMs = 0;
};

class SimdConfig {
 public:
  explicit SimdConfig(std::string path) : path_(std::move(path)) {}

  // The behaviour of command as the file says now. A missing file is empty; a malformed file
  // (or entry) is logged once per change of the file and counts as empty. Thread-safe.
  SimdBehaviour behaviourFor(const std::string& command);
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::mutex mutex_;                     // guards lastSeen_; leaf
  std::optional<std::string> lastSeen_;  // the file as last read, to log its faults once
};

}  // namespace velm::sim
