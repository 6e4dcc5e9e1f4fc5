#include "host/command_router.h"

#include <charconv>

#include "host/admin_token.h"
#include "platform/string_additions.h"
#include "plist/plist_json.h"

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

// The q parameter of one Accept entry's parameters (";q=0.5"); 1 without one.
double qualityOf(std::string_view params) {
  while (!params.empty()) {
    std::size_t semi = params.find(';');
    std::string_view p = trimmedBlanks(params.substr(0, semi));
    params = semi == std::string_view::npos ? std::string_view() : params.substr(semi + 1);
    if (p.size() > 2 && (p[0] == 'q' || p[0] == 'Q') && p[1] == '=') {
      double q = 0;
      auto [end, ec] = std::from_chars(p.data() + 2, p.data() + p.size(), q);
      return ec == std::errc() && q >= 0 && q <= 1 ? q : 0;
    }
  }
  return 1;
}

bool responseFailed(const PropertyList& response) {
  const PropertyList* status = response.get("status");
  return status && status->isNumber() && status->int64Value().value_or(0) != 0;
}

}  // namespace

std::string mediaType(std::string_view contentType) {
  std::string out(trimmedBlanks(contentType.substr(0, contentType.find(';'))));
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

bool acceptsJsonFirst(std::string_view accept) {
  double json = -1, plist = -1;
  bool jsonBeforePlist = false;
  while (!accept.empty()) {
    std::size_t comma = accept.find(',');
    std::string_view entry = accept.substr(0, comma);
    accept = comma == std::string_view::npos ? std::string_view() : accept.substr(comma + 1);
    std::size_t semi = entry.find(';');
    std::string type = mediaType(entry.substr(0, semi));
    double q = semi == std::string_view::npos ? 1 : qualityOf(entry.substr(semi + 1));
    if (type == kJsonContentType && q > json) {
      json = q;
      if (plist < 0) jsonBeforePlist = true;
    } else if ((type == kPlistContentType || type == "application/xml" || type == "text/xml") && q > plist) {
      plist = q;
    }
  }
  return json > 0 && (json > plist || (json == plist && jsonBeforePlist));
}

CommandRouter::CommandRouter(std::string token, std::map<std::string, HostedPlugin*, std::less<>> plugins)
    : token_(std::move(token)), plugins_(std::move(plugins)) {}

CommandAnswer CommandRouter::handle(const CommandRequest& in) const {
  CommandAnswer answer;
  answer.failed = true;
  if (!bearerTokenMatches(in.authorization, token_)) {
    answer.status = 401;
    return answer;
  }
  auto it = plugins_.find(in.plugin);
  if (it == plugins_.end()) {
    answer.status = 404;
    return answer;
  }
  answer.pluginKnown = true;
  if (in.bodyTooLarge) {
    answer.status = 413;
    return answer;
  }
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult request = mediaType(in.contentType) == kJsonContentType ? readJson(in.body, options)
                                                                          : readXmlPlist(in.body, options);
  if (!request || !request.value->isDict()) {
    answer.status = 415;
    return answer;
  }
  if (const std::string* command = request.value->getString("command")) answer.command = loggable(*command);
  PluginCall call = it->second->call(*request.value);
  switch (call.outcome) {
    case PluginCall::Outcome::Answered:
      answer.status = 200;
      answer.failed = responseFailed(*call.response);
      if (acceptsJsonFirst(in.accept)) {
        answer.body = writeJson(*call.response, JsonLayout::Compact);
        answer.contentType = kJsonContentType;
      } else {
        answer.body = writeXmlPlist(*call.response);
        answer.contentType = kPlistContentType;
      }
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
