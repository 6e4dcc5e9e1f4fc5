// The exchange with velmd, the local mount daemon: one UNIX-socket connection per request, an XML
// property-list dictionary each way, the reply's end known only by its content.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/plist.h"

namespace velm {

// $VELM_ROOT/var/run/com.orvane.velmd.socket
std::string velmdSocketPath();

// True once the buffer (at least 8 bytes) ends in "</plist>", allowing after it one newline, one
// NUL, or a newline and then a NUL. Two newlines don't count: such a reply waits for the peer's
// EOF.
bool velmdReplyIsComplete(std::string_view buffer);

// Reads a reply from a non-blocking socket until it is complete: the bytes, or nothing when the
// peer closes first or a read fails (logged as fn's).
std::optional<std::string> receiveVelmdReply(int fd, const char* fn);

// The reply decoded as UTF-8 and read as an XML property-list dictionary; nothing when it is not
// UTF-8 or not such a dictionary. Trailing NULs are ignored.
std::optional<PropertyList> parseVelmdReply(std::string_view buffer);

}  // namespace velm
