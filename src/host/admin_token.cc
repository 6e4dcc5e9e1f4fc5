#include "host/admin_token.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>

#include "platform/files.h"
#include "host/host_log.h"
#include "platform/unique_fd.h"

namespace velm {
namespace {

constexpr size_t kTokenBytes = 32;
constexpr size_t kMinTokenChars = 32;
constexpr size_t kMaxTokenChars = 4096;

int randomBytes(std::uint8_t* out, size_t n) {
  while (n > 0) {
    ssize_t got = ::getrandom(out, n, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    out += got;
    n -= static_cast<size_t>(got);
  }
  return 0;
}

std::string_view trimmed(std::string_view s) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

bool usableToken(std::string_view t) {
  if (t.size() < kMinTokenChars || t.size() > kMaxTokenChars) return false;
  for (char c : t)
    if (c < 0x21 || c > 0x7e) return false;
  return true;
}

}  // namespace

AdminToken loadOrCreateAdminToken(const std::string& path) {
  AdminToken result;
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (fd) {
    struct stat st {};
    if (::fstat(fd.get(), &st) == 0 && (st.st_mode & 077) != 0) {
      HostLog("%s was readable by others; setting it to mode 0600", path);
      if (::fchmod(fd.get(), 0600) != 0) {
        result.status = errno;
        return result;
      }
    }
    fd.reset();
    std::optional<std::string> text = readFile(path);
    if (!text) {
      result.status = EIO;
      return result;
    }
    std::string_view token = trimmed(*text);
    if (!usableToken(token)) {
      result.status = EINVAL;
      return result;
    }
    result.token = std::string(token);
    return result;
  }
  if (errno != ENOENT) {
    result.status = errno;
    return result;
  }
  std::uint8_t bytes[kTokenBytes];
  if (int err = randomBytes(bytes, sizeof bytes); err != 0) {
    result.status = err;
    return result;
  }
  static const char kHex[] = "0123456789abcdef";
  std::string token;
  token.reserve(2 * kTokenBytes);
  for (std::uint8_t b : bytes) {
    token += kHex[b >> 4];
    token += kHex[b & 15];
  }
  if (size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0)
    if (int err = makeDirectories(path.substr(0, slash)); err != 0) {
      result.status = err;
      return result;
    }
  if (int err = writeFileAtomically(path, token, 0600); err != 0) {
    result.status = err;
    return result;
  }
  result.token = std::move(token);
  result.created = true;
  return result;
}

bool bearerTokenMatches(std::string_view authorization, std::string_view token) {
  constexpr std::string_view kScheme = "bearer ";
  if (token.empty() || authorization.size() < kScheme.size()) return false;
  for (size_t i = 0; i < kScheme.size(); ++i) {
    char c = authorization[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != kScheme[i]) return false;
  }
  std::string_view given = authorization.substr(kScheme.size());
  // Every byte of the token is looked at whatever the input, so the time taken tells nothing
  // about how much of a guess was right.
  unsigned diff = given.size() != token.size() ? 1u : 0u;
  for (size_t i = 0; i < token.size(); ++i) {
    unsigned char g = i < given.size() ? static_cast<unsigned char>(given[i]) : 0;
    diff |= g ^ static_cast<unsigned char>(token[i]);
  }
  return diff == 0;
}

}  // namespace velm
