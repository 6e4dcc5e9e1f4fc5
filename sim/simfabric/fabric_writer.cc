#include "sim/simfabric/fabric_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace velm::sim {
namespace {

// Unique names for temporaries and scratch directories within this process; the pid keeps
// processes apart.
std::atomic<unsigned long> gSerial{0};

std::string uniqueSuffix() {
  return std::to_string(::getpid()) + "-" + std::to_string(gSerial.fetch_add(1));
}

int writeAll(const std::string& path, std::string_view data) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      int err = n < 0 ? errno : EIO;
      ::close(fd);
      return err;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return ::close(fd) == 0 ? 0 : errno;
}

std::string parentOf(const std::string& rel) {
  size_t slash = rel.rfind('/');
  return slash == std::string::npos ? std::string() : rel.substr(0, slash + 1);
}

std::string baseOf(const std::string& rel) {
  size_t slash = rel.rfind('/');
  return slash == std::string::npos ? rel : rel.substr(slash + 1);
}

}  // namespace

std::string TreeWriter::failure() const {
  if (ok()) return {};
  return "cannot " + what_ + " " + abs(where_) + ": " + std::strerror(err_);
}

bool TreeWriter::step(int err, const char* what, const std::string& rel) {
  if (err != 0 && err_ == 0) {
    err_ = err;
    what_ = what;
    where_ = rel;
  }
  return err == 0;
}

void TreeWriter::dir(const std::string& rel) {
  if (!ok()) return;
  std::error_code ec;
  std::filesystem::create_directories(abs(rel), ec);
  step(ec.value(), "make directory", rel);
}

void TreeWriter::file(const std::string& rel, std::string_view data) {
  if (!ok()) return;
  step(writeAll(abs(rel), data), "write", rel);
}

void TreeWriter::replace(const std::string& rel, std::string_view data) {
  if (!ok()) return;
  // Hidden, so a reader listing the directory skips it.
  std::string temp = parentOf(rel) + "." + baseOf(rel) + ".tmp-" + uniqueSuffix();
  if (!step(writeAll(abs(temp), data), "write", temp)) {
    ::unlink(abs(temp).c_str());
    return;
  }
  if (::rename(abs(temp).c_str(), abs(rel).c_str()) != 0) {
    step(errno, "replace", rel);
    ::unlink(abs(temp).c_str());
  }
}

void TreeWriter::link(const std::string& rel, const std::string& target) {
  if (!ok()) return;
  if (::symlink(target.c_str(), abs(rel).c_str()) == 0) return;
  if (errno != EEXIST) {
    step(errno, "link", rel);
    return;
  }
  std::string temp = parentOf(rel) + "." + baseOf(rel) + ".tmp-" + uniqueSuffix();
  if (::symlink(target.c_str(), abs(temp).c_str()) != 0) {
    step(errno, "link", temp);
    return;
  }
  if (::rename(abs(temp).c_str(), abs(rel).c_str()) != 0) {
    step(errno, "link", rel);
    ::unlink(abs(temp).c_str());
  }
}

void TreeWriter::unlink(const std::string& rel) {
  if (!ok()) return;
  if (::unlink(abs(rel).c_str()) != 0 && errno != ENOENT) step(errno, "remove", rel);
}

void TreeWriter::rename(const std::string& from, const std::string& to) {
  if (!ok()) return;
  if (::rename(abs(from).c_str(), abs(to).c_str()) != 0) step(errno, "move into place", to);
}

void TreeWriter::removeTree(const std::string& rel) {
  if (!ok()) return;
  struct stat st {};
  if (::lstat(abs(rel).c_str(), &st) != 0) {
    if (errno != ENOENT) step(errno, "remove", rel);
    return;
  }
  dir(kWorkDir);
  std::string aside = std::string(kWorkDir) + "/old-" + uniqueSuffix();
  if (!ok()) return;
  if (::rename(abs(rel).c_str(), abs(aside).c_str()) != 0) {
    step(errno, "remove", rel);
    return;
  }
  // remove_all deletes links themselves, never what they point at.
  std::error_code ec;
  std::filesystem::remove_all(abs(aside), ec);
  step(ec.value(), "remove", aside);
}

