// The run-time half of velm::format: a printf engine over FormatArg that never reads past its
// arguments and never trusts the format string.
#include "plist/format.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "plist/plist_text.h"

namespace velm {

namespace {

// Keeps a hostile format from asking for gigabytes of padding.
constexpr int kMaxWidth = 10000;

struct Spec {
  bool left = false, plus = false, space = false, alt = false, zero = false;
  int width = 0;
  int precision = -1;  // -1: none given
  int lengthBytes = 8;  // hh and h narrow an integer conversion; other modifiers leave it
  char conv = 0;
};

// A number as sign and magnitude, so that unsigned values past INT64_MAX print as they are.
struct Magnitude {
  std::uint64_t value = 0;
  bool negative = false;
};

Magnitude fromSigned(std::int64_t v) {
  return v < 0 ? Magnitude{0 - static_cast<std::uint64_t>(v), true}
               : Magnitude{static_cast<std::uint64_t>(v), false};
}

Magnitude fromDouble(double d) {
  if (std::isnan(d)) return {};
  if (d >= 18446744073709551616.0) return {UINT64_MAX, false};
  if (d <= -9223372036854775808.0) return {std::uint64_t{1} << 63, true};
  if (d < 0) return fromSigned(static_cast<std::int64_t>(d));
  return {static_cast<std::uint64_t>(d), false};
}

Magnitude magnitudeOf(const FormatArg* a) {
  if (!a) return {};
  switch (a->kind()) {
    case FormatArg::Kind::Signed:
      return fromSigned(a->signedValue());
    case FormatArg::Kind::Unsigned:
      return {a->unsignedValue(), false};
    case FormatArg::Kind::Double:
      return fromDouble(a->doubleValue());
    case FormatArg::Kind::CString:
      return {};
    case FormatArg::Kind::Pointer:
      return {reinterpret_cast<std::uintptr_t>(a->pointerValue()), false};
    case FormatArg::Kind::Plist: {
      const PropertyList* p = a->plistValue();
      if (!p) return {};
      if (const PlistInteger* i = p->asInteger())
        return i->isUnsigned ? Magnitude{i->bits, false} : fromSigned(i->asSigned());
      if (auto d = p->doubleValue()) return fromDouble(*d);
      return {};
    }
  }
  return {};
}

// The two's-complement bits, as %u %x %o read a signed argument.
std::uint64_t bitsOf(const FormatArg* a) {
  Magnitude m = magnitudeOf(a);
  return m.negative ? 0 - m.value : m.value;
}

// An integer conversion reads its argument in the argument's own width, narrowed by hh or h:
// %x of the int -1 is ffffffff, %d of the unsigned 4294967295 is -1, as printf gives them.
int conversionBytes(const FormatArg* a, const Spec& s) {
  int bytes = a && (a->kind() == FormatArg::Kind::Signed || a->kind() == FormatArg::Kind::Unsigned)
                  ? a->byteWidth()
                  : 8;
  return std::min(bytes, s.lengthBytes);
}

std::uint64_t narrowedBits(const FormatArg* a, const Spec& s) {
  std::uint64_t bits = bitsOf(a);
  int bytes = conversionBytes(a, s);
  return bytes >= 8 ? bits : bits & ((std::uint64_t{1} << (8 * bytes)) - 1);
}

Magnitude narrowedSigned(const FormatArg* a, const Spec& s) {
  int bytes = conversionBytes(a, s);
  if (bytes >= 8) {
    // Unsigned values past INT64_MAX print as they are rather than wrapping.
    if (a && a->kind() == FormatArg::Kind::Unsigned) return {a->unsignedValue(), false};
    return magnitudeOf(a);
  }
  std::uint64_t bits = narrowedBits(a, s);
  std::uint64_t sign = std::uint64_t{1} << (8 * bytes - 1);
  if (bits & sign) return {(sign << 1) - bits, true};
  return {bits, false};
}

double doubleOf(const FormatArg* a) {
  if (!a) return 0;
  switch (a->kind()) {
    case FormatArg::Kind::Signed:
      return static_cast<double>(a->signedValue());
    case FormatArg::Kind::Unsigned:
      return static_cast<double>(a->unsignedValue());
    case FormatArg::Kind::Double:
      return a->doubleValue();
    case FormatArg::Kind::Plist:
      return a->plistValue() ? a->plistValue()->doubleValue().value_or(0) : 0;
    default:
      return 0;
  }
}

int intOf(const FormatArg* a) {
  Magnitude m = magnitudeOf(a);
  std::uint64_t cap = kMaxWidth;
  int v = static_cast<int>(m.value > cap ? cap : m.value);
  return m.negative ? -v : v;
}

const void* pointerOf(const FormatArg* a) {
  if (!a) return nullptr;
  switch (a->kind()) {
    case FormatArg::Kind::Pointer:
      return a->pointerValue();
    case FormatArg::Kind::Plist:
      return a->plistValue();
    case FormatArg::Kind::CString:
      return a->isNull() ? nullptr : a->stringValue().data();
    default:
      return reinterpret_cast<const void*>(static_cast<std::uintptr_t>(bitsOf(a)));
  }
}

void pad(std::string& out, int n, char c) {
  if (n > 0) out.append(static_cast<size_t>(n), c);
}

void appendJustified(std::string& out, const Spec& s, std::string_view text) {
  int padding = s.width - static_cast<int>(std::min<size_t>(text.size(), kMaxWidth));
  if (!s.left) pad(out, padding, ' ');
  out += text;
  if (s.left) pad(out, padding, ' ');
}

// d i u x X o, as printf lays them out.
void appendInteger(std::string& out, const Spec& s, Magnitude m) {
  unsigned base = (s.conv == 'x' || s.conv == 'X') ? 16 : s.conv == 'o' ? 8 : 10;
  const char* digitsOf = s.conv == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
  char digits[32];
  int nd = 0;
  for (std::uint64_t v = m.value; v; v /= base) digits[nd++] = digitsOf[v % base];
  int zeros = s.precision > nd ? s.precision - nd : 0;
  if (m.value == 0 && s.precision != 0) zeros = std::max(zeros, 1);
  std::string_view prefix;
  bool isSigned = s.conv == 'd' || s.conv == 'i';
  if (isSigned) {
    if (m.negative)
      prefix = "-";
    else if (s.plus)
      prefix = "+";
    else if (s.space)
      prefix = " ";
  } else if (s.alt) {
    if (base == 16 && m.value != 0) prefix = s.conv == 'X' ? "0X" : "0x";
    if (base == 8 && zeros == 0 && nd > 0 && digits[nd - 1] != '0') zeros = 1;
    if (base == 8 && zeros == 0 && nd == 0) zeros = 1;
  }
  int len = static_cast<int>(prefix.size()) + zeros + nd;
  int padding = s.width - len;
  if (!s.left && !(s.zero && s.precision < 0)) pad(out, padding, ' ');
  out += prefix;
  if (!s.left && s.zero && s.precision < 0) pad(out, padding, '0');
  pad(out, zeros, '0');
  for (int i = nd - 1; i >= 0; --i) out += digits[i];
  if (s.left) pad(out, padding, ' ');
}

void appendFloating(std::string& out, const Spec& s, double v) {
  char spec[16];
  size_t k = 0;
  spec[k++] = '%';
  if (s.left) spec[k++] = '-';
  if (s.plus) spec[k++] = '+';
  if (s.space) spec[k++] = ' ';
  if (s.alt) spec[k++] = '#';
  if (s.zero) spec[k++] = '0';
  spec[k++] = '*';
  spec[k++] = '.';
  spec[k++] = '*';
  spec[k++] = s.conv;
  spec[k] = 0;
  int precision = s.precision < 0 ? (s.conv == 'a' || s.conv == 'A' ? -1 : 6) : s.precision;
  char small[128];
  int n = std::snprintf(small, sizeof small, spec, s.width, precision, v);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof small) {
    out.append(small, static_cast<size_t>(n));
    return;
  }
  size_t old = out.size();
  out.resize(old + static_cast<size_t>(n) + 1);
  std::snprintf(out.data() + old, static_cast<size_t>(n) + 1, spec, s.width, precision, v);
  out.resize(old + static_cast<size_t>(n));
}

void appendCodePoint(std::string& out, std::uint64_t cp) {
  if (cp == 0) return;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000 && (cp < 0xD800 || cp > 0xDFFF)) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp >= 0x10000 && cp <= 0x10FFFF) {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += "\xEF\xBF\xBD";
  }
}

