// What adminhostd answers to POST /commands/<plugin>, apart from the HTTP plumbing.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "host/hosted_plugin.h"

namespace velm {

struct CommandRequest {
  std::string_view plugin;
  std::string_view authorization;  // the Authorization header
  std::string_view contentType;    // application/json reads the body as JSON, anything else as XML
  std::string_view accept;         // the Accept header: JSON when it prefers application/json
  std::string_view body;
  bool bodyTooLarge = false;
};

struct CommandAnswer {
  int status = 0;                  // HTTP status
  std::string body;                // the response for 200, empty otherwise
  const char* contentType = "";    // of body
  std::string command = "-";       // the request's command, for the log
  bool pluginKnown = false;        // the plugin exists (and the token was right)
  bool failed = false;             // not 200, or the response's "status" is not 0
};

inline constexpr const char* kPlistContentType = "application/x-plist";
inline constexpr const char* kJsonContentType = "application/json";

// The media type of a Content-Type header, lower case, without parameters.
std::string mediaType(std::string_view contentType);
// Whether an Accept header prefers application/json to the XML plist (by q-value, then order).
bool acceptsJsonFirst(std::string_view accept);

class CommandRouter {
 public:
  // plugins: by name, not owned, fixed for the router's life.
  CommandRouter(std::string token, std::map<std::string, HostedPlugin*, std::less<>> plugins);

  // In this order: 401 without the right bearer token (nothing else is looked at), 404 for an
  // unknown plugin, 413 when the body was over the limit, 415 for a body that is not a plist
  // dictionary (XML, or JSON as its Content-Type says); then the plugin's answer: 200, 400 for no
  // response, 500 when it threw.
  CommandAnswer handle(const CommandRequest& request) const;

  const std::map<std::string, HostedPlugin*, std::less<>>& plugins() const { return plugins_; }

 private:
  const std::string token_;
  const std::map<std::string, HostedPlugin*, std::less<>> plugins_;
};

}  // namespace velm
