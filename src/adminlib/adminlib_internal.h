// Helpers shared by the admin library's units; not part of its interface.
#pragma once

#include <cstddef>
#include <string>

namespace adminlib {

// A hostile peer could keep a list walk going for ever; real tables are far smaller than this.
inline constexpr int kWalkLimit = 65536;

// Formats into a caller's text buffer of ADMIN_ERRBUF_LEN bytes, truncating; a null buffer is
// ignored.
void setError(char* err, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// One line to the system log at a syslog level (VELM_LOG redirects it, as for the plugin's log).
void syslogLine(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// One line through the WriteLog hook, when one is set.
void writeLogLine(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// <GetDrfsRoot()>/<relative>
std::string drfsPath(const char* relative);

// Copies at most size - 1 bytes of src and always terminates (size > 0).
void copyText(char* dst, std::size_t size, const char* src);

}  // namespace adminlib
