// SANAssetNoteManager: free-text notes an administrator attaches to anything of the SAN, each
// named by a class and a name and kept as one file, config/notes/<class>_<name>.
#pragma once

#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm {

class SANAssetNoteManager {
 public:
  // The shared instance, made on first use under the cached objects' creation lock.
  static SANAssetNoteManager& defaultManager();

  // config/notes/
  static std::string notesDirectory();
  std::string pathToNoteWithClass(std::string_view noteClass, std::string_view name) const;
  // The note's text; "" when it is missing or can't be read.
  std::string noteForClass(std::string_view noteClass, std::string_view name) const;
  // Empty contents removes the note. True when the note is as asked.
  bool setNoteForClass(std::string_view noteClass, std::string_view name,
                       std::string_view contents);
  // False when the old note is missing or the new name has one already.
  bool renameNoteWithClass(std::string_view noteClass, std::string_view oldName,
                           std::string_view newName);
  // { class, name, contents } of every note whose file begins "<class>_".
  PropertyList allNotesForClass(std::string_view noteClass) const;
  // Removes the directory with every note; true when it is gone.
  bool removeAllNotes();

 private:
  SANAssetNoteManager() = default;
};

}  // namespace velm
