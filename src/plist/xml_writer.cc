// The XML property-list writer: one pass appending into one string.
#include <algorithm>
#include <cstring>

#include "plist/plist.h"
#include "plist/plist_text.h"

namespace velm {

namespace {

using plist_text::appendXmlEscaped;

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kFooter = "</plist>\n";

class XmlWriter {
 public:
  explicit XmlWriter(std::string& out) : out_(out) {}

  void value(const PropertyList& v, size_t depth) {
    switch (v.type()) {
      case PropertyList::Type::Null:
        return;  // XML has no null: the caller skips it
      case PropertyList::Type::Dictionary:
        dict(*v.asDict(), depth);
        return;
      case PropertyList::Type::Array:
        array(*v.asArray(), depth);
        return;
      case PropertyList::Type::String:
        indent(depth);
        out_ += "<string>";
        appendXmlEscaped(out_, *v.asString());
        out_ += "</string>\n";
        return;
      case PropertyList::Type::Integer:
        indent(depth);
        out_ += "<integer>";
        plist_text::appendInteger(out_, *v.asInteger());
        out_ += "</integer>\n";
        return;
      case PropertyList::Type::Real:
        indent(depth);
        out_ += "<real>";
        plist_text::appendXmlReal(out_, *v.asReal());
        out_ += "</real>\n";
        return;
      case PropertyList::Type::Boolean:
        indent(depth);
        out_ += *v.asBool() ? "<true/>\n" : "<false/>\n";
        return;
      case PropertyList::Type::Date:
        indent(depth);
        out_ += "<date>";
        plist_text::appendIsoDate(out_, *v.asDate());
        out_ += "</date>\n";
        return;
      case PropertyList::Type::Data:
        data(*v.asData(), depth);
        return;
    }
  }

 private:
  void indent(size_t depth) {
    static constexpr char kTabs[] =
        "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
    constexpr size_t kMax = sizeof kTabs - 1;
    while (depth > kMax) {
      out_.append(kTabs, kMax);
      depth -= kMax;
    }
    out_.append(kTabs, depth);
  }

  void dict(const PlistDict& d, size_t depth) {
    indent(depth);
    bool any = std::any_of(d.begin(), d.end(), [](const auto& e) { return !e.second.isNull(); });
    if (!any) {
      out_ += "<dict/>\n";
      return;
    }
    out_ += "<dict>\n";
    for (const auto& [key, v] : d) {
      if (v.isNull()) continue;
      indent(depth + 1);
      out_ += "<key>";
      appendXmlEscaped(out_, key);
      out_ += "</key>\n";
      value(v, depth + 1);
    }
    indent(depth);
    out_ += "</dict>\n";
  }

  void array(const PlistArray& a, size_t depth) {
    indent(depth);
    bool any = std::any_of(a.begin(), a.end(), [](const PropertyList& e) { return !e.isNull(); });
    if (!any) {
      out_ += "<array/>\n";
      return;
    }
    out_ += "<array>\n";
    for (const PropertyList& v : a) value(v, depth + 1);
    indent(depth);
    out_ += "</array>\n";
  }

  void data(const PlistData& d, size_t depth) {
    indent(depth);
    out_ += "<data>\n";
    // Lines as wide as the customary writers make them: shorter the deeper the element sits.
    size_t width = depth * 8 < 60 ? 76 - depth * 8 : 16;
    plist_text::appendBase64Lines(out_, d, width, depth);
    indent(depth);
    out_ += "</data>\n";
  }

  std::string& out_;
};

}  // namespace

std::string writeXmlPlist(const PropertyList& value) {
  std::string out;
  out.reserve(4096);
  out += kHeader;
  XmlWriter(out).value(value, 0);
  out += kFooter;
  return out;
}

std::string base64Encode(const PlistData& data) {
  std::string out;
  plist_text::appendBase64(out, data.data(), data.size());
  return out;
}

std::optional<PlistData> base64Decode(std::string_view text) {
  PlistData out;
  if (!plist_text::decodeBase64(text, out)) return std::nullopt;
  return out;
}

}  // namespace velm
