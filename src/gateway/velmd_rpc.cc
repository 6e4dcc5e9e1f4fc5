// The velmd exchange and the operations of SANFilesystem built on it.
#include "gateway/velmd_rpc.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "adminlib/qmadminlib.h"
#include "gateway/qmadmin.h"
#include "gateway/san_filesystem.h"
#include "platform/entry_name.h"
#include "platform/fs_driver.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/string_additions.h"
#include "platform/unique_fd.h"
#include "plist/key_list.h"

namespace velm {
namespace {

constexpr std::string_view kPlistEnd = "</plist>";
constexpr size_t kReadSize = 1024;

}  // namespace

std::string velmdSocketPath() { return hostPath("/var/run/com.orvane.velmd.socket"); }

bool velmdReplyIsComplete(std::string_view buffer) {
  if (buffer.size() < kPlistEnd.size()) return false;
  size_t end = buffer.size();
  if (buffer[end - 1] == '\0') --end;
  if (end > 0 && buffer[end - 1] == '\n') --end;
  return end >= kPlistEnd.size() &&
         buffer.substr(end - kPlistEnd.size(), kPlistEnd.size()) == kPlistEnd;
}

std::optional<PropertyList> parseVelmdReply(std::string_view buffer) {
  while (!buffer.empty() && buffer.back() == '\0') buffer.remove_suffix(1);
  if (!isValidUtf8(buffer)) return std::nullopt;
  PlistReadOptions options;
  options.requireDictionary = true;
  PlistReadResult r = readXmlPlist(buffer, options);
  if (!r || !r.value->isDict()) return std::nullopt;
  return std::move(*r.value);
}

std::optional<std::string> receiveVelmdReply(int fd, const char* fn) {
  std::string reply;
  char piece[kReadSize];
  while (true) {
    // Deliberate: no time limit. A velmd that takes the request and never answers holds this
    // command, and the plugin lock with it. poll stands in for select, which can't take an fd
    // past FD_SETSIZE.
    pollfd p{fd, POLLIN, 0};
    int ready = ::poll(&p, 1, -1);
    if (ready < 0) {
      if (errno == EINTR) continue;
      NError("%s: error waiting for reply: %s", fn, std::strerror(errno));
      return std::nullopt;
    }
    if (ready == 0) continue;
    ssize_t got = ::read(fd, piece, sizeof piece);
    if (got < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      NError("%s: error reading reply: %s", fn, std::strerror(errno));
      return std::nullopt;
    }
    if (got == 0) {
      NError("%s: unexpected EOF reading reply", fn);
      return std::nullopt;
    }
    reply.append(piece, static_cast<size_t>(got));
    if (velmdReplyIsComplete(reply)) return reply;
  }
}

std::optional<PropertyList> SANFilesystem::doVelmdManagementRpcWithCommand(
    const PropertyList& command) {
  const char* fn = __func__;
  if (!command.isDict()) {
    NError("%s: Cannot convert request to XML data: %@", fn, command);
    return std::nullopt;
  }
  std::string request = writeXmlPlist(command);
  NLog("%s: request: %@", fn, command);

  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) {
    NError("%s: Unable to create socket: %s", fn, std::strerror(errno));
    return std::nullopt;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string path = velmdSocketPath();
  if (path.size() >= sizeof address.sun_path) {
    NError("%s: Unable to connect to velmd: %s", fn, std::strerror(ENAMETOOLONG));
    return std::nullopt;
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    NError("%s: Unable to connect to velmd: %s", fn, std::strerror(errno));
    return std::nullopt;
  }
  // One write, as the daemon expects; MSG_NOSIGNAL so a vanished daemon is an error, not SIGPIPE.
  ssize_t sent;
  do {
    sent = ::send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent != static_cast<ssize_t>(request.size())) {
    NError("%s: Unable to send request to velmd: %s", fn, std::strerror(sent < 0 ? errno : EIO));
    return std::nullopt;
  }
  int flags = ::fcntl(fd.get(), F_GETFL);
  if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) != 0) {
    NError("%s: Unable to make velmd connection non-blocking: %s", fn, std::strerror(errno));
    return std::nullopt;
  }

  std::optional<std::string> received = receiveVelmdReply(fd.get(), fn);
  if (!received) return std::nullopt;
  const std::string& reply = *received;
  fd.reset();

  std::optional<PropertyList> answer = parseVelmdReply(reply);
  if (!answer) {
    PropertyList text;
    std::string_view shown(reply);
    while (!shown.empty() && shown.back() == '\0') shown.remove_suffix(1);
    if (isValidUtf8(shown)) text = PropertyList(shown);
    NError("%s: invalid reply: %@", fn, text.isNull() ? nullptr : &text);
    return std::nullopt;
  }
  NLog("%s: reply: %@", fn, *answer);
  return answer;
}

