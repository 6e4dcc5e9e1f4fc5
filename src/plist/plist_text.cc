#include "plist/plist_text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

namespace velm::plist_text {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

void appendChars(std::string& out, const char* p, size_t n) { out.append(p, n); }

}  // namespace

void appendReal(std::string& out, double v) {
  if (std::isnan(v)) {
    out += "nan";
    return;
  }
  if (std::isinf(v)) {
    out += v < 0 ? "-inf" : "inf";
    return;
  }
  // Shortest round-trip digits from to_chars, then laid out the way %g would.
  char buf[64];
  auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::scientific);
  const char* p = buf;
  const char* end = r.ptr;
  if (*p == '-') {
    out += '-';
    ++p;
  }
  char digits[32];
  size_t nd = 0;
  while (p < end && *p != 'e') {
    if (*p != '.') digits[nd++] = *p;
    ++p;
  }
  int exp = 0;
  if (p < end) std::from_chars(p[1] == '+' ? p + 2 : p + 1, end, exp);
  if (exp >= -4 && exp <= 16) {
    if (exp >= 0) {
      size_t intLen = static_cast<size_t>(exp) + 1;
      if (nd <= intLen) {
        out.append(digits, nd);
        out.append(intLen - nd, '0');
      } else {
        out.append(digits, intLen);
        out += '.';
        out.append(digits + intLen, nd - intLen);
      }
    } else {
      out += "0.";
      out.append(static_cast<size_t>(-exp - 1), '0');
      out.append(digits, nd);
    }
    return;
  }
  out += digits[0];
  if (nd > 1) {
    out += '.';
    out.append(digits + 1, nd - 1);
  }
  out += 'e';
  out += exp < 0 ? '-' : '+';
  unsigned ae = static_cast<unsigned>(exp < 0 ? -exp : exp);
  if (ae < 10) out += '0';
  appendUnsigned(out, ae);
}

void appendXmlReal(std::string& out, double v) {
  if (std::isinf(v)) {
    out += v < 0 ? "-infinity" : "+infinity";
    return;
  }
  appendReal(out, v);
}

void appendSigned(std::string& out, std::int64_t v) {
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  appendChars(out, buf, static_cast<size_t>(r.ptr - buf));
}

void appendUnsigned(std::string& out, std::uint64_t v) {
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  appendChars(out, buf, static_cast<size_t>(r.ptr - buf));
}

void appendInteger(std::string& out, const PlistInteger& v) {
  if (v.isUnsigned)
    appendUnsigned(out, v.bits);
  else
    appendSigned(out, v.asSigned());
}

// ---- dates ----

namespace {

constexpr std::int64_t kUnixOf2001 = 978307200;
// 0000-01-01T00:00:00Z and 9999-12-31T23:59:59Z, in seconds since 2001.
constexpr std::int64_t kMinDate = -62167219200 - kUnixOf2001;
constexpr std::int64_t kMaxDate = 253402300799 - kUnixOf2001;

// Days since 1970-01-01 of a proleptic Gregorian date (after H. Hinnant's algorithm).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct Civil {
  std::int64_t year;
  unsigned month, day, hour, minute, second;
};

