#include "host/host_metrics.h"

#include <charconv>
#include <cmath>
#include <vector>

namespace velm {
namespace {

std::string number(std::uint64_t v) { return std::to_string(v); }

std::string seconds(std::uint64_t micros) {
  char buf[32];
  auto r = std::to_chars(buf, buf + sizeof buf, static_cast<double>(micros) / 1e6, std::chars_format::fixed);
  return std::string(buf, r.ptr);
}

std::string realText(double d) {
  if (std::isnan(d)) return "NaN";
  if (std::isinf(d)) return d > 0 ? "+Inf" : "-Inf";
  char buf[32];
  auto r = std::to_chars(buf, buf + sizeof buf, d);
  return std::string(buf, r.ptr);
}

void appendLabelValue(std::string& out, std::string_view v) {
  for (char c : v) {
    if (c == '\\') out += "\\\\";
    else if (c == '"') out += "\\\"";
    else if (c == '\n') out += "\\n";
    else out += c;
  }
}

void appendHelpText(std::string& out, std::string_view v) {
  for (char c : v) {
    if (c == '\\') out += "\\\\";
    else if (c == '\n') out += "\\n";
    else out += c;
  }
}

void appendHistogram(std::string& out, std::string_view name, std::string_view plugin,
                     const std::string* command, const LatencyHistogram& h) {
  std::string bucket = std::string(name) + "_bucket";
  std::uint64_t cumulative = 0;
  auto sample = [&](const std::string& metric, std::string_view le, const std::string& value) {
    if (command) {
      if (le.empty()) appendMetricSample(out, metric, {{"plugin", plugin}, {"command", *command}}, value);
      else appendMetricSample(out, metric, {{"plugin", plugin}, {"command", *command}, {"le", le}}, value);
    } else {
      if (le.empty()) appendMetricSample(out, metric, {{"plugin", plugin}}, value);
      else appendMetricSample(out, metric, {{"plugin", plugin}, {"le", le}}, value);
    }
  };
  for (std::size_t i = 0; i < kLatencyBucketsMicros.size(); ++i) {
    cumulative += h.buckets[i];
    sample(bucket, seconds(kLatencyBucketsMicros[i]), number(cumulative));
  }
  sample(bucket, "+Inf", number(h.count));
  sample(std::string(name) + "_sum", "", seconds(h.sumMicros));
  sample(std::string(name) + "_count", "", number(h.count));
}

}  // namespace

void LatencyHistogram::add(std::uint64_t micros) {
  ++count;
  sumMicros += micros;
  for (std::size_t i = 0; i < kLatencyBucketsMicros.size(); ++i) {
    if (micros <= kLatencyBucketsMicros[i]) {
      ++buckets[i];
      return;
    }
  }
}

void HostMetrics::recordCommand(std::string_view plugin, std::string_view command, bool error,
                                std::uint64_t micros) {
  std::scoped_lock lock(mutex_);
  auto p = commands_.find(plugin);
  if (p == commands_.end()) p = commands_.emplace(std::string(plugin), decltype(p->second){}).first;
  auto c = p->second.find(command);
  if (c == p->second.end()) {
    std::string name(p->second.size() < kMaxCommands ? command : std::string_view("other"));
    c = p->second.try_emplace(std::move(name)).first;
  }
  ++c->second.count;
  if (error) ++c->second.errors;
  c->second.latency.add(micros);
}

void HostMetrics::recordIdleTick(std::string_view plugin, std::uint64_t micros) {
  std::scoped_lock lock(mutex_);
  auto t = ticks_.find(plugin);
  if (t == ticks_.end()) t = ticks_.try_emplace(std::string(plugin)).first;
  t->second.add(micros);
}

void HostMetrics::render(std::string& out) const {
  std::scoped_lock lock(mutex_);
  appendMetricHeader(out, "adminhostd_commands_total", "Commands answered, by plugin and command.", "counter");
  for (const auto& [plugin, commands] : commands_)
    for (const auto& [command, s] : commands)
      appendMetricSample(out, "adminhostd_commands_total", {{"plugin", plugin}, {"command", command}},
                         number(s.count));
  appendMetricHeader(out, "adminhostd_command_errors_total",
                     "Commands that failed: an HTTP status other than 200, or a response status other than 0.",
                     "counter");
  for (const auto& [plugin, commands] : commands_)
    for (const auto& [command, s] : commands)
      appendMetricSample(out, "adminhostd_command_errors_total", {{"plugin", plugin}, {"command", command}},
                         number(s.errors));
  appendMetricHeader(out, "adminhostd_command_duration_seconds",
                     "Time from a command's arrival to its answer.", "histogram");
  for (const auto& [plugin, commands] : commands_)
    for (const auto& [command, s] : commands)
      appendHistogram(out, "adminhostd_command_duration_seconds", plugin, &command, s.latency);
  appendMetricHeader(out, "adminhostd_idle_tick_duration_seconds", "Time a plugin's idle tick took.",
                     "histogram");
  for (const auto& [plugin, h] : ticks_)
    appendHistogram(out, "adminhostd_idle_tick_duration_seconds", plugin, nullptr, h);
}

bool validMetricName(std::string_view name, bool label) {
  if (name.empty()) return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    char c = name[i];
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (!label && c == ':') ||
              (i > 0 && c >= '0' && c <= '9');
    if (!ok) return false;
  }
  return true;
}

