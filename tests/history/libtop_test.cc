// The process sampler over a fake process table, timed by a fake clock.
#include "history/libtop.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include "platform/clock.h"
#include "platform/paths.h"
#include "support/sandbox.h"

namespace velm {
namespace {

// A stat line with the given command, CPU ticks and sizes.
std::string statLine(int pid, const std::string& comm, int utime, int stime, long vsize, long rss) {
  std::string s = std::to_string(pid) + " (" + comm + ") S 1 1 1 0 -1 4194304 100 0 0 0 " +
                  std::to_string(utime) + " " + std::to_string(stime) + " 0 0 20 0 1 0 100 " +
                  std::to_string(vsize) + " " + std::to_string(rss) + " 18446744073709551615\n";
  return s;
}

class LibtopTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    ::setenv("VELM_PROCFS", sandbox_.path("/proc").c_str(), 1);
    resetPathsForTest();
  }
  void TearDown() override {
    libtop_fini();
    ::unsetenv("VELM_PROCFS");
    resetPathsForTest();
  }
  void process(int pid, const std::string& line) {
    sandbox_.write("/proc/" + std::to_string(pid) + "/stat", line);
  }
  std::vector<int> walk() {
    std::vector<int> pids;
    while (const libtop_pinfo_t* p = libtop_piterate()) pids.push_back(p->pid);
    return pids;
  }

  ScopedFakeClock clock_;
};

TEST_F(LibtopTest, SamplesEveryProcessByPidAndDropsTheOnesThatEnded) {
  long tick = ::sysconf(_SC_CLK_TCK), page = ::sysconf(_SC_PAGESIZE);
  process(300, statLine(300, "fsm (Projects) x", static_cast<int>(tick) * 3,
                        static_cast<int>(tick) / 2, 4096000, 10));
  process(20, statLine(20, "sh", 0, 0, 1, 1));
  sandbox_.write("/proc/self/mountinfo", "");         // not a process
  sandbox_.write("/proc/7/stat", "7 (short) S 1\n");  // cut short: left out
  std::uint64_t start = clock_->wallMicros();
  ASSERT_EQ(libtop_init(nullptr, nullptr), 0);
  clock_->advanceMicros(5'000'000);
  ASSERT_EQ(libtop_sample(true, true), 0);
  EXPECT_EQ(libtop_tsamp()->seq, 1u);
  // The first sample carries the time of init.
  EXPECT_EQ(libtop_tsamp()->time.seconds, static_cast<std::int32_t>(start / 1'000'000));
  std::vector<libtop_pinfo_t> seen;
  while (const libtop_pinfo_t* p = libtop_piterate()) seen.push_back(*p);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].pid, 20);
  EXPECT_EQ(seen[1].pid, 300);
  EXPECT_EQ(seen[1].total_time.seconds, 3);
  EXPECT_EQ(seen[1].total_time.microseconds, 500000);
  EXPECT_EQ(seen[1].vsize, 4096000u);
  EXPECT_EQ(seen[1].rsize, static_cast<std::uint64_t>(10 * page));

  // Process 20 ends: the next sample's walk leaves it out, and the walk starts over after null.
  std::filesystem::remove_all(sandbox_.path("/proc/20"));
  clock_->advanceMicros(60'000'000);
  ASSERT_EQ(libtop_sample(true, true), 0);
  EXPECT_EQ(libtop_tsamp()->seq, 2u);
  EXPECT_EQ(libtop_tsamp()->time.seconds,
            static_cast<std::int32_t>(clock_->wallMicros() / 1'000'000));
  EXPECT_EQ(walk(), std::vector<int>{300});
  EXPECT_EQ(walk(), std::vector<int>{300});
  libtop_fini();
  ASSERT_EQ(libtop_init(nullptr, nullptr), 0);
  EXPECT_EQ(libtop_tsamp()->seq, 0u);
  EXPECT_TRUE(walk().empty());
}

TEST_F(LibtopTest, StatLinesFromTheLastParenthesis) {
  std::optional<ProcStat> s = parseProcStat(statLine(5, "a) (b", 7, 8, 9, 10));
  ASSERT_TRUE(s);
  EXPECT_EQ(s->utimeTicks, 7u);
  EXPECT_EQ(s->stimeTicks, 8u);
  EXPECT_EQ(s->vsizeBytes, 9u);
  EXPECT_EQ(s->rssPages, 10u);
  EXPECT_FALSE(parseProcStat("5 (x) S 1 2 3"));
  EXPECT_FALSE(parseProcStat("no parenthesis"));
  EXPECT_FALSE(parseProcStat(""));
}

TEST_F(LibtopTest, AMissingProcessTableFailsTheSample) {
  ::setenv("VELM_PROCFS", sandbox_.path("/nowhere").c_str(), 1);
  resetPathsForTest();
  static std::string printed;
  ASSERT_EQ(libtop_init(
                [](void*, const char* text) {
                  printed = text;
                  return 0;
                },
                nullptr),
            0);
  EXPECT_NE(libtop_sample(true, true), 0);
  EXPECT_NE(printed.find("can't be read"), std::string::npos);
}

}  // namespace
}  // namespace velm
