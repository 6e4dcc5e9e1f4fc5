#include "support/sim_mail.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/files.h"
#include "support/run_program.h"

namespace velm::test {

void installSendmail(const SandboxRoot& sandbox) {
  std::string link = sandbox.path(kSandboxSendmail);
  std::string dir = std::filesystem::path(link).parent_path();
  if (int err = makeDirectories(dir); err != 0) {
    ADD_FAILURE() << "cannot make " << dir << ": " << std::strerror(err);
    return;
  }
  ::unlink(link.c_str());
  if (::symlink(binaryPath("sendmail").c_str(), link.c_str()) != 0)
    ADD_FAILURE() << "cannot link " << link << ": " << std::strerror(errno);
}

int startSimSmtp(SimProcess& smtp, const SandboxRoot& sandbox,
                 const std::vector<std::string>& extraArgs) {
  std::vector<std::string> args = {"--root", sandbox.root(), "--listen", "127.0.0.1:0"};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  const std::string ready = "listening on 127.0.0.1:";
  if (!smtp.start("velm-simsmtp", args, ready)) return 0;
  std::string text = smtp.stderrText();
  std::size_t at = text.find(ready) + ready.size();
  int port = 0;
  while (at < text.size() && text[at] >= '0' && text[at] <= '9')
    port = port * 10 + (text[at++] - '0');
  return port;
}

std::vector<std::string> maildirMessages(const SandboxRoot& sandbox) {
  std::vector<std::string> names;
  std::error_code ec;
  std::string dir = sandbox.path(std::string(kSandboxMaildir) + "/new");
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  std::vector<std::string> messages;
  for (const std::string& name : names) messages.push_back(readFile(dir + "/" + name).value_or(""));
  return messages;
}

void writeMailMode(const SandboxRoot& sandbox, const std::string& mode,
                   const PropertyList& settings) {
  PropertyList dict = settings;
  dict.set("mode", mode);
  sandbox.write("/sim/mail.plist", writeXmlPlist(dict));
}

PropertyList notificationSettings(const std::vector<std::string>& emails, int threshold,
                                  bool quota, bool fibre, bool failover, const std::string& relay,
                                  const std::string& sender) {
  PropertyList server = PropertyList::dict();
  server.set("ServerAddress", relay);
  server.set("EmailAddress", sender);
  PropertyList conditions = PropertyList::dict();
  conditions.set("FreeSpaceThreshold", threshold);
  conditions.set("ExceededSoftQuota", quota);
  conditions.set("FibreFailure", fibre);
  conditions.set("ControllerFailover", failover);
  PropertyList addresses = PropertyList::array();
  for (const std::string& e : emails) {
    PropertyList address = PropertyList::dict();
    address.set("email", e);
    addresses.push(std::move(address));
  }
  PropertyList d = PropertyList::dict();
  d.set("ServerSettings", std::move(server));
  d.set("Addresses", std::move(addresses));
  d.set("Conditions", std::move(conditions));
  return d;
}

}  // namespace velm::test
