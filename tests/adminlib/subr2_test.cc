// Support library: list with markers, poll sets, aligned blocks, panics, error texts, branding,
// fsports, RAS.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "adminlib/adminlib.h"
#include "adminlib/adminlib_test_helpers.h"
#include "platform/clock.h"

namespace velm::test {
namespace {

struct Item {
  int value;
  ListNode node;
};

std::vector<int> walk(ListHdr* hdr) {
  std::vector<int> out;
  for (ListNode* n = hdr->first; n; n = n->next)
    if (n->owner) out.push_back(static_cast<Item*>(n->owner)->value);
  return out;
}

TEST(ListTest, WalkWithMarkerSurvivesRemovalAndSkipsLaterAppends) {
  ListHdr hdr;
  FpInitHdr(&hdr);
  Item items[5];
  for (int i = 0; i < 4; ++i) {
    items[i].value = i;
    InitNode(&items[i].node, &items[i]);
    AppendNode(&hdr, &items[i].node);
  }
  int pair = FpSetMarker(&hdr);
  ASSERT_GE(pair, 0);
  std::vector<int> seen;
  while (void* o = FpIterate(&hdr, pair)) {
    auto* it = static_cast<Item*>(o);
    seen.push_back(it->value);
    RemoveNode(&it->node);  // the walk's own node goes away under it
    if (it->value == 1) {
      items[4].value = 4;
      InitNode(&items[4].node, &items[4]);
      AppendNode(&hdr, &items[4].node);  // behind the end marker: not part of this walk
    }
  }
  FpClearMarker(&hdr, pair);
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ(walk(&hdr), std::vector<int>{4});
  EXPECT_EQ(FpFirstNode(&hdr), &items[4]);
  EXPECT_EQ(hdr.first, &items[4].node);  // both markers are out again
  EXPECT_EQ(hdr.last, &items[4].node);
}

TEST(ListTest, EmptyListHasNoWalkAndMarkersStayOutOfPlainOperations) {
  ListHdr a, b;
  FpInitHdr(&a);
  FpInitHdr(&b);
  EXPECT_EQ(FpSetMarker(&a), -1);
  EXPECT_EQ(FpIterate(&a, -1), nullptr);
  Item items[3];
  for (int i = 0; i < 3; ++i) {
    items[i].value = i;
    InitNode(&items[i].node, &items[i]);
  }
  AppendNode(&a, &items[2].node);
  InsertFirstNode(&a, &items[0].node);
  InsertBeforeNode(&items[2].node, &items[1].node);
  int pair = FpSetMarker(&a);
  EXPECT_EQ(RemoveFirstNode(&a), &items[0]);
  EXPECT_EQ(FpLastNode(&a), &items[2]);
  MoveList(&b, &a);
  EXPECT_EQ(walk(&b), (std::vector<int>{1, 2}));
  EXPECT_EQ(FpIterate(&a, pair), nullptr);
  FpClearMarker(&a, pair);
  EXPECT_EQ(a.first, nullptr);
}

TEST(ListDeathTest, NodeWithoutOwnerCannotBeInserted) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ListHdr hdr;
  InitHdr(&hdr);
  ListNode n;
  InitNode(&n, nullptr);
  EXPECT_DEATH(AppendNode(&hdr, &n), "node->owner != nullptr");
}

TEST(PollTest, DynamicSetGrowsByBlocks) {
  PollSet d;
  ASSERT_EQ(DPollInit(&d, POLL_DYNAMIC), 0);
  for (int fd = 100; fd < 100 + 130; ++fd) ASSERT_EQ(DPollSet(&d, fd, POLLIN), 0);
  EXPECT_EQ(d.nfds, 130);
  EXPECT_EQ(d.maxfds, 192);
  EXPECT_EQ(DPollFind(&d, 229), 129);
  EXPECT_EQ(DPollClr(&d, 100), 0);
  EXPECT_EQ(DPollFind(&d, 100), -1);
  EXPECT_EQ(DPollClr(&d, 100), -1);
  DPollFree(&d);
}

TEST(PollDeathTest, FullFixedSetEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  PollSet d;
  ASSERT_EQ(DPollInit(&d, POLL_FIXED), 0);
  for (int fd = 0; fd < kDPollGrow; ++fd) DPollSet(&d, 1000 + fd, POLLIN);
  EXPECT_DEATH(DPollSet(&d, 5000, POLLIN), "d->polltype == POLL_DYNAMIC");
  QPoll q;
  QPollInit(&q);
  QPollSet(&q, 7, POLLIN);
  QPollSet(&q, 7, POLLOUT);  // the same socket again only changes its events
  EXPECT_EQ(q.d.fds[0].events, POLLOUT);
  EXPECT_DEATH(QPollSet(&q, 8, POLLIN), "q->d.nfds < q->d.maxfds");
  DPollFree(&d);
}

TEST(PanicDeathTest, HookSeesThePanicAndTheProcessExitsWithOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        PanicHook = [](const char* prefix, const char* text, int, const char* file, int line) {
          std::fprintf(stderr, "hook:%s|%s|%s|%d\n", prefix, text, file, line);
        };
        QM_ASSERT(1 + 1 == 3);
      },
      ::testing::ExitedWithCode(1), "hook:ASSERT failed \\|1 \\+ 1 == 3\\|subr2_test.cc\\|");
  EXPECT_EXIT(DoPanic("pfx ", "no abort", 0, "unit.cc", 7), ::testing::ExitedWithCode(1),
              "PANIC: QMADMIN LIBRARY pfx \"no abort\" file unit.cc, line 7");
}

