// Feeds arbitrary peer bytes to the admin library's readers through a socketpair: framed replies,
// the authentication client and server halves, activation replies, timed reads, client records.
// The first byte picks the reader; the rest is what the peer sends before it stops writing.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "adminlib/adminlib.h"
#include "fuzz_support.h"
#include "platform/files.h"

namespace {

bool setUp() {
  const std::string& root = velm::fuzz::drfsRoot();
  velm::writeFileAtomically(root + "/config/.auth_secret", "fuzz-secret\n", 0600);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static bool ready = setUp();
  (void)ready;
  if (size < 1 || size > 65536) return 0;
  std::uint8_t mode = data[0];
  const std::uint8_t* rest = data + 1;
  std::size_t restLen = size - 1;
  velm::fuzz::Peer p;
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
