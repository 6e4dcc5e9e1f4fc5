// What adminhostd answers to POST /commands/<plugin>, apart from the HTTP plumbing.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "host/hosted_plugin.h"

namespace velm {

struct CommandAnswer {
  int status = 0;       // HTTP status
  std::string body;     // the XML plist response for 200, empty otherwise
  std::string command = "-";  // the request's command, for the log
};

class CommandRouter {
 public:
  // plugins: by name, not owned, fixed for the router's life.
  CommandRouter(std::string token, std::map<std::string, HostedPlugin*, std::less<>> plugins);

  // In this order: 401 without the right bearer token (nothing else is looked at), 404 for an
  // unknown plugin, 413 when the body was over the limit, 415 for a body that is not an XML plist
  // dictionary; then the plugin's answer: 200, 400 for no response, 500 when it threw.
  CommandAnswer handle(std::string_view plugin, std::string_view authorization, std::string_view body,
                       bool bodyTooLarge) const;

 private:
  const std::string token_;
  const std::map<std::string, HostedPlugin*, std::less<>> plugins_;
};

}  // namespace velm
