// Feeds arbitrary peer bytes to the admin library's readers through a socketpair: framed replies,
// the authentication client and server halves, activation replies, timed reads, client records.
// The first byte picks the reader; the rest is what the peer sends before it stops writing.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "adminlib/adminlib.h"
#include "platform/files.h"
#include "platform/paths.h"

namespace {

std::string gRoot;

void removeRoot() {
  std::error_code ec;
  std::filesystem::remove_all(gRoot, ec);
}

bool setUp() {
  char tmpl[] = "/tmp/velmfuzzXXXXXX";
  if (!::mkdtemp(tmpl)) std::abort();
  gRoot = tmpl;
  std::atexit(removeRoot);
  const std::string& root = gRoot;
  ::setenv("DRFSROOT", root.c_str(), 1);
  ::setenv("VELM_LOG", "/dev/null", 1);
  velm::resetPathsForTest();
  velm::makeDirectories(root + "/config");
  velm::writeFileAtomically(root + "/config/.auth_secret", "fuzz-secret\n", 0600);
  return true;
}

struct Pair {
  int client = -1, peer = -1;
  Pair() {
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) std::abort();
    client = sv[0];
    peer = sv[1];
    // Room for everything both sides write, so neither write blocks.
    int size = 1 << 20;
    ::setsockopt(peer, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    ::setsockopt(client, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  ~Pair() {
    ::close(client);
    ::close(peer);
  }
  void feed(const std::uint8_t* data, std::size_t size) {
    std::size_t off = 0;
    while (off < size) {
      ssize_t n = ::send(peer, data + off, size - off, MSG_NOSIGNAL);
      if (n <= 0) break;
      off += static_cast<std::size_t>(n);
    }
    ::shutdown(peer, SHUT_WR);  // the client then sees the end instead of waiting
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static bool ready = setUp();
  (void)ready;
  if (size < 1 || size > 65536) return 0;
  std::uint8_t mode = data[0];
  const std::uint8_t* rest = data + 1;
  std::size_t restLen = size - 1;
  Pair p;
  p.feed(rest, restLen);
  char err[ADMIN_ERRBUF_LEN];
  switch (mode % 7) {
    case 0: {
      std::uint8_t buf[kFsmMsgLen] = {};
      std::size_t room = kFrameHeaderLen + (restLen ? rest[0] : 0) * 16;  // 24 .. 4104
      if (room > sizeof buf) room = sizeof buf;
      std::size_t len = room < kPmMsgLen ? room : kPmMsgLen;
      int e = 0;
      _sendrcvmsg_buf(p.client, buf, len, room, &e, mode & 8);
      break;
    }
    case 1:
      send_pm_auth(p.client);
      break;
    case 2:
      client_authenticate(p.client);
      break;
    case 3: {
      std::uint8_t work[kPmMsgLen] = {};
      FsmActivateFsm(p.client, "fuzzvol", mode & 8 ? 3 : 0, work, err);
      break;
    }
    case 4:
      server_authenticate_response(p.client);
      break;
    case 5: {
      std::uint8_t buf[256];
      timed_reread(p.client, 1, buf, sizeof buf);
      rerecv(p.client, buf, sizeof buf, 1);
      break;
    }
    default: {
      if (restLen >= kWhoWireLen) {
        WhoRD rec;
        unnetwork_WhoRD(&rec, rest);
      }
      if (restLen >= kAuthMsgLen) validate_signature(rest);
      std::uint8_t copy[512];
      std::size_t n = restLen < sizeof copy ? restLen : sizeof copy;
      std::memcpy(copy, rest, n);
      auth_validate_signature(copy, &n);
      break;
    }
  }
  return 0;
}
