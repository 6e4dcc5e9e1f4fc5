#include "platform/entry_name.h"

#include "platform/log.h"

namespace velm {

bool isSafeEntryName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

bool isSafeRelativePath(std::string_view path) {
  if (path.empty() || path.front() == '/' || path.find('\0') != std::string_view::npos)
    return false;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    if (path.substr(start, end - start) == "..") return false;
    start = end + 1;
  }
  return true;
}

namespace {

bool refuse(std::string_view caller, std::string_view what, std::string_view name) {
  // The name may hold a NUL; print only what precedes it.
  std::string_view shown = name.substr(0, name.find('\0'));
  NError("%@: refusing %@ '%@': it must name something inside its own directory", caller, what,
         shown);
  return false;
}

}  // namespace

bool checkEntryName(std::string_view caller, std::string_view what, std::string_view name) {
  return isSafeEntryName(name) || refuse(caller, what, name);
}

bool checkRelativePath(std::string_view caller, std::string_view what, std::string_view path) {
  return isSafeRelativePath(path) || refuse(caller, what, path);
}

}  // namespace velm