TEST(AllocTest, AlignedBlockFreesItsRealStart) {
  for (std::size_t align : {8u, 64u, 4096u}) {
    void* p = MyMemalign(align, 100, __FILE__, __LINE__);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % align, 0u);
    std::memset(p, 0xAB, 100);
    MyFree(p);  // ASan reports a bad free if this is not the malloc'ed start
  }
  auto* z = static_cast<unsigned char*>(AllocAndPinMemory(33));
  ASSERT_NE(z, nullptr);
  for (int i = 0; i < 33; ++i) EXPECT_EQ(z[i], 0);
  FreeMemory(z);
}

TEST(AllocTest, FailureIsCountedAndReportedOnce) {
  ScopedFakeClock clock;
  static std::vector<std::string> events;
  events.clear();
  RasHook = [](const char* name, const char* text, time_t) {
    events.push_back(std::string(name) + " " + text);
    return 0;
  };
  int before = MemoryFailureCount();
  EXPECT_EQ(MyMemalign(8, SIZE_MAX - 4, "big.cc", 12), nullptr);
  EXPECT_EQ(MyMemalign(8, SIZE_MAX - 4, "big.cc", 13), nullptr);
  RasHook = nullptr;
  EXPECT_EQ(MemoryFailureCount(), before + 2);
  ASSERT_LE(events.size(), 1u);  // a second failure within 300 seconds is not reported
  if (!events.empty()) {
    EXPECT_NE(events[0].find("SL_EVT_SYS_RES_FAIL"), std::string::npos);
    EXPECT_NE(events[0].find("file 'big.cc' line 12 total memory failure count"),
              std::string::npos);
  }
}

TEST(FormatSysErrorTest, MinusOneTakesCurrentErrno) {
  char out[ADMIN_ERRBUF_LEN];
  errno = ENOENT;
  EXPECT_STREQ(_FormatSysError(-1, out, sizeof out), "[errno 2]: No such file or directory");
  errno = EACCES;
  EXPECT_STREQ(FormatSysError(out, sizeof out), "[errno 13]: Permission denied");
  char tiny[8];
  EXPECT_STREQ(_FormatSysError(ECONNRESET, tiny, sizeof tiny), "[errno");  // cut, then trimmed
}

class Subr2Test : public AdminlibTest {};

TEST_F(Subr2Test, BrandingReadsOemInfOnlyOnceItExists) {
  configure_branding();  // no file: defaults, and not marked as read
  EXPECT_STREQ(BrandName, "Velm");
  EXPECT_STREQ(BrandPrompt, "Velmadmin");
  EXPECT_EQ(std::string(BrandIcon), std::string(GetDrfsRoot()) + "\\config\\oem\\icon.ico");
  writeDrfs("config/oem/oem.inf",
            "BrandName\tAcme  Store\n"
            "  BrandAbbrv acfs\r\n"
            "BrandPrompt   \r\n"
            "Unknown value\n"
            "BrandCompanyAbbreviation " +
                std::string(200, 'C') + "\n");
  configure_branding();
  EXPECT_STREQ(BrandName, "Acme  Store");
  EXPECT_STREQ(BrandAbbrv, "acfs");
  EXPECT_STREQ(BrandPrompt, "Velmadmin");
  EXPECT_EQ(std::string(BrandCompanyAbbreviation), std::string(127, 'C'));
  writeDrfs("config/oem/oem.inf", "BrandName Other\n");
  configure_branding();  // read once: the values stay
  EXPECT_STREQ(BrandName, "Acme  Store");
}

