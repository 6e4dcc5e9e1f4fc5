// The commands getNotes, setNotes, getAllNotes and renameNotes, each over a list of notes. No
// command answers an error: an entry that fails is logged and left out of the answer.
#include "core/velm_plugin.h"
#include "notes/asset_notes.h"
#include "platform/entry_name.h"
#include "platform/log.h"

namespace velm {
namespace {

PropertyList noteRecord(const std::string& noteClass, const std::string& name,
                        const std::string& contents) {
  PropertyList note = PropertyList::dict();
  note.set("class", noteClass);
  note.set("name", name);
  note.set("contents", contents);
  return note;
}

// The request's array under key; empty when missing.
const PlistArray& entries(const PropertyList& request, std::string_view key) {
  static const PlistArray none;
  const PropertyList* v = request.get(key);
  return v && v->asArray() ? *v->asArray() : none;
}

// A note's class and name become one file name in the notes directory: each must be a single,
// non-empty entry name, or the entry is refused.
bool usableNames(const char* fn, const std::string* noteClass,
                 std::initializer_list<const std::string*> names) {
  if (!noteClass || !checkEntryName(fn, "the note class", *noteClass)) return false;
  for (const std::string* name : names)
    if (!name || !checkEntryName(fn, "the note name", *name)) return false;
  return true;
}

PropertyList answer(PropertyList notes) {
  PropertyList response = PropertyList::dict();
  response.set("notes", std::move(notes));
  return response;
}

}  // namespace

std::optional<PropertyList> VelmPlugin::getNotesWithRequest(const PropertyList& request) {
  SANAssetNoteManager& notes = SANAssetNoteManager::defaultManager();
  PropertyList out = PropertyList::array();
  for (const PropertyList& entry : entries(request, "notes")) {
    const std::string* noteClass = entry.getString("class");
    const std::string* name = entry.getString("name");
    if (!usableNames("getNotes", noteClass, {name})) continue;
    out.push(noteRecord(*noteClass, *name, notes.noteForClass(*noteClass, *name)));
  }
  return answer(std::move(out));
}

std::optional<PropertyList> VelmPlugin::setNotesWithRequest(const PropertyList& request) {
  const char* fn = "setNotes";
  SANAssetNoteManager& notes = SANAssetNoteManager::defaultManager();
  PropertyList out = PropertyList::array();
  for (const PropertyList& entry : entries(request, "notes")) {
    const std::string* noteClass = entry.getString("class");
    const std::string* name = entry.getString("name");
    const std::string* contents = entry.getString("contents");
    if (!usableNames(fn, noteClass, {name})) continue;
    if (!contents || !notes.setNoteForClass(*noteClass, *name, *contents)) {
      NError("%s: unable to set note contents for %@_%@", fn, *noteClass, *name);
      continue;
    }
    out.push(noteRecord(*noteClass, *name, notes.noteForClass(*noteClass, *name)));
  }
  return answer(std::move(out));
}

std::optional<PropertyList> VelmPlugin::getAllNotesWithRequest(const PropertyList& request) {
  SANAssetNoteManager& notes = SANAssetNoteManager::defaultManager();
  PropertyList out = PropertyList::array();
  for (const PropertyList& entry : entries(request, "classes")) {
    const std::string* noteClass = entry.asString();
    if (!usableNames("getAllNotes", noteClass, {})) continue;
    PropertyList ofClass = notes.allNotesForClass(*noteClass);
    for (PropertyList& note : *ofClass.asArray()) out.push(std::move(note));
  }
  return answer(std::move(out));
}

std::optional<PropertyList> VelmPlugin::renameNotesWithRequest(const PropertyList& request) {
  const char* fn = "renameNotes";
  SANAssetNoteManager& notes = SANAssetNoteManager::defaultManager();
  PropertyList out = PropertyList::array();
  for (const PropertyList& entry : entries(request, "notes")) {
    const std::string* noteClass = entry.getString("class");
    const std::string* oldName = entry.getString("oldName");
    const std::string* newName = entry.getString("newName");
    if (!usableNames(fn, noteClass, {oldName, newName})) continue;
    if (!notes.renameNoteWithClass(*noteClass, *oldName, *newName)) {
      NError("%s: unable to rename note from %@_%@ to %@_%@", fn, *noteClass, *oldName, *noteClass,
             *newName);
      continue;
    }
    out.push(noteRecord(*noteClass, *newName, notes.noteForClass(*noteClass, *newName)));
  }
  return answer(std::move(out));
}

}  // namespace velm
