#include "host/host_options.h"

#include <gtest/gtest.h>

namespace velm {
namespace {

TEST(HostOptionsTest, DefaultsServeLoopbackOnTheFixedPort) {
  HostOptionsResult r = parseHostOptions({});
  ASSERT_EQ(r.status, 0) << r.error;
  EXPECT_EQ(r.options.listenHost, "127.0.0.1");
  EXPECT_EQ(r.options.listenPort, 3110);
  EXPECT_EQ(r.options.idleIntervalMicros, 60'000'000u);
  EXPECT_EQ(r.options.maxBodyBytes, 16u << 20);
}

TEST(HostOptionsTest, ValuesInBothSpellings) {
  HostOptionsResult r = parseHostOptions({"--root", "/tmp/r", "--listen=[::1]:0", "--idle-interval", "0.05",
                                          "--plugins=/p", "--max-body", "10", "--threads=2"});
  ASSERT_EQ(r.status, 0) << r.error;
  EXPECT_EQ(r.options.root, "/tmp/r");
  EXPECT_EQ(r.options.listenHost, "::1");
  EXPECT_EQ(r.options.listenPort, 0);
  EXPECT_EQ(r.options.idleIntervalMicros, 50'000u);
  EXPECT_EQ(r.options.pluginsDir, "/p");
  EXPECT_EQ(r.options.maxBodyBytes, 10u);
  EXPECT_EQ(r.options.threads, 2u);
  // A tiny positive interval still ticks; zero switches ticks off.
  EXPECT_EQ(parseHostOptions({"--idle-interval", "0.0000001"}).options.idleIntervalMicros, 1u);
  EXPECT_EQ(parseHostOptions({"--idle-interval", "0"}).options.idleIntervalMicros, 0u);
}

TEST(HostOptionsTest, SeveralAddressesAndWhichOfThemUseTls) {
  HostOptionsResult r = parseHostOptions({"--listen", "127.0.0.1:3110", "--listen", "10.0.0.5:311",
                                          "--tls-cert", "c.pem", "--tls-key", "k.pem"});
  ASSERT_EQ(r.status, 0) << r.error;
  ASSERT_EQ(r.options.listens.size(), 2u);
  EXPECT_EQ(r.options.listenHost, "127.0.0.1");
  EXPECT_FALSE(listenUsesTls(r.options, r.options.listens[0])) << "loopback beside the network";
  EXPECT_TRUE(listenUsesTls(r.options, r.options.listens[1]));
  // Alone, loopback takes the certificate it was given.
  HostOptionsResult alone =
      parseHostOptions({"--listen", "127.0.0.1:0", "--tls-cert", "c.pem", "--tls-key", "k.pem"});
  EXPECT_TRUE(listenUsesTls(alone.options, alone.options.listens[0]));
  // Every address other than loopback needs TLS.
  EXPECT_NE(parseHostOptions({"--listen", "127.0.0.1:1", "--listen", "10.0.0.5:311"}).status, 0);
}

TEST(HostOptionsTest, UsageErrors) {
  const std::vector<std::vector<std::string>> bad = {
      {"--bogus"},
      {"--root"},
      {"--listen", "127.0.0.1"},
      {"--listen", "127.0.0.1:65536"},
      {"--listen", "127.0.0.1:-1"},
      {"--listen", ":80"},
      {"--listen", "::1:80"},
      {"--idle-interval", "-1"},
      {"--idle-interval", "nan"},
      {"--idle-interval", "inf"},
      {"--idle-interval", "1s"},
      {"--max-body", "0"},
      {"--threads", "0"},
      {"--tls-cert", "c.pem"},
      {"--listen", "0.0.0.0:3110"},
      {"--listen", "[::]:3110"},
      {"--listen", "example.com:3110"},
  };
  for (const auto& args : bad) {
    HostOptionsResult r = parseHostOptions(args);
    EXPECT_EQ(r.status, 2) << args[0] << " " << (args.size() > 1 ? args[1] : "");
    EXPECT_FALSE(r.error.empty());
  }
}

TEST(HostOptionsTest, AnyAddressWithTlsIsAccepted) {
  HostOptionsResult r = parseHostOptions({"--listen", "0.0.0.0:3110", "--tls-cert", "c", "--tls-key", "k"});
  EXPECT_EQ(r.status, 0) << r.error;
}

TEST(HostOptionsTest, LoopbackAddresses) {
  for (const char* host : {"127.0.0.1", "127.1.2.3", "::1", "::ffff:127.0.0.1", "localhost"})
    EXPECT_TRUE(isLoopbackHost(host)) << host;
  for (const char* host : {"0.0.0.0", "128.0.0.1", "10.0.0.1", "::", "::2", "::ffff:10.0.0.1", "localhost.evil", ""})
    EXPECT_FALSE(isLoopbackHost(host)) << host;
}

}  // namespace
}  // namespace velm
