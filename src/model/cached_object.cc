#include "model/cached_object.h"

#include <cctype>

#include "platform/log.h"
#include "platform/string_additions.h"

namespace velm {

CachedObject::CachedObject() : properties_(PropertyList::dict()) {}

std::mutex& CachedObject::creationLock() {
  static std::mutex lock;
  return lock;
}

const PlistArray& CachedObject::validKeys() {
  if (!validKeys_) validKeys_ = readValidKeys();
  return *validKeys_;
}

void CachedObject::clearCache() {
  // Deliberate: _dirty stays as it is, so a properties() right after answers the empty cache.
  properties_ = PropertyList::dict();
}

PropertyList CachedObject::objectValueForKey(std::string_view key) {
  const PropertyList* v = cachedValueForKey(key);
  return v ? *v : PropertyList();
}

const PropertyList* CachedObject::cachedValueForKey(std::string_view key) {
  if (const PropertyList* v = properties_.get(key)) return v;
  reloadObjectValueForKey(key);
  return properties_.get(key);
}

void CachedObject::setObjectValue(PropertyList value, std::optional<std::string_view> key) {
  if (!key) return;
  dirty_ = true;
  if (value.isNull()) {
    properties_.erase(*key);
  } else {
    properties_.set(std::string(*key), std::move(value));
  }
}

void CachedObject::reloadObjectValueForKey(std::string_view key) {
  if (characterCount(key) < 2) {
    NError("%s: Invalid key: %@", __func__, key);
    return;
  }
  std::string capitalised(key);
  capitalised[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(capitalised[0])));
  std::string readerName = "read" + capitalised;
  if (auto it = readers_.find(readerName); it != readers_.end()) {
    setObjectValue(it->second(), key);
  } else {
    NError("%s: Invalid command: %@", __func__, readerName);
  }
  if (auto it = hooks_.find("setupNotificationsFor" + capitalised); it != hooks_.end())
    it->second();
}

void CachedObject::invalidateObjectValueForKey(std::string_view key) { setObjectValue({}, key); }

const PropertyList& CachedObject::properties() {
  if (!dirty_) return properties_;
  for (const PropertyList& key : validKeys()) {
    if (const std::string* k = key.asString()) objectValueForKey(*k);
  }
  dirty_ = false;
  return properties_;
}

void CachedObject::registerReader(std::string name, std::function<PropertyList()> reader) {
  readers_[std::move(name)] = std::move(reader);
}

void CachedObject::registerNotificationHook(std::string name, std::function<void()> hook) {
  hooks_[std::move(name)] = std::move(hook);
}

}  // namespace velm