void appendMetricHeader(std::string& out, std::string_view name, std::string_view help, std::string_view type) {
  out += "# HELP ";
  out += name;
  out += ' ';
  appendHelpText(out, help);
  out += "\n# TYPE ";
  out += name;
  out += ' ';
  out += type;
  out += '\n';
}

void appendMetricSample(std::string& out, std::string_view name,
                        std::initializer_list<std::pair<std::string_view, std::string_view>> labels,
                        std::string_view value) {
  out += name;
  if (labels.size()) {
    out += '{';
    bool first = true;
    for (const auto& [k, v] : labels) {
      if (!first) out += ',';
      first = false;
      out += k;
      out += "=\"";
      appendLabelValue(out, v);
      out += '"';
    }
    out += '}';
  }
  out += ' ';
  out += value;
  out += '\n';
}

void appendPluginFamilies(std::string& out, std::string_view plugin, const PropertyList& families) {
  const PlistArray* list = families.asArray();
  if (!list) return;
  for (const PropertyList& f : *list) {
    const std::string* name = f.getString("name");
    const std::string* type = f.getString("type");
    const std::string* help = f.getString("help");
    const PropertyList* labelList = f.get("labels");
    const PropertyList* samples = f.get("samples");
    // A plugin's names begin with its own, which keeps plugins apart without a label on every
    // line.
    if (!name || !type || !validMetricName(*name) || name->size() <= plugin.size() + 1 ||
        name->compare(0, plugin.size(), plugin) != 0 || (*name)[plugin.size()] != '_' ||
        (*type != "gauge" && *type != "counter") || !samples || !samples->isArray())
      continue;
    std::vector<std::string_view> labels;
    bool labelsOk = true;
    if (labelList) {
      const PlistArray* names = labelList->asArray();
      labelsOk = names != nullptr;
      if (names) {
        for (const PropertyList& l : *names) {
          const std::string* text = l.asString();
          labelsOk = labelsOk && text && validMetricName(*text, true);
          if (text) labels.push_back(*text);
        }
      }
    }
    if (!labelsOk) continue;
    appendMetricHeader(out, *name, help ? *help : *name, *type);
    for (const PropertyList& s : *samples->asArray()) {
      // [label values..., value]
      const PlistArray* cells = s.asArray();
      if (!cells || cells->size() != labels.size() + 1) continue;
      const PropertyList& value = cells->back();
      if (!value.isNumber()) continue;
      bool textOk = true;
      for (std::size_t i = 0; i < labels.size(); ++i) textOk = textOk && (*cells)[i].isString();
      if (!textOk) continue;
      out += *name;
      if (!labels.empty()) out += '{';
      for (std::size_t i = 0; i < labels.size(); ++i) {
        if (i) out += ',';
        out += labels[i];
        out += "=\"";
        appendLabelValue(out, *(*cells)[i].asString());
        out += '"';
      }
      out += labels.empty() ? " " : "} ";
      if (const PlistInteger* i = value.asInteger()) {
        char buf[24];
        auto r = i->isUnsigned ? std::to_chars(buf, buf + sizeof buf, i->bits)
                               : std::to_chars(buf, buf + sizeof buf, i->asSigned());
        out.append(buf, r.ptr);
      } else {
        out += realText(*value.asReal());
      }
      out += '\n';
    }
  }
}

}  // namespace velm