// The text of an argument under %@ and %s.
std::string textOf(const FormatArg* a) {
  if (!a || a->isNull()) return "(null)";
  std::string out;
  switch (a->kind()) {
    case FormatArg::Kind::CString:
      out.assign(a->stringValue());
      break;
    case FormatArg::Kind::Plist:
      out = describe(*a->plistValue());
      break;
    case FormatArg::Kind::Signed:
      plist_text::appendSigned(out, a->signedValue());
      break;
    case FormatArg::Kind::Unsigned:
      plist_text::appendUnsigned(out, a->unsignedValue());
      break;
    case FormatArg::Kind::Double:
      plist_text::appendReal(out, a->doubleValue());
      break;
    case FormatArg::Kind::Pointer: {
      Spec s;
      s.conv = 'x';
      out = "0x";
      appendInteger(out, s, {reinterpret_cast<std::uintptr_t>(a->pointerValue()), false});
      break;
    }
  }
  return out;
}

// A precision cuts a string, but not inside a UTF-8 sequence.
std::string_view cut(std::string_view s, int precision) {
  if (precision < 0 || static_cast<size_t>(precision) >= s.size()) return s;
  size_t n = static_cast<size_t>(precision);
  while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) --n;
  return s.substr(0, n);
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

std::string vformat(std::string_view f, std::span<const FormatArg> args) {
  std::string out;
  out.reserve(f.size() + 16 * args.size());
  size_t next = 0;
  auto argAt = [&](size_t position) -> const FormatArg* {
    size_t idx = position ? position - 1 : next++;
    return idx < args.size() ? &args[idx] : nullptr;
  };
  size_t i = 0;
  while (i < f.size()) {
    size_t pct = f.find('%', i);
    if (pct == std::string_view::npos) {
      out.append(f.substr(i));
      break;
    }
    out.append(f.substr(i, pct - i));
    size_t specStart = pct;
    i = pct + 1;
    if (i < f.size() && f[i] == '%') {
      out += '%';
      ++i;
      continue;
    }
    Spec s;
    size_t position = format_detail::readPosition(f, i);
    for (; i < f.size(); ++i) {
      char c = f[i];
      if (c == '-')
        s.left = true;
      else if (c == '+')
        s.plus = true;
      else if (c == ' ')
        s.space = true;
      else if (c == '#')
        s.alt = true;
      else if (c == '0')
        s.zero = true;
      else if (c != '\'')
        break;
    }
    if (i < f.size() && f[i] == '*') {
      ++i;
      size_t wpos = format_detail::readPosition(f, i);
      s.width = intOf(argAt(wpos));
      if (s.width < 0) {
        s.left = true;
        s.width = -s.width;
      }
    } else {
      while (i < f.size() && isDigit(f[i])) {
        s.width = std::min(s.width * 10 + (f[i] - '0'), kMaxWidth);
        ++i;
      }
    }
    if (i < f.size() && f[i] == '.') {
      ++i;
      s.precision = 0;
      if (i < f.size() && f[i] == '*') {
        ++i;
        size_t ppos = format_detail::readPosition(f, i);
        s.precision = intOf(argAt(ppos));
        if (s.precision < 0) s.precision = -1;
      } else {
        while (i < f.size() && isDigit(f[i])) {
          s.precision = std::min(s.precision * 10 + (f[i] - '0'), kMaxWidth);
          ++i;
        }
      }
    }
    int hs = 0;
    while (i < f.size() && f[i] != 0 && std::strchr("hlqzjtL", f[i])) {
      if (f[i] == 'h') ++hs;
      ++i;
    }
    if (hs) s.lengthBytes = hs == 1 ? 2 : 1;
    if (i >= f.size()) {
      out.append(f.substr(specStart));  // a format that ends inside a conversion prints as it is
      break;
    }
    s.conv = f[i++];
    switch (s.conv) {
      case 'd':
      case 'i':
        appendInteger(out, s, narrowedSigned(argAt(position), s));
        break;
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        appendInteger(out, s, {narrowedBits(argAt(position), s), false});
        break;
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        appendFloating(out, s, doubleOf(argAt(position)));
        break;
      case 'c':
      case 'C': {
        std::string ch;
        appendCodePoint(ch, narrowedBits(argAt(position), s));
        appendJustified(out, s, ch);
        break;
      }
      case 's':
      case 'S':
      case '@':
        appendJustified(out, s, cut(textOf(argAt(position)), s.precision));
        break;
      case 'p': {
        std::string text = "0x";
        Spec hex;
        hex.conv = 'x';
        appendInteger(text, hex,
                      {reinterpret_cast<std::uintptr_t>(pointerOf(argAt(position))), false});
        appendJustified(out, s, text);
        break;
      }
      default:
        // Unknown conversions (%n among them) print as written and take no argument.
        out.append(f.substr(specStart, i - specStart));
        break;
    }
  }
  return out;
}

}  // namespace velm
