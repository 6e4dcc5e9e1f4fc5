// The message layer against peer threads on loopback: framing, replies and their failures,
// discovery, connections to the port mapper and FSM, activation.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "adminlib/adminlib.h"
#include "adminlib/adminlib_test_helpers.h"
#include "platform/clock.h"
#include "platform/unique_fd.h"

namespace velm::test {
namespace {

Bytes header(std::uint32_t len, std::uint8_t status = 0, std::uint16_t error = 0) {
  Bytes h = {0xC0,
             0xC1,
             0xC2,
             0xC3,
             0xC4,
             static_cast<std::uint8_t>(len >> 16),
             static_cast<std::uint8_t>(len >> 8),
             static_cast<std::uint8_t>(len),
             0,
             0,
             0,
             status,
             0,
             0,
             static_cast<std::uint8_t>(error >> 8),
             static_cast<std::uint8_t>(error),
             0,
             0,
             0,
             0,
             0,
             0,
             0,
             0};
  return h;
}

Bytes prefix(Bytes a, std::size_t n) {
  a.resize(n);
  return a;
}

Bytes cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Reads one framed message (header and announced rest).
Bytes readFramed(int fd) {
  Bytes h = readBytes(fd, 24);
  if (h.size() < 24) return h;
  std::uint32_t len = get_be24(h.data() + 5);
  return cat(h, readBytes(fd, len > 24 ? len - 24 : 0));
}

int connectTo(int port) {
  in6_addr lo;
  AddrSetLoopback4(&lo);
  int err = 0;
  return SockConnect(&lo, port, &err);
}

// Records the Sun RPC fallback instead of asking the host's rpcbind.
struct PmapCall {
  int calls = 0;
  std::string addr;
  unsigned long program = 0;
};
PmapCall gPmap;
unsigned short gPmapAnswer = 0;
unsigned short fakePmap(const sockaddr_in* a, unsigned long program, unsigned long, unsigned int) {
  ++gPmap.calls;
  char text[INET_ADDRSTRLEN];
  ::inet_ntop(AF_INET, &a->sin_addr, text, sizeof text);
  gPmap.addr = text;
  gPmap.program = program;
  return gPmapAnswer;
}

class FsmcommTest : public AdminlibTest {
 protected:
  void SetUp() override {
    AdminlibTest::SetUp();
    savedPmap_ = PmapGetportHook;
    PmapGetportHook = fakePmap;
    gPmap = PmapCall{};
    gPmapAnswer = 0;
  }
  void TearDown() override {
    PmapGetportHook = savedPmap_;
    AdminlibTest::TearDown();
  }
  void useAltPmap(int port) {
    writeDrfs("config/fsports", "altpmap " + std::to_string(port) + "\n");
    AltGetportResetForTest();
  }

  PmapGetportFunc savedPmap_ = nullptr;
};

TEST_F(FsmcommTest, FrameHeaderOnTheWireAndReplyInPlace) {
  Bytes seen;
  LoopbackPeer peer([&](int fd) {
    seen = readBytes(fd, 1024);
    Bytes body = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm', 'n', 'o', 'p'};
    writeBytes(fd, cat(header(40), body));
  });
  UniqueFd fd(connectTo(peer.port()));
  std::uint8_t msg[1024] = {};
  msg[11] = 0x77;  // stale status and error: cleared on send
  msg[14] = msg[15] = 0x77;
  msg[12] = 0x01;  // the small argument is the caller's
  msg[13] = 0x02;
  FrameSetMsgNumber(msg, 0x01020304);
  int err = -1;
  ASSERT_EQ(_sendrcvmsg(fd.get(), msg, sizeof msg, &err, 1), 0);
  EXPECT_EQ(err, 0);
  ASSERT_EQ(seen.size(), 1024u);
  std::uint8_t number[4];
  const std::uint32_t n = 0x01020304;
  std::memcpy(number, &n, 4);  // host order, not swapped
  Bytes expected = {0xC0,      0xC1,      0xC2,      0xC3,      0xC4, 0x00, 0x04, 0x00,
                    0x00,      0x00,      0x00,      0x00,      0x01, 0x02, 0x00, 0x00,
                    number[0], number[1], number[2], number[3], 0,    0,    0,    0};
  EXPECT_EQ(Bytes(seen.begin(), seen.begin() + 24), expected);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(msg + 24), 16), "abcdefghijklmnop");
  EXPECT_EQ(msg[5], 0x00);
  EXPECT_EQ(msg[7], 40);
}

