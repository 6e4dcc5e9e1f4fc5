// The one check for names taken from requests (volume names, note classes and names, file paths
// inside a volume) before they become part of a path: nothing may reach outside the directory or
// volume it belongs to.
#pragma once

#include <string_view>

namespace velm {

// True for a single directory entry name: not empty, not "." or "..", no "/" and no NUL.
bool isSafeEntryName(std::string_view name);
// True for a relative path inside a tree: not empty, no NUL, no ".." component, not absolute.
bool isSafeRelativePath(std::string_view path);
// The same checks, logging "<caller>: refusing <what> '<name>'..." with NError when they fail.
bool checkEntryName(std::string_view caller, std::string_view what, std::string_view name);
bool checkRelativePath(std::string_view caller, std::string_view what, std::string_view path);

}  // namespace velm