Civil civilFromDate(PlistDate date) {
  double s = date.secondsSince2001;
  std::int64_t secs;
  if (std::isnan(s))
    secs = 0;
  else if (s <= static_cast<double>(kMinDate))
    secs = kMinDate;
  else if (s >= static_cast<double>(kMaxDate))
    secs = kMaxDate;
  else
    secs = static_cast<std::int64_t>(std::floor(s));
  std::int64_t unix = secs + kUnixOf2001;
  std::int64_t days = unix >= 0 ? unix / 86400 : -((-unix + 86399) / 86400);
  std::int64_t sod = unix - days * 86400;
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(days - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  Civil c;
  c.day = doy - (153 * mp + 2) / 5 + 1;
  c.month = mp < 10 ? mp + 3 : mp - 9;
  c.year = static_cast<std::int64_t>(yoe) + era * 400 + (c.month <= 2);
  c.hour = static_cast<unsigned>(sod / 3600);
  c.minute = static_cast<unsigned>(sod / 60 % 60);
  c.second = static_cast<unsigned>(sod % 60);
  return c;
}

void append2(std::string& out, unsigned v) {
  out += static_cast<char>('0' + v / 10 % 10);
  out += static_cast<char>('0' + v % 10);
}

void append4(std::string& out, std::int64_t v) {
  unsigned u = static_cast<unsigned>(v);
  append2(out, u / 100);
  append2(out, u % 100);
}

void appendCivil(std::string& out, const Civil& c, char dateTimeSep) {
  append4(out, c.year);
  out += '-';
  append2(out, c.month);
  out += '-';
  append2(out, c.day);
  out += dateTimeSep;
  append2(out, c.hour);
  out += ':';
  append2(out, c.minute);
  out += ':';
  append2(out, c.second);
}

bool isLeap(std::int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned daysInMonth(std::int64_t y, unsigned m) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

}  // namespace

void appendIsoDate(std::string& out, PlistDate d) {
  appendCivil(out, civilFromDate(d), 'T');
  out += 'Z';
}

void appendDescribeDate(std::string& out, PlistDate d) {
  appendCivil(out, civilFromDate(d), ' ');
  out += " +0000";
}

std::optional<PlistDate> parseIsoDate(std::string_view t) {
  size_t i = 0;
  auto digits = [&](size_t n, unsigned& v) {
    if (i + n > t.size()) return false;
    v = 0;
    for (size_t k = 0; k < n; ++k) {
      char c = t[i + k];
      if (c < '0' || c > '9') return false;
      v = v * 10 + static_cast<unsigned>(c - '0');
    }
    i += n;
    return true;
  };
  auto take = [&](char c) {
    if (i < t.size() && t[i] == c) {
      ++i;
      return true;
    }
    return false;
  };
  unsigned year = 0, month = 1, day = 1, hour = 0, minute = 0, second = 0;
  if (!digits(4, year)) return std::nullopt;
  // Shortened forms (2026, 2026-11, 2026-11-22, ...) stand for the start of that period.
  if (take('-')) {
    if (!digits(2, month)) return std::nullopt;
    if (take('-')) {
      if (!digits(2, day)) return std::nullopt;
      if (take('T')) {
        if (!digits(2, hour)) return std::nullopt;
        if (take(':')) {
          if (!digits(2, minute)) return std::nullopt;
          if (take(':')) {
            if (!digits(2, second)) return std::nullopt;
            if (take('.')) {
              size_t start = i;
              while (i < t.size() && t[i] >= '0' && t[i] <= '9') ++i;
              if (i == start) return std::nullopt;
            }
          }
        }
      }
    }
  }
  std::int64_t offset = 0;
  if (i < t.size()) {
    char sign = t[i];
    if (sign == 'Z') {
      ++i;
    } else if (sign == '+' || sign == '-') {
      ++i;
      unsigned oh = 0, om = 0;
      if (!digits(2, oh)) return std::nullopt;
      take(':');
      if (!digits(2, om)) return std::nullopt;
      if (oh > 23 || om > 59) return std::nullopt;
      offset = (static_cast<std::int64_t>(oh) * 3600 + om * 60) * (sign == '-' ? -1 : 1);
    } else {
      return std::nullopt;
    }
  }
  if (i != t.size()) return std::nullopt;
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 ||
      minute > 59 || second > 60)
    return std::nullopt;
  std::int64_t unix = daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
  std::int64_t secs = unix - offset - kUnixOf2001;
  // Outside what the writer can print, the value would not come back the same.
  if (secs < kMinDate || secs > kMaxDate) return std::nullopt;
  return PlistDate{static_cast<double>(secs)};
}

// ---- text clean-up and escaping ----

