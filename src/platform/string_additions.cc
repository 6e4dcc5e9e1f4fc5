#include "platform/string_additions.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cctype>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace velm {

std::optional<std::string> stringForIPv6Address(const std::uint8_t address[16]) {
  static const std::uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  char buf[1025];
  const char* r;
  if (std::memcmp(address, kMappedPrefix, 12) == 0) {
    r = ::inet_ntop(AF_INET, address + 12, buf, sizeof buf);
  } else {
    r = ::inet_ntop(AF_INET6, address, buf, sizeof buf);
  }
  if (!r) return std::nullopt;
  return std::string(buf);
}

std::string stringByStrippingTrailingWhitespace(std::string_view s) {
  size_t n = s.size();
  while (n > 0 && (s[n - 1] == ' ' || s[n - 1] == '\n' || s[n - 1] == '\t')) --n;
  return std::string(s.substr(0, n));
}

bool ipAddressIsInSubnet(std::string_view ipAddress, std::string_view subnet) {
  size_t slash = subnet.find('/');
  if (slash == std::string_view::npos || subnet.find('/', slash + 1) != std::string_view::npos)
    return false;
  std::string net(subnet.substr(0, slash));
  std::string_view bitsText = subnet.substr(slash + 1);
  // Like intValue: leading blanks and a sign are skipped, the leading digits count, anything
  // else reads as 0.
  long bits = std::strtol(std::string(bitsText).c_str(), nullptr, 10);
  if (bits < 8 || bits > 32) return false;
  in_addr_t addr = ::inet_addr(std::string(ipAddress).c_str());
  in_addr_t network = ::inet_addr(net.c_str());
  std::uint32_t mask = bits == 32 ? 0xffffffffu : ~(0xffffffffu >> bits);
  // Deliberate: the network part is compared unmasked, so "10.1.2.3/8" matches nothing.
  return (ntohl(addr) & mask) == ntohl(network);
}

bool ipAddressIsSelfAssigned(std::string_view ipAddress) {
  // Deliberate: all of 169/8 counts, wider than the link-local range.
  return ipAddressIsInSubnet(ipAddress, "169.0.0.0/8");
}

bool containsString(std::string_view haystack, std::string_view needle) {
  if (needle.empty()) return false;
  if (needle.size() > haystack.size()) return false;
  for (size_t i = 0; i + needle.size() <= haystack.size(); ++i) {
    size_t j = 0;
    while (j < needle.size() && std::tolower(static_cast<unsigned char>(haystack[i + j])) ==
                                    std::tolower(static_cast<unsigned char>(needle[j])))
      ++j;
    if (j == needle.size()) return true;
  }
  return false;
}

int numericCompare(std::string_view a, std::string_view b) {
  auto next = [](std::string_view& s) -> unsigned long long {
    unsigned long long v = 0;
    size_t i = 0;
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])))
      v = v * 10 + static_cast<unsigned>(s[i++] - '0');
    while (i < s.size() && s[i] != '.') ++i;
    s.remove_prefix(i < s.size() ? i + 1 : i);
    return v;
  };
  while (!a.empty() || !b.empty()) {
    unsigned long long x = next(a), y = next(b);
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

std::size_t characterCount(std::string_view utf8) {
  std::size_t n = 0;
  for (unsigned char c : utf8) n += (c & 0xc0) != 0x80;
  return n;
}

std::vector<std::string> splitLinesDroppingLastEmpty(std::string_view text) {
  std::vector<std::string> out;
  size_t start = 0;
  for (;;) {
    size_t nl = text.find('\n', start);
    if (nl == std::string_view::npos) {
      out.emplace_back(text.substr(start));
      break;
    }
    out.emplace_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  if (!out.empty() && out.back().empty()) out.pop_back();
  return out;
}

bool isValidUtf8(std::string_view s) {
  size_t i = 0;
  while (i < s.size()) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    size_t n;
    unsigned long cp;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      n = 1, cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      n = 2, cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      n = 3, cp = c & 0x07;
    } else {
      return false;
    }
    if (s.size() - i <= n) return false;
    for (size_t k = 1; k <= n; ++k) {
      unsigned char cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    bool overlong = (n == 1 && cp < 0x80) || (n == 2 && cp < 0x800) || (n == 3 && cp < 0x10000);
    if (overlong || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += n + 1;
  }
  return true;
}

std::string_view trimmedBlanks(std::string_view s) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  return s;
}

std::string asciiUppercased(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return out;
}

}  // namespace velm
