// Keyed digest, secret file, the 40-byte challenge/response, password and message signatures.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <thread>

#include "adminlib/adminlib.h"
#include "adminlib/adminlib_test_helpers.h"
#include "platform/clock.h"

namespace velm::test {
namespace {

std::string hexOf(const std::uint32_t d[4]) {
  // MD5's bytes: each word little-endian.
  std::string out;
  char b[3];
  for (int i = 0; i < 4; ++i)
    for (int k = 0; k < 4; ++k) {
      std::snprintf(b, sizeof b, "%02x", (d[i] >> (8 * k)) & 0xff);
      out += b;
    }
  return out;
}

std::string md5(const std::string& s) {
  HashContext ctx;
  HashInit(&ctx, 0, 0);
  HashUpdate(&ctx, s.data(), s.size());
  std::uint32_t d[4];
  HashFinalize(d, &ctx);
  return hexOf(d);
}

TEST(HashTest, ZeroSeedsArePlainMd5) {
  EXPECT_EQ(md5(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(md5("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(md5("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(md5("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(md5("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
  EXPECT_EQ(md5("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "d174ab98d277d9f5a5611c2c9f419d9f");
  EXPECT_EQ(md5("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
            "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(HashTest, PiecewiseUpdateMatchesOneUpdate) {
  std::string text(200, 'q');
  HashContext ctx;
  HashInit(&ctx, 7, 9);
  for (char c : text) HashUpdate(&ctx, &c, 1);
  std::uint32_t a[4], b[4];
  HashFinalize(a, &ctx);
  HashInit(&ctx, 7, 9);
  HashUpdate(&ctx, text.data(), text.size());
  HashFinalize(b, &ctx);
  EXPECT_EQ(hexOf(a), hexOf(b));
  EXPECT_NE(hexOf(a), md5(text));  // the seeds change the result
  EXPECT_EQ(ctx.state[0], 0u);     // finalize clears the context
}

class AuthTest : public AdminlibTest {
 protected:
  void useSecret(const std::string& text) {
    writeDrfs("config/.auth_secret", text, 0600);
    authentication_check();  // forget any key derived before
  }
  std::string secretPath() {
    return sandbox_.path("/Library/Filesystems/Velm/config/.auth_secret");
  }
};

TEST_F(AuthTest, KeyFromFirstLineByPosition) {
  useSecret("ab1\nignored line\n");
  std::uint32_t key[16];
  ASSERT_EQ(GetSecretKeyForTest(key), 0);
  EXPECT_EQ(key[0], 97u);
  EXPECT_EQ(key[1], 98u);
  EXPECT_EQ(key[2], 49u);
  for (int i = 3; i < 16; ++i) EXPECT_EQ(key[i], 0u);

  useSecret("a-b");  // the dash adds nothing but moves b along
  ASSERT_EQ(GetSecretKeyForTest(key), 0);
  EXPECT_EQ(key[1], 0u);
  EXPECT_EQ(key[2], 98u);

  std::uint32_t long64[16], long70[16];
  useSecret(std::string(60, 'x') + "ABCD" + "EFGHIJ\n");
  ASSERT_EQ(GetSecretKeyForTest(long70), 0);
  useSecret(std::string(60, 'x') + "ABCD");
  ASSERT_EQ(GetSecretKeyForTest(long64), 0);
  EXPECT_EQ(std::memcmp(long64, long70, sizeof long64), 0);
  EXPECT_EQ(long64[0], 'x' * (1u + 16u + 256u + 4096u));  // positions 0, 16, 32, 48
  EXPECT_EQ(long64[12],
            static_cast<std::uint32_t>(('x' << 3) + ('x' << 7) + ('x' << 11) + ('A' << 15)));
}

TEST_F(AuthTest, SecretFileFailures) {
  EXPECT_EQ(authentication_check(), 0);
  EXPECT_EQ(read_secret_file(), -1);
  EXPECT_TRUE(logContains("failed to access secret file: " + secretPath()));

  useSecret("");
  EXPECT_EQ(authentication_check(), 1);
  EXPECT_EQ(read_secret_file(), -1);
  EXPECT_TRUE(logContains("failed to read secret file"));
  std::uint8_t msg[kAuthMsgLen] = {};
  EXPECT_EQ(validate_signature(msg), -1);  // no key
  EXPECT_EQ(generate_signatureV1(msg), -1);

  ::unlink(secretPath().c_str());
  ASSERT_EQ(::mkdir(secretPath().c_str(), 0700), 0);
  EXPECT_EQ(AuthenticationInit(), 1);  // a directory opens for reading...
  EXPECT_EQ(GetAuthenticateConnection(), 1);
  EXPECT_EQ(read_secret_file(), -1);  // ...but is no secret
  EXPECT_TRUE(logContains("invalid secret file: " + secretPath()));
}

// The secret "ab1" gives the key words 97, 98, 49, then zeros.
const std::uint8_t kPlainSignature[16] = {0x62, 0x41, 0xd8, 0xdf, 0x1b, 0x4a, 0x7b, 0x09,
                                          0xe6, 0x9c, 0x78, 0xb5, 0x41, 0x14, 0xff, 0x8b};
const std::uint8_t kSeededSignature[16] = {0xef, 0x2f, 0xf0, 0xb1, 0x16, 0x3b, 0x75, 0xaa,
                                           0x60, 0xc4, 0xd2, 0x09, 0x3c, 0xde, 0xd8, 0x95};

TEST_F(AuthTest, SignedMessageWireLayout) {
  useSecret("ab1\n");
  std::uint8_t msg[kAuthMsgLen];
  std::memset(msg, 0xEE, sizeof msg);
  put_be32(msg + 4, 0);
  EXPECT_EQ(generate_challengeV1(msg, 0, 0), 1);
  ASSERT_EQ(generate_signatureV1(msg), 0);
  const std::uint8_t head[16] = {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(std::memcmp(msg, head, 16), 0);
  EXPECT_EQ(std::memcmp(msg + 16, kPlainSignature, 16), 0);  // MD5 of the key, words big-endian
  const std::uint8_t zeros[8] = {};
  EXPECT_EQ(std::memcmp(msg + 32, zeros, 8), 0);

  generate_challengeV1(msg, 0x11223344, 0x55667788);
  ASSERT_EQ(generate_signatureV1(msg), 0);
  const std::uint8_t seeds[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
  EXPECT_EQ(std::memcmp(msg + 8, seeds, 8), 0);
  EXPECT_EQ(std::memcmp(msg + 16, kSeededSignature, 16), 0);
  EXPECT_EQ(std::memcmp(msg + 32, seeds, 8), 0);
  EXPECT_EQ(validate_signature(msg), 1);

  msg[20] ^= 1;
  EXPECT_EQ(validate_signature(msg), 0);
  msg[20] ^= 1;
  msg[3] = 2;  // another version is a bad signature, not an error
  EXPECT_EQ(validate_signature(msg), 0);
}

struct SocketPair {
  int fd[2] = {-1, -1};
  SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd), 0); }
  ~SocketPair() {
    ::close(fd[0]);
    ::close(fd[1]);
  }
};

TEST_F(AuthTest, ClientAnswersChallengeByteForByte) {
  ScopedFakeClock clock;  // time 1700000000 = 0x6553F100
  useSecret("ab1\n");
  SocketPair sp;
  Bytes response;
  std::thread server([&] {
    std::uint8_t chal[kAuthMsgLen] = {};
    generate_challengeV1(chal, 0x11223344, 0x55667788);
    writeBytes(sp.fd[1], Bytes(chal, chal + kAuthMsgLen));
    response = readBytes(sp.fd[1], kAuthMsgLen);
    if (response.size() != kAuthMsgLen) return;
    std::uint8_t answer[kAuthMsgLen];
    std::memcpy(answer, response.data(), kAuthMsgLen);
    generate_signatureV1(answer);  // signs the client's seeds
    writeBytes(sp.fd[1], Bytes(answer, answer + kAuthMsgLen));
  });
  EXPECT_EQ(client_authenticate(sp.fd[0]), 1);
  server.join();
  ASSERT_EQ(response.size(), kAuthMsgLen);
  const std::uint8_t head[8] = {0, 0, 0, 1, 0x65, 0x53, 0xF1, 0x00};
  EXPECT_EQ(std::memcmp(response.data(), head, 8), 0);
  const std::uint8_t timeSeed[4] = {0x00, 0xF1, 0x53, 0x65};  // the time, little-endian
  EXPECT_EQ(std::memcmp(response.data() + 12, timeSeed, 4), 0);
  EXPECT_EQ(std::memcmp(response.data() + 16, kSeededSignature, 16), 0);
  const std::uint8_t seeds[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
  EXPECT_EQ(std::memcmp(response.data() + 32, seeds, 8), 0);
}

TEST_F(AuthTest, BothHalvesAgreeWithOneKey) {
  ScopedFakeClock clock;
  useSecret("shared-secret\n");
  SocketPair sp;
  int serverResult = -2;
  std::thread server([&] {
    if (server_send_challenge(sp.fd[1]) == 1) serverResult = server_authenticate_response(sp.fd[1]);
  });
  EXPECT_EQ(client_authenticate(sp.fd[0]), 1);
  server.join();
  EXPECT_EQ(serverResult, 1);
}

TEST_F(AuthTest, ServerRefusesAWrongAnswer) {
  useSecret("ab1\n");
  SocketPair sp;
  std::uint8_t bogus[kAuthMsgLen] = {};
  generate_challengeV1(bogus, 1, 2);
  put_be32(bogus + 16, 0xdeadbeef);
  writeBytes(sp.fd[0], Bytes(bogus, bogus + kAuthMsgLen));
  EXPECT_EQ(server_authenticate_response(sp.fd[1]), 0);
  EXPECT_TRUE(logContains("server_authenticate_response: CLIENT AUTH FAILED"));
  ::shutdown(sp.fd[0], SHUT_WR);
  EXPECT_EQ(server_authenticate_response(sp.fd[1]), 0);
  EXPECT_TRUE(logContains("server_authenticate_response: RECV RESP ERROR"));
}

TEST_F(AuthTest, ClientRefusesAWrongServerAndPassesWithoutKey) {
  useSecret("ab1\n");
  auto runClient = [&](bool haveKey) {
    SocketPair sp;
    std::thread server([&] {
      std::uint8_t chal[kAuthMsgLen] = {};
      generate_challengeV1(chal, 5, 6);
      writeBytes(sp.fd[1], Bytes(chal, chal + kAuthMsgLen));
      Bytes r = readBytes(sp.fd[1], kAuthMsgLen);
      if (r.size() == kAuthMsgLen) r[17] ^= 0xff;  // spoil the server's signature
      writeBytes(sp.fd[1], r);
    });
    if (!haveKey) {
      ::unlink(secretPath().c_str());
      authentication_check();
    }
    int result = client_authenticate(sp.fd[0]);
    server.join();
    return result;
  };
  EXPECT_EQ(runClient(true), 0);
  EXPECT_TRUE(logContains("client_authenticate: SERVER AUTH FAILED"));
  // Deliberate behaviour: a side without a key doesn't judge the other.
  EXPECT_EQ(runClient(false), 1);
}

TEST_F(AuthTest, PortMapperAuthRequestAndItsStatus) {
  struct Case {
    std::uint16_t status;
    int result;
  };
  for (const Case& c : {Case{2, 1}, Case{3, 0}}) {
    SocketPair sp;
    std::uint8_t reply[1024] = {};
    put_be16(reply + 28, c.status);
    writeBytes(sp.fd[1], Bytes(reply, reply + sizeof reply));  // ahead: the client reads once
    EXPECT_EQ(send_pm_auth(sp.fd[0]), c.result) << c.status;
    Bytes req = readBytes(sp.fd[1], 1024);
    ASSERT_EQ(req.size(), 1024u);
    Bytes head(req.begin(), req.begin() + 32);
    Bytes expected(32, 0);
    expected[24] = 0x00;
    expected[25] = 0x13;
    EXPECT_EQ(head, expected);  // no frame header: zeros, then the type
  }
  SocketPair sp;
  writeBytes(sp.fd[1], Bytes(100, 0));
  ::shutdown(sp.fd[1], SHUT_WR);
  EXPECT_EQ(send_pm_auth(sp.fd[0]), 0);  // short reply
}

TEST_F(AuthTest, PasswordKeyAndCheck) {
  useSecret("ab1\n");
  std::uint32_t d[4];
  ASSERT_EQ(generate_password_key("", d), 0);
  EXPECT_EQ(hexOf(d), "dfd84162097b4a1bb5789ce68bff1441");  // plain MD5 of the key
  ASSERT_EQ(generate_password_key("pw!", d), 0);
  EXPECT_EQ(d[0], 0x46fdf0a0u);
  EXPECT_EQ(d[3], 0x55fa8e0bu);

  EXPECT_EQ(verify_password("pw!"), -1);
  EXPECT_TRUE(logContains("failed to open password file: " +
                          sandbox_.path("/Library/Filesystems/Velm/config/.admin_password")));
  writeDrfs("config/.admin_password", "46fdf0a0:4df94170:15a24541:55fa8e0b\n", 0600);
  EXPECT_EQ(verify_password("pw!"), 1);
  EXPECT_EQ(verify_password("pw?"), 0);
  writeDrfs("config/.admin_password", "46fdf0a0:4df94170\n", 0600);
  EXPECT_EQ(verify_password("pw!"), -1);
  EXPECT_TRUE(logContains("failed to read password file"));
}

TEST_F(AuthTest, MessageSignatureInTheLastEightBytes) {
  useSecret("ab1\n");
  EXPECT_EQ(auth_checksum_struct("\x00\x00\x00\x01\x00\x00\x00\x02\xff\xff", 10),
            3u);                                                               // tail left out
  EXPECT_EQ(auth_checksum_struct("\xff\xff\xff\xff\x00\x00\x00\x02", 8), 1u);  // wraps

  std::uint8_t buf[16] = {0, 0, 0, 1, 0, 0, 0, 2};
  ASSERT_EQ(auth_sign_data(auth_checksum_struct(buf, sizeof buf), buf, sizeof buf), 0);
  const std::uint8_t sig[8] = {0xa8, 0x68, 0x96, 0x36, 0x30, 0x92, 0x7a, 0x0e};
  EXPECT_EQ(std::memcmp(buf + 8, sig, 8), 0);
  std::size_t len = sizeof buf;
  EXPECT_EQ(auth_validate_signature(buf, &len), 1);
  EXPECT_EQ(len, 8u);
  const std::uint8_t zeros[8] = {};
  EXPECT_EQ(std::memcmp(buf + 8, zeros, 8), 0);

  std::memcpy(buf + 8, sig, 8);
  buf[7] = 3;  // the body changed after signing
  len = sizeof buf;
  EXPECT_EQ(auth_validate_signature(buf, &len), 0);
  EXPECT_EQ(len, sizeof buf);
  EXPECT_EQ(std::memcmp(buf + 8, zeros, 8), 0);  // zeroed in both outcomes

  ::unlink(secretPath().c_str());
  authentication_check();
  EXPECT_EQ(auth_sign_data(3, buf, sizeof buf), -1);
  EXPECT_EQ(auth_validate_signature(buf, &len), -1);
}

}  // namespace
}  // namespace velm::test
