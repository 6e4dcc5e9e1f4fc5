// velmadmin's --server transport and the real velm plugin behind adminhostd.
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "e2e/e2e_helpers.h"
#include "platform/clock.h"
#include "support/run_program.h"
#include "platform/files.h"
#include "tools/velmadmin_remote.h"

extern char** environ;

namespace velm::test {
namespace {

struct ProgramRun {
  int status = -1;
  std::string out;
};

// Runs a program to its end with its stdout captured in a file of the sandbox.
ProgramRun runProgram(const SandboxRoot& sandbox, std::vector<std::string> args) {
  std::string outPath = sandbox.root() + "/program.out";
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  ProgramRun run;
  int rc = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return run;
  run.status = waitForExit(pid, 120000).value_or(-1);
  run.out = readFile(outPath).value_or("");
  return run;
}

// A self-signed certificate for 127.0.0.1 and its key, as PEM files in the sandbox.
bool makeCertificate(const std::string& certPath, const std::string& keyPath) {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* cert = X509_new();
  bool ok = key && cert;
  if (ok) {
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), -60);
    X509_gmtime_adj(X509_getm_notAfter(cert), 24 * 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* san = X509V3_EXT_conf_nid(nullptr, &ctx, NID_subject_alt_name, "IP:127.0.0.1");
    ok = san && X509_add_ext(cert, san, -1) == 1;
    X509_EXTENSION_free(san);
    ok = ok && X509_sign(cert, key, EVP_sha256()) > 0;
  }
  if (ok) {
    FILE* f = std::fopen(certPath.c_str(), "w");
    ok = f && PEM_write_X509(f, cert) == 1;
    if (f) std::fclose(f);
    f = std::fopen(keyPath.c_str(), "w");
    ok = ok && f && PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    if (f) std::fclose(f);
  }
  X509_free(cert);
  EVP_PKEY_free(key);
  return ok;
}

class RemoteTest : public SandboxTest {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    tokenFile_ = sandbox_.path("/var/adminhostd/admin.token");
  }
  std::string tokenFile_;
};

TEST_F(RemoteTest, VelmGetStateRoundTrip) {
  Daemon d(sandbox_, makePluginDir(sandbox_, {{"velm", velmPluginPath()}}));
  ASSERT_TRUE(d.start()) << d.stderrText() << d.logText();
  RemoteResult r = sendRemoteRequest(d.url(), tokenFile_, request("getState"));
  ASSERT_EQ(r.httpStatus, 200) << r.error;
  ASSERT_TRUE(r.response);
  EXPECT_EQ(*r.response->getString("state"), "RUNNING");
  EXPECT_TRUE(r.response->get("perfDispatchMicroseconds"));
  EXPECT_TRUE(r.response->get("perfFunctionMicroseconds"));
}

TEST_F(RemoteTest, VelmRefusesAnUnknownCommandWithNoResponse) {
  Daemon d(sandbox_, makePluginDir(sandbox_, {{"velm", velmPluginPath()}}));
  ASSERT_TRUE(d.start()) << d.stderrText() << d.logText();
  for (const char* command : {"GETSTATE", "tailFile", "x"}) {
    RemoteResult r = sendRemoteRequest(d.url(), tokenFile_, request(command));
    EXPECT_EQ(r.httpStatus, 400) << command;
    EXPECT_FALSE(r.response) << command;
  }
  // The daemon goes on serving after them.
  EXPECT_EQ(sendRemoteRequest(d.url(), tokenFile_, request("getState")).httpStatus, 200);
}

TEST_F(RemoteTest, VelmadminServerModeExitStatuses) {
  Daemon d(sandbox_, makePluginDir(sandbox_, {{"velm", velmPluginPath()}}));
  ASSERT_TRUE(d.start()) << d.stderrText() << d.logText();
  ProgramRun ok = runProgram(sandbox_, {velmadminPath(), "--server", d.url(), "--token-file", tokenFile_, "getState"});
  EXPECT_EQ(ok.status, 0);
  EXPECT_NE(ok.out.find("RUNNING"), std::string::npos) << ok.out;
  ProgramRun refused = runProgram(sandbox_, {velmadminPath(), "--server", d.url(), "--token-file", tokenFile_, "GETSTATE"});
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.out, "");
  std::string wrong = sandbox_.write("/wrong.token", std::string(64, '0'));
  ProgramRun denied = runProgram(sandbox_, {velmadminPath(), "--server", d.url(), "--token-file", wrong, "getState"});
  EXPECT_EQ(denied.status, 1);
}

