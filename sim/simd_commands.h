// velm-simd's commands: what each request does to the sandbox, and the reply dictionary.
#pragma once

#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "plist/plist.h"
#include "sim/simd_mounts.h"

namespace velm::sim {

inline constexpr std::string_view kSimdCommandKey = "command";
inline constexpr std::string_view kSimdErrorKey = "error";
inline constexpr std::string_view kSimdVolumeKey = "volume";
inline constexpr std::string_view kSimdHowKey = "how";
inline constexpr std::string_view kSimdMountOptionsKey = "MountOptions";
inline constexpr std::string_view kSimdForgetVolumeKey = "forgetVolume";

inline constexpr std::string_view kDisksChangedNotification = "com.orvane.velm.disksChanged";
inline constexpr std::string_view kSanConfigChangedNotification =
    "com.orvane.velm.sanConfigChanged";

class SimdCommands {
 public:
  // root: absolute sandbox root; mountInfoPath: the mountinfo file to keep.
  SimdCommands(std::string root, std::string mountInfoPath);

  // Runs the request's command and returns the reply: {command} on success, {error} otherwise.
  // Thread-safe.
  PropertyList handle(const std::string& command, const PropertyList& request);
  // Mounts read-write each volume of automount.plist that is neither mounted nor forgotten.
  void automount();

  std::string notificationPath(std::string_view name) const;
  std::string automountPath() const;

 private:
  using Handler = PropertyList (SimdCommands::*)(const PropertyList& request);
  struct CommandEntry {
    std::string_view name;
    Handler handler;
  };
  static const CommandEntry kCommandTable[];

  PropertyList disksChangedCommand(const PropertyList& request);
  PropertyList sanConfigChangedCommand(const PropertyList& request);
  PropertyList roleChangedCommand(const PropertyList& request);
  PropertyList mountCommand(const PropertyList& request);
  PropertyList unmountCommand(const PropertyList& request);
  void postNotification(std::string_view name);

  std::string root_;
  std::mutex mutex_;  // guards forgotten_ and every change of mounts_ (its file); leaf
  SimdMounts mounts_;
  std::set<std::string> forgotten_;
};

}  // namespace velm::sim
