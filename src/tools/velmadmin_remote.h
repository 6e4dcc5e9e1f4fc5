// velmadmin's --server transport: one request to adminhostd over HTTP(S).
#pragma once

#include <optional>
#include <string>

#include "plist/plist.h"

namespace velm {

struct RemoteResult {
  int httpStatus = 0;                   // 0 when no HTTP answer was had
  std::optional<PropertyList> response;  // the response dictionary of a 200 answer
  std::string error;                    // transport or protocol failure, for stderr
};

// POSTs the request to URL/commands/velm with the bearer token read from tokenFile.
RemoteResult sendRemoteRequest(const std::string& url, const std::string& tokenFile,
                               const PropertyList& request);

}  // namespace velm
