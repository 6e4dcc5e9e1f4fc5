// Whole-buffer socket reads and writes for stream sockets: retry short transfers and EINTR,
// never raise SIGPIPE.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace velm {

// Sends all len bytes; false when the peer is gone or the send fails.
bool sendAll(int fd, const void* buf, std::size_t len);

// Reads until len bytes or the peer's end; the count read, or -1 on an error.
ssize_t recvAll(int fd, void* buf, std::size_t len);

}  // namespace velm
