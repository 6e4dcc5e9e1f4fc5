// The bearer token that every request to adminhostd must carry.
#pragma once

#include <string>
#include <string_view>

namespace velm {

struct AdminToken {
  int status = 0;     // 0, or an errno value (EINVAL: the file holds no usable token)
  std::string token;  // the token text
  bool created = false;
};

// Reads the token at path (surrounding white space ignored), or makes one when the file is
// missing: 32 random bytes as 64 lower-case hex digits, written atomically with mode 0600.
// An existing file readable by others is set to 0600.
AdminToken loadOrCreateAdminToken(const std::string& path);

// True when the Authorization header value is "Bearer <token>" (the scheme in any case). Compares
// in time that doesn't depend on where the texts differ.
bool bearerTokenMatches(std::string_view authorization, std::string_view token);

}  // namespace velm
