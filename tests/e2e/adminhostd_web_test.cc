// adminhostd's web side with the echo test plugin: JSON beside XML, /metrics, and the dashboard's
// files.
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <regex>

#include "e2e/e2e_helpers.h"
#include "plist/plist_json.h"
#include "support/run_program.h"

namespace velm::test {
namespace {

const std::pair<std::string, std::string> kJsonBody{"Content-Type", "application/json"};
const std::pair<std::string, std::string> kWantJson{"Accept", "application/json"};

class AdminhostdWebTest : public SandboxTest {
 protected:
  void SetUp() override { ::signal(SIGPIPE, SIG_IGN); }

  std::unique_ptr<Daemon> startEcho(std::vector<std::string> args = {}) {
    auto d = std::make_unique<Daemon>(sandbox_, makePluginDir(sandbox_, {{"echo", echoPluginPath()}}),
                                      std::move(args));
    EXPECT_TRUE(d->start()) << d->stderrText() << d->logText();
    return d;
  }

  // The value of the sample line that starts with prefix (name and labels), or -1.
  static double sample(const std::string& page, const std::string& prefix) {
    std::size_t at = page.find("\n" + prefix + " ");
    if (at == std::string::npos) return -1;
    return std::stod(page.substr(at + prefix.size() + 2));
  }
};

TEST_F(AdminhostdWebTest, AJsonRequestReachesThePluginAsItsXmlTwin) {
  auto d = startEcho();
  std::string token = readToken(sandbox_);
  PropertyList req = request("echo", {{"text", "caf\xc3\xa9 <&> \"q\""},
                                      {"negative", -7},
                                      {"big", static_cast<unsigned long long>(UINT64_MAX)},
                                      {"real", 2.0},
                                      {"flag", false},
                                      {"when", PlistDate{800000000}},
                                      {"bytes", PlistData{0, 1, 254, 255}},
                                      {"list", PlistArray{PropertyList(1), PropertyList::dict()}}});
  Client c(d->url());
  Reply viaXml = c.command("echo", req, token);
  ASSERT_EQ(viaXml.status, 200);
  ASSERT_TRUE(viaXml.plist);
  EXPECT_EQ(viaXml.contentType, "application/x-plist");

  std::string json = writeJson(req);
  Reply viaJson = c.send("POST", "/commands/echo", json, token,
                         {{"Content-Type", "application/json; charset=utf-8"}, kWantJson});
  ASSERT_EQ(viaJson.status, 200) << viaJson.body;
  EXPECT_EQ(viaJson.contentType, "application/json");
  ASSERT_TRUE(viaJson.plist) << viaJson.body;
  // The echo plugin answers the request it saw: both saw the same dictionary.
  EXPECT_EQ(*viaJson.plist, *viaXml.plist);
  EXPECT_TRUE(viaJson.plist->get("big")->asInteger()->isUnsigned);

  // JSON in, XML out unless Accept asks; and the other way round.
  Reply xmlOut = c.send("POST", "/commands/echo", json, token, {kJsonBody});
  EXPECT_EQ(xmlOut.contentType, "application/x-plist");
  EXPECT_EQ(*xmlOut.plist, *viaXml.plist);
  Reply jsonOut = c.send("POST", "/commands/echo", writeXmlPlist(req), token,
                         {{"Content-Type", "application/x-plist"},
                          {"Accept", "application/x-plist;q=0.5, application/json"}});
  EXPECT_EQ(jsonOut.contentType, "application/json");
  EXPECT_EQ(*jsonOut.plist, *viaXml.plist);
}

TEST_F(AdminhostdWebTest, JsonWithoutAPlistFormGets415AndNeverReachesThePlugin) {
  auto d = startEcho();
  std::string token = readToken(sandbox_);
  Client c(d->url());
  for (const char* body : {R"({"command": null})", R"(["echo"])", R"({"command": "echo")",
                           R"({"command": "echo", "when": {"$date": "soon"}})"})
    EXPECT_EQ(c.send("POST", "/commands/echo", body, token, {kJsonBody}).status, 415) << body;
  Reply ctx = c.send("POST", "/commands/echo", R"({"command": "getContext"})", token, {kJsonBody, kWantJson});
  ASSERT_TRUE(ctx.plist) << ctx.body;
  EXPECT_EQ(ctx.plist->get("context")->get("calls")->int64Value(), 1);
}

TEST_F(AdminhostdWebTest, MetricsNeedTheTokenAndCountEachCommand) {
  auto d = startEcho({"--idle-interval", "0.05"});
  std::string token = readToken(sandbox_);
  Client c(d->url());
  EXPECT_EQ(c.send("GET", "/metrics", "", "").status, 401);
  EXPECT_EQ(c.send("GET", "/metrics", "", "wrong-token-wrong-token-wrong-token").status, 401);
  Reply before = c.send("GET", "/metrics", "", token);
  ASSERT_EQ(before.status, 200);
  EXPECT_EQ(before.contentType.rfind("text/plain; version=0.0.4", 0), 0u);

  for (int i = 0; i < 3; ++i) EXPECT_EQ(c.command("echo", request("echo"), token).status, 200);
  EXPECT_EQ(c.command("echo", request("silent"), token).status, 400);
  EXPECT_EQ(c.command("echo", request("incr"), token).status, 200);
  Reply after = c.send("GET", "/metrics", "", token);
  const std::string& page = after.body;
  EXPECT_EQ(sample(page, R"(adminhostd_commands_total{plugin="echo",command="echo"})"), 3) << page;
  EXPECT_EQ(sample(page, R"(adminhostd_command_errors_total{plugin="echo",command="echo"})"), 0);
  EXPECT_EQ(sample(page, R"(adminhostd_command_errors_total{plugin="echo",command="silent"})"), 1);
  EXPECT_EQ(sample(page, R"(adminhostd_command_duration_seconds_count{plugin="echo",command="echo"})"), 3);
  EXPECT_EQ(sample(page, R"(adminhostd_command_duration_seconds_bucket{plugin="echo",command="echo",le="+Inf"})"), 3);
  EXPECT_GE(sample(page, R"(adminhostd_idle_tick_duration_seconds_count{plugin="echo"})"), 1);
  // incr dirtied the context, which is saved at once.
  EXPECT_GE(sample(page, R"(adminhostd_context_saves_total{plugin="echo"})"), 1);
  EXPECT_EQ(sample(page, R"(adminhostd_context_save_failures_total{plugin="echo"})"), 0);
  // The token never reaches the log.
  EXPECT_EQ(d->logText().find(token), std::string::npos);

  const char* promtool = "/usr/bin/promtool";
  if (::access(promtool, X_OK) != 0) GTEST_SKIP() << "no promtool (Debian's prometheus package) to check the page";
  ProgramResult check = runProgram(promtool, {"check", "metrics"}, page);
  EXPECT_EQ(check.status, 0) << check.out << check.err << page;
}

TEST_F(AdminhostdWebTest, MetricsOpenServesLoopbackWithoutTheToken) {
  auto d = startEcho({"--metrics-open"});
  Client c(d->url());
  EXPECT_EQ(c.send("GET", "/metrics", "", "").status, 200);
  // Commands still need it.
  EXPECT_EQ(c.command("echo", request("echo"), "").status, 401);
}

TEST_F(AdminhostdWebTest, TheDashboardsFilesAreOpenToAllAndLockedDown) {
  auto d = startEcho();
  Client c(d->url());
  Reply page = c.send("GET", "/", "", "");
  ASSERT_EQ(page.status, 200) << d->logText();
  EXPECT_EQ(page.contentType.rfind("text/html", 0), 0u);
  EXPECT_NE(page.body.find("<script src=\"/dashboard.js\""), std::string::npos);
  EXPECT_NE(page.headers["Content-Security-Policy"].find("script-src 'self'"), std::string::npos);
  EXPECT_EQ(page.headers["X-Content-Type-Options"], "nosniff");
  EXPECT_EQ(c.send("GET", "/dashboard.js", "", "").status, 200);
  if (std::filesystem::exists("/usr/share/javascript/chart.js/chart.min.js")) {
    EXPECT_EQ(c.send("GET", "/vendor/chart.js", "", "").status, 200);
  }
  EXPECT_EQ(c.send("GET", "/../admin.token", "", "").status, 404);
  EXPECT_EQ(c.send("GET", "/nothing-here", "", "").status, 404);
  EXPECT_EQ(c.send("POST", "/", "", "").status, 401);
}

}  // namespace
}  // namespace velm::test
