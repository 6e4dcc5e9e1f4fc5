// The kernel's mount table ($VELM_PROCFS/self/mountinfo) and file URLs of mount points.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velm {

struct MountEntry {
  long long mountId = 0;
  long long parentId = 0;
  std::string majorMinor;    // "8:1"
  std::string root;          // unescaped
  std::string mountPoint;    // unescaped
  std::string mountOptions;  // per-mount: "rw,relatime"
  std::string fsType;
  std::string source;  // unescaped
  std::string superOptions;
  // The per-mount options say "ro".
  bool readOnly() const;
};

// One entry per well-formed line; a line that isn't (too few fields, no " - " separator, a
// non-numeric id) is skipped.
std::vector<MountEntry> parseMountInfo(std::string_view text);
// The mount table of this process; empty when it can't be read.
std::vector<MountEntry> readMountInfo();
// Undoes the kernel's octal escapes (\040 space, \011 tab, \012 newline, \134 backslash).
std::string unescapeMountField(std::string_view field);
// The kernel's escaping, for writers of mountinfo files (the stand-in daemon).
std::string escapeMountField(std::string_view field);
// The mount whose mount point is the longest prefix of path (a path inside it), if any.
std::optional<MountEntry> mountContaining(const std::vector<MountEntry>& mounts,
                                          std::string_view path);

// "file:///a%20b/" for "/a b": percent-encoded, with a trailing slash for a directory.
std::string fileURLForPath(std::string_view path, bool directory = true);
// The path of a "file://" URL (host empty or "localhost"), percent-decoded, without the trailing
// slash (but "/" stays "/"); nothing for any other scheme or a malformed escape.
std::optional<std::string> pathFromFileURL(std::string_view url);

}  // namespace velm
