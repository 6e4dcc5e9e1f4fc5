// The Avahi advertiser: one client for the whole advertiser, one entry group per service. Avahi
// isn't thread-safe, so publish, stop and destruction belong on the loop's thread (or happen
// while no thread runs the loop).
#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/error.h>
#include <avahi-common/strlst.h>

#include <map>
#include <memory>
#include <string>

#include "platform/event_loop.h"
#include "platform/host_config.h"
#include "platform/linux_service_advertiser_poll.h"
#include "platform/service_advertiser.h"

namespace velm {
namespace {

// The longest DNS label, which a service name must fit.
constexpr std::size_t kMaxServiceName = 63;

// Cut to fit a DNS label without splitting a UTF-8 sequence.
std::string fitLabel(std::string name) {
  if (name.size() <= kMaxServiceName) return name;
  std::size_t end = kMaxServiceName;
  while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) --end;
  name.resize(end);
  return name;
}

std::string errorText(int error) {
  const char* text = ::avahi_strerror(error);
  return text ? text : "Unknown error";
}

class AvahiServiceAdvertiser : public ServiceAdvertiser {
 public:
  explicit AvahiServiceAdvertiser(EventLoop& loop)
      : loop_(loop), poll_(std::make_unique<LoopAvahiPoll>(loop)) {
    createClient();
  }

  ~AvahiServiceAdvertiser() override {
    // Work already posted finds the advertiser gone and drops its events.
    self_.reset();
    destroying_ = true;
    for (auto& [id, s] : services_) freeGroup(*s);
    if (client_) ::avahi_client_free(client_);
    client_ = nullptr;
    poll_.reset();
  }

  std::uint64_t publish(const ServiceSpec& spec, ServiceDelegate* delegate) override {
    std::uint64_t id = nextId_++;
    Service& s =
        *services_.emplace(id, std::make_unique<Service>(this, id, spec, delegate)).first->second;
    if (spec.txt && !decodeTxtRecord(*spec.txt)) {
      fail(s, AVAHI_ERR_INVALID_RECORD);
      return id;
    }
    // The bus may have come up since the last try.
    if (!client_) createClient();
    if (!client_) {
      fail(s, clientError_);
      return id;
    }
    if (::avahi_client_get_state(client_) == AVAHI_CLIENT_S_RUNNING) addService(s);
    // Otherwise it waits for the client to reach the running state.
    return id;
  }

  void stop(std::uint64_t id) override {
    auto it = services_.find(id);
    if (it == services_.end() || it->second->stopped) return;
    Service& s = *it->second;
    s.stopped = true;
    freeGroup(s);
    post([id](AvahiServiceAdvertiser& self) {
      auto found = self.services_.find(id);
      if (found == self.services_.end()) return;
      ServiceDelegate* delegate = found->second->delegate;
      // Forgotten first, so the delegate may publish again from its callback.
      self.services_.erase(found);
      if (delegate) delegate->serviceDidStop(id);
    });
  }

 private:
  struct Service {
    Service(AvahiServiceAdvertiser* o, std::uint64_t i, const ServiceSpec& sp, ServiceDelegate* d)
        : owner(o), id(i), spec(sp), delegate(d) {}
    AvahiServiceAdvertiser* owner;
    std::uint64_t id;
    ServiceSpec spec;
    ServiceDelegate* delegate;
    AvahiEntryGroup* group = nullptr;
    bool added = false;      // its entries are in the group
    bool announced = false;  // serviceWillPublish has gone out
    bool failed = false;     // serviceDidNotPublish has gone out; never added again
    bool stopped = false;
  };

  // Runs fn on the loop later, unless the advertiser is gone by then.
  template <typename Fn>
  void post(Fn fn) {
    std::weak_ptr<AvahiServiceAdvertiser*> weak = self_;
    loop_.post([weak, fn = std::move(fn)]() mutable {
      if (std::shared_ptr<AvahiServiceAdvertiser*> self = weak.lock()) fn(**self);
    });
  }

  // The delegate hears of a live service's progress on the loop, never from inside Avahi: there
  // it may stop services, publish more or destroy the advertiser. Dropped once it is stopped.
  template <typename Fn>
  void tell(const Service& s, Fn fn) {
    post([id = s.id, fn = std::move(fn)](AvahiServiceAdvertiser& self) mutable {
      auto found = self.services_.find(id);
      if (found == self.services_.end() || found->second->stopped) return;
      if (ServiceDelegate* delegate = found->second->delegate) fn(*delegate, id);
    });
  }

  void fail(Service& s, int error) {
    if (s.failed || s.stopped) return;
    s.failed = true;
    std::string text = errorText(error);
    // A name taken by a service of this host is refused at once rather than by group state.
    if (error == AVAHI_ERR_COLLISION) error = kServiceNameCollision;
    tell(s, [error, text = std::move(text)](ServiceDelegate& d, std::uint64_t id) {
      d.serviceDidNotPublish(id, error, text);
    });
  }

  void createClient() {
    int error = 0;
    constructing_ = true;
    AvahiClient* client = ::avahi_client_new(poll_->api(), AVAHI_CLIENT_NO_FAIL,
                                             &AvahiServiceAdvertiser::clientCallback, this, &error);
    constructing_ = false;
    client_ = client;
    if (!client_) {
      clientError_ = error ? error : AVAHI_ERR_FAILURE;
      return;
    }
    // States reached inside avahi_client_new were ignored; act on where it ended up.
    onClientState(::avahi_client_get_state(client_));
  }

