#include "host/hosted_plugin.h"

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "adminhost/context_store.h"
#include "host/command_router.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace velm {
namespace {

// A plugin whose behaviour each request chooses: dirty, silent, throw, lockFD to write back.
class ScriptedPlugin : public PluginRequestHandler {
 public:
  std::optional<PropertyList> doProcessInputWithRequest(const PropertyList& request, PropertyList* context,
                                                        std::int32_t* lockFileFD) override {
    if (inside_.exchange(true)) overlaps_++;
    ++calls_;
    receivedFd_ = *lockFileFD;
    std::optional<PropertyList> response = PropertyList::dict();
    const PropertyList* n = context->get("n");
    context->set("n", (n ? n->int64Value().value_or(0) : 0) + 1);
    if (request.get("dirty")) context->set("contextDirty", true);
    if (const PropertyList* fd = request.get("writeFd")) *lockFileFD = static_cast<std::int32_t>(*fd->int64Value());
    if (request.get("silent")) response.reset();
    inside_ = false;
    if (request.get("throw")) throw std::runtime_error("scripted");
    if (response) response->set("n", *context->get("n"));
    return response;
  }
  std::atomic<int> calls_{0}, overlaps_{0};
  std::atomic<std::int32_t> receivedFd_{-2};

 private:
  std::atomic<bool> inside_{false};
};

PropertyList req(std::vector<std::string> flags) {
  PropertyList r = PropertyList::dict();
  r.set("command", "scripted");
  for (const std::string& f : flags) r.set(f, true);
  return r;
}

class HostedPluginTest : public test::SandboxTest {
 protected:
  ScriptedPlugin plugin_;
  HostedPlugin hosted_{"scripted", &plugin_, UniqueFd(), PropertyList::dict()};
};

TEST_F(HostedPluginTest, AFailedSaveIsTriedAgainAfterTheNextCall) {
  test::LogCapture log;
  // A file where the context directory should be: saving can't work.
  sandbox_.write("/var/adminhostd/context", "in the way");
  hosted_.call(req({"dirty"}));
  EXPECT_TRUE(log.contains("could not save the context of plugin scripted"));
  std::filesystem::remove(sandbox_.path("/var/adminhostd/context"));
  hosted_.call(req({}));  // not dirty itself
  EXPECT_EQ(loadPluginContext("scripted").get("n")->int64Value(), 2);
}

TEST_F(HostedPluginTest, OutcomesAndTheLockDescriptorGoingRound) {
  test::LogCapture log;
  EXPECT_EQ(hosted_.call(req({"silent"})).outcome, PluginCall::Outcome::NoResponse);
  EXPECT_EQ(plugin_.receivedFd_.load(), -1);
  PropertyList writeFd = req({});
  writeFd.set("writeFd", 42);
  hosted_.call(writeFd);
  hosted_.call(req({}));
  EXPECT_EQ(plugin_.receivedFd_.load(), 42);
  PluginCall thrown = hosted_.call(req({"throw", "dirty"}));
  EXPECT_EQ(thrown.outcome, PluginCall::Outcome::Failed);
  EXPECT_FALSE(thrown.response);
  EXPECT_TRUE(log.contains("threw"));
  // Its change was marked dirty before it threw, so it is kept.
  EXPECT_EQ(loadPluginContext("scripted").get("n")->int64Value(), 4);
}

TEST_F(HostedPluginTest, CallsFromManyThreadsNeverOverlap) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 300; ++i) hosted_.call(req({}));
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(plugin_.overlaps_.load(), 0);
  EXPECT_EQ(hosted_.contextForTest().get("n")->int64Value(), 1200);
}

class CommandRouterTest : public HostedPluginTest {
 protected:
  const std::string token_ = std::string(64, 'c');
  CommandRouter router_{token_, {{"scripted", &hosted_}}};
  std::string auth_ = "Bearer " + token_;
};

// The refusals and answers themselves are covered end to end; here only what a test against the
// daemon can't see.
TEST_F(CommandRouterTest, ACommandThatWouldBreakALogLineIsTamed) {
  PropertyList odd = req({});
  odd.set("command", "get\nState\t");
  std::string xml = writeXmlPlist(odd);
  CommandRequest request;
  request.plugin = "scripted";
  request.authorization = auth_;
  request.body = xml;
  CommandAnswer a = router_.handle(request);
  EXPECT_EQ(a.status, 200);
  EXPECT_EQ(a.command, "get?State?");
  request.body = "";
  EXPECT_EQ(router_.handle(request).command, "-");
}

}  // namespace
}  // namespace velm
