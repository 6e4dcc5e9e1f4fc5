// The dashboard in a real browser: the demo SAN (scripts/demo: two controllers on loopback,
// Projects running, history on fast idle ticks) and its page in headless Chromium, checked from
// the rendered DOM. Screenshots land in the build tree (dashboard-*.png), for the README.
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>

#include "e2e/e2e_helpers.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "support/ports.h"
#include "support/run_program.h"
#include "support/sim_process.h"

#ifndef VELM_SOURCE_DIR
#define VELM_SOURCE_DIR "."
#endif

namespace velm::test {
namespace {

constexpr const char* kChromium = "/usr/bin/chromium";
// What gets into the page from the SAN and must stay text.
constexpr const char* kMarkup = "<img src=x onerror=\"document.title='owned'\">";
constexpr const char* kMarkupInXml = "&lt;img src=x onerror=\"document.title='owned'\"&gt;";

std::vector<std::string> chromiumArgs(const std::string& profile) {
  return {"--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
          "--no-first-run", "--user-data-dir=" + profile, "--window-size=1280,1000"};
}

class DashboardTest : public SandboxTest {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    if (::access(kChromium, X_OK) != 0) GTEST_SKIP() << "no " << kChromium << " (Debian's chromium package)";
    std::vector<std::string> args = chromiumArgs(sandbox_.path("/probe-profile"));
    args.insert(args.end(), {"--dump-dom", "about:blank"});
    ProgramResult probe = runProgram(kChromium, args);
    if (probe.status != 0 || probe.out.find("<html") == std::string::npos)
      GTEST_SKIP() << "headless Chromium cannot start here: " << probe.err.substr(0, 400);
  }

  void TearDown() override {
    if (demo_.pid() > 0) demo_.stop();
  }

  bool startDemo() {
    port_ = freeLoopbackPort();
    std::map<std::string, std::string> env = {{"DEMO_ROOT", sandbox_.path("/demo")},
                                              {"DEMO_PORT", std::to_string(port_)},
                                              {"DEMO_PM_PORT", std::to_string(freeLoopbackPort())},
                                              {"DEMO_IDLE", "0.5"}};
    std::string script = std::string(VELM_SOURCE_DIR) + "/scripts/demo";
    return demo_.start("/bin/bash", {"-c", "exec \"$0\" \"$1\" 1>&2", script, binaryDir()}, "", env) &&
           demo_.waitForText("== In another terminal, try:", std::chrono::seconds(240));
  }

  std::string token() { return sandbox_.read("/demo/a/var/adminhostd/admin.token"); }
  std::string url() { return "http://127.0.0.2:" + std::to_string(port_); }

  PropertyList command(const PropertyList& r) {
    Client c(url());
    Reply reply = c.command("velm", r, token());
    EXPECT_EQ(reply.status, 200) << reply.body;
    return reply.plist ? *reply.plist : PropertyList();
  }

  // The page as Chromium rendered it, once the dashboard said it is ready.
  std::string renderedDom(const std::string& extra = "") {
    std::vector<std::string> args = chromiumArgs(sandbox_.path("/profile"));
    args.insert(args.end(), {"--virtual-time-budget=20000", "--dump-dom", url() + "/#token=" + token()});
    if (!extra.empty()) args.insert(args.end() - 1, extra);
    ProgramResult r = runProgram(kChromium, args);
    EXPECT_EQ(r.status, 0) << r.err.substr(0, 2000);
    return r.out;
  }