namespace {

// Length of the well-formed UTF-8 sequence at p (lead byte >= 0x80) that XML can carry, or 0.
size_t utf8SequenceLength(const std::uint8_t* p, size_t avail) {
  std::uint8_t b = p[0];
  auto cont = [&](size_t k, std::uint8_t lo, std::uint8_t hi) {
    return k < avail && p[k] >= lo && p[k] <= hi;
  };
  if (b >= 0xC2 && b <= 0xDF) return cont(1, 0x80, 0xBF) ? 2 : 0;
  if (b >= 0xE0 && b <= 0xEF) {
    std::uint8_t lo = b == 0xE0 ? 0xA0 : 0x80;
    std::uint8_t hi = b == 0xED ? 0x9F : 0xBF;
    if (!cont(1, lo, hi) || !cont(2, 0x80, 0xBF)) return 0;
    if (b == 0xEF && p[1] == 0xBF && p[2] >= 0xBE) return 0;  // U+FFFE, U+FFFF
    return 3;
  }
  if (b >= 0xF0 && b <= 0xF4) {
    std::uint8_t lo = b == 0xF0 ? 0x90 : 0x80;
    std::uint8_t hi = b == 0xF4 ? 0x8F : 0xBF;
    return cont(1, lo, hi) && cont(2, 0x80, 0xBF) && cont(3, 0x80, 0xBF) ? 4 : 0;
  }
  return 0;
}

// 0: copy as is; 1: look closer (control, non-ASCII); 2: XML escape.
constexpr std::array<std::uint8_t, 256> makeClassTable() {
  std::array<std::uint8_t, 256> t{};
  for (int c = 0; c < 256; ++c) {
    if (c >= 0x80 || (c < 0x20 && c != '\t' && c != '\n' && c != '\r')) t[c] = 1;
  }
  t['&'] = 2;
  t['<'] = 2;
  t['>'] = 2;
  t['\r'] = 2;
  return t;
}
constexpr auto kClass = makeClassTable();

}  // namespace

bool isCleanText(std::string_view s) {
  const auto* p = reinterpret_cast<const std::uint8_t*>(s.data());
  size_t n = s.size();
  for (size_t i = 0; i < n;) {
    if (kClass[p[i]] != 1) {
      ++i;
      continue;
    }
    if (p[i] < 0x80) return false;
    size_t len = utf8SequenceLength(p + i, n - i);
    if (!len) return false;
    i += len;
  }
  return true;
}

size_t cleanTextLength(const char* s, bool& clean) {
  const auto* p = reinterpret_cast<const std::uint8_t*>(s);
  clean = true;
  for (;;) {
    std::uint8_t c = *p;
    if (kClass[c] != 1) {
      ++p;
      continue;
    }
    if (c == 0) return static_cast<size_t>(p - reinterpret_cast<const std::uint8_t*>(s));
    // A NUL ends any sequence early, as it is no continuation byte.
    size_t len = c < 0x80 ? 0 : utf8SequenceLength(p, 4);
    if (len) {
      p += len;
    } else {
      clean = false;
      ++p;
    }
  }
}

void appendCleaned(std::string& out, std::string_view s) {
  const auto* p = reinterpret_cast<const std::uint8_t*>(s.data());
  size_t n = s.size();
  size_t i = 0;
  while (i < n) {
    size_t start = i;
    while (i < n && kClass[p[i]] != 1) ++i;
    out.append(s.data() + start, i - start);
    if (i == n) break;
    size_t len = p[i] < 0x80 ? 0 : utf8SequenceLength(p + i, n - i);
    if (len) {
      out.append(s.data() + i, len);
      i += len;
    } else {
      out += kReplacement;
      ++i;
    }
  }
}

void appendXmlEscaped(std::string& out, std::string_view s) {
  const auto* p = reinterpret_cast<const std::uint8_t*>(s.data());
  size_t n = s.size();
  size_t i = 0;
  while (i < n) {
    size_t start = i;
    while (i < n && kClass[p[i]] == 0) ++i;
    out.append(s.data() + start, i - start);
    if (i == n) break;
    switch (p[i]) {
      case '&':
        out += "&amp;";
        ++i;
        continue;
      case '<':
        out += "&lt;";
        ++i;
        continue;
      case '>':
        out += "&gt;";
        ++i;
        continue;
      case '\r':
        out += "&#13;";
        ++i;
        continue;
      default:
        break;
    }
    size_t len = p[i] < 0x80 ? 0 : utf8SequenceLength(p + i, n - i);
    if (len) {
      out.append(s.data() + i, len);
      i += len;
    } else {
      out += kReplacement;
      ++i;
    }
  }
}

