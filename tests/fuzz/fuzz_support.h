// What the admin library's fuzz targets share: a throw-away DRFS root, and a socketpair whose
// peer has written every fuzz byte and stopped, so readers see the end instead of waiting.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/files.h"
#include "platform/paths.h"
#include "platform/socket_io.h"

namespace velm::fuzz {

// Makes a DRFS root with a config directory, removed at exit; logs go nowhere.
inline const std::string& drfsRoot() {
  static const std::string root = [] {
    char tmpl[] = "/tmp/velmfuzzXXXXXX";
    if (!::mkdtemp(tmpl)) std::abort();
    static std::string made = tmpl;
    std::atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(made, ec);
    });
    ::setenv("DRFSROOT", made.c_str(), 1);
    ::setenv("VELM_LOG", "/dev/null", 1);
    velm::resetPathsForTest();
    velm::makeDirectories(made + "/config");
    return made;
  }();
  return root;
}

struct Peer {
  int client = -1, peer = -1;
  Peer() {
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) std::abort();
    client = sv[0];
    peer = sv[1];
    // Room for everything both sides write, so neither write blocks.
    int size = 1 << 20;
    for (int fd : {client, peer}) {
      ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
      ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
  }
  ~Peer() {
    ::close(client);
    ::close(peer);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  void feed(const std::uint8_t* data, std::size_t size) {
    velm::sendAll(peer, data, size);
    ::shutdown(peer, SHUT_WR);
  }
};

}  // namespace velm::fuzz
