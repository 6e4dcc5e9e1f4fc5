// ConfigFileDiffAnalysis: how heavy a proposed change to a volume is. The diff has the shape of the
// volume dictionary and holds only what changes; _newid_ and _obsoleteid_ mark new and departing
// groups and nodes. The order of the rules is what decides; they only read and log.
#include "config/config_keys.h"
#include "config/config_parser.h"
#include "platform/log.h"

namespace velm {
namespace {

using namespace config;

// Integers, reals and booleans all count as numbers here, as number objects do.
const PropertyList* numberAt(const PropertyList& dict, std::string_view key) {
  const PropertyList* v = dict.get(key);
  return v && (v->isInteger() || v->isReal() || v->isBool()) ? v : nullptr;
}

const PlistArray* arrayAt(const PropertyList& dict, std::string_view key) {
  const PropertyList* v = dict.get(key);
  return v ? v->asArray() : nullptr;
}

// Deliberate: only the exact string "YES" or a true number counts; "yes" does not.
bool markerSet(const PropertyList& element, std::string_view marker) {
  const PropertyList* v = element.get(marker);
  if (!v) return false;
  if (const std::string* s = v->asString()) return *s == "YES";
  if (v->isInteger() || v->isReal() || v->isBool()) return v->boolValue();
  return false;
}

const PropertyList* globalsOf(const PropertyList& dict) {
  const PropertyList* g = dict.get(kGlobals);
  return g && g->isDict() ? g : nullptr;
}

std::uint64_t unsignedOf(const PropertyList* v) { return v ? v->uint64Value().value_or(0) : 0; }

}  // namespace

bool SANConfigParser::diffRequiresFSRemake(const PropertyList& diff) const {
  constexpr const char* fn = "diffRequiresFSRemake";
  if (const PropertyList* globals = globalsOf(diff)) {
    if (const PropertyList* newSize = numberAt(*globals, kFsBlockSize)) {
      const PropertyList* oldGlobals = globalsOf(dictionary_);
      const PropertyList* oldSize = oldGlobals ? oldGlobals->get(kFsBlockSize) : nullptr;
      if (unsignedOf(oldSize) == unsignedOf(newSize))
        NError("%s: block size hasn't changed but it's in the diff?", fn);
      // Deliberate: an unchanged block size in the diff still asks for a remake.
      NLog("%s: Requires remake, block size has changed from %@ to %@", fn, oldSize, newSize);
      return true;
    }
  }
  const PlistArray* groups = arrayAt(diff, kStripeGroups);
  if (!groups) return false;
  bool lastWasNew = false;
  for (const PropertyList& group : *groups) {
    if (markerSet(group, kObsoleteId)) {
      NLog("%s: Requires remake, %@ is being deleted", fn, group.get(kId));
      return true;
    }
    if (markerSet(group, kNewId)) {
      // Nothing else of a new group is looked at; new groups may only come at the end.
      lastWasNew = true;
      continue;
    }
    if (lastWasNew) {
      NLog("%s: Requires remake, %@ comes after a new pool, so a new pool must have been inserted", fn,
           group.get(kId));
      return true;
    }
    if (const PropertyList* breadth = numberAt(group, kStripeBreadth)) {
      NLog("%s: Requires remake, stripe breadth has changed to %@", fn, breadth);
      return true;
    }
    // Deliberate: Journal and Metadata fire on their presence as numbers, whichever way they go.
    if (numberAt(group, kJournal)) {
      NLog("%s: Requires remake, journaling value has changed in stripe group %@", fn, group.get(kId));
      return true;
    }
    if (numberAt(group, kMetadata)) {
      NLog("%s: Requires remake, metadata has changed in stripe group %@", fn, group.get(kId));
      return true;
    }
    if (const PlistArray* nodes = arrayAt(group, kNodes)) {
      for (const PropertyList& node : *nodes) {
        if (markerSet(node, kObsoleteId)) {
          NLog("%s: Requires remake, LUN %@ is being deleted", fn, node.get(kId));
          return true;
        }
        if (markerSet(node, kNewId)) continue;  // a new LUN alone asks for no remake
        if (numberAt(node, kNodeRotationIndex)) {
          // Deliberate: the message names NodeDiskDevice although the key is NodeRotationIndex.
          NLog("%s: Requires remake, LUN %@'s %@ is being changed (in other words, LUNs are being reordered)",
               fn, node.get(kId), kNodeDiskDevice);
          return true;
        }
      }
    }
    lastWasNew = false;
  }
  return false;
}

bool SANConfigParser::diffRequiresFSUpdate(const PropertyList& diff) const {
  constexpr const char* fn = "diffRequiresFSUpdate";
  bool newPool = false, deletedPool = false, newLun = false, deletedLun = false;
  if (const PlistArray* groups = arrayAt(diff, kStripeGroups)) {
    for (const PropertyList& group : *groups) {
      // Deliberate: a set _newid_ hides _obsoleteid_.
      if (markerSet(group, kNewId)) newPool = true;
      else if (markerSet(group, kObsoleteId)) deletedPool = true;
      // New groups' nodes are walked too.
      if (const PlistArray* nodes = arrayAt(group, kNodes)) {
        for (const PropertyList& node : *nodes) {
          if (markerSet(node, kNewId)) newLun = true;
          else if (markerSet(node, kObsoleteId)) deletedLun = true;
        }
      }
    }
  }
  if (newPool && !deletedPool && !deletedLun) {
    NLog("%s: Requires update for capacity expansion, a new storage pool has been added and none have been "
         "deleted",
         fn);
    return true;
  }
  if (newLun && !deletedPool && !deletedLun) {
    NLog("%s: Requires update for bandwidth expansion, a new LUN has been added and no storage has been "
         "deleted",
         fn);
    return true;
  }
  if (const PropertyList* globals = globalsOf(diff)) {
    if (const PropertyList* newSize = numberAt(*globals, kJournalSize)) {
      const PropertyList* oldGlobals = globalsOf(dictionary_);
      const PropertyList* oldSize = oldGlobals ? oldGlobals->get(kJournalSize) : nullptr;
      NLog("%s: Requires update, journal size has changed from %@ to %@", fn, oldSize, newSize);
      if (unsignedOf(oldSize) == unsignedOf(newSize))
        NError("%s: journal size hasn't changed but it's in the diff?", fn);
      return true;
    }
  }
  return false;
}

bool SANConfigParser::diffRequiresFSRestart(const PropertyList&) const {
  // No change asks for a restart by itself.
  return false;
}

}  // namespace velm
