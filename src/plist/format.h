// printf-style message formatting with %@ (any PropertyList, printed as describe() does).
// Conversions: %@ %s %d %i %u %x %X %o %f %e %g %c %p %% with flags, width, precision (also
// '*'), length modifiers (hh h l ll z j t L q) and positional forms (%1$@, %2$d, %1$*2$d).
// Missing or mismatched arguments never cause undefined behaviour: they print as "(null)" or
// are converted sensibly.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "plist/plist.h"

namespace velm {

class FormatArg {
 public:
  enum class Kind : std::uint8_t { Signed, Unsigned, Double, CString, Plist, Pointer };

  // Integers keep their byte width, so that %x of a negative int prints 32 bits as printf does.
  FormatArg(char c) : kind_(Kind::Signed), bytes_(1), i_(c) {}
  FormatArg(signed char c) : kind_(Kind::Signed), bytes_(1), i_(c) {}
  FormatArg(unsigned char c) : kind_(Kind::Unsigned), bytes_(1), u_(c) {}
  FormatArg(short i) : kind_(Kind::Signed), bytes_(sizeof i), i_(i) {}
  FormatArg(unsigned short i) : kind_(Kind::Unsigned), bytes_(sizeof i), u_(i) {}
  FormatArg(int i) : kind_(Kind::Signed), bytes_(sizeof i), i_(i) {}
  FormatArg(long i) : kind_(Kind::Signed), i_(i) {}
  FormatArg(long long i) : kind_(Kind::Signed), i_(i) {}
  FormatArg(unsigned i) : kind_(Kind::Unsigned), bytes_(sizeof i), u_(i) {}
  FormatArg(unsigned long i) : kind_(Kind::Unsigned), u_(i) {}
  FormatArg(unsigned long long i) : kind_(Kind::Unsigned), u_(i) {}
  FormatArg(bool b) : kind_(Kind::Signed), bytes_(sizeof(int)), i_(b ? 1 : 0) {}
  FormatArg(double d) : kind_(Kind::Double), d_(d) {}
  FormatArg(float d) : kind_(Kind::Double), d_(d) {}
  FormatArg(const char* s) : kind_(Kind::CString), s_(s ? std::string_view(s) : std::string_view()), null_(!s) {}
  FormatArg(const std::string& s) : kind_(Kind::CString), s_(s) {}
  FormatArg(std::string_view s) : kind_(Kind::CString), s_(s) {}
  FormatArg(const PropertyList& p) : kind_(Kind::Plist), p_(&p) {}
  // A null pointer prints as (null) under %@.
  FormatArg(const PropertyList* p) : kind_(Kind::Plist), p_(p), null_(!p) {}
  FormatArg(const void* p) : kind_(Kind::Pointer), ptr_(p) {}
  // Enumerations print as their numbers (the compile-time check counts them as integers).
  template <typename E>
    requires std::is_enum_v<E>
  FormatArg(E e) : FormatArg(static_cast<std::underlying_type_t<E>>(e)) {}

  Kind kind() const { return kind_; }
  int byteWidth() const { return bytes_; }  // of an integer argument; 8 for anything else
  std::int64_t signedValue() const { return i_; }
  std::uint64_t unsignedValue() const { return u_; }
  double doubleValue() const { return d_; }
  std::string_view stringValue() const { return s_; }
  const PropertyList* plistValue() const { return p_; }
  const void* pointerValue() const { return ptr_; }
  bool isNull() const { return null_; }

 private:
  Kind kind_;
  std::uint8_t bytes_ = 8;
  union {
    std::int64_t i_;
    std::uint64_t u_;
    double d_;
    const PropertyList* p_;
    const void* ptr_;
  };
  std::string_view s_;
  bool null_ = false;
};

// Formats at run time; used for format strings that are data (translation tables).
std::string vformat(std::string_view fmt, std::span<const FormatArg> args);

namespace format_detail {
// Category of an argument type, as the compile-time check sees it.
enum class Cat { Integer, Double, String, Plist, Pointer, Other };
template <typename T>
consteval Cat categoryOf() {
  using U = std::remove_cvref_t<T>;
  if constexpr (std::is_same_v<U, bool> || std::is_integral_v<U> || std::is_enum_v<U>) return Cat::Integer;
  else if constexpr (std::is_floating_point_v<U>) return Cat::Double;
  else if constexpr (std::is_same_v<U, std::string> || std::is_same_v<U, std::string_view> ||
                     std::is_same_v<std::decay_t<T>, const char*> || std::is_same_v<std::decay_t<T>, char*>)
    return Cat::String;
  else if constexpr (std::is_same_v<U, PropertyList> || std::is_same_v<U, const PropertyList*> ||
                     std::is_same_v<U, PropertyList*>)
    return Cat::Plist;
  else if constexpr (std::is_pointer_v<U>) return Cat::Pointer;
  else return Cat::Other;
}
// Checks a format against argument categories; returns false when a conversion can't take its
// argument. Defined in the header so that it runs at compile time.
consteval bool check(std::string_view fmt, std::span<const Cat> cats);
void failedFormatCheck();  // never defined: calling it in a consteval context is the error
}  // namespace format_detail

// A format string checked against the argument types at compile time.
template <typename... Args>
struct FormatString {
  template <typename S>
    requires std::is_convertible_v<const S&, std::string_view>
  consteval FormatString(const S& s) : str(s) {
    constexpr format_detail::Cat cats[] = {format_detail::categoryOf<Args>()..., format_detail::Cat::Other};
    if (!format_detail::check(str, std::span<const format_detail::Cat>(cats, sizeof...(Args))))
      format_detail::failedFormatCheck();
  }
  std::string_view str;
};

template <typename... Args>
std::string format(FormatString<std::type_identity_t<Args>...> fmt, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg(0)};
  return vformat(fmt.str, std::span<const FormatArg>(list, sizeof...(Args)));
}

}  // namespace velm

#include "plist/format_check.h"
