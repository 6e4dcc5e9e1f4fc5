// Reading and writing property-list files. plist sits below platform/, so this is plain POSIX.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "plist/plist.h"
#include "plist/plist_internal.h"

namespace velm {

namespace {

// A plist file larger than this is not one of ours; refuse it rather than exhaust memory.
constexpr size_t kMaxFileSize = size_t{256} << 20;

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  // Closes now, reporting the error that close() gives.
  int close() {
    int rc = ::close(fd_);
    fd_ = -1;
    return rc == 0 ? 0 : errno;
  }

 private:
  int fd_;
};

std::string errnoText(const std::string& what, const std::string& path, int err) {
  return what + " " + path + ": " + std::strerror(err);
}

}  // namespace

PlistReadResult readXmlPlistFile(const std::string& path, const PlistReadOptions& options) {
  PlistReadResult result;
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    result.error = errnoText("cannot open", path, errno);
    return result;
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) {
    result.error = errnoText("cannot read", path, errno);
    return result;
  }
  if (S_ISDIR(st.st_mode)) {
    result.error = errnoText("cannot read", path, EISDIR);
    return result;
  }
  if (S_ISREG(st.st_mode) && static_cast<unsigned long long>(st.st_size) > kMaxFileSize) {
    result.error = path + " is too large for a property list";
    return result;
  }
  // Regular files are read into a buffer of their size (one byte more shows a file that grew);
  // anything else (a pipe) in growing steps.
  size_t capacity = S_ISREG(st.st_mode) ? static_cast<size_t>(st.st_size) + 1 : 64 * 1024;
  std::unique_ptr<char[]> own;
  char* buffer = plist_internal::parseBuffer(capacity, own);
  size_t size = 0;
  for (;;) {
    if (size == capacity) {
      if (capacity >= kMaxFileSize) {
        result.error = path + " is too large for a property list";
        return result;
      }
      size_t bigger = capacity * 2;
      std::unique_ptr<char[]> grown(new char[bigger]);
      std::memcpy(grown.get(), buffer, size);
      own = std::move(grown);
      buffer = own.get();
      capacity = bigger;
    }
    ssize_t n = ::read(fd.get(), buffer + size, capacity - size);
    if (n < 0) {
      if (errno == EINTR) continue;
      result.error = errnoText("cannot read", path, errno);
      return result;
    }
    if (n == 0) break;
    size += static_cast<size_t>(n);
  }
  fd.close();
  // Error lines are counted in the parsed buffer: good enough for a file.
  result = plist_internal::readInPlace(buffer, size, std::string_view(buffer, size), options);
  if (!result) result.error = path + ": " + result.error;
  return result;
}

std::optional<PropertyList> readDictionaryFile(const std::string& path) {
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult r = readXmlPlistFile(path, options);
  if (!r) return std::nullopt;
  return std::move(r.value);
}

int writeXmlPlistFile(const std::string& path, const PropertyList& value, unsigned mode) {
  std::string text = writeXmlPlist(value);
  std::string dir = ".";
  if (auto slash = path.rfind('/'); slash != std::string::npos)
    dir = slash == 0 ? "/" : path.substr(0, slash);
  std::string tmp = path + ".tmpXXXXXX";
  Fd fd(::mkostemp(tmp.data(), O_CLOEXEC));
  if (fd.get() < 0) return errno;
  int err = 0;
  if (::fchmod(fd.get(), mode) != 0) err = errno;
  for (size_t done = 0; !err && done < text.size();) {
    ssize_t n = ::write(fd.get(), text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno != EINTR) err = errno;
      continue;
    }
    done += static_cast<size_t>(n);
  }
  if (!err && ::fsync(fd.get()) != 0) err = errno;
  int closeErr = fd.close();
  if (!err) err = closeErr;
  if (!err && ::rename(tmp.c_str(), path.c_str()) != 0) err = errno;
  if (err) {
    ::unlink(tmp.c_str());
    return err;
  }
  // The rename is only durable once the directory is.
  Fd dfd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dfd.get() >= 0) ::fsync(dfd.get());
  return 0;
}

}  // namespace velm