  void freeGroup(Service& s) {
    if (s.group) ::avahi_entry_group_free(s.group);
    s.group = nullptr;
    s.added = false;
  }

  std::string defaultName() {
    std::optional<std::string> name = hostConfig().computerName();
    if (!name || name->empty()) {
      const char* host = ::avahi_client_get_host_name(client_);
      name = host ? host : "";
    }
    return fitLabel(*name);
  }

  // Puts s in its group and commits it; the client is running.
  void addService(Service& s) {
    if (!s.group) {
      s.group = ::avahi_entry_group_new(client_, &AvahiServiceAdvertiser::groupCallback, &s);
      if (!s.group) {
        fail(s, ::avahi_client_errno(client_));
        return;
      }
    }
    AvahiStringList* txt = nullptr;
    if (s.spec.txt) {
      if (std::optional<TxtEntries> entries = decodeTxtRecord(*s.spec.txt)) {
        for (const auto& [key, value] : *entries) {
          std::string entry = key + "=" + value;
          txt = ::avahi_string_list_add_arbitrary(
              txt, reinterpret_cast<const std::uint8_t*>(entry.data()), entry.size());
        }
        // Each add went on the front.
        txt = ::avahi_string_list_reverse(txt);
      }
    }
    std::string name = s.spec.name.empty() ? defaultName() : s.spec.name;
    int r = ::avahi_entry_group_add_service_strlst(
        s.group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags(0), name.c_str(),
        s.spec.type.c_str(), s.spec.domain.empty() ? nullptr : s.spec.domain.c_str(), nullptr,
        s.spec.port, txt);
    ::avahi_string_list_free(txt);
    if (r >= 0) r = ::avahi_entry_group_commit(s.group);
    if (r < 0) {
      fail(s, r);
      return;
    }
    s.added = true;
  }

  void onClientState(AvahiClientState state) {
    switch (state) {
      case AVAHI_CLIENT_S_RUNNING:
        for (auto& [id, s] : services_) {
          if (!s->stopped && !s->failed && !s->added) addService(*s);
        }
        break;
      case AVAHI_CLIENT_S_COLLISION:
      case AVAHI_CLIENT_S_REGISTERING:
        // The host name is changing: withdraw and add again once it is settled.
        for (auto& [id, s] : services_) {
          if (s->group && s->added) {
            ::avahi_entry_group_reset(s->group);
            s->added = false;
          }
        }
        break;
      case AVAHI_CLIENT_FAILURE: {
        int error = ::avahi_client_errno(client_);
        for (auto& [id, s] : services_) fail(*s, error);
        // A dead client can't be freed from inside its own callback; start afresh on the loop.
        if (!reconnectPosted_) {
          reconnectPosted_ = true;
          post([](AvahiServiceAdvertiser& self) { self.reconnect(); });
        }
        break;
      }
      case AVAHI_CLIENT_CONNECTING:
        break;
    }
  }

  void reconnect() {
    reconnectPosted_ = false;
    if (!client_ || ::avahi_client_get_state(client_) != AVAHI_CLIENT_FAILURE) return;
    // Groups go before their client.
    for (auto& [id, s] : services_) freeGroup(*s);
    ::avahi_client_free(client_);
    client_ = nullptr;
    createClient();
    if (!client_) {
      for (auto& [id, s] : services_) fail(*s, clientError_);
    }
  }

  static void clientCallback(AvahiClient* client, AvahiClientState state, void* userdata) {
    auto* self = static_cast<AvahiServiceAdvertiser*>(userdata);
    if (self->destroying_ || self->constructing_ || client != self->client_) return;
    self->onClientState(state);
  }

  static void groupCallback(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata) {
    auto* s = static_cast<Service*>(userdata);
    AvahiServiceAdvertiser* self = s->owner;
    if (self->destroying_ || s->stopped) return;
    switch (state) {
      case AVAHI_ENTRY_GROUP_REGISTERING:
        if (!s->announced && !s->failed) {
          s->announced = true;
          self->tell(*s, [](ServiceDelegate& d, std::uint64_t id) { d.serviceWillPublish(id); });
        }
        break;
      case AVAHI_ENTRY_GROUP_COLLISION:
        self->fail(*s, AVAHI_ERR_COLLISION);
        break;
      case AVAHI_ENTRY_GROUP_FAILURE:
        self->fail(*s, ::avahi_client_errno(::avahi_entry_group_get_client(group)));
        break;
      case AVAHI_ENTRY_GROUP_UNCOMMITED:
      case AVAHI_ENTRY_GROUP_ESTABLISHED:
        break;
    }
  }

  EventLoop& loop_;
  std::unique_ptr<LoopAvahiPoll> poll_;  // outlives the client, whose watches it holds
  AvahiClient* client_ = nullptr;
  int clientError_ = 0;  // why the last avahi_client_new failed
  bool constructing_ = false;
  bool destroying_ = false;
  bool reconnectPosted_ = false;
  std::uint64_t nextId_ = 1;
  // Services by id, until their stop is told (or the advertiser goes). Stable addresses: each
  // is its group's callback data.
  std::map<std::uint64_t, std::unique_ptr<Service>> services_;
  // What posted work holds weakly, to find out whether the advertiser still exists.
  std::shared_ptr<AvahiServiceAdvertiser*> self_ = std::make_shared<AvahiServiceAdvertiser*>(this);
};

}  // namespace

std::unique_ptr<ServiceAdvertiser> makeAvahiServiceAdvertiser(EventLoop& loop) {
  return std::make_unique<AvahiServiceAdvertiser>(loop);
}

}  // namespace velm