std::string TreeWriter::scratch() {
  std::string rel = std::string(kWorkDir) + "/new-" + uniqueSuffix();
  dir(rel);
  return rel;
}

std::string diskName(int index) {
  std::string letters;
  do {
    letters.insert(letters.begin(), static_cast<char>('a' + index % 26));
    index = index / 26 - 1;
  } while (index >= 0);
  return "sd" + letters;
}

int diskIndex(std::string_view name) {
  if (name.size() < 3 || name.size() > 6 || name.substr(0, 2) != "sd") return -1;
  int index = -1;
  for (char c : name.substr(2)) {
    if (c < 'a' || c > 'z') return -1;
    index = (index + 1) * 26 + (c - 'a');
  }
  return index;
}

std::string diskDevText(int index) {
  // sd's majors: 8, then 65-71, then 128-135, each holding 16 disks of 16 minors.
  int group = (index & 0xf0) >> 4;
  int major = group == 0 ? 8 : group < 8 ? 64 + group : 128 + group - 8;
  int minor = ((index & 0xf) << 4) | (index & 0xfff00);
  return std::to_string(major) + ":" + std::to_string(minor) + "\n";
}

std::array<std::uint8_t, 16> lunDesignator(std::uint64_t wwnn, int lun) {
  // NAA 6 (registered extended): the WWNN's company id and serial, then the LUN.
  std::uint64_t high = (std::uint64_t{6} << 60) | (wwnn & 0x0fffffffffffffffULL);
  std::uint64_t low = static_cast<std::uint64_t>(lun);
  std::array<std::uint8_t, 16> bytes{};
  for (int i = 0; i < 8; ++i) {
    bytes[i] = static_cast<std::uint8_t>(high >> (56 - 8 * i));
    bytes[8 + i] = static_cast<std::uint8_t>(low >> (56 - 8 * i));
  }
  return bytes;
}

std::string wwidText(std::uint64_t wwnn, int lun) {
  std::string text = "naa.";
  char hex[3];
  for (std::uint8_t b : lunDesignator(wwnn, lun)) {
    std::snprintf(hex, sizeof hex, "%02x", b);
    text += hex;
  }
  return text + "\n";
}

std::string vpdPage83(std::uint64_t wwnn, int lun) {
  std::array<std::uint8_t, 16> naa = lunDesignator(wwnn, lun);
  std::string page;
  // Peripheral device type 0 (disk), page 0x83, page length 20 (one 4 + 16 byte descriptor).
  page += {'\x00', '\x83', '\x00', '\x14'};
  // Binary code set; association LUN, designator type NAA; 16 bytes.
  page += {'\x01', '\x03', '\x00', '\x10'};
  page.append(reinterpret_cast<const char*>(naa.data()), naa.size());
  return page;
}

std::string statText(const DiskStat& stat) {
  std::string text;
  char field[32];
  for (int i = 0; i < kStatFields; ++i) {
    std::snprintf(field, sizeof field, "%s%8llu", i ? " " : "",
                  static_cast<unsigned long long>(stat[i]));
    text += field;
  }
  return text + "\n";
}

bool parseStat(std::string_view text, DiskStat* stat) {
  std::string copy(text);
  const char* p = copy.c_str();
  for (int i = 0; i < kStatFields; ++i) {
    while (*p == ' ' || *p == '\t') ++p;
    if (*p < '0' || *p > '9') return false;
    char* end = nullptr;
    errno = 0;
    (*stat)[i] = std::strtoull(p, &end, 10);
    if (errno != 0) return false;
    p = end;
  }
  while (*p == ' ' || *p == '\t' || *p == '\n') ++p;
  return *p == '\0';
}

}  // namespace velm::sim
