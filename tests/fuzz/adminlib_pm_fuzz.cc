// Feeds arbitrary peer bytes as the replies to each port-mapper request, through a socketpair
// whose other end has written them all and stopped: older-form fallbacks read the next reply from
// the same stream. The first byte picks the request, the second its arguments.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "adminlib/adminlib.h"
#include "fuzz_support.h"

namespace {

bool setUp() {
  ::setenv("VELM_LOG", "/dev/null", 1);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static bool ready = setUp();
  (void)ready;
  if (size < 2 || size > 65536) return 0;
  std::uint8_t mode = data[0], arg = data[1];
  velm::fuzz::Peer p;
  p.feed(data + 2, size - 2);
  char err[ADMIN_ERRBUF_LEN];
  std::uint8_t msg[kPmMsgLen] = {};
  struct in6_addr addr;
  AddrSetLoopback4(&addr);
  switch (mode % 9) {
    case 0:
      FsmPMListFsm(p.client, arg, msg, err);
      break;
    case 1:
      FsmPMStartStopFsm(p.client, arg % 5, "fuzzvol", msg, err);
      break;
    case 2: {
      char name[64];
      FsmPMQueryID(p.client, &addr, name, arg % sizeof name, err);
      break;
    }
    case 3:
      FsmPMListProxyConnection(p.client, arg, msg, err);
      break;
    case 4:
      FsmPMListLocalFsm(p.client, arg, msg, err);
      break;
    case 5: {
      PmDiskRecord disks[4];
      std::uint32_t gen = arg & 0x10;
      FsmPMGetDisks(p.client, arg & 3, (arg >> 2) % 5, arg & 0x80, disks,
                    arg & 0x40 ? &gen : nullptr, err);
      break;
    }
    case 6: {
      std::uint64_t value;
      std::uint32_t word;
      FsmPMGetLocalCctls(p.client, "fuzzvol", &value, arg & 1 ? &word : nullptr, err);
      break;
    }
    case 7: {
      CctlList list{};
      // A held list of some size, so reuse and replacement are both reached.
      if (arg & 1) {
        list.count = arg % 9;
        list.entries = static_cast<CctlEntry*>(AllocAndPinMemory(
            static_cast<std::size_t>(list.count ? list.count : 1) * sizeof(CctlEntry)));
      }
      list.generation = arg;
      FsmPMGetCctlsFromNss(p.client, &list, &addr, err);
      FsmPMGetCctlsFromNss(p.client, &list, &addr, err);
      FreeCctlList(&list);
      break;
    }
    default:
      FsmPmRasEvent(p.client, "fuzz", "event text", arg, -arg);
      break;
  }
  return 0;
}