struct ReplyCase {
  const char* what;
  Bytes reply;  // what the peer answers, then it closes
  int err;
};

class ReplyFailureTest : public FsmcommTest, public ::testing::WithParamInterface<ReplyCase> {};

TEST_P(ReplyFailureTest, GivesErrno) {
  const ReplyCase& c = GetParam();
  LoopbackPeer peer([&](int fd) {
    readBytes(fd, 1024);
    writeBytes(fd, c.reply);
  });
  UniqueFd fd(connectTo(peer.port()));
  std::uint8_t msg[1024] = {};
  int err = 0;
  EXPECT_EQ(SendRcvMsg(fd.get(), msg, sizeof msg, &err), -1) << c.what;
  EXPECT_EQ(err, c.err) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ReplyFailureTest,
    ::testing::Values(
        ReplyCase{"closed after 10 bytes of header", prefix(header(1024), 10), ECONNRESET},
        ReplyCase{"closed at once", Bytes{}, ECONNRESET},
        ReplyCase{"wrong magic with a right length",
                  Bytes{0xC0, 0xC1, 0xC2, 0xC3, 0xC5, 0, 0, 24, 0, 0, 0, 0,
                        0,    0,    0,    0,    0,    0, 0, 0,  0, 0, 0, 0},
                  EINVAL},
        ReplyCase{"body shorter than announced", cat(header(100), Bytes(50, 1)), ECONNRESET},
        ReplyCase{"longer than the buffer", cat(header(2000), Bytes(1976, 1)), EMSGSIZE},
        ReplyCase{"failed reply with the peer's errno", header(24, 1, ENOENT), ENOENT},
        ReplyCase{"unknown request", header(24, 255, 1), 1}));

TEST_F(FsmcommTest, ShortHeaderLengthIsTakenAsHeaderAlone) {
  LoopbackPeer peer([&](int fd) {
    readBytes(fd, 1024);
    writeBytes(fd, header(3));
  });
  UniqueFd fd(connectTo(peer.port()));
  std::uint8_t msg[1024] = {};
  int err = -1;
  EXPECT_EQ(SendRcvMsg(fd.get(), msg, sizeof msg, &err), 0);
}

TEST_F(FsmcommTest, ReplyRoomCanExceedTheRequest) {
  LoopbackPeer peer([&](int fd) {
    readBytes(fd, 1024);
    writeBytes(fd, cat(header(2000), Bytes(1976, 9)));
  });
  UniqueFd fd(connectTo(peer.port()));
  std::uint8_t msg[4096] = {};
  int err = 0;
  EXPECT_EQ(_sendrcvmsg_buf(fd.get(), msg, 1024, sizeof msg, &err, 1), 0);
  EXPECT_EQ(msg[1999], 9);
}

TEST_F(FsmcommTest, SilentPeerTimesOutOnTheClock) {
  ScopedFakeClock clock;
  ScopedEnv env("TIMEDWAIT_VALUE", "1");
  LoopbackPeer peer([&](int fd) {
    readBytes(fd, 1024);
    readBytes(fd, 1);  // holds the connection open until the client closes it
  });
  UniqueFd fd(connectTo(peer.port()));
  std::uint8_t msg[1024] = {};
  int err = 0;
  std::uint64_t start = clock->wallMicros();
  EXPECT_EQ(SendRcvMsg(fd.get(), msg, sizeof msg, &err), -1);
  EXPECT_EQ(err, ETIMEDOUT);
  EXPECT_EQ(clock->wallMicros() - start, 1000000u);
}

TEST_F(FsmcommTest, ReplyWaitFromTheEnvironment) {
  struct Case {
    const char* value;
    int ms;
  };
  for (const Case& c : {Case{nullptr, 30000}, Case{"2", 2000}, Case{"0", 30000}, Case{"-4", 30000},
                        Case{"abc", 30000}}) {
    ScopedEnv env("TIMEDWAIT_VALUE", c.value);
    EXPECT_EQ(TimedWaitMs(1), c.ms) << (c.value ? c.value : "unset");
    EXPECT_EQ(TimedWaitMs(0), -1);
  }
}

