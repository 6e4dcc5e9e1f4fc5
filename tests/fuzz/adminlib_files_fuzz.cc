// Feeds arbitrary file contents to the admin library's file readers: fsports, the secret file,
// the admin password file. The first byte picks the file.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "adminlib/adminlib.h"
#include "fuzz_support.h"
#include "platform/files.h"

namespace {

const std::string* gRoot = nullptr;

bool setUp() {
  gRoot = &velm::fuzz::drfsRoot();
  WriteLog = [](int, const char*) {};
  return true;
}

void put(const char* name, const std::uint8_t* data, std::size_t size) {
  // Plain writes: the reader, not the writer, is under test here.
  FILE* f = std::fopen((*gRoot + "/config/" + name).c_str(), "wb");
  if (!f) std::abort();
  if (size) std::fwrite(data, 1, size, f);
  std::fclose(f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static bool ready = setUp();
  (void)ready;
  if (size < 1 || size > 65536) return 0;
  const std::uint8_t* rest = data + 1;
  std::size_t restLen = size - 1;
  switch (data[0] % 3) {
    case 0: {
      put("fsports", rest, restLen);
      int mn, mx, alt;
      genportrange(&mn, &mx, &alt, 1);
      break;
    }
    case 1: {
      put(".auth_secret", rest, restLen);
      authentication_check();
      std::uint32_t digest[4];
      generate_password_key("pw", digest);
      break;
    }
    default: {
      put(".admin_password", rest, restLen);
      verify_password("pw");
      break;
    }
  }
  return 0;
}
