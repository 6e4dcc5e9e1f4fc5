#include "plist/plist.h"

#include <algorithm>
#include <tuple>

namespace velm {

namespace {
struct KeyLess {
  bool operator()(const PlistDict::Entry& e, std::string_view k) const { return e.first < k; }
};
}  // namespace

const PropertyList* PlistDict::find(std::string_view key) const {
  auto it = std::lower_bound(entries_.begin(), entries_.end(), key, KeyLess{});
  return (it != entries_.end() && it->first == key) ? &it->second : nullptr;
}

PropertyList* PlistDict::find(std::string_view key) {
  auto it = std::lower_bound(entries_.begin(), entries_.end(), key, KeyLess{});
  return (it != entries_.end() && it->first == key) ? &it->second : nullptr;
}

void PlistDict::set(std::string key, PropertyList value) {
  auto it = std::lower_bound(entries_.begin(), entries_.end(), std::string_view(key), KeyLess{});
  if (it != entries_.end() && it->first == key) {
    it->second = std::move(value);
  } else {
    entries_.emplace(it, std::move(key), std::move(value));
  }
}

PropertyList& PlistDict::operator[](std::string_view key) {
  auto it = std::lower_bound(entries_.begin(), entries_.end(), key, KeyLess{});
  if (it != entries_.end() && it->first == key) return it->second;
  return entries_.emplace(it, std::string(key), PropertyList())->second;
}

bool PlistDict::erase(std::string_view key) {
  auto it = std::lower_bound(entries_.begin(), entries_.end(), key, KeyLess{});
  if (it == entries_.end() || it->first != key) return false;
  entries_.erase(it);
  return true;
}

void PlistDict::appendUnsorted(std::string key, PropertyList value) {
  entries_.emplace_back(std::move(key), std::move(value));
}

PropertyList& PlistDict::appendUnsorted(std::string key) {
  return entries_
      .emplace_back(std::piecewise_construct, std::forward_as_tuple(std::move(key)), std::tuple<>())
      .second;
}

void PlistDict::sortAndDedupe() {
  if (std::is_sorted(entries_.begin(), entries_.end(),
                     [](const Entry& a, const Entry& b) { return a.first < b.first; })) {
    // Already sorted: only adjacent duplicates can exist.
    bool dup = false;
    for (size_t i = 1; i < entries_.size() && !dup; ++i) dup = entries_[i].first == entries_[i - 1].first;
    if (!dup) return;
  }
  std::stable_sort(entries_.begin(), entries_.end(),
                   [](const Entry& a, const Entry& b) { return a.first < b.first; });
  // Keep the last of each run of equal keys.
  std::vector<Entry> out;
  out.reserve(entries_.size());
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (i + 1 < entries_.size() && entries_[i + 1].first == entries_[i].first) continue;
    out.push_back(std::move(entries_[i]));
  }
  entries_ = std::move(out);
}

bool PlistDict::operator==(const PlistDict& other) const { return entries_ == other.entries_; }

bool PlistInteger::operator==(const PlistInteger& o) const {
  if (bits != o.bits) return false;
  // The same bits are the same number unless one side is negative and the other is past INT64_MAX.
  bool neg = !isUnsigned && static_cast<std::int64_t>(bits) < 0;
  bool oneg = !o.isUnsigned && static_cast<std::int64_t>(o.bits) < 0;
  bool big = isUnsigned && bits > static_cast<std::uint64_t>(INT64_MAX);
  bool obig = o.isUnsigned && o.bits > static_cast<std::uint64_t>(INT64_MAX);
  return (neg || big) == (oneg || obig) && neg == oneg;
}

std::optional<double> PropertyList::asReal() const {
  if (auto* d = std::get_if<double>(&v_)) return *d;
  return std::nullopt;
}

std::optional<bool> PropertyList::asBool() const {
  if (auto* b = std::get_if<bool>(&v_)) return *b;
  return std::nullopt;
}

std::optional<PlistDate> PropertyList::asDate() const {
  if (auto* d = std::get_if<PlistDate>(&v_)) return *d;
  return std::nullopt;
}

std::optional<std::int64_t> PropertyList::int64Value() const {
  switch (type()) {
    case Type::Integer:
      return std::get<PlistInteger>(v_).asSigned();
    case Type::Real: {
      double d = std::get<double>(v_);
      if (!(d >= -9.2233720368547758e18 && d < 9.2233720368547758e18)) return std::nullopt;
      return static_cast<std::int64_t>(d);
    }
    case Type::Boolean:
      return std::get<bool>(v_) ? 1 : 0;
    default:
      return std::nullopt;
  }
}

std::optional<std::uint64_t> PropertyList::uint64Value() const {
  switch (type()) {
    case Type::Integer:
      return std::get<PlistInteger>(v_).bits;
    case Type::Real: {
      double d = std::get<double>(v_);
      if (d >= 0 && d < 1.8446744073709552e19) return static_cast<std::uint64_t>(d);
      if (d < 0 && d >= -9.2233720368547758e18)
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(d));
      return std::nullopt;
    }
    case Type::Boolean:
      return std::get<bool>(v_) ? 1u : 0u;
    default:
      return std::nullopt;
  }
}

std::optional<double> PropertyList::doubleValue() const {
  switch (type()) {
    case Type::Integer: {
      const auto& i = std::get<PlistInteger>(v_);
      return i.isUnsigned ? static_cast<double>(i.bits) : static_cast<double>(i.asSigned());
    }
    case Type::Real:
      return std::get<double>(v_);
    case Type::Boolean:
      return std::get<bool>(v_) ? 1.0 : 0.0;
    default:
      return std::nullopt;
  }
}

bool PropertyList::boolValue() const {
  switch (type()) {
    case Type::Boolean:
      return std::get<bool>(v_);
    case Type::Integer:
      return std::get<PlistInteger>(v_).bits != 0;
    case Type::Real:
      return std::get<double>(v_) != 0.0;
    default:
      return false;
  }
}

const PropertyList* PropertyList::get(std::string_view key) const {
  const PlistDict* d = asDict();
  return d ? d->find(key) : nullptr;
}

PropertyList* PropertyList::get(std::string_view key) {
  PlistDict* d = asDict();
  return d ? d->find(key) : nullptr;
}

const std::string* PropertyList::getString(std::string_view key) const {
  const PropertyList* v = get(key);
  return v ? v->asString() : nullptr;
}

void PropertyList::set(std::string key, PropertyList value) {
  if (!isDict()) v_ = PlistDict{};
  std::get<PlistDict>(v_).set(std::move(key), std::move(value));
}

bool PropertyList::erase(std::string_view key) {
  PlistDict* d = asDict();
  return d && d->erase(key);
}

size_t PropertyList::size() const {
  if (auto* d = asDict()) return d->size();
  if (auto* a = asArray()) return a->size();
  return 0;
}

void PropertyList::push(PropertyList value) {
  if (!isArray()) v_ = PlistArray{};
  std::get<PlistArray>(v_).push_back(std::move(value));
}

}  // namespace velm