std::string_view trimXmlSpace(std::string_view s) {
  size_t b = 0, e = s.size();
  while (b < e && isXmlSpace(s[b])) ++b;
  while (e > b && isXmlSpace(s[e - 1])) --e;
  return s.substr(b, e - b);
}

// ---- base64 ----

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kPad = 64, kSpace = 65, kBad = 255;

constexpr std::array<std::uint8_t, 256> makeDecodeTable() {
  std::array<std::uint8_t, 256> t{};
  for (auto& v : t) v = kBad;
  for (int i = 0; i < 64; ++i)
    t[static_cast<std::uint8_t>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  t['='] = kPad;
  t[' '] = t['\t'] = t['\n'] = t['\r'] = kSpace;
  return t;
}
constexpr auto kDecode = makeDecodeTable();

}  // namespace

void appendBase64(std::string& out, const std::uint8_t* d, size_t n) {
  size_t oldSize = out.size();
  out.resize(oldSize + (n + 2) / 3 * 4);
  char* o = out.data() + oldSize;
  size_t i = 0;
  for (; i + 3 <= n; i += 3) {
    std::uint32_t v = (std::uint32_t{d[i]} << 16) | (std::uint32_t{d[i + 1]} << 8) | d[i + 2];
    o[0] = kAlphabet[v >> 18];
    o[1] = kAlphabet[(v >> 12) & 63];
    o[2] = kAlphabet[(v >> 6) & 63];
    o[3] = kAlphabet[v & 63];
    o += 4;
  }
  if (i < n) {
    std::uint32_t v = std::uint32_t{d[i]} << 16;
    if (i + 1 < n) v |= std::uint32_t{d[i + 1]} << 8;
    o[0] = kAlphabet[v >> 18];
    o[1] = kAlphabet[(v >> 12) & 63];
    o[2] = i + 1 < n ? kAlphabet[(v >> 6) & 63] : '=';
    o[3] = '=';
  }
}

void appendBase64Lines(std::string& out, const PlistData& data, size_t lineLength, size_t indent) {
  size_t chunk = lineLength / 4 * 3;
  if (chunk == 0) chunk = 3;
  for (size_t i = 0; i < data.size(); i += chunk) {
    out.append(indent, '\t');
    appendBase64(out, data.data() + i, std::min(chunk, data.size() - i));
    out += '\n';
  }
}

bool decodeBase64(std::string_view text, PlistData& out) {
  out.clear();
  out.reserve(text.size() / 4 * 3 + 3);
  std::uint32_t acc = 0;
  int count = 0;  // sextets in the current quantum
  bool padded = false;
  for (unsigned char c : text) {
    std::uint8_t v = kDecode[c];
    if (v == kSpace) continue;
    if (v == kBad) return false;
    if (v == kPad) {
      // "xx==" or "xxx=": padding ends the data; only more padding or whitespace may follow.
      if (!padded && count < 2) return false;
      padded = true;
      continue;
    }
    if (padded) return false;
    acc = (acc << 6) | v;
    if (++count == 4) {
      out.push_back(static_cast<std::uint8_t>(acc >> 16));
      out.push_back(static_cast<std::uint8_t>(acc >> 8));
      out.push_back(static_cast<std::uint8_t>(acc));
      acc = 0;
      count = 0;
    }
  }
  if (count == 1) return false;
  if (count == 2) {
    out.push_back(static_cast<std::uint8_t>(acc >> 4));
  } else if (count == 3) {
    out.push_back(static_cast<std::uint8_t>(acc >> 10));
    out.push_back(static_cast<std::uint8_t>(acc >> 2));
  }
  return true;
}

}  // namespace velm::plist_text
