// Compile-time check of a printf-style format against argument categories (see format.h).
#pragma once

namespace velm::format_detail {

constexpr bool accepts(char conv, Cat cat) {
  switch (conv) {
    case 'd': case 'i': case 'u': case 'x': case 'X': case 'o': case 'c': case 'C':
      return cat == Cat::Integer;
    case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A':
      return cat == Cat::Double;
    case 's': case 'S':
      return cat == Cat::String;
    case '@':
      return cat == Cat::Plist || cat == Cat::String;
    case 'p':
      return cat == Cat::Pointer || cat == Cat::String || cat == Cat::Plist;
    default:
      return false;
  }
}

constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads "n$" at i; returns n (1-based) and moves i past it, or 0 and leaves i alone.
constexpr size_t readPosition(std::string_view f, size_t& i) {
  size_t j = i, n = 0;
  while (j < f.size() && isDigit(f[j])) n = n * 10 + static_cast<size_t>(f[j++] - '0');
  if (j > i && j < f.size() && f[j] == '$' && n > 0) {
    i = j + 1;
    return n;
  }
  return 0;
}

consteval bool check(std::string_view f, std::span<const Cat> cats) {
  size_t next = 0;         // next sequential argument
  bool positional = false, sequential = false;
  size_t maxUsed = 0;
  auto use = [&](size_t pos, char conv) {
    // pos is 1-based for positional, 0 for sequential
    size_t idx;
    if (pos) {
      positional = true;
      idx = pos - 1;
    } else {
      sequential = true;
      idx = next++;
    }
    if (idx >= cats.size()) return false;
    if (idx + 1 > maxUsed) maxUsed = idx + 1;
    return accepts(conv, cats[idx]);
  };
  for (size_t i = 0; i < f.size(); ++i) {
    if (f[i] != '%') continue;
    if (++i >= f.size()) return false;
    if (f[i] == '%') continue;
    size_t pos = readPosition(f, i);
    while (i < f.size() && (f[i] == '-' || f[i] == '+' || f[i] == ' ' || f[i] == '#' || f[i] == '0' || f[i] == '\''))
      ++i;
    if (i < f.size() && f[i] == '*') {
      ++i;
      size_t wpos = readPosition(f, i);
      if (!use(wpos, 'd')) return false;
    } else {
      while (i < f.size() && isDigit(f[i])) ++i;
    }
    if (i < f.size() && f[i] == '.') {
      ++i;
      if (i < f.size() && f[i] == '*') {
        ++i;
        size_t ppos = readPosition(f, i);
        if (!use(ppos, 'd')) return false;
      } else {
        while (i < f.size() && isDigit(f[i])) ++i;
      }
    }
    while (i < f.size() && (f[i] == 'h' || f[i] == 'l' || f[i] == 'q' || f[i] == 'z' || f[i] == 'j' ||
                            f[i] == 't' || f[i] == 'L'))
      ++i;
    if (i >= f.size()) return false;
    if (!use(pos, f[i])) return false;
  }
  if (positional && sequential) return false;
  return maxUsed == cats.size() || positional;
}

}  // namespace velm::format_detail
