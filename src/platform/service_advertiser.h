// ServiceAdvertiser: DNS-SD publication of this machine's service (Avahi on Linux). Each publish
// makes a service of its own, known by an id; its events arrive on the event loop.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velm {

class EventLoop;

// The error a name collision reports.
inline constexpr int kServiceNameCollision = -72001;

// TXT record entries, "key=value" each, in order.
using TxtEntries = std::vector<std::pair<std::string, std::string>>;
// The DNS TXT wire form (a length byte before each "key=value"); nothing when an entry is longer
// than 255 bytes or a key is empty or holds '='.
std::optional<std::string> encodeTxtRecord(const TxtEntries& entries);
// Back again; nothing when the data is not well formed.
std::optional<TxtEntries> decodeTxtRecord(std::string_view data);

struct ServiceSpec {
  std::string domain;  // "" = the host's default
  std::string type;    // "_velm2server._tcp"
  std::string name;    // "" = the computer name
  std::uint16_t port = 0;
  std::optional<std::string> txt;  // encoded TXT data; none = no TXT record
};

// What a published service tells. Each callback runs on the event loop.
class ServiceDelegate {
 public:
  virtual ~ServiceDelegate() = default;
  virtual void serviceWillPublish(std::uint64_t id) = 0;
  // error: kServiceNameCollision, or another (negative) error number; text describes it.
  virtual void serviceDidNotPublish(std::uint64_t id, int error, const std::string& text) = 0;
  virtual void serviceDidStop(std::uint64_t id) = 0;
};

class ServiceAdvertiser {
 public:
  virtual ~ServiceAdvertiser() = default;
  // Starts publishing spec; events about it go to delegate. A new id, never 0. A service that
  // can't even start reports serviceDidNotPublish on the loop.
  virtual std::uint64_t publish(const ServiceSpec& spec, ServiceDelegate* delegate) = 0;
  // Withdraws the service; serviceDidStop follows on the loop.
  virtual void stop(std::uint64_t id) = 0;
};

// The Avahi advertiser on loop (the loop must outlive it).
std::unique_ptr<ServiceAdvertiser> makeAvahiServiceAdvertiser(EventLoop& loop);
// What the plugin makes its advertiser with: Avahi unless a test installed another factory
// (nullptr restores it).
using ServiceAdvertiserFactory = std::function<std::unique_ptr<ServiceAdvertiser>(EventLoop&)>;
std::unique_ptr<ServiceAdvertiser> makeServiceAdvertiser(EventLoop& loop);
void setServiceAdvertiserFactoryForTest(ServiceAdvertiserFactory factory);

}  // namespace velm
