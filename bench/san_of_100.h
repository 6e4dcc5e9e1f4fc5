// A controller's SAN of 100 volumes served by velm-simpm, for the benchmarks that need one: one
// root for the plugin and the stand-in (the stand-in's config, the fsports both read, the volume
// files), and the stand-in started on it. Each volume is an active FSM with two stripe groups and
// three mounted clients, and the same realistic config file.
#pragma once

#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "bench_support.h"
#include "config/config_test_util.h"
#include "platform/paths.h"
#include "sim_port_mapper.h"

namespace velm::bench {

inline constexpr int kSanVolumes = 100;
inline constexpr const char* kSanController = "127.0.0.2";

struct SanOf100 {
  std::string root;    // empty until prepared
  std::string simLog;  // velm-simpm's, a line per request it serves
  pid_t sim = -1;
  std::vector<std::string> configFiles;  // "vol00.cfg" ...: what getVolumes reads
};

inline std::string volumeName(int i) {
  char name[16];
  std::snprintf(name, sizeof name, "vol%02d", i);
  return name;
}

// Each volume an active FSM with two stripe groups and three mounted clients (in use, 0x1000).
inline std::string fsmEntry(const std::string& name) {
  std::string e = "<dict><key>name</key><string>" + name +
                  "</string><key>priority</key><integer>1</integer>"
                  "<key>active</key><true/><key>running</key><true/>"
                  "<key>statistics</key><dict><key>blockSize</key><integer>4096</integer>"
                  "<key>totalBlocks</key><integer>1000000</integer>"
                  "<key>freeBlocks</key><integer>500000</integer></dict>"
                  "<key>stripeGroups</key><array>";
  for (const char* group : {"MetadataAndJournal", "DataFiles"})
    e += std::string("<dict><key>name</key><string>") + group +
         "</string><key>totalBlocks</key><integer>500000</integer>"
         "<key>freeBlocks</key><integer>250000</integer></dict>";
  e += "</array><key>clients</key><array>";
  for (int c = 0; c < 3; ++c)
    e += "<dict><key>type</key><integer>3</integer><key>flags</key><integer>" +
         std::to_string(0x1000 | 3) + "</integer><key>address</key><string>127.0.0." +
         std::to_string(10 + c) + "</string><key>uptime</key><integer>60</integer></dict>";
  return e + "</array></dict>\n";
}

// Makes a fresh root under /tmp/<prefix>-XXXXXX; as makeControllerRoot, the environment and the
// path resolver point at it afterwards. False when a file could not be written.
inline bool prepareSanOf100(const char* prefix, SanOf100* san) {
  int port = freePort();
  san->root = makeControllerRoot(prefix, kSanController, port);
  if (san->root.empty()) return false;
  san->simLog = san->root + "/simpm.log";
  std::string config =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
      "<key>fsms</key><array>\n";
  for (int i = 0; i < kSanVolumes; ++i) config += fsmEntry(volumeName(i));
  config += "</array>\n</dict>\n</plist>\n";
  if (!writeFile(san->root + "/Library/Filesystems/Velm/config/fsports",
                 "altpmap " + std::to_string(port) + "\n") ||
      !writeFile(san->root + "/simpm.plist", config))
    return false;
  for (int i = 0; i < kSanVolumes; ++i) {
    san->configFiles.push_back(volumeName(i) + ".cfg");
    if (!writeFile(configPath(san->configFiles.back()), std::string(test::kRealisticConfig)))
      return false;
  }
  return true;
}

// Starts program as the root's velm-simpm and waits for it; needs initAdminLibrary first. False
// when it could not start or ended, the reason on stderr under who's name.
inline bool startSanSim(const char* who, const std::string& program, SanOf100* san) {
  san->sim = startSimPortMapper(who, program, san->root, kSanController, san->simLog);
  if (san->sim < 0) return false;
  // The plugin finds its port mapper by name in the sandbox's process table.
  std::string pid = std::to_string(san->sim);
  writeFile(san->root + "/proc/" + pid + "/cmdline", std::string("fsmpm\0", 6));
  writeFile(san->root + "/proc/" + pid + "/stat", pid + " (fsmpm) S 1 1 1");
  return true;
}

// Stops the stand-in and removes the root.
inline void stopSanOf100(SanOf100* san) {
  if (san->sim > 0) {
    ::kill(san->sim, SIGTERM);
    ::waitpid(san->sim, nullptr, 0);
    san->sim = -1;
  }
  std::error_code ec;
  if (!san->root.empty()) std::filesystem::remove_all(san->root, ec);
}

}  // namespace velm::bench