struct PortCase {
  const char* file;
  int min, max, alt;
  const char* message;  // expected among the logged lines, or ""
};

class FsportsTest : public AdminlibTest, public ::testing::WithParamInterface<PortCase> {};

std::vector<std::string> gWritten;
void captureLog(int level, const char* text) {
  gWritten.push_back(std::to_string(level) + ":" + text);
}

TEST_P(FsportsTest, ParsesDirectives) {
  const PortCase& c = GetParam();
  writeDrfs("config/fsports", c.file);
  gWritten.clear();
  WriteLog = captureLog;
  int mn = -1, mx = -1, alt = -1;
  EXPECT_EQ(genportrange(&mn, &mx, &alt, 1), 0);
  EXPECT_EQ(mn, c.min);
  EXPECT_EQ(mx, c.max);
  EXPECT_EQ(alt, c.alt);
  if (*c.message) {
    bool found = false;
    for (const std::string& w : gWritten) found = found || w.find(c.message) != std::string::npos;
    EXPECT_TRUE(found) << c.message;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FsportsTest,
    ::testing::Values(
        PortCase{"minport 70000\n", 0, 0, 0,
                 "fsports: Invalid value (70000) specified on line 1 - ignored.\n"},
        PortCase{"maxport 100\nminport 200\n", 200, 65535, 0, "fsports: max port set to 65535\n"},
        PortCase{"maxport 5000\n", 1, 5000, 0, "fsports: max port set to 5000\n"},
        PortCase{"altpmap 0\n", 0, 0, 0,
                 "fsports: Invalid value (0) specified on line 1 - ignored.\n"},
        PortCase{"# comment\n\n  MINPORT 0x400\nMaxPort 02000\naltpmap 7000\naltpmap 7001\n", 1024,
                 1024, 7001, "fsports: altpmap port set to 7001\n"},
        PortCase{"minport\n", 0, 0, 0, "fsports: No value recognized on line 1 - ignored.\n"},
        PortCase{"bogus 5\n", 0, 0, 0, "fsports: Unsupported directive 'bogus' on line 1\n"},
        PortCase{"minport -1\n", 0, 0, 0,
                 "fsports: Invalid value (-1) specified on line 1 - ignored.\n"}));

TEST_F(Subr2Test, MissingFsportsIsReportedOnlyWhenTheRangeIsAsked) {
  gWritten.clear();
  WriteLog = captureLog;
  int alt = -1;
  EXPECT_EQ(genportrange(nullptr, nullptr, &alt, 0), -1);
  EXPECT_EQ(alt, 0);
  EXPECT_TRUE(gWritten.empty());
  int mn = -1;
  EXPECT_EQ(genportrange(&mn, nullptr, nullptr, 0), -1);
  ASSERT_EQ(gWritten.size(), 1u);
  EXPECT_EQ(gWritten[0], "1:No fsports file - port range enforcement disabled.\n");
}

TEST_F(Subr2Test, RasEventFormatsForTheHook) {
  static std::string seenName, seenText;
  RasHook = [](const char* name, const char* text, time_t) {
    seenName = name;
    seenText = text;
    return 5;
  };
  const char* oldProg = Prog;
  const char* oldFs = FsName;
  Prog = "/usr/sbin/tool";
  FsName = "vol1";
  EXPECT_EQ(RasEvent("EVT", "n=%d", 3), 5);
  EXPECT_EQ(seenName, "EVT");
  EXPECT_EQ(seenText, "tool[PID=" + std::to_string(::getpid()) + "]: fs 'vol1': n=3");
  Prog = "fsmpm";
  RasEvent("EVT", "x");
  EXPECT_EQ(seenText, "fsmpm[PID=" + std::to_string(::getpid()) + "]: x");
  Prog = oldProg;
  FsName = oldFs;
}

TEST_F(Subr2Test, PerClientRasOncePerHour) {
  ScopedFakeClock clock;
  std::uint8_t a[16] = {1}, b[16] = {2};
  EXPECT_EQ(NeedPerClntRas(3, a), 1);
  EXPECT_EQ(NeedPerClntRas(3, a), 0);
  EXPECT_EQ(NeedPerClntRas(3, b), 1);
  EXPECT_EQ(NeedPerClntRas(4, a), 1);  // each event keeps its own clients
  clock->advanceMicros(3600ull * 1000000);
  EXPECT_EQ(NeedPerClntRas(3, a), 0);  // exactly an hour is not more than an hour
  clock->advanceMicros(1000000);
  EXPECT_EQ(NeedPerClntRas(3, a), 1);
}

}  // namespace
}  // namespace velm::test
