// velmadmin: runs one plugin command in this process (--local) or through adminhostd (--server).
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "adminhost/host_log.h"
#include "adminhost/context_store.h"
#include "adminhost/plugin_request_handler.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/unique_fd.h"
#include "plist/plist.h"
#include "tools/velmadmin_output.h"
#include "tools/velmadmin_config.h"
#include "tools/velmadmin_remote.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitNoResponse = 2;

const char kUsage[] =
    "usage: velmadmin [--local | --server URL] [--token-file FILE] [--format xml|json|text]\n"
    "                 COMMAND [KEY=VALUE ...]\n"
    "       velmadmin [--local | --server URL] [--format ...] --request FILE   (FILE: plist dict, - for stdin)\n"
    "       velmadmin config parse PATH.cfg\n"
    "       velmadmin config write --from DICT.plist\n"
    "\n"
    "KEY=VALUE: true/false give booleans, an optional '-' and digits an integer, anything else a\n"
    "string. --local (the default) runs the command in this process with the plugin context kept in\n"
    "$VELM_ROOT/var/adminhostd/context/velm.plist; --server sends it to adminhostd (token from\n"
    "--token-file, default $VELM_ROOT/var/adminhostd/admin.token; for https, VELM_CA_CERT names a\n"
    "certificate or CA file to trust).\n"
    "Exit status: 0 answered, 1 usage or transport error, 2 no response (malformed command).\n";

int usageError(const std::string& message) {
  std::cerr << "velmadmin: " << message << "\n" << kUsage;
  return kExitUsage;
}

velm::PropertyList valueFromText(const std::string& text) {
  if (text == "true") return true;
  if (text == "false") return false;
  size_t i = (!text.empty() && text[0] == '-') ? 1 : 0;
  bool digits = i < text.size();
  for (size_t j = i; j < text.size() && digits; ++j) digits = text[j] >= '0' && text[j] <= '9';
  if (digits) {
    errno = 0;
    long long v = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == 0) return v;
    if (i == 0) {
      errno = 0;
      unsigned long long u = std::strtoull(text.c_str(), nullptr, 10);
      if (errno == 0) return u;
    }
  }
  return text;
}

std::optional<velm::PropertyList> readRequestFile(const std::string& file, std::string* error) {
  std::string text;
  if (file == "-") {
    text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  } else {
    std::optional<std::string> content = velm::readFile(file);
    if (!content) {
      *error = "cannot read " + file;
      return std::nullopt;
    }
    text = std::move(*content);
  }
  velm::PlistReadOptions options;
  options.requireDictionary = true;
  velm::PlistReadResult r = velm::readXmlPlist(text, options);
  if (!r) {
    *error = "bad request plist: " + r.error;
    return std::nullopt;
  }
  return std::move(*r.value);
}

std::optional<velm::PropertyList> runLocal(const velm::PropertyList& request) {
  std::unique_ptr<velm::PluginRequestHandler> plugin(adminhost_plugin_create());
  velm::PropertyList context = velm::loadPluginContext("velm");
  std::int32_t lockFD = -1;
  std::optional<velm::PropertyList> response = plugin->doProcessInputWithRequest(request, &context, &lockFD);
  if (velm::takeContextDirty(&context)) {
    if (int err = velm::savePluginContext("velm", context); err != 0)
      std::cerr << "velmadmin: could not save the plugin context: " << std::strerror(err) << "\n";
  }
  return response;
}

}  // namespace

int main(int argc, char** argv) {
  velm::setHostLogName("velmadmin");
  std::vector<std::string> args(argv + 1, argv + argc);
  if (!args.empty() && args[0] == "config") return velmadminConfigMain(argc - 1, argv + 1);

  std::string server, tokenFile, requestFile, formatName = "xml";
  bool haveRequestFile = false;
  size_t i = 0;
  for (; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= args.size()) return false;
      *out = args[++i];
      return true;
    };
    if (a == "--local") {
      server.clear();
    } else if (a == "--server") {
      if (!value(&server) || server.empty()) return usageError("--server needs a URL");
    } else if (a == "--token-file") {
      if (!value(&tokenFile)) return usageError("--token-file needs a file");
    } else if (a == "--format") {
      if (!value(&formatName)) return usageError("--format needs xml, json or text");
    } else if (a == "--request") {
      if (!value(&requestFile)) return usageError("--request needs a file");
      haveRequestFile = true;
    } else if (a == "-h" || a == "--help") {
      std::cout << kUsage;
      return kExitOk;
    } else if (a.rfind("--", 0) == 0) {
      return usageError("unknown option " + a);
    } else {
      break;
    }
  }
  std::optional<velm::OutputFormat> format = velm::outputFormatNamed(formatName);
  if (!format) return usageError("unknown format " + formatName);

  velm::PropertyList request = velm::PropertyList::dict();
  if (haveRequestFile) {
    if (i < args.size()) return usageError("--request takes no command or KEY=VALUE arguments");
    std::string error;
    std::optional<velm::PropertyList> r = readRequestFile(requestFile, &error);
    if (!r) return usageError(error);
    request = std::move(*r);
  } else {
    if (i >= args.size()) return usageError("no command given");
    request.set("command", args[i++]);
    for (; i < args.size(); ++i) {
      size_t eq = args[i].find('=');
      if (eq == std::string::npos || eq == 0) return usageError("expected KEY=VALUE, got " + args[i]);
      request.set(args[i].substr(0, eq), valueFromText(args[i].substr(eq + 1)));
    }
  }

  std::optional<velm::PropertyList> response;
  if (server.empty()) {
    // A daemon on this root keeps the plugin's context in memory and would write over what a
    // local run saves; while we run, it can't start.
    velm::UniqueFd daemonLock(
        ::open(velm::hostPath("/var/adminhostd/adminhostd.lock").c_str(), O_RDWR | O_CLOEXEC));
    if (daemonLock && ::flock(daemonLock.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      std::cerr << "velmadmin: adminhostd serves this root; send the command with --server\n";
      return kExitUsage;
    }
    response = runLocal(request);
  } else {
    if (tokenFile.empty()) tokenFile = velm::hostPath("/var/adminhostd/admin.token");
    velm::RemoteResult r = velm::sendRemoteRequest(server, tokenFile, request);
    if (r.httpStatus == 400) return kExitNoResponse;
    if (r.httpStatus != 200 || !r.response) {
      std::cerr << "velmadmin: " << (r.error.empty() ? "request failed" : r.error);
      if (r.httpStatus) std::cerr << " (HTTP " << r.httpStatus << ")";
      std::cerr << "\n";
      return kExitUsage;
    }
    response = std::move(r.response);
  }
  if (!response) return kExitNoResponse;
  std::string out = velm::renderResponse(*response, *format);
  std::fwrite(out.data(), 1, out.size(), stdout);
  return kExitOk;
}