  SimProcess demo_;
  int port_ = 0;
};

TEST_F(DashboardTest, TheDemoSansPagesRenderWithVolumesGraphsAndTheMachine) {
  ASSERT_TRUE(startDemo()) << demo_.stderrText().substr(0, 4000);
  // Outside input that looks like markup: a volume note and a LUN label.
  PropertyList note = PropertyList::dict();
  note.set("class", "volume");
  note.set("name", "Projects");
  note.set("contents", kMarkup);
  EXPECT_EQ(command(request("setNotes", {{"notes", PlistArray{note}}})).get("notes")->size(), 1u);
  std::string luns = sandbox_.read("/demo/a/sim/luns.plist");
  std::size_t at = luns.find("<string>ProjData2</string>");
  ASSERT_NE(at, std::string::npos);
  luns.replace(at, std::strlen("<string>ProjData2</string>"), std::string("<string>") + kMarkupInXml + "</string>");
  sandbox_.write("/demo/a/sim/luns.plist", luns);
  command(request("refreshLUNs"));

  // The graphs need a few rows of Projects' FSM.
  for (int i = 0; i < 150; ++i) {
    PropertyList h = command(request("getHistory", {{"identifier", PropertyList("volumeHistory:Projects")}}));
    const PropertyList* rows = h.get("samplesArray");
    if (rows && rows->size() >= 3) break;
    systemClock().sleepMicros(200'000);
  }

  std::string dom = renderedDom();
  ASSERT_NE(dom.find("data-ready=\"1\""), std::string::npos) << dom.substr(0, 3000);
  // The volume table with Projects in it, running.
  std::smatch m;
  ASSERT_TRUE(std::regex_search(dom, m, std::regex(R"(<table[^>]*id="volume-table")"))) << dom;
  EXPECT_NE(dom.find("data-volume=\"Projects\""), std::string::npos);
  // A graph that drew data points.
  ASSERT_TRUE(std::regex_search(dom, m, std::regex(R"re(class="history-chart"[^>]*data-points="(\d+)")re")))
      << dom;
  EXPECT_GT(std::stoi(m[1]), 0);
  // The machine page: its name and the system's release (the demo root carries /etc/os-release).
  EXPECT_NE(dom.find("id=\"page-machine\""), std::string::npos);
  EXPECT_NE(dom.find("data-key=\"hostOSVersion\""), std::string::npos);
  // The LUN table, and both pieces of markup shown as text, never as an element.
  EXPECT_NE(dom.find("id=\"lun-table\""), std::string::npos);
  EXPECT_NE(dom.find("&lt;img src=x onerror="), std::string::npos) << dom;
  EXPECT_EQ(dom.find("<img src=\"x\""), std::string::npos);
  EXPECT_EQ(dom.find("owned</title>"), std::string::npos);
  std::size_t first = dom.find("&lt;img src=x onerror=");
  EXPECT_NE(dom.find("&lt;img src=x onerror=", first + 1), std::string::npos)
      << "the markup should show in the note and in the LUN label";
  // The token is only in the demo's own line that shows the URL, never in a daemon's log line.
  std::istringstream out(demo_.stderrText());
  for (std::string line; std::getline(out, line);) {
    if (line.find(token()) != std::string::npos) {
      EXPECT_EQ(line.rfind("== Dashboard of A", 0), 0u) << line;
    }
  }

  // The plugin's figures on /metrics come from the same history rows.
  Client c(url());
  Reply metrics = c.send("GET", "/metrics", "", token());
  ASSERT_EQ(metrics.status, 200);
  ASSERT_TRUE(std::regex_search(metrics.body, m,
                                std::regex(R"re(\nvelm_fsm_resident_bytes\{volume="Projects"\} (\d+))re")))
      << metrics.body;
  EXPECT_GT(std::stoll(m[1]), 0);
  if (::access("/usr/bin/promtool", X_OK) == 0) {
    ProgramResult check = runProgram("/usr/bin/promtool", {"check", "metrics"}, metrics.body);
    EXPECT_EQ(check.status, 0) << check.out << check.err;
  }

  for (const char* page : {"volumes", "history"}) {
    std::string shot = binaryDir() + "/dashboard-" + page + ".png";
    std::vector<std::string> args = chromiumArgs(sandbox_.path("/profile"));
    args.insert(args.end(), {"--virtual-time-budget=20000", "--screenshot=" + shot,
                             url() + "/#token=" + token() + "&page=" + page});
    ProgramResult r = runProgram(kChromium, args);
    EXPECT_EQ(r.status, 0) << r.err.substr(0, 2000);
    EXPECT_GT(std::filesystem::file_size(shot), 10000u);
  }
}

}  // namespace
}  // namespace velm::test
