// Notifications on a controller with 20 running volumes served by velm-simpm, all conditions on
// and nothing to mail: the CPU time of one processNotifications beside the same FSM requests
// made straight through the admin facade (target: within 1.5x). For information, the wall time
// of one mail (the message script and the sendmail stand-in) beside starting `python3 -I -c pass`
// and the stand-in doing nothing (`--help`).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "adminlib/adminlib.h"
#include "adminlib/fsmcomm.h"
#include "adminlib/qmadminlib.h"
#include "adminlib/sock46.h"
#include "bench_support.h"
#include "sim_port_mapper.h"
#include "config/config_test_util.h"
#include "notify/mail_delivery.h"
#include "notify/notification_tick.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/process.h"
#include "volumes/quotas.h"
#include "volumes/volume_inspection.h"
#include "volumes/volume_state.h"

extern char** environ;

namespace {

using velm::bench::binDir;
using velm::bench::freePort;
using velm::bench::writeFile;

constexpr int kVolumes = 20;
constexpr const char* kController = "127.0.0.2";

std::string gRoot, gLog, gBin;
pid_t gSim = -1;
velm::PropertyList gContext = velm::PropertyList::dict();

std::string volumeName(int i) {
  char name[16];
  std::snprintf(name, sizeof name, "vol%02d", i);
  return name;
}

// Half full, with one user under its soft quota: every test runs, none mails.
std::string fsmEntry(const std::string& name) {
  return "<dict><key>name</key><string>" + name +
         "</string><key>priority</key><integer>1</integer><key>pid</key><integer>1</integer>"
         "<key>statistics</key><dict><key>blockSize</key><integer>4096</integer>"
         "<key>totalBlocks</key><integer>1000000</integer><key>freeBlocks</key>"
         "<integer>500000</integer></dict><key>userQuotas</key><array><dict><key>name</key>"
         "<string>alice</string><key>used</key><integer>10</integer><key>softLimit</key>"
         "<integer>100</integer><key>hardLimit</key><integer>200</integer><key>timeLimit</key>"
         "<integer>60</integer></dict></array></dict>\n";
}

bool prepareRoot() {
  int port = freePort();
  gRoot = velm::bench::makeControllerRoot("velm-notify-bench", kController, port);
  if (gRoot.empty()) return false;
  gLog = gRoot + "/simpm.log";
  std::string config = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n"
                       "<dict>\n<key>fsms</key><array>\n";
  for (int i = 0; i < kVolumes; ++i) config += fsmEntry(volumeName(i));
  config += "</array>\n</dict>\n</plist>\n";
  std::string controller = "00000000-0000-4000-8000-000000000001";
  bool ok = writeFile(velm::configPath("fsports"), "altpmap " + std::to_string(port) + "\n") &&
            writeFile(gRoot + "/simpm.plist", config) &&
            writeFile(velm::configPath("uuid"), controller) &&
            writeFile(velm::configPath("config.plist"),
                      "<plist version=\"1.0\"><dict><key>role</key><string>CONTROLLER</string>"
                      "<key>sanName</key><string>BenchSAN</string><key>computers</key><array>"
                      "<dict><key>uuid</key><string>" + controller +
                          "</string><key>ipAddresses</key><array><string>127.0.0.2</string>"
                          "</array></dict></array></dict></plist>\n") &&
            writeFile(velm::configPath("notifications.plist"),
                      "<plist version=\"1.0\"><dict><key>ServerSettings</key><dict>"
                      "<key>ServerAddress</key><string></string><key>EmailAddress</key>"
                      "<string></string></dict><key>Addresses</key><array><dict><key>email"
                      "</key><string>admin@example.com</string></dict></array>"
                      "<key>Conditions</key><dict><key>FreeSpaceThreshold</key><integer>20"
                      "</integer><key>ExceededSoftQuota</key><true/><key>FibreFailure</key>"
                      "<true/><key>ControllerFailover</key><true/></dict></dict></plist>\n");
  for (int i = 0; ok && i < kVolumes; ++i)
    ok = writeFile(velm::configPath(volumeName(i) + ".cfg"),
                   std::string(velm::test::kRealisticConfig));
  // The stand-in sendmail for the mail figures.
  std::error_code ec;
  std::filesystem::create_directories(gRoot + "/usr/sbin", ec);
  std::filesystem::create_symlink(gBin + "/sendmail", gRoot + "/usr/sbin/sendmail", ec);
  return ok && !ec;
}

bool startSim() {
  gSim = velm::bench::startSimPortMapper("notify_bench", gBin + "/velm-simpm", gRoot, kController,
                                         gLog);
  return gSim > 0;
}

void stopSim() {
  QMAdmin_Teardown();
  if (gSim > 0) {
    ::kill(gSim, SIGTERM);
    ::waitpid(gSim, nullptr, 0);
  }
  std::error_code ec;
  if (!gRoot.empty()) std::filesystem::remove_all(gRoot, ec);
}

std::size_t mailsFiled() {
  std::size_t n = 0;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(gRoot + "/var/mail/new", ec), end;
       !ec && it != end; it.increment(ec))
    ++n;
  return n;
}