TEST_F(FsmcommTest, TimedRereadAnswers) {
  ScopedFakeClock clock;
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
  UniqueFd a(sv[0]), b(sv[1]);
  std::uint8_t buf[32] = {};
  // A deadline that is already due answers the full length; the buffer stays zero.
  EXPECT_EQ(timed_reread(a.get(), 0, buf, sizeof buf), 32);
  EXPECT_EQ(get_be32(buf), 0u);
  // Some bytes, then nothing: 0, not the count.
  writeBytes(b.get(), Bytes(8, 7));
  EXPECT_EQ(timed_reread(a.get(), 1, buf, sizeof buf), 0);
  EXPECT_EQ(buf[7], 7);
  writeBytes(b.get(), Bytes(32, 3));
  EXPECT_EQ(timed_reread(a.get(), 1, buf, sizeof buf), 32);
  writeBytes(b.get(), Bytes(5, 4));
  b.reset();
  EXPECT_EQ(timed_reread(a.get(), 1, buf, sizeof buf), 5);  // closed: the count
}

Bytes word(std::uint32_t v) {
  return {static_cast<std::uint8_t>(v >> 24), static_cast<std::uint8_t>(v >> 16),
          static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
}

// Answers discovery: the hello, then the reply with the given words.
std::function<void(int)> discovery(Bytes* request, std::uint32_t helloWord2,
                                   std::uint32_t replyWord0, std::uint32_t replyWord1) {
  return [=](int fd) {
    writeBytes(fd, cat(cat(word(0x61700001), word(helloWord2)), Bytes(24, 0)));
    Bytes r = readBytes(fd, 32);
    if (request) *request = r;
    writeBytes(fd, cat(cat(word(replyWord0), word(replyWord1)), Bytes(24, 0)));
  };
}

TEST_F(FsmcommTest, DiscoveryWordsOnTheWire) {
  Bytes request;
  LoopbackPeer peer(discovery(&request, 47, 0x61700003, 0x00012345));
  useAltPmap(peer.port());
  in6_addr lo;
  AddrSetLoopback4(&lo);
  EXPECT_EQ(alt_getport(&lo, kDrfsProgram, kDrfsVersion, kDrfsProtocol), 0x2345);
  Bytes expected = {0x61, 0x70, 0x00, 0x02, 0x44, 0x52, 0x46, 0x53,
                    0x00, 0x00, 0x00, 0x2F, 0x00, 0x00, 0x00, 0x06};
  expected.resize(32, 0);
  EXPECT_EQ(request, expected);
  EXPECT_EQ(gPmap.calls, 0);
}

TEST_F(FsmcommTest, DiscoveryAnswersThatAreNotAPort) {
  in6_addr lo;
  AddrSetLoopback4(&lo);
  {
    LoopbackPeer peer(discovery(nullptr, 47, 0x61700004, 0x1234));
    useAltPmap(peer.port());
    EXPECT_EQ(alt_getport(&lo, 1, 2, 6), 0);  // a wrong reply word: no fallback
  }
  EXPECT_EQ(gPmap.calls, 0);
  {
    gPmapAnswer = 0x9999;
    LoopbackPeer peer([](int fd) { writeBytes(fd, cat(word(0x61700001), Bytes(28, 0))); });
    useAltPmap(peer.port());
    EXPECT_EQ(alt_getport(&lo, 1, 2, 6), 0x9999);  // a hello without its second word: fallback
  }
  EXPECT_EQ(gPmap.calls, 1);
}

TEST_F(FsmcommTest, RefusedAlternatePortFallsBackAtOnce) {
  ScopedFakeClock clock;
  gPmapAnswer = 0x0042;
  useAltPmap(freeLoopbackPort());
  in6_addr lo;
  AddrSetLoopback4(&lo);
  std::uint64_t start = clock->wallMicros();
  EXPECT_EQ(alt_getport(&lo, kDrfsProgram, 47, 6), 0x0042);
  EXPECT_EQ(clock->wallMicros(), start);  // no wait before the fallback
  EXPECT_EQ(gPmap.calls, 1);
  EXPECT_EQ(gPmap.addr, "127.0.0.1");
  EXPECT_EQ(gPmap.program, kDrfsProgram);

  in6_addr v6 = in6addr_loopback;  // not mapped: no Sun RPC fallback
  EXPECT_EQ(alt_getport(&v6, kDrfsProgram, 47, 6), 0);
  EXPECT_EQ(gPmap.calls, 1);
}

TEST_F(FsmcommTest, PortMapperPortWithoutUsableFsportsIs5164) {
  for (const char* fsports : {static_cast<const char*>(nullptr), "altpmap 0\n"}) {
    if (fsports) writeDrfs("config/fsports", fsports);
    AltGetportResetForTest();
    LoopbackPeer peer(discovery(nullptr, 1, 0x61700003, 777), 1, kDefaultPmapPort);
    if (peer.port() != kDefaultPmapPort) GTEST_SKIP() << "port 5164 is taken on this machine";
    in6_addr lo;
    AddrSetLoopback4(&lo);
    EXPECT_EQ(alt_getport(&lo, 1, 1, 6), 777);
  }
}

TEST_F(FsmcommTest, PortMapperConnectFailures) {
  useAltPmap(freeLoopbackPort());
  char err[ADMIN_ERRBUF_LEN] = {};
  EXPECT_EQ(FsmPMConnect(nullptr, err), -1);
  EXPECT_STREQ(err, "The Velm File System Services on 127.0.0.1 may be stopped.");
  EXPECT_EQ(FsmPMConnect("no-such-host.invalid", err), -1);
  EXPECT_EQ(std::string(err).rfind("Cannot get host by name - ", 0), 0u) << err;
  EXPECT_EQ(FsmPMConnect(nullptr, nullptr), -1);  // a null text buffer is fine
}

// A port mapper of threads: discovery on its own port, `serve` on the service port it reports.
class FakePortMapper {
 public:
  explicit FakePortMapper(std::function<void(int)> serve, int connections = 1)
      : service_(std::move(serve), connections),
        discovery_(discovery(nullptr, 47, 0x61700003, static_cast<std::uint32_t>(service_.port())),
                   connections) {}
  int discoveryPort() const { return discovery_.port(); }

 private:
  LoopbackPeer service_;
  LoopbackPeer discovery_;
};

// Answers every framed request on a connection with `status` at offset 28 (and the FSM's place).
std::function<void(int)> getSocketServer(std::uint16_t status, int fsmPort, Bytes* firstRequest,
                                         int* requests) {
  return [=](int fd) {
    while (true) {
      Bytes req = readFramed(fd);
      if (req.size() != 1024) return;
      if (requests) ++*requests;
      if (firstRequest && firstRequest->empty()) *firstRequest = req;
      Bytes reply = req;
      std::memcpy(reply.data(), header(1024).data(), 24);
      put_be16(reply.data() + 28, status);
      put_be16(reply.data() + 26, static_cast<std::uint16_t>(fsmPort));
      in6_addr lo;
      AddrSetLoopback4(&lo);
      std::memcpy(reply.data() + 296, lo.s6_addr, 16);
      writeBytes(fd, reply);
    }
  };
}

TEST_F(FsmcommTest, GetSocketOpensTheAdminConnection) {
  Bytes open;
  LoopbackPeer fsm([&](int fd) {
    open = readFramed(fd);
    writeBytes(fd, cat(header(32), cat(word(5), Bytes(4, 0))));
  });
  Bytes request;
  FakePortMapper pm(getSocketServer(0, fsm.port(), &request, nullptr));
  useAltPmap(pm.discoveryPort());
  char err[ADMIN_ERRBUF_LEN] = {};
  std::uint32_t caps = 0;
  UniqueFd fd(FsmGetSocket(nullptr, "vol1", 0, err, 1, &caps));
  ASSERT_TRUE(fd.valid()) << err;
  EXPECT_EQ(caps, 5u);
  EXPECT_EQ(std::string(err), std::to_string(fsm.port()));
  ASSERT_EQ(request.size(), 1024u);
  EXPECT_EQ(get_be16(request.data() + 24), 0x008C);
  EXPECT_STREQ(reinterpret_cast<char*>(request.data() + 40), "vol1");
  ASSERT_EQ(open.size(), 32u);
  EXPECT_EQ(Bytes(open.begin(), open.begin() + 12),
            (Bytes{0xC0, 0xC1, 0xC2, 0xC3, 0xC4, 0, 0, 32, 2, 7, 0, 0}));
  std::uint32_t number;
  std::memcpy(&number, open.data() + 16, 4);
  EXPECT_NE(number, 0u);
}

TEST_F(FsmcommTest, GetSocketOnStandby) {
  ScopedFakeClock clock;
  char err[ADMIN_ERRBUF_LEN] = {};
  for (int wait : {0, 1}) {
    int requests = 0;
    {
      FakePortMapper pm(getSocketServer(5, 0, nullptr, &requests));
      useAltPmap(pm.discoveryPort());
      EXPECT_EQ(FsmGetSocket(nullptr, "vol1", wait, err, 1, nullptr), -1);
    }
    EXPECT_STREQ(err, "File System Manager \"vol1\" on localhost is on standby.\n");
    EXPECT_EQ(requests, wait ? 30 : 1);
  }
  EXPECT_EQ(clock->sleeps(), std::vector<std::uint64_t>(29, 1000000));
}

TEST_F(FsmcommTest, GetSocketFailures) {
  char err[ADMIN_ERRBUF_LEN] = {};
  {
    FakePortMapper pm(getSocketServer(1, 0, nullptr, nullptr));
    useAltPmap(pm.discoveryPort());
    EXPECT_EQ(FsmGetSocket("localhost", "vol1", 0, err, 1, nullptr), -1);
    EXPECT_STREQ(err, "Could not find File System Manager for \"vol1\" on localhost.\n");
  }
  {
    FakePortMapper pm([](int fd) {
      for (int i = 0; i < 2; ++i) {
        readFramed(fd);
        writeBytes(fd, cat(header(1024, 255, 1), Bytes(1000, 0)));
      }
    });
    useAltPmap(pm.discoveryPort());
    EXPECT_EQ(FsmGetSocket(nullptr, "vol1", 1, err, 1, nullptr), -1);
    EXPECT_STREQ(err, "unsupported request");
  }
  {
    FakePortMapper pm([](int fd) {
      readFramed(fd);
      writeBytes(fd, cat(header(1024, 1, EACCES), Bytes(1000, 0)));
    });
    useAltPmap(pm.discoveryPort());
    EXPECT_EQ(FsmGetSocket(nullptr, "vol1", 0, err, 1, nullptr), -1);
    EXPECT_STREQ(err, "fsmportmapper request failed: [errno 13]: Permission denied");
  }
  {
    LoopbackPeer fsm([](int fd) { readBytes(fd, 10); });  // closes mid-exchange
    FakePortMapper pm(getSocketServer(0, fsm.port(), nullptr, nullptr));
    useAltPmap(pm.discoveryPort());
    EXPECT_EQ(FsmGetSocket(nullptr, "vol1", 0, err, 1, nullptr), -1);
    EXPECT_STREQ(err,
                 "Admin Tap Connection to FSM failed: [errno 104]: Connection reset by peer\n"
                 "FSM may have too many connections active.\n");
  }
}

TEST_F(FsmcommTest, ActivateFallsBackOnAHostOrderUnknownAnswer) {
  Bytes first, second;
  LoopbackPeer peer([&](int fd) {
    first = readBytes(fd, 1024);
    Bytes reply(1024, 0);
    reply[11] = 255;
    const std::uint16_t one = 1;
    std::memcpy(reply.data() + 14, &one, 2);  // the activation reply's error word is host order
    writeBytes(fd, reply);
    second = readBytes(fd, 1024);
    Bytes ok(1024, 0);
    put_be16(ok.data() + 28, 6);
    put_be32(ok.data() + 36, 0x01020304);
    writeBytes(fd, ok);
  });
  UniqueFd fd(connectTo(peer.port()));
  std::uint8_t work[1024] = {};
  char err[ADMIN_ERRBUF_LEN] = {};
  EXPECT_EQ(FsmActivateFsm(fd.get(), "vol1", 0, work, err), 5);
  EXPECT_STREQ(err, "Internal use only");
  ASSERT_EQ(first.size(), 1024u);
  ASSERT_EQ(second.size(), 1024u);
  EXPECT_EQ(get_be16(first.data() + 24), 0x080A);
  EXPECT_EQ(get_be32(first.data()), 0u);  // no frame header
  EXPECT_STREQ(reinterpret_cast<char*>(first.data() + 40), "vol1");
  EXPECT_EQ(get_be16(second.data() + 24), 0x000A);
  EXPECT_EQ(second[11], 255);  // the head goes out as the last reply left it
  std::uint16_t status;
  std::memcpy(&status, work + 28, 2);
  EXPECT_EQ(status, 6);  // converted to host order in place
  std::uint32_t w;
  std::memcpy(&w, work + 36, 4);
  EXPECT_EQ(w, 0x01020304u);
}

TEST_F(FsmcommTest, ActivateReadsTheErrorWordUnswapped) {
  Bytes request;
  LoopbackPeer peer([&](int fd) {
    request = readBytes(fd, 1024);
    Bytes reply(1024, 0);
    reply[11] = 255;
    reply[15] = 1;  // big-endian 1: not the unknown answer on this host
    put_be16(reply.data() + 28, 1);
    writeBytes(fd, reply);
  });
  UniqueFd fd(connectTo(peer.port()));
  std::uint8_t work[1024] = {};
  char err[ADMIN_ERRBUF_LEN] = {};
  const std::uint16_t probe = 1;
  std::uint8_t firstByte;
  std::memcpy(&firstByte, &probe, 1);
  if (firstByte != 1) GTEST_SKIP() << "big-endian host";
  EXPECT_EQ(FsmActivateFsm(fd.get(), "vol1", 9, work, err), 2);
  EXPECT_STREQ(err, "FSM Not found");
  EXPECT_EQ(get_be16(request.data() + 24), 0x0822);
  EXPECT_EQ(get_be32(request.data() + 32), 9u);
}

TEST_F(FsmcommTest, ActivateOnAClosedConnection) {
  LoopbackPeer peer([](int fd) { readBytes(fd, 1024); });
  UniqueFd fd(connectTo(peer.port()));
  std::uint8_t work[1024] = {};
  char err[ADMIN_ERRBUF_LEN] = {};
  EXPECT_EQ(FsmActivateFsm(fd.get(), "vol1", 0, work, err), -1);
  EXPECT_STREQ(err, "Connection reset");
}

TEST_F(FsmcommTest, TestLinkHandsOverABlockingSocket) {
  LoopbackPeer peer([](int) {});
  in6_addr lo;
  AddrSetLoopback4(&lo);
  char err[ADMIN_ERRBUF_LEN] = {};
  int sock = -2;
  ASSERT_EQ(TestLink(&lo, peer.port(), &sock, err), 0) << err;
  ASSERT_GE(sock, 0);
  EXPECT_FALSE(::fcntl(sock, F_GETFL) & O_NONBLOCK);
  ::close(sock);
  EXPECT_EQ(TestLink(&lo, freeLoopbackPort(), &sock, err), -1);
  EXPECT_EQ(sock, -1);
  std::string text = err;
  EXPECT_TRUE(text == "Connect failed: Connection refused" ||
              text == "getsockopt(SO_ERROR) returned error 111 Connection refused")
      << text;
}

TEST_F(FsmcommTest, ClientRecordToHostForm) {
  std::uint8_t wire[kWhoWireLen];
  for (std::size_t i = 0; i < sizeof wire; ++i) wire[i] = static_cast<std::uint8_t>(i * 7);
  put_be32(wire + 4, 3);
  put_be32(wire + 20, 86400);
  put_be64(wire + 1120, 0x0102030405060708ull);
  WhoRD rec;
  std::memset(&rec, 0xEE, sizeof rec);
  unnetwork_WhoRD(&rec, wire);
  EXPECT_EQ(rec.flags, 3u);
  EXPECT_EQ(rec.uptime, 86400u);
  EXPECT_EQ(rec.value1120, 0x0102030405060708ull);
  EXPECT_EQ(rec.type, get_be32(wire + 8));
  EXPECT_EQ(std::memcmp(rec.addr2, wire + 48, 16), 0);
  EXPECT_EQ(std::memcmp(rec.text, wire + 96, 1024), 0);
  for (std::uint8_t z : rec.zero) EXPECT_EQ(z, 0);
}

}  // namespace
}  // namespace velm::test
