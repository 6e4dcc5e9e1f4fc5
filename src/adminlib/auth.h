// Connection authentication: a keyed MD5 digest over a key derived from the shared secret file
// (<root>/config/.auth_secret), a 40-byte challenge and response in both directions, the admin
// password check and the signature of whole messages.
#pragma once

#include <cstddef>
#include <cstdint>

// ---- Keyed digest: MD5 whose four chaining words start XORed with two seeds ----

struct HashContext {
  std::uint32_t state[4];
  std::uint32_t count[2];  // message bits, low word first
  std::uint8_t buffer[64];
  std::uint32_t held;  // bytes waiting in buffer
  int littleEndian;
};

// A ^= seed1, B ^= seed2, C ^= seed2, D ^= seed1; zero seeds give plain MD5.
void HashInit(HashContext* ctx, std::uint32_t seed1, std::uint32_t seed2);
void HashUpdate(HashContext* ctx, const void* data, std::size_t len);
// The four words A..D in host order; the context is cleared.
void HashFinalize(std::uint32_t digest[4], HashContext* ctx);
void HashTransform(std::uint32_t state[4], const std::uint8_t block[64]);
std::uint32_t RotateLeft(std::uint32_t x, int n);
// One MD5 step of each round's kind: a + f(b,c,d) + x + ac, rotated by s, plus b.
std::uint32_t Round1Transform(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,
                              std::uint32_t x, int s, std::uint32_t ac);
std::uint32_t Round2Transform(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,
                              std::uint32_t x, int s, std::uint32_t ac);
std::uint32_t Round3Transform(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,
                              std::uint32_t x, int s, std::uint32_t ac);
std::uint32_t Round4Transform(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,
                              std::uint32_t x, int s, std::uint32_t ac);

// ---- Secret and key ----

// 1 when the secret file opens for reading (and forgets the derived key), else 0.
int authentication_check();
// Sets the connection authentication flag from authentication_check and returns it.
int AuthenticationInit();
int GetAuthenticateConnection();
void SetAuthenticateConnection(int on);
// Derives the key from the secret file's first line (64 characters). 0, or -1 (logged).
int read_secret_file();
// The derived key's sixteen words, after deriving it if needed; 0, or -1 without a key.
int GetSecretKeyForTest(std::uint32_t key[16]);

// ---- The 40-byte challenge/response message ----

inline constexpr std::size_t kAuthMsgLen = 40;
inline constexpr std::uint16_t kPmAuthRequest = 0x0013;

// Writes the version word and the two seeds (big-endian) at 8 and 12. Returns 1.
int generate_challengeV1(std::uint8_t msg[kAuthMsgLen], std::uint32_t seed1, std::uint32_t seed2);
// Signs the seeds at 8 and 12 into offsets 16..31 and copies them to 32..39. 0, or -1 without a
// key.
int generate_signatureV1(std::uint8_t msg[kAuthMsgLen]);
// 1 when offsets 16..31 are the signature of the seeds at 32..39, 0 when not (or the version is
// not 1), -1 without a key.
int validate_signature(const std::uint8_t msg[kAuthMsgLen]);

// Server half: sends a challenge. 1, or -1 when the write fails.
int server_send_challenge(int sock);
// Server half: checks the client's answer and signs the client's challenge. 1 or 0.
int server_authenticate_response(int sock);
// Client half after the port mapper's challenge: 1 when both sides proved the key, else 0.
int client_authenticate(int sock);
// Asks the port mapper to authenticate the connection (request 0x0013) and runs the client half.
// 1 for success or a server that wants no authentication, 0 for failure.
int send_pm_auth(int sock);

// ---- Admin password ----

// The digest of the password's seeds over the key. 0, or -1 without a key.
int generate_password_key(const char* password, std::uint32_t digest[4]);
// Against <root>/config/.admin_password ("%x:%x:%x:%x"): 1 right, 0 wrong, -1 no usable file/key.
int verify_password(const char* password);

// ---- Whole-message signature (the last eight bytes of a buffer) ----

// Sum of the big-endian 32-bit words, wrapping; a tail of up to three bytes is not counted.
std::uint32_t auth_checksum_struct(const void* data, std::size_t len);
// Signs into the last eight bytes. 0, or -1 without a key or with len below 8.
int auth_sign_data(std::uint32_t checksum, std::uint8_t* buf, std::size_t len);
// Checks and zeroes the last eight bytes; on success *len loses 8. 1 good, 0 bad, -1 without a key.
int auth_validate_signature(std::uint8_t* buf, std::size_t* len);
