// Whole-file reading and atomic whole-file writing.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velm {

// The whole file, or nothing when it can't be opened or read.
std::optional<std::string> readFile(const std::string& path);
// The same for small files such as sysfs attributes (a page at most), in as few system calls as
// it can: a read that comes back short is taken as the end.
std::optional<std::string> readSmallFile(const std::string& path);
// Writes a temporary file in the same directory, fsyncs it, renames it over path and fsyncs the
// directory. Returns 0 or the errno value of the step that failed; path is untouched on failure.
int writeFileAtomically(const std::string& path, std::string_view data, unsigned mode = 0644);
// True when the path's attributes can be read.
bool pathExists(const std::string& path);
// Removes what writeFileAtomically calls killed before their rename left in dir
// ("<name>.tmpXXXXXX"), so a repeat of the work ends where an uninterrupted run does.
void removeLeftoverTemporaries(const std::string& dir);
// mkdir -p; returns 0 or an errno value.
int makeDirectories(const std::string& path, unsigned mode = 0755);

}  // namespace velm
