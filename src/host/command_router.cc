#include "host/command_router.h"

#include "host/admin_token.h"

namespace velm {
namespace {

// The command goes into a log line: printable ASCII only, and not too much of it.
std::string loggable(const std::string& command) {
  constexpr size_t kMax = 80;
  std::string out;
  for (char c : command) {
    if (out.size() == kMax) break;
    out += (c >= 0x20 && c < 0x7f) ? c : '?';
  }
  return out.empty() ? "-" : out;
}

}  // namespace

CommandRouter::CommandRouter(std::string token, std::map<std::string, HostedPlugin*, std::less<>> plugins)
    : token_(std::move(token)), plugins_(std::move(plugins)) {}

CommandAnswer CommandRouter::handle(std::string_view plugin, std::string_view authorization,
                                    std::string_view body, bool bodyTooLarge) const {
  CommandAnswer answer;
  if (!bearerTokenMatches(authorization, token_)) {
    answer.status = 401;
    return answer;
  }
  auto it = plugins_.find(plugin);
  if (it == plugins_.end()) {
    answer.status = 404;
    return answer;
  }
  if (bodyTooLarge) {
    answer.status = 413;
    return answer;
  }
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult request = readXmlPlist(body, options);
  if (!request || !request.value->isDict()) {
    answer.status = 415;
    return answer;
  }
  if (const std::string* command = request.value->getString("command")) answer.command = loggable(*command);
  PluginCall call = it->second->call(*request.value);
  switch (call.outcome) {
    case PluginCall::Outcome::Answered:
      answer.status = 200;
      answer.body = writeXmlPlist(*call.response);
      break;
    case PluginCall::Outcome::NoResponse:
      answer.status = 400;
      break;
    case PluginCall::Outcome::Failed:
      answer.status = 500;
      break;
  }
  return answer;
}

}  // namespace velm
