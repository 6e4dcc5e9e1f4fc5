#include "node/search_policy.h"

#include <netdb.h>
#include <sys/socket.h>

#include <string_view>
#include <vector>

#include "adminhost/host_common.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/paths.h"

namespace velm {
namespace {

constexpr std::string_view kLdapPrefix = "/LDAPv3/";
constexpr const char* fn = "writeConfiguration";

std::vector<std::string> stringsOf(const PropertyList* list) {
  std::vector<std::string> out;
  if (const PlistArray* a = list ? list->asArray() : nullptr)
    for (const PropertyList& v : *a)
      if (const std::string* s = v.asString()) out.push_back(*s);
  return out;
}

std::string joined(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& w : words) out += (out.empty() ? "" : " ") + w;
  return out;
}

int rosterbind(const std::vector<std::string>& args) {
  LaunchResult r = launch_task(hostPath(kRosterbind), args);
  NLog("%s: rosterbind command output: '%@' error: '%@'", fn, r.output, r.error);
  return r.status;
}

int rosterctl(const std::vector<std::string>& args) {
  LaunchResult r = launch_task(hostPath(kRosterctl), args);
  NLog("%s: rosterctl command output: '%@' error: '%@'", fn, r.output, r.error);
  return r.status;
}

// Whether server is this machine, by its addresses; *failed set on a lookup failure.
bool isSelf(const std::string& server, const std::set<std::string>& ipAddresses, bool* failed) {
  struct addrinfo hints {};
  struct addrinfo* found = nullptr;
  if (int e = ::getaddrinfo(server.c_str(), nullptr, &hints, &found); e != 0) {
    NLog("%s: unable to get address info for '%@': %s", fn, server, ::gai_strerror(e));
    *failed = true;
    return false;
  }
  bool self = false;
  for (struct addrinfo* a = found; a && !self; a = a->ai_next) {
    char text[1025];
    if (::getnameinfo(a->ai_addr, a->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) !=
        0) {
      NError("%s: unable to get numeric address string for '%@'", fn, server);
      *failed = true;
      continue;
    }
    self = ipAddresses.count(text) != 0;
  }
  ::freeaddrinfo(found);
  return self;
}

std::vector<std::string> withPath(std::vector<std::string> head,
                                  const std::vector<std::string>& nodes) {
  head.insert(head.end(), nodes.begin(), nodes.end());
  return head;
}

}  // namespace

bool applySearchPolicy(const PropertyList* searchPolicy, const PropertyList* removedSearchPolicy,
                       const std::set<std::string>& ipAddresses, bool servesOwnDirectory) {
  bool failed = false;
  std::vector<std::string> added;
  for (const std::string& node : stringsOf(searchPolicy)) {
    if (node.rfind(kLdapPrefix, 0) != 0) continue;
    std::string server = node.substr(kLdapPrefix.size());
    if (servesOwnDirectory && isSelf(server, ipAddresses, &failed)) {
      NLog("%s: Avoided duplicate self-bind for '%@'", fn, node);
      continue;
    }
    int status = -1, tries = 0;
    while (tries < 5) {
      if (tries > 0) clock().sleepSeconds(1);
      ++tries;
      NLog("%s: Using rosterbind -v -a %@", fn, server);
      status = rosterbind({"-v", "-a", server});
      if (status == 0 || status == 17) break;
    }
    if (status == 0) {
      if (tries > 1) NLog("%s: Succeeded adding %@, tries %d", fn, node, tries);
      added.push_back(node);
      continue;
    }
    NError("%s: Could not add %@, status %d, tries %d", fn, node, status, tries);
    // 17: the bind is there already, which is what was wanted.
    if (status == 17)
      added.push_back(node);
    else
      failed = true;
  }

  std::vector<std::string> removed = stringsOf(removedSearchPolicy);
  if (!removed.empty()) {
    NLog("%s: Using rosterctl /Search -delete / rosterAttrStandard:CSPSearchPath %@", fn,
         joined(removed));
    if (int s = rosterctl(withPath({"/Search", "-delete", "/", "rosterAttrStandard:CSPSearchPath"},
                                   removed));
        s != 0) {
      NError("%s: Could not remove %@, status %d", fn, joined(removed), s);
      failed = true;
    }
    NLog("%s: Using rosterctl /Search/Contacts -delete / rosterAttrStandard:CSPSearchPath %@", fn,
         joined(removed));
    if (int s = rosterctl(withPath(
            {"/Search/Contacts", "-delete", "/", "rosterAttrStandard:CSPSearchPath"}, removed));
        s != 0) {
      // Deliberate: a failure here doesn't fail the step, unlike the append below.
      NError("%s: Could not remove %@, status %d", fn, joined(removed), s);
    }
  }
  for (const std::string& node : removed) {
    if (node.rfind(kLdapPrefix, 0) != 0) continue;
    std::string server = node.substr(kLdapPrefix.size());
    NLog("%s: Using rosterbind -v -r %@", fn, server);
    if (int s = rosterbind({"-v", "-r", server}); s != 0) {
      NLog("%s: Could not remove %@, status %d", fn, node, s);
      failed = true;
    }
  }
  if (!added.empty()) {
    for (const char* path : {"/Search", "/Search/Contacts"}) {
      NLog("%s: Using rosterctl %s -append / rosterAttrStandard:CSPSearchPath %@", fn, path,
           joined(added));
      if (int s = rosterctl(withPath({path, "-append", "/", "rosterAttrStandard:CSPSearchPath"},
                                     added));
          s != 0) {
        NLog("%s: Could not add %@, status %d", fn, joined(added), s);
        failed = true;
      }
    }
    for (const char* path : {"/Search", "/Search/Contacts"}) {
      NLog("%s: Using rosterctl %s -create / rosterAttrStandard:SearchPolicy "
           "rosterAttrStandard:CSPSearchPath",
           fn, path);
      if (int s = rosterctl({path, "-create", "/", "rosterAttrStandard:SearchPolicy",
                             "rosterAttrStandard:CSPSearchPath"});
          s != 0) {
        NLog("%s: Could not set search policy to custom, status %d", fn, s);
        failed = true;
      }
    }
  }
  return failed;
}

}  // namespace velm