TEST_F(RemoteTest, VelmadminLocalIsRefusedWhileTheDaemonServesTheRoot) {
  auto local = [&] {
    return velm::test::runProgram("velmadmin", {"--local", "getState"}, "", {{"VELM_ROOT", sandbox_.root()}});
  };
  EXPECT_EQ(local().status, 0);
  {
    Daemon d(sandbox_, makePluginDir(sandbox_, {{"velm", velmPluginPath()}}));
    ASSERT_TRUE(d.start()) << d.stderrText() << d.logText();
    ProgramResult during = local();
    EXPECT_EQ(during.status, 1);
    EXPECT_EQ(during.out, "");
    EXPECT_NE(during.err.find("--server"), std::string::npos) << during.err;
  }
  // The killed daemon's lock goes with its last thread; under load that can trail its exit.
  int after = local().status;
  for (int i = 0; i < 40 && after != 0; ++i) {
    systemClock().sleepMicros(50000);
    after = local().status;
  }
  EXPECT_EQ(after, 0);
}

// The transport's own failures, against the echo plugin standing in as "velm".
TEST_F(RemoteTest, TransportReportsEachFailure) {
  Daemon d(sandbox_, makePluginDir(sandbox_, {{"velm", echoPluginPath()}}), {"--idle-interval", "0"});
  ASSERT_TRUE(d.start()) << d.stderrText() << d.logText();

  RemoteResult echoed = sendRemoteRequest(d.url() + "/", tokenFile_, request("echo", {{"n", 7}}));
  ASSERT_EQ(echoed.httpStatus, 200) << echoed.error;
  EXPECT_EQ(echoed.response->get("n")->int64Value(), 7);
  RemoteResult silent = sendRemoteRequest(d.url(), tokenFile_, request("silent"));
  EXPECT_EQ(silent.httpStatus, 400);
  EXPECT_FALSE(silent.response);

  std::string wrong = sandbox_.write("/wrong.token", std::string(64, '0') + "\n");
  RemoteResult denied = sendRemoteRequest(d.url(), wrong, request("echo"));
  EXPECT_EQ(denied.httpStatus, 401);
  EXPECT_FALSE(denied.error.empty());

  RemoteResult noToken = sendRemoteRequest(d.url(), sandbox_.path("/missing.token"), request("echo"));
  EXPECT_EQ(noToken.httpStatus, 0);
  EXPECT_NE(noToken.error.find("token"), std::string::npos);

  for (const char* bad : {"ftp://127.0.0.1:1", "http://", "http://127.0.0.1:99999", "http://[::1"}) {
    RemoteResult r = sendRemoteRequest(bad, tokenFile_, request("echo"));
    EXPECT_EQ(r.httpStatus, 0) << bad;
    EXPECT_FALSE(r.error.empty()) << bad;
  }

  std::string url = d.url();
  d.signal(SIGTERM);
  ASSERT_EQ(d.waitExit(), 0);
  RemoteResult gone = sendRemoteRequest(url, tokenFile_, request("echo"));
  EXPECT_EQ(gone.httpStatus, 0);
  EXPECT_FALSE(gone.error.empty());
}

TEST_F(RemoteTest, HttpsWithTheServersCertificate) {
  std::string cert = sandbox_.root() + "/cert.pem", key = sandbox_.root() + "/key.pem";
  ASSERT_TRUE(makeCertificate(cert, key));
  Daemon d(sandbox_, makePluginDir(sandbox_, {{"velm", echoPluginPath()}}),
           {"--idle-interval", "0", "--tls-cert", cert, "--tls-key", key});
  ASSERT_TRUE(d.start()) << d.stderrText() << d.logText();
  ASSERT_EQ(d.url().rfind("https://", 0), 0u) << d.url();

  ::setenv("VELM_CA_CERT", cert.c_str(), 1);
  RemoteResult trusted = sendRemoteRequest(d.url(), tokenFile_, request("echo"));
  ::unsetenv("VELM_CA_CERT");
  EXPECT_EQ(trusted.httpStatus, 200) << trusted.error;
  // Without it the certificate is nobody's: no answer is accepted.
  RemoteResult untrusted = sendRemoteRequest(d.url(), tokenFile_, request("echo"));
  EXPECT_EQ(untrusted.httpStatus, 0);
  // Plain HTTP to the TLS port gets nothing either.
  RemoteResult plain = sendRemoteRequest("http://127.0.0.1:" + std::to_string(d.port()), tokenFile_, request("echo"));
  EXPECT_NE(plain.httpStatus, 200);
}

}  // namespace
}  // namespace velm::test
