// velmd's reply bytes from outside: the reader takes them from a socket until its end rule or the
// peer's EOF, and what it accepts either reads as a dictionary or is refused; nothing faults.
#include <fcntl.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "fuzz_support.h"
#include "gateway/velmd_rpc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = (velm::fuzz::drfsRoot(), true);
  (void)ready;

  velm::fuzz::Peer peer;
  ::fcntl(peer.client, F_SETFL, ::fcntl(peer.client, F_GETFL) | O_NONBLOCK);
  peer.feed(data, size);
  std::optional<std::string> reply = velm::receiveVelmdReply(peer.client, "fuzz");
  std::string_view all(reinterpret_cast<const char*>(data), size);
  if (reply) {
    // The reader stops at the first point where the bytes so far end the reply.
    if (!velm::velmdReplyIsComplete(*reply) || all.substr(0, reply->size()) != *reply) std::abort();
    std::optional<velm::PropertyList> dict = velm::parseVelmdReply(*reply);
    if (dict && !dict->isDict()) std::abort();
  } else if (velm::velmdReplyIsComplete(all)) {
    std::abort();
  }
  return 0;
}