namespace {

PropertyList commandNamed(std::string_view name) {
  PropertyList c = PropertyList::dict();
  c.set("command", name);
  return c;
}

}  // namespace

bool SANFilesystem::disksChanged() {
  std::optional<PropertyList> reply = doVelmdManagementRpcWithCommand(commandNamed("disksChanged"));
  if (!reply) {
    NError("%s: unable to send 'disksChanged' message to velmd", __func__);
    return false;
  }
  if (const PropertyList* error = reply->get("error")) {
    // Deliberate: the sanConfigChanged wording, as it has always been logged for this message.
    NError("%s: sanConfigChanged failed: %@", __func__, *error);
    return false;
  }
  return true;
}

bool SANFilesystem::notifyAndRestartAdminLibrary(const char* caller, std::string_view name) {
  QMAdminLock lock(caller);
  std::optional<PropertyList> reply = doVelmdManagementRpcWithCommand(commandNamed(name));
  if (!reply) {
    NError("%s: unable to send '%@' message to velmd", caller, name);
    return false;
  }
  if (const PropertyList* error = reply->get("error")) {
    NError("%s: %@ failed: %@", caller, name, *error);
    return false;
  }
  NLog("%s: Tearing down admin API", caller);
  QMAdmin_Teardown();
  // Deliberate: "Inintializing" is the line's spelling.
  NLog("%s: Inintializing admin API", caller);
  int status = QMAdmin_Init();
  NLog("%s: Admin API init status %d", caller, status);
  if (status != 0) log_qmfs_error(status, caller);
  return true;
}

bool SANFilesystem::roleChanged() { return notifyAndRestartAdminLibrary(__func__, "roleChanged"); }
bool SANFilesystem::sanConfigChanged() {
  return notifyAndRestartAdminLibrary(__func__, "sanConfigChanged");
}

int SANFilesystem::mountVolumeNamed(std::string_view name, bool writable,
                                    const PropertyList* options) {
  if (!checkEntryName(__func__, "the volume name", name)) return kMountFailed;
  PropertyList command = commandNamed("mount");
  PropertyList volume(name), how(writable ? "rw" : "ro");
  // Deliberate: the key list ends at a missing value, so null options leave MountOptions out.
  PropertyList rest =
      dictionaryWithValuesAndKeys({{&volume, "volume"}, {&how, "how"}, {options, "MountOptions"}});
  for (const auto& [key, value] : *rest.asDict()) command.set(key, value);
  std::optional<PropertyList> reply = doVelmdManagementRpcWithCommand(command);
  if (!reply) {
    NError("%s: unable to send 'mount' message to velmd", __func__);
    return kMountFailed;
  }
  if (const PropertyList* error = reply->get("error")) {
    NError("%s: mount of '%@' failed: %@", __func__, name, *error);
    return kMountFailed;
  }
  return 0;
}

int SANFilesystem::unmountVolumeNamed(std::string_view name, bool forget) {
  if (!checkEntryName(__func__, "the volume name", name)) return kUnmountFailed;
  PropertyList command = commandNamed("unmount");
  command.set("volume", name);
  command.set("forgetVolume", forget);
  std::optional<PropertyList> reply = doVelmdManagementRpcWithCommand(command);
  if (!reply) {
    NError("%s: unable to send 'unmount' message to velmd", __func__);
    return kUnmountFailed;
  }
  if (const PropertyList* error = reply->get("error")) {
    NError("%s: unmount of '%@' failed: %@", __func__, name, *error);
    return kUnmountFailed;
  }
  return 0;
}

int SANFilesystem::doLumexRpcForVolume(std::string_view name, const void* command,
                                       std::uint32_t commandLength, void* reply,
                                       std::uint32_t maxReplyLength, std::uint32_t* replyLength) {
  std::optional<std::string> path = pathForVolume(name);
  if (!path) return ENOENT;
  LumexRpcRecord record{};
  record.commandAddress = reinterpret_cast<std::uintptr_t>(command);
  record.commandLength = commandLength;
  record.replyAddress = reinterpret_cast<std::uintptr_t>(reply);
  record.maxReplyLength = maxReplyLength;
  if (int err = fsDriver().fsctl(*path, kVelmFsctlLumexRPC, &record); err != 0) {
    NError("%s: '%@': VELMFS_FSCTL_LumexRPC failed (%d)", __func__, name, err);
    return err;
  }
  if (replyLength) *replyLength = record.replyLength;
  return 0;
}

}  // namespace velm
