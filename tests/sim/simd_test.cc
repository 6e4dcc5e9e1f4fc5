// velm-simd as a separate process in a sandbox: each command's reply, the mount table it keeps,
// notifications, automount, and the behaviour file that shapes its answers.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include "platform/mounts.h"
#include "platform/socket_io.h"
#include "platform/unique_fd.h"
#include "plist/plist.h"
#include "support/sim_process.h"

namespace velm::test {
namespace {

PropertyList dict(std::initializer_list<std::pair<const char*, PropertyList>> items) {
  PropertyList d = PropertyList::dict();
  for (const auto& [k, v] : items) d.set(k, v);
  return d;
}

// As the client sends it: from <plist> on, nothing after the closing tag.
std::string requestText(const PropertyList& request) {
  std::string text = writeXmlPlist(request);
  text = text.substr(text.find("<plist"));
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

class SimdTest : public SandboxTest {
 protected:
  // A clean exit also says the sanitizers found nothing in the daemon.
  void TearDown() override {
    if (daemon_.pid() > 0) {
      EXPECT_EQ(daemon_.stop(), 0) << daemon_.stderrText();
    }
  }
  bool startDaemon(const std::map<std::string, std::string>& env = {}) {
    bool ok = daemon_.start("velm-simd", {"--root", sandbox_.root()}, "listening on", env);
    EXPECT_TRUE(ok) << daemon_.stderrText();
    return ok;
  }
  UniqueFd connectToDaemon() {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    std::string path = sandbox_.path("/var/run/com.orvane.velmd.socket");
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    // A guard against a daemon that never answers, not a timing assertion.
    struct timeval tv = {10, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0)
        << std::strerror(errno);
    return fd;
  }
  // Sends text (then our end's close when halfClose) and reads to the daemon's close.
  std::string exchange(const std::string& text, bool halfClose = false, int* reads = nullptr) {
    UniqueFd fd = connectToDaemon();
    EXPECT_TRUE(sendAll(fd.get(), text.data(), text.size()));
    if (halfClose) ::shutdown(fd.get(), SHUT_WR);
    std::string reply;
    char buf[4096];
    ssize_t n;
    while ((n = ::recv(fd.get(), buf, sizeof buf, 0)) > 0) {
      reply.append(buf, static_cast<std::size_t>(n));
      if (reads) ++*reads;
    }
    return reply;
  }
  PropertyList call(const PropertyList& request) {
    PlistReadResult r = readXmlPlist(exchange(requestText(request)));
    EXPECT_TRUE(r) << r.error;
    return r ? *r.value : PropertyList();
  }
  std::string errorOf(const PropertyList& request) {
    PropertyList reply = call(request);
    const std::string* e = reply.getString("error");
    return e ? *e : "(no error)";
  }
  // The daemon's log up to now: a request's log line comes after everything logged before it.
  std::string logSoFar() {
    std::string marker = "marker" + std::to_string(++markers_);
    call(dict({{"command", marker}}));
    EXPECT_TRUE(daemon_.waitForText(marker + " -> "));
    return daemon_.stderrText();
  }
  void setBehaviour(const char* command, PropertyList entry) {
    sandbox_.write("/simd.plist", writeXmlPlist(dict({{"commands", dict({{command, entry}})}})));
  }
  std::vector<MountEntry> qufsMounts(const std::string& procfs = "/proc") {
    std::vector<MountEntry> out;
    for (MountEntry& e : parseMountInfo(sandbox_.read(procfs + "/self/mountinfo")))
      if (e.fsType == "qufs") out.push_back(std::move(e));
    return out;
  }
  std::vector<std::string> mountedVolumes() {
    std::vector<std::string> names;
    for (const MountEntry& e : qufsMounts()) names.push_back(e.source);
    return names;
  }

  SimProcess daemon_;
  int markers_ = 0;
};

using Names = std::vector<std::string>;

TEST_F(SimdTest, EachCommandAnswersAndPostsItsNotification) {
  ASSERT_TRUE(startDaemon());
  for (const char* command : {"disksChanged", "sanConfigChanged", "roleChanged"}) {
    std::string raw = exchange(requestText(dict({{"command", command}})));
    EXPECT_TRUE(raw.ends_with("</plist>\n")) << raw;
    EXPECT_EQ(*readXmlPlist(raw).value, dict({{"command", command}}));
  }
  for (const char* name : {"disksChanged", "sanConfigChanged"})
    EXPECT_FALSE(
        sandbox_.read("/var/run/velm/notify/com.orvane.velm." + std::string(name)).empty());

  EXPECT_EQ(errorOf(dict({{"command", "bogus"}})), "unknown command 'bogus'");
  EXPECT_EQ(errorOf(dict({{"command", "unmount"}, {"volume", "v"}})), "'v' is not mounted");
  for (const char* bad : {"", ".", "..", "a/b"})
    EXPECT_EQ(errorOf(dict({{"command", "mount"}, {"volume", bad}, {"how", "rw"}})),
              "invalid volume name");
  EXPECT_TRUE(errorOf(dict({{"command", "mount"}, {"volume", "v"}})).starts_with("malformed"));

  // Cut short, not a dictionary, no command, nothing: each gets an answer, none stops it.
  for (std::string text :
       {std::string("<plist><dict><key>command</key>"), requestText(PropertyList::array()),
        requestText(dict({{"x", 1}})), std::string()}) {
    PlistReadResult r = readXmlPlist(exchange(text, /*halfClose=*/true));
    ASSERT_TRUE(r) << text;
    EXPECT_TRUE(r.value->getString("error")->starts_with("malformed request: ")) << text;
  }
  EXPECT_EQ(call(dict({{"command", "roleChanged"}})), dict({{"command", "roleChanged"}}));
  EXPECT_EQ(daemon_.stop(), 0);
  EXPECT_FALSE(sandbox_.exists("/var/run/com.orvane.velmd.socket"));
}

TEST_F(SimdTest, MountKeepsOneEscapedLinePerVolumeBesideOtherMounts) {
  const std::string other = "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw";
  sandbox_.write("/kproc/self/mountinfo", other + "\n");
  ASSERT_TRUE(startDaemon({{"VELM_PROCFS", sandbox_.path("/kproc")}}));

  PropertyList options = dict({{"cache", "64k"}, {"count", 3}, {"nested", dict({{"a", 1}})}});
  EXPECT_EQ(
      errorOf(dict(
          {{"command", "mount"}, {"volume", "my vol"}, {"how", "rw"}, {"MountOptions", options}})),
      "(no error)");
  std::string text = sandbox_.read("/kproc/self/mountinfo");
  EXPECT_TRUE(text.starts_with(other + "\n")) << text;
  EXPECT_NE(text.find("/Volumes/my\\040vol rw,relatime"), std::string::npos) << text;
  std::vector<MountEntry> mounts = qufsMounts("/kproc");
  ASSERT_EQ(mounts.size(), 1u);
  EXPECT_EQ(mounts[0].mountId, 1000);
  EXPECT_EQ(mounts[0].source, "my vol");
  EXPECT_EQ(mounts[0].mountPoint, sandbox_.path("/Volumes/my vol"));
  EXPECT_FALSE(mounts[0].readOnly());
  EXPECT_EQ(mounts[0].superOptions, "rw,cache=64k,count=3");
  EXPECT_TRUE(sandbox_.exists("/Volumes/my vol"));

  // Mounting again replaces the line; another volume gets its own id.
  call(dict({{"command", "mount"}, {"volume", "my vol"}, {"how", "ro"}}));
  call(dict({{"command", "mount"}, {"volume", "b"}, {"how", "rw"}}));
  mounts = qufsMounts("/kproc");
  ASSERT_EQ(mounts.size(), 2u);
  EXPECT_TRUE(mounts[0].readOnly());
  EXPECT_EQ(mounts[0].superOptions, "ro");
  EXPECT_NE(mounts[0].mountId, mounts[1].mountId);

  EXPECT_EQ(call(dict({{"command", "unmount"}, {"volume", "my vol"}})),
            dict({{"command", "unmount"}}));
  EXPECT_FALSE(sandbox_.exists("/Volumes/my vol"));
  text = sandbox_.read("/kproc/self/mountinfo");
  EXPECT_TRUE(text.starts_with(other + "\n")) << text;
  ASSERT_EQ(qufsMounts("/kproc").size(), 1u);
  EXPECT_EQ(qufsMounts("/kproc")[0].source, "b");
  EXPECT_FALSE(sandbox_.exists("/proc"));
}

TEST_F(SimdTest, AutomountAtStartAndAfterChangesUntilForgotten) {
  sandbox_.write("/Library/Filesystems/Velm/config/automount.plist",
                 writeXmlPlist(dict({{"A", dict({{"MountOptions", dict({{"k", "v"}})}})},
                                     {"B", PropertyList::dict()}})));
  ASSERT_TRUE(startDaemon());
  EXPECT_EQ(mountedVolumes(), (Names{"A", "B"}));
  EXPECT_EQ(qufsMounts()[0].superOptions, "rw,k=v");

  call(dict({{"command", "unmount"}, {"volume", "A"}, {"forgetVolume", true}}));
  call(dict({{"command", "unmount"}, {"volume", "B"}}));
  call(dict({{"command", "disksChanged"}}));
  EXPECT_EQ(mountedVolumes(), Names{"B"});

  // An explicit mount ends the forgetting.
  call(dict({{"command", "mount"}, {"volume", "A"}, {"how", "ro"}}));
  call(dict({{"command", "unmount"}, {"volume", "A"}}));
  call(dict({{"command", "sanConfigChanged"}}));
  EXPECT_EQ(mountedVolumes(), (Names{"B", "A"}));
}

TEST_F(SimdTest, BehaviourFileShapesTheAnswer) {
  ASSERT_TRUE(startDaemon());
  const std::string request =
      requestText(dict({{"command", "mount"}, {"volume", "v"}, {"how", "rw"}}));

  setBehaviour("mount", dict({{"error", "busy"}}));
  EXPECT_EQ(*readXmlPlist(exchange(request)).value, dict({{"error", "busy"}}));
  setBehaviour("mount", dict({{"closeWithoutReply", true}}));
  EXPECT_EQ(exchange(request), "");
  EXPECT_TRUE(mountedVolumes().empty());

  const std::pair<const char*, std::string> endings[] = {{"newline", "\n"},
                                                         {"none", ""},
                                                         {"nul", std::string(1, '\0')},
                                                         {"newline-nul", std::string("\n\0", 2)},
                                                         {"two-newlines", "\n\n"}};
  for (const auto& [ending, tail] : endings) {
    setBehaviour("roleChanged", dict({{"ending", ending}}));
    std::string raw = exchange(requestText(dict({{"command", "roleChanged"}})));
    EXPECT_TRUE(raw.ends_with("</plist>" + tail)) << ending;
  }

  setBehaviour("roleChanged", dict({{"reply", "not a plist"}}));
  EXPECT_EQ(exchange(requestText(dict({{"command", "roleChanged"}}))), "not a plist");

  setBehaviour("mount", dict({{"chunkSize", 64}, {"chunkDelayMs", 20}}));
  int reads = 0;
  std::string raw = exchange(request, false, &reads);
  EXPECT_EQ(*readXmlPlist(raw).value, dict({{"command", "mount"}}));
  EXPECT_GT(reads, 1);
  EXPECT_EQ(mountedVolumes(), Names{"v"});
}

TEST_F(SimdTest, SilentConnectionBlocksNeitherOthersNorStop) {
  setBehaviour("roleChanged", dict({{"silent", true}}));
  ASSERT_TRUE(startDaemon());
  UniqueFd silent = connectToDaemon();
  std::string text = requestText(dict({{"command", "roleChanged"}}));
  ASSERT_TRUE(sendAll(silent.get(), text.data(), text.size()));
  ASSERT_TRUE(daemon_.waitForText("roleChanged -> silent"));

  EXPECT_EQ(call(dict({{"command", "disksChanged"}})), dict({{"command", "disksChanged"}}));
  struct pollfd p = {silent.get(), POLLIN, 0};
  EXPECT_EQ(::poll(&p, 1, 0), 0);

  EXPECT_EQ(daemon_.stop(), 0);
  char c;
  EXPECT_EQ(::recv(silent.get(), &c, 1, 0), 0);
}

TEST_F(SimdTest, MalformedBehaviourFileIsLoggedOncePerChangeAndIgnored) {
  sandbox_.write("/simd.plist", "<plist><dict><key>commands</key>");
  ASSERT_TRUE(startDaemon());
  auto complaints = [&] {
    std::string log = logSoFar();
    std::size_t n = 0;
    for (std::size_t at = 0; (at = log.find("velm-simd: config ", at)) != std::string::npos; ++at)
      ++n;
    return n;
  };
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(call(dict({{"command", "roleChanged"}})), dict({{"command", "roleChanged"}}));
  EXPECT_EQ(complaints(), 1u) << daemon_.stderrText();

  setBehaviour("roleChanged", dict({{"chunkSize", "big"}, {"error", "still applies"}}));
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(errorOf(dict({{"command", "roleChanged"}})), "still applies");
  EXPECT_EQ(complaints(), 2u) << daemon_.stderrText();
}

}  // namespace
}  // namespace velm::test
