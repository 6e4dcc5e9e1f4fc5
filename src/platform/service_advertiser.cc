#include "platform/service_advertiser.h"

#include <mutex>

namespace velm {
namespace {

constexpr std::size_t kMaxTxtString = 255;  // one length byte

std::mutex& factoryMutex() {
  static std::mutex mutex;
  return mutex;
}

// Guarded by factoryMutex(); empty = Avahi.
ServiceAdvertiserFactory& factorySlot() {
  static ServiceAdvertiserFactory factory;
  return factory;
}

}  // namespace

std::optional<std::string> encodeTxtRecord(const TxtEntries& entries) {
  std::string out;
  for (const auto& [key, value] : entries) {
    if (key.empty() || key.find('=') != std::string::npos) return std::nullopt;
    std::size_t size = key.size() + 1 + value.size();
    if (size > kMaxTxtString) return std::nullopt;
    out.push_back(static_cast<char>(size));
    out.append(key);
    out.push_back('=');
    out.append(value);
  }
  return out;
}

std::optional<TxtEntries> decodeTxtRecord(std::string_view data) {
  TxtEntries entries;
  std::size_t at = 0;
  while (at < data.size()) {
    std::size_t size = static_cast<unsigned char>(data[at++]);
    if (size > data.size() - at) return std::nullopt;
    std::string_view entry = data.substr(at, size);
    at += size;
    // A lone zero-length string is how DNS writes a TXT record with nothing in it.
    if (entry.empty()) continue;
    std::size_t eq = entry.find('=');
    if (eq == std::string_view::npos || eq == 0) return std::nullopt;
    entries.emplace_back(std::string(entry.substr(0, eq)), std::string(entry.substr(eq + 1)));
  }
  return entries;
}

std::unique_ptr<ServiceAdvertiser> makeServiceAdvertiser(EventLoop& loop) {
  ServiceAdvertiserFactory factory;
  {
    std::scoped_lock lock(factoryMutex());
    factory = factorySlot();
  }
  // Called unlocked, so a factory may itself install another.
  if (factory) return factory(loop);
  return makeAvahiServiceAdvertiser(loop);
}

void setServiceAdvertiserFactoryForTest(ServiceAdvertiserFactory factory) {
  std::scoped_lock lock(factoryMutex());
  factorySlot() = std::move(factory);
}

}  // namespace velm
