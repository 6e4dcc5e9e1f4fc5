#include "notes/asset_notes.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>

#include "model/cached_object.h"
#include "platform/files.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/string_additions.h"

namespace velm {
namespace {

bool isDirectory(const std::string& path, bool* exists) {
  struct stat st {};
  *exists = ::lstat(path.c_str(), &st) == 0;
  return *exists && S_ISDIR(st.st_mode);
}

// The notes directory: root's, mode 755, made without its parents.
void makeNotesDirectory(const std::string& dir) {
  if (::mkdir(dir.c_str(), 0755) != 0) return;
  ::chmod(dir.c_str(), 0755);
  // Only root can give it to root; anyone else keeps their own (a sandbox, a test).
  if (::geteuid() == 0) [[maybe_unused]]
    int r = ::chown(dir.c_str(), 0, 0);
}

// One host operation that fails when the new name is taken.
int renameNoReplace(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // A file system without the flag: a link can't replace either.
  if (::link(from.c_str(), to.c_str()) != 0) return errno;
  ::unlink(from.c_str());
  return 0;
}

}  // namespace

SANAssetNoteManager& SANAssetNoteManager::defaultManager() {
  static std::unique_ptr<SANAssetNoteManager> manager;
  std::scoped_lock lock(CachedObject::creationLock());
  if (!manager) manager.reset(new SANAssetNoteManager());
  return *manager;
}

std::string SANAssetNoteManager::notesDirectory() { return configPath("notes"); }

std::string SANAssetNoteManager::pathToNoteWithClass(std::string_view noteClass,
                                                     std::string_view name) const {
  std::string file(noteClass);
  file += '_';
  file += name;
  return notesDirectory() + "/" + file;
}

std::string SANAssetNoteManager::noteForClass(std::string_view noteClass,
                                              std::string_view name) const {
  std::optional<std::string> text = readFile(pathToNoteWithClass(noteClass, name));
  if (!text || !isValidUtf8(*text)) return {};
  return std::move(*text);
}

bool SANAssetNoteManager::setNoteForClass(std::string_view noteClass, std::string_view name,
                                          std::string_view contents) {
  const char* fn = "setNoteForClass";
  std::string path = pathToNoteWithClass(noteClass, name);
  if (contents.empty()) {
    // An empty note is no note.
    if (pathExists(path) && ::unlink(path.c_str()) != 0)
      // Deliberate: the tab between "unable" and "to" stays.
      NError("%s: unable\tto remove '%@': %@", fn, path, std::strerror(errno));
    return !pathExists(path);
  }
  std::string dir = notesDirectory();
  bool exists = false;
  if (!isDirectory(dir, &exists) && exists) {
    NError("%s: %@ exists and is not a directory", fn, dir);
    return false;
  }
  if (!exists) makeNotesDirectory(dir);
  if (int err = writeFileAtomically(path, contents); err != 0) {
    NError("%s: unable to save note to '%@': %@", fn, path, std::strerror(err));
    return false;
  }
  return true;
}

bool SANAssetNoteManager::renameNoteWithClass(std::string_view noteClass, std::string_view oldName,
                                              std::string_view newName) {
  std::string from = pathToNoteWithClass(noteClass, oldName);
  std::string to = pathToNoteWithClass(noteClass, newName);
  if (int err = renameNoReplace(from, to); err != 0) {
    NError("%s: unable to rename note from '%@' to '%@': %@", "renameNoteWithClass", from, to,
           std::strerror(err));
    return false;
  }
  return true;
}

PropertyList SANAssetNoteManager::allNotesForClass(std::string_view noteClass) const {
  PropertyList notes = PropertyList::array();
  std::string prefix(noteClass);
  prefix += '_';
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(notesDirectory().c_str()), ::closedir);
  if (!dir) return notes;
  std::vector<std::string> names;
  while (dirent* e = ::readdir(dir.get())) {
    std::string_view file = e->d_name;
    // Deliberate: the prefix alone splits class from name, so class "a" also lists "a_b_c" as
    // the note "b_c".
    if (file.size() > prefix.size() && file.starts_with(prefix))
      names.emplace_back(file.substr(prefix.size()));
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    PropertyList note = PropertyList::dict();
    note.set("class", std::string(noteClass));
    note.set("name", name);
    note.set("contents", noteForClass(noteClass, name));
    notes.push(std::move(note));
  }
  return notes;
}

bool SANAssetNoteManager::removeAllNotes() {
  const char* fn = "removeAllNotes";
  std::string dir = notesDirectory();
  bool exists = false;
  if (!isDirectory(dir, &exists) && exists) {
    NError("%s: %@ exists and is not a directory", fn, dir);
    return false;
  }
  if (exists) {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    if (ec) NError("%s: unable to remove '%@': %@", fn, dir, ec.message());
  }
  return !pathExists(dir);
}

}  // namespace velm