// ---- The tick beside its floor ----

void BM_ProcessNotifications(benchmark::State& state) {
  velm::PropertyList san("BenchSAN");
  for (auto _ : state) benchmark::DoNotOptimize(velm::processNotifications(&gContext, san));
}

// What the tick asks the FSMs, straight through the facade: each volume's record and quotas.
void BM_FacadeRequests(benchmark::State& state) {
  std::vector<std::string> names;
  for (int i = 0; i < kVolumes; ++i) names.push_back(volumeName(i));
  for (auto _ : state) {
    int handle = velm::open_fs_connection();
    for (const std::string& name : names) {
      benchmark::DoNotOptimize(velm::get_fsmvol_named(handle, &name));
      benchmark::DoNotOptimize(velm::get_quotas_for_fsmvol_named(handle, &name, false));
    }
    velm::close_fs_connection(handle);
  }
}

// ---- One mail, for information ----

void BM_OneMail(benchmark::State& state) {
  velm::MailRound round;
  for (auto _ : state)
    benchmark::DoNotOptimize(velm::doSendNotificationEmail(
        "Volume vol00 in SAN BenchSAN has less than 20% available space.",
        "BenchSAN: Volume vol00 low on space", "", "admin@example.com", "", round));
}

void BM_PythonStart(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(velm::runProcess("/usr/bin/python3", {"-I", "-c", "pass"}));
}

void BM_IdleStandIn(benchmark::State& state) {
  std::string standIn = gBin + "/sendmail";
  for (auto _ : state) benchmark::DoNotOptimize(velm::runProcess(standIn, {"--help"}));
}

BENCHMARK(BM_ProcessNotifications)->MinTime(1.0);
BENCHMARK(BM_FacadeRequests)->MinTime(1.0);
BENCHMARK(BM_OneMail)->Iterations(20)->UseRealTime();
BENCHMARK(BM_PythonStart)->Iterations(20)->UseRealTime();
BENCHMARK(BM_IdleStandIn)->Iterations(20)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::signal(SIGPIPE, SIG_IGN);
  gBin = binDir();
  if (!prepareRoot()) {
    std::fprintf(stderr, "notify_bench: cannot prepare a sandbox root\n");
    stopSim();
    return 1;
  }
  velm::bench::initAdminLibrary();
  if (!startSim()) {
    std::fprintf(stderr, "notify_bench: no port mapper (see %s)\n", gLog.c_str());
    stopSim();
    return 1;
  }
  // A warm tick must look at every volume and mail nothing.
  velm::processNotifications(&gContext, velm::PropertyList("BenchSAN"));
  if (mailsFiled() != 0) {
    std::fprintf(stderr, "notify_bench: the tick mailed; the figures would not be the tick's\n");
    stopSim();
    return 1;
  }

  velm::bench::CapturingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  double tickUs = reporter.cpuNs("BM_ProcessNotifications") / 1000.0;
  double floorUs = reporter.cpuNs("BM_FacadeRequests") / 1000.0;
  std::printf("\nCPU per tick, 20 volumes (us)   ours     floor   ratio  (target <= 1.50)\n");
  if (tickUs > 0 && floorUs > 0)
    std::printf("%-30s%8.1f  %8.1f  %6.2f\n", "processNotifications", tickUs, floorUs,
                tickUs / floorUs);
  std::printf("\nwall time, for information (ms): one mail %.1f; python3 -I -c pass %.1f; "
              "the idle stand-in %.1f\n",
              reporter.ns("BM_OneMail") / 1e6, reporter.ns("BM_PythonStart") / 1e6,
              reporter.ns("BM_IdleStandIn") / 1e6);
  std::printf("  mails filed by the stand-in during the run: %zu\n", mailsFiled());
  stopSim();
  benchmark::Shutdown();
  return 0;
}
