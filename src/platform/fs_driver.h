// Driver control: requests to the SAN file system's kernel driver about a mounted volume,
// sent as ioctl(2) on the volume's mount point.
#pragma once

#include <cstdint>
#include <string>

namespace velm {

// _IOWR('X', 0, 32-byte record): the driver's private RPC.
inline constexpr unsigned long kVelmFsctlLumexRPC = 0xC0205800ul;

// The record of a LumexRPC request; buffer addresses travel as 64-bit integers.
struct LumexRpcRecord {
  std::uint64_t commandAddress;
  std::uint32_t commandLength;
  std::uint32_t zero;
  std::uint64_t replyAddress;
  std::uint32_t maxReplyLength;
  std::uint32_t replyLength;  // out
};
static_assert(sizeof(LumexRpcRecord) == 32, "the driver's record is 32 bytes");

// Per-file affinity: an 8-byte key, _IOR('X', 0x0a, __u64) to read and _IOW('X', 0x10, __u64) to
// set, on a descriptor of the file.
inline constexpr unsigned long kVelmGetAffinity = 0x8008580aul;
inline constexpr unsigned long kVelmSetAffinity = 0x40085810ul;

class FsDriver {
 public:
  virtual ~FsDriver() = default;
  // Sends request with arg to the driver of the volume that holds path. 0, or an errno value:
  // ENOTSUP when the driver is not loaded or path lies on another file system.
  virtual int fsctl(const std::string& path, unsigned long request, void* arg) = 0;
  // True when the open file fd (opened as path) lies on a volume of the SAN file system.
  virtual bool isVelmFile(int fd, const std::string& path) = 0;
  // Sends request with arg about the open file fd. 0, or an errno value (ENOTSUP when the driver
  // is not loaded).
  virtual int fileControl(int fd, unsigned long request, void* arg) = 0;
};

// The driver in force: the Linux one unless a test installed another (caller keeps it).
FsDriver& fsDriver();
void setFsDriverForTest(FsDriver* driver);

}  // namespace velm
