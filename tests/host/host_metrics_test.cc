#include <gtest/gtest.h>

#include <string>

#include "host/host_metrics.h"

namespace velm {
namespace {

PropertyList family(const char* name, const char* type, PlistArray labels, PlistArray samples) {
  PropertyList f = PropertyList::dict();
  f.set("name", name);
  f.set("help", "Help\nwith a line end");
  f.set("type", type);
  f.set("labels", std::move(labels));
  f.set("samples", std::move(samples));
  return f;
}

PropertyList sample(PlistArray cells) { return PropertyList(std::move(cells)); }

TEST(HostMetricsTest, PluginFamiliesAreWrittenWithEscapesAndMalformedOnesLeftOut) {
  PlistArray families{
      family("velm_fsm_resident_bytes", "gauge", {PropertyList("volume")},
             {sample({PropertyList("Pro\"j\\ects\n"), PropertyList(42)}),
              sample({PropertyList("short")}),                             // no value
              sample({PropertyList(7), PropertyList(1)}),                  // label not a text
              sample({PropertyList("big"), PropertyList(18446744073709551615ull)}),
              sample({PropertyList("ratio"), PropertyList(0.25)})}),
      family("bad name", "gauge", {}, {sample({PropertyList(1)})}),
      family("velm_x", "summary", {}, {sample({PropertyList(1)})}),
      family("other_y", "gauge", {}, {sample({PropertyList(1)})}),  // not the plugin's name
      family("velm", "gauge", {}, {sample({PropertyList(1)})}),
      family("velm_z_total", "counter", {}, {sample({PropertyList(3)})})};
  std::string out;
  appendPluginFamilies(out, "velm", PropertyList(std::move(families)));
  EXPECT_EQ(out,
            "# HELP velm_fsm_resident_bytes Help\\nwith a line end\n"
            "# TYPE velm_fsm_resident_bytes gauge\n"
            "velm_fsm_resident_bytes{volume=\"Pro\\\"j\\\\ects\\n\"} 42\n"
            "velm_fsm_resident_bytes{volume=\"big\"} 18446744073709551615\n"
            "velm_fsm_resident_bytes{volume=\"ratio\"} 0.25\n"
            "# HELP velm_z_total Help\\nwith a line end\n"
            "# TYPE velm_z_total counter\n"
            "velm_z_total 3\n");
}

TEST(HostMetricsTest, MadeUpCommandsShareOneSeriesPastTheLimit) {
  HostMetrics m;
  for (std::size_t i = 0; i < HostMetrics::kMaxCommands + 10; ++i)
    m.recordCommand("velm", "cmd" + std::to_string(i), false, 100);
  m.recordCommand("velm", "cmd0", true, 2'000'000);
  std::string out;
  m.render(out);
  EXPECT_NE(out.find("adminhostd_commands_total{plugin=\"velm\",command=\"other\"} 10\n"), std::string::npos);
  EXPECT_NE(out.find("adminhostd_commands_total{plugin=\"velm\",command=\"cmd0\"} 2\n"), std::string::npos);
  EXPECT_NE(out.find("adminhostd_command_errors_total{plugin=\"velm\",command=\"cmd0\"} 1\n"), std::string::npos);
  // 100 us falls in the first bucket, 2 s in the one up to 5 s: buckets are cumulative.
  EXPECT_NE(out.find("command=\"cmd0\",le=\"0.0001\"} 1\n"), std::string::npos) << out;
  EXPECT_NE(out.find("command=\"cmd0\",le=\"1\"} 1\n"), std::string::npos);
  EXPECT_NE(out.find("command=\"cmd0\",le=\"5\"} 2\n"), std::string::npos);
  EXPECT_NE(out.find("adminhostd_command_duration_seconds_sum{plugin=\"velm\",command=\"cmd0\"} 2.0001\n"),
            std::string::npos);
}

}  // namespace
}  // namespace velm
