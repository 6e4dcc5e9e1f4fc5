// The file-system steps of the fake sysfs tree and the attribute texts, kept apart from the
// bookkeeping of which disk is where.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace velm::sim {

// Every step works on DIR-relative paths and stops after the first failure, which failure()
// then tells; a run of steps needs one check at its end.
class TreeWriter {
 public:
  explicit TreeWriter(std::string dir) : dir_(std::move(dir)) {}

  bool ok() const { return err_ == 0; }
  // "cannot <step> <path>: <reason>"
  std::string failure() const;

  // mkdir -p
  void dir(const std::string& rel);
  // A file in a subtree no reader sees yet: written in place.
  void file(const std::string& rel, std::string_view data);
  // A file readers may be reading: a temporary beside it, renamed over it.
  void replace(const std::string& rel, std::string_view data);
  // A symbolic link, replacing what is there.
  void link(const std::string& rel, const std::string& target);
  // Removes a link or file; a missing one is fine.
  void unlink(const std::string& rel);
  void rename(const std::string& from, const std::string& to);
  // Takes a directory away from readers at once (a rename into the work directory), then
  // deletes it; a missing one is fine.
  void removeTree(const std::string& rel);
  // A fresh, empty, unique directory inside the work directory: where subtrees are built
  // before being renamed into place.
  std::string scratch();

  std::string abs(const std::string& rel) const { return dir_ + "/" + rel; }

 private:
  bool step(int err, const char* what, const std::string& rel);

  std::string dir_;
  int err_ = 0;
  std::string what_;
  std::string where_;
};

// The hidden directory inside DIR where subtrees are built and torn down.
inline constexpr char kWorkDir[] = ".velm-simfabric-work";

// The kernel's name of the sd disk with that index: 0 sda, 25 sdz, 26 sdaa.
std::string diskName(int index);
// The index of such a name, -1 when it is none.
int diskIndex(std::string_view name);
// "major:minor" of that sd disk, in the kernel's numbering.
std::string diskDevText(int index);

// The 16 bytes of a LUN's NAA designator, made from the target's WWNN and the LUN.
std::array<std::uint8_t, 16> lunDesignator(std::uint64_t wwnn, int lun);
// "naa." and the designator in lower-case hex, and a newline.
std::string wwidText(std::uint64_t wwnn, int lun);
// Device identification VPD page: header and one NAA designation descriptor.
std::string vpdPage83(std::uint64_t wwnn, int lun);

inline constexpr int kStatFields = 17;
inline constexpr int kStatReadSectors = 2;   // field 3
inline constexpr int kStatWriteSectors = 6;  // field 7
using DiskStat = std::array<std::uint64_t, kStatFields>;
// The 17 fields as the kernel prints them, width 8.
std::string statText(const DiskStat& stat);
bool parseStat(std::string_view text, DiskStat* stat);

}  // namespace velm::sim
