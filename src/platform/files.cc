#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/unique_fd.h"

namespace velm {

std::optional<std::string> readFile(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return std::nullopt;
  std::string out;
  struct stat st {};
  if (::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0)
    out.reserve(static_cast<size_t>(st.st_size));
  char buf[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (n == 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  return out;
}

std::optional<std::string> readSmallFile(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return std::nullopt;
  std::string out;
  char buf[4096];
  for (;;) {
    ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    out.append(buf, static_cast<size_t>(n));
    if (static_cast<size_t>(n) < sizeof buf) return out;
  }
}

namespace {
int writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return 0;
}
}  // namespace

int writeFileAtomically(const std::string& path, std::string_view data, unsigned mode) {
  std::string dir = ".";
  if (auto slash = path.rfind('/'); slash != std::string::npos) dir = slash == 0 ? "/" : path.substr(0, slash);
  std::string tmp = path + ".tmpXXXXXX";
  UniqueFd fd(::mkostemp(tmp.data(), O_CLOEXEC));
  if (!fd) return errno;
  int err = 0;
  if (::fchmod(fd.get(), mode) != 0) err = errno;
  if (!err) err = writeAll(fd.get(), data);
  if (!err && ::fsync(fd.get()) != 0) err = errno;
  fd.reset();
  if (!err && ::rename(tmp.c_str(), path.c_str()) != 0) err = errno;
  if (err) {
    ::unlink(tmp.c_str());
    return err;
  }
  UniqueFd dfd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dfd) ::fsync(dfd.get());
  return 0;
}

void removeLeftoverTemporaries(const std::string& dir) {
  std::error_code ec;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    std::string name = it->path().filename().string();
    std::size_t at = name.rfind(".tmp");
    if (at == std::string::npos || at == 0 || name.size() != at + 4 + 6) continue;
    std::error_code ignored;
    std::filesystem::remove(it->path(), ignored);
  }
}

bool pathExists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

int makeDirectories(const std::string& path, unsigned mode) {
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  if (ec) return ec.value();
  (void)mode;
  return 0;
}

}  // namespace velm
