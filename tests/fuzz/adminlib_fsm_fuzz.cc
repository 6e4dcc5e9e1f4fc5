// Feeds arbitrary FSM bytes to every FSM request through a socketpair: the first byte picks the
// request (and its form), the rest is what the FSM sends before it stops writing, so walks get
// as many replies as the bytes hold.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "adminlib/adminlib.h"
#include "adminlib/fsm_requests.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1 || size > 65536) return 0;
  std::uint8_t mode = data[0];
  velm::fuzz::Peer p;
  p.feed(data + 1, size - 1);
  int s = p.client, err = 0;
  std::uint32_t w1 = 0, w2 = 0;
  char text[ADMIN_ERRBUF_LEN];
  bool alt = (mode & 0x80) != 0;  // the older form, or a set instead of a get
  switch ((mode & 0x7f) % 24) {
    case 0: {
      FsmFsStatRec st;
      FsmFsStat(s, &st, &err);
      break;
    }
    case 1: {
      FsmFsStatRec st{};
      st.flags = alt ? 0 : kFsStatNewPartition;
      FsmPartitionRec rec;
      FsmGetPartition(s, 1, &rec, &st, &err);
      break;
    }
    case 2: {
      FsmNativeKeyPair* keys = nullptr;
      if (FsmGetPartitionNativeKeys(s, 0, &keys, &err) > 0) FreeMemory(keys);
      break;
    }
    case 3:
      FSMModifyPartition(s, 0, alt ? 2 : 1, 7, 1, &err);
      break;
    case 4: {
      FsmDeviceRec rec;
      FsmGetDevice(s, 0, &rec, &err);
      break;
    }
    case 5:
      FsmGenOpenFileReport(s, text, &err);
      break;
    case 6:
      FsmGenReport(s, 3, text, &err);
      break;
    case 7:
      FsmDebug(s, alt ? 1 : 0, 5, &w1, text, &err);
      break;
    case 8:
      FsmBrls(s, alt ? 1 : 0, 1, &w1, &err);
      break;
    case 9:
      FsmQuotas(s, alt ? 1 : 0, 1, &w1, text, &err);
      break;
    case 10:
      FsmQuotaCmd(s, kQuotaCmdRebuild, &w1, alt ? nullptr : text, &err);
      break;
    case 11: {
      char name[kQuotaNameLen] = "cursor";
      std::uint64_t hard = 1, soft = 1, used = 0;
      std::uint32_t limit = 1, remaining = 0;
      int found = 0;
      FsmQuotaRec(s, (mode >> 5) % 6, name, &hard, &soft, &limit, &remaining, &used, &found, &err);
      break;
    }
    case 12:
      FsmLockMeter(s, 0, 0, &w1, &w2, text, &err);
      break;
    case 13: {
      FsmQosRec rec;
      FsmGetQos(s, 0, &rec, &err);
      break;
    }
    case 14:
      FsmRollRJCmd(s, &w1, &err);
      break;
    case 15:
      FsmStopRJCmd(s, &err);
      break;
    case 16:
      FsmSuspendCreates(s, 1);
      FsmResetRPL(s);
      break;
    case 17:
      FsmStartIoTest(s, kFsmCapIoTest, 1, mode, text);
      break;
    case 18:
    case 19: {
      WhoRD* recs = nullptr;
      if (FsmWho(s, alt ? 0 : kFsmCapNewWho, &recs, text) >= 0 && recs) FreeMemory(recs);
      break;
    }
    case 20: {
      WhoRD rec;
      FsmOneWho(s, alt ? 0 : kFsmCapNewWho, 2, &rec, text);
      break;
    }
    case 21: {
      FsmQosStatRec* recs = nullptr;
      int count = 0;
      if (FsmGetQosStat(s, 0, &recs, &count, &err) == 0 && recs) FreeMemory(recs);
      break;
    }
    default: {
      ListHdr list;
      InitHdr(&list);
      FsmGetProxySrvAt(s, &list);
      FreeAllSrvAddr(&list);
      break;
    }
  }
  return 0;
}
