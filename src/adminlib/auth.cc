#include "adminlib/auth.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "adminlib/adminlib_internal.h"
#include "adminlib/subr2.h"
#include "adminlib/wire.h"

// ---- Keyed digest ----

std::uint32_t RotateLeft(std::uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

std::uint32_t Round1Transform(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,
                              std::uint32_t x, int s, std::uint32_t ac) {
  return b + RotateLeft(a + ((b & c) | (~b & d)) + x + ac, s);
}

std::uint32_t Round2Transform(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,
                              std::uint32_t x, int s, std::uint32_t ac) {
  return b + RotateLeft(a + ((b & d) | (c & ~d)) + x + ac, s);
}

std::uint32_t Round3Transform(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,
                              std::uint32_t x, int s, std::uint32_t ac) {
  return b + RotateLeft(a + (b ^ c ^ d) + x + ac, s);
}

std::uint32_t Round4Transform(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,
                              std::uint32_t x, int s, std::uint32_t ac) {
  return b + RotateLeft(a + (c ^ (b | ~d)) + x + ac, s);
}

namespace {

constexpr std::uint32_t kT[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};
constexpr int kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

bool hostIsLittleEndian() {
  const std::uint32_t one = 1;
  std::uint8_t first;
  std::memcpy(&first, &one, 1);
  return first == 1;
}

}  // namespace

void HashTransform(std::uint32_t state[4], const std::uint8_t block[64]) {
  std::uint32_t x[16];
  for (int i = 0; i < 16; ++i) x[i] = get_le32(block + 4 * i);
  std::uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  for (int i = 0; i < 64; ++i) {
    int round = i / 16;
    int k;
    std::uint32_t next;
    int s = kShift[round][i % 4];
    switch (round) {
      case 0:
        k = i;
        next = Round1Transform(a, b, c, d, x[k], s, kT[i]);
        break;
      case 1:
        k = (5 * i + 1) % 16;
        next = Round2Transform(a, b, c, d, x[k], s, kT[i]);
        break;
      case 2:
        k = (3 * i + 5) % 16;
        next = Round3Transform(a, b, c, d, x[k], s, kT[i]);
        break;
      default:
        k = (7 * i) % 16;
        next = Round4Transform(a, b, c, d, x[k], s, kT[i]);
        break;
    }
    // Rotate the roles: the new word becomes b, the others move along.
    a = d;
    d = c;
    c = b;
    b = next;
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

void HashInit(HashContext* ctx, std::uint32_t seed1, std::uint32_t seed2) {
  std::memset(ctx, 0, sizeof *ctx);
  ctx->state[0] = 0x67452301u ^ seed1;
  ctx->state[1] = 0xefcdab89u ^ seed2;
  ctx->state[2] = 0x98badcfeu ^ seed2;
  ctx->state[3] = 0x10325476u ^ seed1;
  ctx->littleEndian = hostIsLittleEndian();
}

void HashUpdate(HashContext* ctx, const void* data, std::size_t len) {
  const auto* in = static_cast<const std::uint8_t*>(data);
  std::uint64_t bits = (std::uint64_t{ctx->count[1]} << 32) | ctx->count[0];
  bits += static_cast<std::uint64_t>(len) << 3;
  ctx->count[0] = static_cast<std::uint32_t>(bits);
  ctx->count[1] = static_cast<std::uint32_t>(bits >> 32);
  while (len > 0) {
    std::size_t take = 64 - ctx->held;
    if (take > len) take = len;
    std::memcpy(ctx->buffer + ctx->held, in, take);
    ctx->held += static_cast<std::uint32_t>(take);
    in += take;
    len -= take;
    if (ctx->held == 64) {
      HashTransform(ctx->state, ctx->buffer);
      ctx->held = 0;
    }
  }
}

void HashFinalize(std::uint32_t digest[4], HashContext* ctx) {
  static const std::uint8_t kPadding[64] = {0x80};
  std::uint8_t bits[8];
  put_le32(bits, ctx->count[0]);
  put_le32(bits + 4, ctx->count[1]);
  // The standard tail, by the bytes held modulo 64. One reckoned from the whole byte count agrees
  // with it for every length below 120 bytes, and the key hashed here is 64.
  std::uint32_t pad = ctx->held < 56 ? 56 - ctx->held : 120 - ctx->held;
  HashUpdate(ctx, kPadding, pad);
  HashUpdate(ctx, bits, 8);
  for (int i = 0; i < 4; ++i) digest[i] = ctx->state[i];
  std::memset(ctx, 0, sizeof *ctx);
}

// ---- Secret and key ----

namespace {

std::atomic<int> gAuthenticateConnection{0};

std::mutex gKeyMutex;  // guards gSecretRead and QmfsSecretKey; leaf
bool gSecretRead = false;
std::uint32_t QmfsSecretKey[16];

bool isAsciiAlnum(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Call with gKeyMutex held.
int readSecretLocked() {
  std::string path = adminlib::drfsPath("config/.auth_secret");
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    adminlib::syslogLine(LOG_INFO, "failed to access secret file: %s", path.c_str());
    return -1;
  }
  if ((st.st_mode & 0xf000) != 0x8000) {
    adminlib::syslogLine(LOG_INFO, "invalid secret file: %s", path.c_str());
    return -1;
  }
  FILE* f = std::fopen(path.c_str(), "re");
  if (!f) {
    adminlib::syslogLine(LOG_INFO, "failed to open secret file: %s", path.c_str());
    return -1;
  }
  char line[65];
  std::memset(line, 0, sizeof line);
  std::memset(QmfsSecretKey, 0, sizeof QmfsSecretKey);
  if (!std::fgets(line, sizeof line, f)) {
    adminlib::syslogLine(LOG_INFO, "failed to read secret file");
    std::fclose(f);
    return -1;
  }
  // Every position counts, so punctuation moves the characters after it to other shifts.
  for (int i = 0; i < 64; ++i) {
    auto c = static_cast<unsigned char>(line[i]);
    if (isAsciiAlnum(c)) QmfsSecretKey[i % 16] += static_cast<std::uint32_t>(c) << (i / 4);
  }
  std::fclose(f);
  return 0;
}

bool haveKeyLocked() {
  if (gSecretRead) return true;
  if (readSecretLocked() != 0) return false;
  gSecretRead = true;
  return true;
}

// The digest of seeds s1 and s2 over the key; false without a key.
bool keyedDigest(std::uint32_t s1, std::uint32_t s2, std::uint32_t out[4]) {
  std::uint8_t key[64];
  {
    std::scoped_lock lock(gKeyMutex);
    if (!haveKeyLocked()) return false;
    // The key goes in as it lies in memory on the machines that share it: each word little-endian.
    for (int i = 0; i < 16; ++i) put_le32(key + 4 * i, QmfsSecretKey[i]);
  }
  HashContext ctx;
  HashInit(&ctx, s1, s2);
  HashUpdate(&ctx, key, sizeof key);
  HashFinalize(out, &ctx);
  return true;
}

}  // namespace

int authentication_check() {
  {
    std::scoped_lock lock(gKeyMutex);
    gSecretRead = false;
  }
  std::string path = adminlib::drfsPath("config/.auth_secret");
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  ::close(fd);
  return 1;
}

int AuthenticationInit() {
  int on = authentication_check();
  SetAuthenticateConnection(on);
  return on;
}

int GetAuthenticateConnection() { return gAuthenticateConnection.load(); }
void SetAuthenticateConnection(int on) { gAuthenticateConnection.store(on ? 1 : 0); }

int read_secret_file() {
  std::scoped_lock lock(gKeyMutex);
  return readSecretLocked();
}

int GetSecretKeyForTest(std::uint32_t key[16]) {
  std::scoped_lock lock(gKeyMutex);
  if (!haveKeyLocked()) return -1;
  std::memcpy(key, QmfsSecretKey, sizeof QmfsSecretKey);
  return 0;
}

// ---- Challenge and response ----

namespace {

constexpr std::uint32_t kAuthVersion = 1;

std::uint32_t nowSeconds() { return static_cast<std::uint32_t>(MicroTime() / 1000000u); }

std::uint32_t randomWord() { return static_cast<std::uint32_t>(std::rand()); }

// The time word as it enters a seed: its bytes land on the wire in little-endian order.
std::uint32_t timeSeed(std::uint32_t t) { return __builtin_bswap32(t); }

// Deliberate: these transfers are single calls; a partial one is a failure, not resumed.
bool sendOnce(int sock, const std::uint8_t* buf, std::size_t len) {
  return ::send(sock, buf, len, MSG_NOSIGNAL) == static_cast<ssize_t>(len);
}

bool recvOnce(int sock, std::uint8_t* buf, std::size_t len) {
  return ::recv(sock, buf, len, 0) == static_cast<ssize_t>(len);
}

}  // namespace

int generate_challengeV1(std::uint8_t msg[kAuthMsgLen], std::uint32_t seed1, std::uint32_t seed2) {
  put_be32(msg, kAuthVersion);
  put_be32(msg + 8, seed1);
  put_be32(msg + 12, seed2);
  return 1;
}

int generate_signatureV1(std::uint8_t msg[kAuthMsgLen]) {
  std::uint32_t d[4];
  if (!keyedDigest(get_be32(msg + 8), get_be32(msg + 12), d)) return -1;
  for (int i = 0; i < 4; ++i) put_be32(msg + 16 + 4 * i, d[i]);
  std::memmove(msg + 32, msg + 8, 8);
  return 0;
}

int validate_signature(const std::uint8_t msg[kAuthMsgLen]) {
  std::uint32_t d[4];
  {
    std::scoped_lock lock(gKeyMutex);
    if (!haveKeyLocked()) return -1;
  }
  if (get_be32(msg) != kAuthVersion) return 0;
  if (!keyedDigest(get_be32(msg + 32), get_be32(msg + 36), d)) return -1;
  for (int i = 0; i < 4; ++i)
    if (get_be32(msg + 16 + 4 * i) != d[i]) return 0;
  return 1;
}

int server_send_challenge(int sock) {
  std::uint8_t msg[kAuthMsgLen] = {};
  std::uint32_t t = nowSeconds();
  put_be32(msg + 4, t);
  generate_challengeV1(msg, timeSeed(t), randomWord());
  if (!sendOnce(sock, msg, sizeof msg)) {
    adminlib::syslogLine(LOG_ERR, "server_send_challenge: SEND CHAL ERROR");
    return -1;
  }
  return 1;
}

int server_authenticate_response(int sock) {
  std::uint8_t msg[kAuthMsgLen] = {};
  if (!recvOnce(sock, msg, sizeof msg)) {
    adminlib::syslogLine(LOG_INFO, "server_authenticate_response: RECV RESP ERROR");
    return 0;
  }
  // Deliberate: only a definite mismatch fails; a side without a key (-1) lets the other pass,
  // so a machine whose secret can't be read as a key doesn't cut itself off.
  if (validate_signature(msg) == 0) {
    adminlib::syslogLine(LOG_ERR, "server_authenticate_response: CLIENT AUTH FAILED");
    return 0;
  }
  generate_signatureV1(msg);
  if (!sendOnce(sock, msg, sizeof msg)) {
    adminlib::syslogLine(LOG_INFO, "server_authenticate_response: SEND ERROR");
    return 0;
  }
  return 1;
}

int client_authenticate(int sock) {
  std::uint8_t msg[kAuthMsgLen] = {};
  if (!recvOnce(sock, msg, sizeof msg)) {
    adminlib::syslogLine(LOG_INFO, "client_authenticate: RECV ERROR");
    return 0;
  }
  // Sign the server's challenge, then put our own challenge in front of the signature.
  generate_signatureV1(msg);
  std::uint32_t t = nowSeconds();
  put_be32(msg + 4, t);
  generate_challengeV1(msg, randomWord(), timeSeed(t));
  if (!sendOnce(sock, msg, sizeof msg)) {
    adminlib::syslogLine(LOG_INFO, "client_authenticate: SEND ERROR");
    return 0;
  }
  if (!recvOnce(sock, msg, sizeof msg)) {
    adminlib::syslogLine(LOG_INFO, "client_authenticate: RECV ERROR");
    return 0;
  }
  // Deliberate: as on the server, -1 (no key here) passes.
  if (validate_signature(msg) == 0) {
    adminlib::syslogLine(LOG_ERR, "client_authenticate: SERVER AUTH FAILED");
    return 0;
  }
  return 1;
}

int send_pm_auth(int sock) {
  constexpr std::size_t kLen = 1024;
  std::uint8_t msg[kLen] = {};
  put_be16(msg + 24, kPmAuthRequest);
  // No frame header: the port mapper tells this request by its zeroed head.
  if (!sendOnce(sock, msg, kLen)) return 0;
  std::memset(msg, 0, kLen);
  if (!recvOnce(sock, msg, kLen)) return 0;
  std::uint16_t status = get_be16(msg + 28);
  if (status == 2) return 1;  // the server wants no authentication
  if (status != 0) return 0;
  return client_authenticate(sock);
}

// ---- Admin password ----

int generate_password_key(const char* password, std::uint32_t digest[4]) {
  std::uint32_t s1 = 0, s2 = 0;
  // Deliberate: characters count as signed bytes, so those above 127 subtract.
  for (std::size_t i = 0; password && password[i]; ++i) {
    auto c = static_cast<std::int32_t>(static_cast<signed char>(password[i]));
    std::uint32_t v = static_cast<std::uint32_t>(c) << (i % 4);
    s1 += v;
    if (i % 3 == 0) s2 += v;
  }
  return keyedDigest(s1, s2, digest) ? 0 : -1;
}

int verify_password(const char* password) {
  std::string path = adminlib::drfsPath("config/.admin_password");
  FILE* f = std::fopen(path.c_str(), "re");
  if (!f) {
    adminlib::syslogLine(LOG_INFO, "failed to open password file: %s", path.c_str());
    return -1;
  }
  unsigned int w[4];
  int n = std::fscanf(f, "%x:%x:%x:%x", &w[0], &w[1], &w[2], &w[3]);
  std::fclose(f);
  if (n != 4) {
    adminlib::syslogLine(LOG_INFO, "failed to read password file");
    return -1;
  }
  std::uint32_t d[4];
  if (generate_password_key(password, d) != 0) return -1;
  for (int i = 0; i < 4; ++i)
    if (d[i] != w[i]) return 0;
  return 1;
}

// ---- Whole-message signature ----

std::uint32_t auth_checksum_struct(const void* data, std::size_t len) {
  const auto* p = static_cast<const std::uint8_t*>(data);
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i + 4 <= len; i += 4) sum += get_be32(p + i);
  return sum;
}

int auth_sign_data(std::uint32_t checksum, std::uint8_t* buf, std::size_t len) {
  if (len < 8) return -1;
  std::uint32_t d[4];
  if (!keyedDigest(checksum, checksum, d)) return -1;
  put_be32(buf + len - 8, d[1]);
  put_be32(buf + len - 4, d[0]);
  return 0;
}

int auth_validate_signature(std::uint8_t* buf, std::size_t* len) {
  {
    std::scoped_lock lock(gKeyMutex);
    if (!haveKeyLocked()) return -1;
  }
  std::size_t n = *len;
  if (n < 8) return 0;
  // Deliberate: the signature field stays zeroed whatever the outcome.
  std::uint32_t second = get_be32(buf + n - 8);
  std::uint32_t last = get_be32(buf + n - 4);
  std::memset(buf + n - 8, 0, 8);
  std::uint32_t d[4];
  if (!keyedDigest(auth_checksum_struct(buf, n), auth_checksum_struct(buf, n), d)) return -1;
  if (last != d[0] || second != d[1]) return 0;
  *len = n - 8;
  return 1;
}
