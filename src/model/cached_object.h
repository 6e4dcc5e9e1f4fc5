// CachedObject: a dictionary of named properties, each read on first demand by the subclass's
// reader and kept until invalidated. Not thread-safe: callers hold the plugin lock.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm {

class CachedObject {
 public:
  CachedObject();
  virtual ~CachedObject() = default;
  CachedObject(const CachedObject&) = delete;
  CachedObject& operator=(const CachedObject&) = delete;

  // Guards only the creation of the subclasses' singletons; a leaf lock.
  static std::mutex& creationLock();

  // The keys that make up the object, read once by readValidKeys().
  const PlistArray& validKeys();
  void clearCache();
  // The cached value, read when absent; null when the reader yields nothing.
  PropertyList objectValueForKey(std::string_view key);
  // The same without the copy: valid until the cache next changes; null when the reader yields
  // nothing.
  const PropertyList* cachedValueForKey(std::string_view key);
  // Stores, or removes when value is null; a missing key changes nothing.
  void setObjectValue(PropertyList value, std::optional<std::string_view> key);
  void reloadObjectValueForKey(std::string_view key);
  void invalidateObjectValueForKey(std::string_view key);
  // The live dictionary after every valid key has been read.
  const PropertyList& properties();

  bool dirtyForTest() const { return dirty_; }

 protected:
  virtual PlistArray readValidKeys() { return {}; }
  // Readers are found by name at run time: "read" + the key with its first letter in upper case.
  void registerReader(std::string name, std::function<PropertyList()> reader);
  // "setupNotificationsFor" + capitalised key: called after every reload.
  void registerNotificationHook(std::string name, std::function<void()> hook);

 private:
  bool dirty_ = true;
  PropertyList properties_;
  std::optional<PlistArray> validKeys_;
  std::map<std::string, std::function<PropertyList()>, std::less<>> readers_;
  std::map<std::string, std::function<void()>, std::less<>> hooks_;
};

}  // namespace velm
