// The mail programs the plugin runs (create_velm_email.py, femail) and the stand-ins that take
// their messages in tests (sendmail, velm-simsmtp): what reaches the sandbox Maildir, and what
// never may.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "adminhost/host_common.h"
#include "platform/files.h"
#include "platform/process.h"
#include "plist/plist.h"
#include "support/run_program.h"
#include "support/sim_mail.h"

extern char** environ;

namespace velm::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kPython = "/usr/bin/python3";

// The message as Python's e-mail parser reads it: headers decoded, the body decoded from its
// transfer encoding, and the defects it found.
struct ParsedMessage {
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  long long defects = -1;

  int count(const std::string& name) const {
    int n = 0;
    for (const auto& [k, v] : headers) n += strcasecmp(k.c_str(), name.c_str()) == 0;
    return n;
  }
  std::string value(const std::string& name) const {
    for (const auto& [k, v] : headers)
      if (strcasecmp(k.c_str(), name.c_str()) == 0) return v;
    return "<absent>";
  }
};

ParsedMessage parseWithPython(const std::string& message) {
  static const char* script = R"(
import email, email.policy, plistlib, sys
m = email.message_from_bytes(sys.stdin.buffer.read(), policy=email.policy.default)
defects = len(m.defects) + sum(len(v.defects) for v in m.values())
body = m.get_content() if m.get_content_maintype() == "text" else ""
out = {"headers": [[k, str(v)] for k, v in m.items()], "body": body, "defects": defects}
sys.stdout.buffer.write(plistlib.dumps(out))
)";
  LaunchResult r = launch_task_with_input(kPython, {"-I", "-c", script}, message);
  ParsedMessage parsed;
  EXPECT_EQ(r.status, 0) << r.error;
  PlistReadResult plist = readXmlPlist(r.output);
  if (!plist) {
    ADD_FAILURE() << "python's answer: " << plist.error << "\n" << r.output;
    return parsed;
  }
  for (const PropertyList& h : *plist.value->get("headers")->asArray())
    parsed.headers.emplace_back(*(*h.asArray())[0].asString(), *(*h.asArray())[1].asString());
  parsed.body = *plist.value->getString("body");
  parsed.defects = plist.value->get("defects")->int64Value().value_or(-1);
  return parsed;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    out.push_back(line);
    start = end + 1;
  }
  return out;
}

std::vector<std::string> headerLines(const std::string& message) {
  std::vector<std::string> out;
  for (const std::string& line : lines(message)) {
    if (line.empty()) break;
    out.push_back(line);
  }
  return out;
}

// The filed message without the two lines the stand-ins put before it.
std::string asReceived(const std::string& filed) {
  std::size_t first = filed.find('\n');
  std::size_t second = first == std::string::npos ? first : filed.find('\n', first + 1);
  return second == std::string::npos ? "" : filed.substr(second + 1);
}

std::string envelopeTo(const std::string& filed) {
  std::vector<std::string> head = headerLines(filed);
  return head.size() > 1 && head[1].rfind("Envelope-to: ", 0) == 0 ? head[1].substr(13)
                                                                   : "<no Envelope-to>";
}

std::string withCrlf(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

// /proc says it is there and no zombie.
bool processLives(pid_t pid) {
  auto stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  if (!stat) return false;
  std::size_t paren = stat->rfind(')');
  return paren != std::string::npos && paren + 2 < stat->size() && (*stat)[paren + 2] != 'Z';
}

class MailToolsTest : public SandboxTest {
 protected:
  void SetUp() override { installSendmail(sandbox_); }

  static ProgramResult result(LaunchResult r) { return {r.status, r.output, r.error}; }
  ProgramResult createEmail(const std::vector<std::string>& args) {
    return result(launch_task(resourcePath("create_velm_email.py"), args));
  }
  // Through the sandbox link, as the plugin finds it.
  ProgramResult sendmail(const std::vector<std::string>& args, const std::string& input,
                         const std::map<std::string, std::string>& env = {}) {
    return result(launch_task_with_input(sandbox_.path(kSandboxSendmail), args, input, env));
  }
  ProgramResult femail(const std::string& input, const std::string& smtpHost,
                       const std::vector<std::string>& args = {"-t"},
                       const std::map<std::string, std::string>& env = {}) {
    std::map<std::string, std::string> all = env;
    all["SMTPHOST"] = smtpHost;
    return result(launch_task_with_input(resourcePath("femail"), args, input, all));
  }
  std::vector<std::string> maildirEntries(const std::string& sub) {
    std::vector<std::string> found;
    std::string prefix = sandbox_.path(std::string(kSandboxMaildir) + "/" + sub);
    for (const std::string& e : sandbox_.listing())
      if (e.rfind(prefix + "/", 0) == 0) found.push_back(e);
    return found;
  }
};

// ---- create_velm_email.py ----

TEST_F(MailToolsTest, CreateEmailWritesOneCompleteMessage) {
  const std::string subject = "Volume \u201cProjects\u201d failed over \u2013 \u00c4rger";
  const std::string body = "The volume moved to controller B.\nNothing was lost.";
  ProgramResult r =
      createEmail({"--message", body, "--admin_email", "admin@example.com", "--subject", subject,
                   "--recipient", "Ops Team <ops@example.com>"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  // Seven bits and LF line ends throughout: sendmail and SMTP take it as it is.
  for (unsigned char c : r.out) ASSERT_LT(c, 0x80) << r.out;
  EXPECT_EQ(r.out.find('\r'), std::string::npos);
  std::vector<std::string> head = headerLines(r.out);
  EXPECT_THAT(head, ::testing::Contains(StartsWith("Subject: Volume =?utf-8?")));

  ParsedMessage m = parseWithPython(r.out);
  EXPECT_EQ(m.defects, 0);
  EXPECT_EQ(m.value("To"), "Ops Team <ops@example.com>");
  EXPECT_EQ(m.value("From"), "admin@example.com");
  EXPECT_EQ(m.value("Subject"), subject);
  EXPECT_EQ(m.value("Auto-Submitted"), "auto-generated");
  EXPECT_EQ(m.value("MIME-Version"), "1.0");
  EXPECT_EQ(m.value("Content-Type"), "text/plain; charset=\"utf-8\"");
  EXPECT_EQ(m.value("Content-Transfer-Encoding"), "quoted-printable");
  EXPECT_THAT(m.value("Message-ID"), ::testing::MatchesRegex("<.+@example\\.com>"));
  for (const char* name : {"To", "From", "Subject", "Date", "Message-ID", "MIME-Version",
                           "Content-Type", "Content-Transfer-Encoding", "Auto-Submitted"})
    EXPECT_EQ(m.count(name), 1) << name;
  EXPECT_EQ(m.headers.size(), 9u);
  EXPECT_EQ(m.body, body + "\n");

  // Without --admin_email there is no From; without --subject and --message, empty ones.
  r = createEmail({"--recipient", "ops@example.com"});
  ASSERT_EQ(r.status, 0) << r.err;
  m = parseWithPython(r.out);
  EXPECT_EQ(m.defects, 0);
  EXPECT_EQ(m.count("From"), 0);
  EXPECT_EQ(m.value("To"), "ops@example.com");
  EXPECT_EQ(m.value("Subject"), "");
  EXPECT_EQ(m.count("Date"), 1);
  EXPECT_THAT(m.body, ::testing::MatchesRegex("\n?"));

  // The argument after an option is its value, whatever it looks like.
  for (std::string text : {"-x", "--", "--message", "-- y"}) {
    r = createEmail({"--subject", text, "--message", text, "--recipient", "ops@example.com"});
    ASSERT_EQ(r.status, 0) << text << ": " << r.err;
    m = parseWithPython(r.out);
    EXPECT_EQ(m.value("Subject"), text);
    EXPECT_EQ(m.body, text + "\n");
  }
  r = createEmail({"--recipient=ops@example.com", "--subject=-x", "--message=--y=z"});
  ASSERT_EQ(r.status, 0) << r.err;
  m = parseWithPython(r.out);
  EXPECT_EQ(m.value("Subject"), "-x");
  EXPECT_EQ(m.body, "--y=z\n");

  r = createEmail({"--recipient", "ops@example.com", "--cc", "x@example.com"});
  EXPECT_EQ(r.status, 64);
  EXPECT_EQ(r.out, "");
}

TEST_F(MailToolsTest, CreateEmailKeepsTheSubjectOnOneLine) {
  const std::string longWords(40, 'w');
  struct Case {
    std::string given, expected;
  } cases[] = {
      {"disk\r\nfull", "disk full"},
      {"disk\nfull", "disk full"},
      {"disk\rfull", "disk full"},
      {"disk\vfull\ffor \u00e9t\u00e9\u2028now", "disk full for \u00e9t\u00e9 now"},
      {"two\n\nbreaks", "two  breaks"},
      {longWords + " " + longWords + "\r\n" + longWords + " " + longWords,
       longWords + " " + longWords + " " + longWords + " " + longWords},
  };
  for (const Case& c : cases) {
    ProgramResult r = createEmail({"--recipient", "ops@example.com", "--subject", c.given});
    ASSERT_EQ(r.status, 0) << r.err;
    // Each header line starts a field or continues one: no break let text out of the subject.
    for (const std::string& line : headerLines(r.out))
      EXPECT_THAT(line, ::testing::MatchesRegex("([A-Za-z-]+: .*|[ \t].*|Subject:)")) << c.given;
    ParsedMessage m = parseWithPython(r.out);
    EXPECT_EQ(m.defects, 0) << c.given;
    EXPECT_EQ(m.value("Subject"), c.expected);
  }
}

TEST_F(MailToolsTest, CreateEmailKeepsLoneDotsFromEndingSendmailInput) {
  // Lone dots in the text, and one that the encoder's line wrapping would leave alone.
  const std::string body = "first\n.\nmiddle\n..\n" + std::string(75, 'x') + ".\n.";
  ProgramResult r = createEmail({"--recipient", "ops@example.com", "--message", body});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const std::string& line : lines(r.out)) EXPECT_NE(line, ".");
  EXPECT_THAT(r.out, HasSubstr("\n=2E\n"));

  // sendmail without -i would have cut the message at the first one.
  ProgramResult s = sendmail({"-t"}, r.out);
  ASSERT_EQ(s.status, 0) << s.err;
  std::vector<std::string> filed = maildirMessages(sandbox_);
  ASSERT_EQ(filed.size(), 1u);
  EXPECT_EQ(asReceived(filed[0]), r.out);
  EXPECT_EQ(parseWithPython(filed[0]).body, body + "\n");
}

TEST_F(MailToolsTest, CreateEmailRefusesAnythingButOneMailbox) {
  const std::vector<std::string> notOne = {
      "a@example.com, b@example.com",
      "a@example.com,",
      "team: a@example.com, b@example.com;",
      "a@example.com\nCc: evil@example.com",
      "a@example.com\r\nBcc: evil@example.com",
      "a@example.com\tb@example.com",
      "nobody",
      "a@",
      "@example.com",
      "<a@example.com> trailing",
      "",
      "   ",
  };
  for (const std::string& address : notOne) {
    ProgramResult r = createEmail({"--recipient", address, "--subject", "s"});
    EXPECT_EQ(r.status, 65) << address;
    EXPECT_EQ(r.out, "") << address;
    EXPECT_THAT(r.err, HasSubstr("--recipient")) << address;
    r = createEmail({"--recipient", "ops@example.com", "--admin_email", address});
    EXPECT_EQ(r.status, 65) << address;
    EXPECT_EQ(r.out, "") << address;
    EXPECT_THAT(r.err, HasSubstr("--admin_email")) << address;
  }
  ProgramResult r = createEmail({"--subject", "no recipient", "--message", "m"});
  EXPECT_EQ(r.status, 65);
  EXPECT_EQ(r.out, "");
  EXPECT_THAT(r.err, HasSubstr("--recipient"));

  // A display name may hold a comma or more than ASCII: still one mailbox.
  for (const std::string& address : {std::string("\"Doe, Jane\" <jane@example.com>"),
                                     std::string("J\u00f6rg <jm@example.com>")}) {
    r = createEmail({"--recipient", address});
    ASSERT_EQ(r.status, 0) << address << ": " << r.err;
    EXPECT_EQ(parseWithPython(r.out).value("To"), address);
  }
}

// ---- the sendmail stand-in ----

TEST_F(MailToolsTest, SendmailTakesRecipientsFromTheHeaders) {
  const std::string head =
      "From: Velm <velm@example.com>\n"
      "To: \"Doe, Jane\" <jane@example.com>,\n"
      " Ops Team <ops@example.com>\n"
      "Cc: cc@example.com\n";
  const std::string bcc =
      "Bcc: hidden@example.com,\n"
      "\tsecond@example.com\n";
  const std::string rest = "Subject: status\n\nbody line\n";
  ProgramResult r = sendmail({"-t", "-oi", "-f", "velm@example.com", "-FVelm"}, head + bcc + rest);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  std::vector<std::string> filed = maildirMessages(sandbox_);
  ASSERT_EQ(filed.size(), 1u);
  EXPECT_THAT(filed[0], StartsWith("Received: by localhost (sendmail stand-in) "
                                   "(envelope-from <velm@example.com>); "));
  EXPECT_EQ(envelopeTo(filed[0]),
            "jane@example.com, ops@example.com, cc@example.com, hidden@example.com, "
            "second@example.com");
  EXPECT_EQ(asReceived(filed[0]), head + rest);
  EXPECT_EQ(maildirEntries("tmp"), std::vector<std::string>{});
  EXPECT_EQ(sandbox_.read("/sim/tools/sendmail.calls"), "-t -oi -f velm@example.com -FVelm\n");

  // Line ends stay as they came.
  r = sendmail({"-t"}, withCrlf("To: ops@example.com\nSubject: crlf\n\nbody\n"));
  ASSERT_EQ(r.status, 0) << r.err;
  filed = maildirMessages(sandbox_);
  ASSERT_EQ(filed.size(), 2u);
  std::string crlf = filed[0].find("crlf") != std::string::npos ? filed[0] : filed[1];
  EXPECT_EQ(asReceived(crlf), withCrlf("To: ops@example.com\nSubject: crlf\n\nbody\n"));
  EXPECT_THAT(crlf, StartsWith("Received: by localhost (sendmail stand-in); "));
  EXPECT_EQ(lines(crlf)[1], "Envelope-to: ops@example.com");
}

TEST_F(MailToolsTest, SendmailEndsInputAtALoneDotUnlessToldNotTo) {
  const std::string message = "To: ops@example.com\n\nbefore\n.\nafter\n";
  ProgramResult r = sendmail({"-t"}, message);
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<std::string> filed = maildirMessages(sandbox_);
  ASSERT_EQ(filed.size(), 1u);
  EXPECT_EQ(asReceived(filed[0]), "To: ops@example.com\n\nbefore\n");

  for (const char* option : {"-i", "-oi"}) {
    std::filesystem::remove_all(sandbox_.path(kSandboxMaildir));
    r = sendmail({option, "-t"}, message);
    ASSERT_EQ(r.status, 0) << r.err;
    filed = maildirMessages(sandbox_);
    ASSERT_EQ(filed.size(), 1u);
    EXPECT_EQ(asReceived(filed[0]), message) << option;
  }
}

TEST_F(MailToolsTest, SendmailRefusesWhatItCannotDeliver) {
  ProgramResult r = sendmail({"-t"}, "Subject: nobody\n\nbody\n");
  EXPECT_EQ(r.status, 65);
  EXPECT_THAT(r.err, HasSubstr("no recipients"));
  r = sendmail({"-t"}, "To: \"unclosed <a@example.com>\nSubject: s\n\nbody\n");
  EXPECT_EQ(r.status, 65);
  EXPECT_THAT(r.err, HasSubstr("To"));
  r = sendmail({"-t", "-q"}, "To: ops@example.com\n\nbody\n");
  EXPECT_EQ(r.status, 64);
  EXPECT_THAT(r.err, HasSubstr("-q"));
  r = sendmail({"-t"}, "To: ops@example.com\n\nbody\n", {{"VELM_ROOT", ""}});
  EXPECT_EQ(r.status, 78);
  EXPECT_THAT(r.err, HasSubstr("VELM_ROOT"));
  sandbox_.write("/sim/mail.plist", "<plist><dict>");
  r = sendmail({"-t"}, "To: ops@example.com\n\nbody\n");
  EXPECT_EQ(r.status, 78);
  EXPECT_THAT(r.err, HasSubstr("mail.plist"));
  EXPECT_EQ(maildirMessages(sandbox_), std::vector<std::string>{});
}

TEST_F(MailToolsTest, SendmailFailAndWarnModes) {
  const std::string message = "To: ops@example.com\nSubject: s\n\nbody\n";
  writeMailMode(sandbox_, "fail");
  ProgramResult r = sendmail({"-t"}, message);
  EXPECT_EQ(r.status, 75);
  EXPECT_THAT(r.err, HasSubstr("sendmail: "));
  PropertyList settings = PropertyList::dict();
  settings.set("status", 69);
  writeMailMode(sandbox_, "fail", settings);
  r = sendmail({"-t"}, message);
  EXPECT_EQ(r.status, 69);
  EXPECT_EQ(maildirMessages(sandbox_), std::vector<std::string>{});

  writeMailMode(sandbox_, "warn");
  r = sendmail({"-t"}, message);
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.err, HasSubstr("warning"));
  std::vector<std::string> filed = maildirMessages(sandbox_);
  ASSERT_EQ(filed.size(), 1u);
  EXPECT_EQ(asReceived(filed[0]), message);

  writeMailMode(sandbox_, "normal");
  r = sendmail({"-t"}, message);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(maildirMessages(sandbox_).size(), 2u);
}

TEST_F(MailToolsTest, SendmailHangEndsOnlyWithItsProcessGroup) {
  // Run as the plugin runs mail programs: a group of their own and a deadline.
  writeMailMode(sandbox_, "hang");
  auto start = std::chrono::steady_clock::now();
  ProcessResult r = runProcess(sandbox_.path(kSandboxSendmail), {"-t"},
                               "To: ops@example.com\n\nbody\n", {}, ProcessLimits{1'000'000});
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(r.timedOut);
  EXPECT_EQ(r.status, 128 + SIGKILL) << "it ignores SIGTERM";
  EXPECT_LT(took, std::chrono::seconds(1 + 2 + 2));
  std::size_t at = r.error.find("child ");
  ASSERT_NE(at, std::string::npos) << r.error;
  pid_t grandchild = std::stoi(r.error.substr(at + 6));
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (processLives(grandchild) && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(processLives(grandchild)) << "the group went with it";
  EXPECT_EQ(maildirMessages(sandbox_), std::vector<std::string>{});
}

// ---- femail and velm-simsmtp ----

TEST_F(MailToolsTest, FemailDeliversThroughSmtpIntoTheMaildir) {
  SimProcess smtp;
  int port = startSimSmtp(smtp, sandbox_);
  ASSERT_NE(port, 0) << smtp.stderrText();
  const std::string host = "127.0.0.1:" + std::to_string(port);

  const std::string subject = "R\u00e9sum\u00e9 of \u201cProjects\u201d";
  const std::string body = "All well.\n.\nStill well.";
  ProgramResult created = createEmail({"--recipient", "Ops <ops@example.com>", "--subject", subject,
                                       "--message", body, "--admin_email", "velm@example.com"});
  ASSERT_EQ(created.status, 0) << created.err;
  ProgramResult sent = femail(created.out, host);
  ASSERT_EQ(sent.status, 0) << sent.err;
  EXPECT_EQ(sent.err, "");
  std::vector<std::string> filed = maildirMessages(sandbox_);
  ASSERT_EQ(filed.size(), 1u);
  EXPECT_THAT(filed[0], ::testing::MatchesRegex("Received: from [^\r\n]* \\(127\\.0\\.0\\.1\\) by "
                                                "velm-simsmtp with ESMTP; [^\r\n]*\r\n(.|\r|\n)*"));
  EXPECT_EQ(envelopeTo(filed[0]), "ops@example.com");
  EXPECT_EQ(asReceived(filed[0]), withCrlf(created.out));
  ParsedMessage m = parseWithPython(filed[0]);
  EXPECT_EQ(m.value("Subject"), subject);
  EXPECT_EQ(m.body, body + "\n");
  EXPECT_TRUE(smtp.waitForText("message from <velm@example.com> to ops@example.com: filed as "))
      << smtp.stderrText();

  // Every To, Cc and Bcc address gets it; nobody sees the Bcc.
  const std::string head =
      "From: \"Velm, admin\" <admin@example.com>\n"
      "To: \"Doe, Jane\" <jane@example.com>,\n"
      "\tops@example.com\n"
      "Cc: cc@example.com\n";
  const std::string rest = "Subject: plain\n\n.starts with a dot\nbody\n";
  sent = femail(head + "Bcc: hidden@example.com\n" + rest, host);
  ASSERT_EQ(sent.status, 0) << sent.err;
  filed = maildirMessages(sandbox_);
  ASSERT_EQ(filed.size(), 2u);
  std::string second = filed[0].find("Subject: plain") != std::string::npos ? filed[0] : filed[1];
  EXPECT_EQ(envelopeTo(second),
            "jane@example.com, ops@example.com, cc@example.com, hidden@example.com");
  EXPECT_EQ(asReceived(second), withCrlf(head + rest));
  EXPECT_TRUE(smtp.waitForText("message from <admin@example.com> to jane@example.com, "))
      << smtp.stderrText();
  EXPECT_EQ(maildirEntries("tmp"), std::vector<std::string>{});
  EXPECT_EQ(smtp.stop(), 0) << smtp.stderrText();
}

TEST_F(MailToolsTest, FemailReportsRefusalsAndUsageErrors) {
  SimProcess smtp;
  int port = startSimSmtp(smtp, sandbox_);
  ASSERT_NE(port, 0) << smtp.stderrText();
  const std::string host = "127.0.0.1:" + std::to_string(port);
  const std::string message = "From: velm@example.com\nTo: ops@example.com\n\nbody\n";

  PropertyList settings = PropertyList::dict();
  settings.set("smtpCode", 550);
  writeMailMode(sandbox_, "fail", settings);
  ProgramResult r = femail(message, host);
  EXPECT_EQ(r.status, 69);
  EXPECT_THAT(r.err, HasSubstr(host + ": 550 "));
  EXPECT_THAT(r.err, HasSubstr("refused as sim/mail.plist says"));
  writeMailMode(sandbox_, "fail");
  r = femail(message, host);
  EXPECT_EQ(r.status, 75);
  EXPECT_THAT(r.err, HasSubstr(host + ": 451 "));
  writeMailMode(sandbox_, "warn");
  r = femail(message, "localhost:" + std::to_string(port));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(maildirMessages(sandbox_).size(), 1u);

  EXPECT_EQ(smtp.stop(), 0);
  r = femail(message, host);
  EXPECT_EQ(r.status, 75);
  EXPECT_THAT(r.err, HasSubstr(host + ": "));

  EXPECT_EQ(femail(message, host, {}).status, 64);
  EXPECT_EQ(femail(message, host, {"-t", "-x"}).status, 64);
  for (const char* bad : {"", "[::1", "[::1]x", "host:", "host:port", "a:b:c", "host:70000"}) {
    r = femail(message, bad);
    EXPECT_EQ(r.status, 64) << bad;
    EXPECT_THAT(r.err, HasSubstr("SMTPHOST")) << bad;
  }
  r = femail("Subject: nobody\n\nbody\n", host);
  EXPECT_EQ(r.status, 65);
  EXPECT_THAT(r.err, HasSubstr("no recipients"));
  for (const char* to : {"ops@example.com,,", "\"unclosed <ops@example.com>"}) {
    r = femail("To: " + std::string(to) + "\n\nbody\n", host);
    EXPECT_EQ(r.status, 65) << to;
    EXPECT_THAT(r.err, HasSubstr("To")) << to;
  }
  EXPECT_EQ(maildirMessages(sandbox_).size(), 1u);
}

TEST_F(MailToolsTest, FemailReachesAnIPv6Server) {
  SimProcess smtp;
  if (!smtp.start("velm-simsmtp", {"--root", sandbox_.root(), "--listen", "[::1]:0"},
                  "listening on [::1]:"))
    GTEST_SKIP() << "no IPv6 loopback: " << smtp.stderrText();
  std::string text = smtp.stderrText();
  std::string port = text.substr(text.find("[::1]:") + 6);
  port = port.substr(0, port.find('\n'));
  ProgramResult r = femail("To: ops@example.com\n\nbody\n", "[::1]:" + port);
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<std::string> filed = maildirMessages(sandbox_);
  ASSERT_EQ(filed.size(), 1u);
  EXPECT_THAT(filed[0], HasSubstr("(::1) by velm-simsmtp"));
}

TEST_F(MailToolsTest, FemailUsesStarttlsWhenOffered) {
  if (::access("/usr/bin/openssl", X_OK) != 0) GTEST_SKIP() << "no openssl to make a certificate";
  std::string cert = sandbox_.path("/tls/cert.pem"), key = sandbox_.path("/tls/key.pem");
  ASSERT_EQ(makeDirectories(sandbox_.path("/tls")), 0);
  LaunchResult made =
      launch_task("/usr/bin/openssl",
                  {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                   "-nodes", "-keyout", key, "-out", cert, "-days", "2", "-subj", "/CN=127.0.0.1",
                   "-addext", "subjectAltName=IP:127.0.0.1"});
  ASSERT_EQ(made.status, 0) << made.error;
  SimProcess smtp;
  int port = startSimSmtp(smtp, sandbox_, {"--tls-cert", cert, "--tls-key", key});
  ASSERT_NE(port, 0) << smtp.stderrText();
  const std::string host = "127.0.0.1:" + std::to_string(port);
  const std::string message = "To: ops@example.com\n\nbody\n";

  // The certificate is verified: unknown to the system's CAs, it stops the delivery.
  ProgramResult r = femail(message, host);
  EXPECT_EQ(r.status, 75);
  EXPECT_THAT(r.err, HasSubstr("certificate"));
  EXPECT_EQ(maildirMessages(sandbox_), std::vector<std::string>{});

  r = femail(message, host, {"-t"}, {{"VELM_CA_CERT", cert}});
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<std::string> filed = maildirMessages(sandbox_);
  ASSERT_EQ(filed.size(), 1u);
  EXPECT_THAT(filed[0], HasSubstr(" by velm-simsmtp with ESMTPS; "));
}

TEST_F(MailToolsTest, SimSmtpHangStallsTheReplyToData) {
  SimProcess smtp;
  int port = startSimSmtp(smtp, sandbox_);
  ASSERT_NE(port, 0) << smtp.stderrText();
  writeMailMode(sandbox_, "hang");
  ProcessResult client = runProcess(resourcePath("femail"), {"-t"},
                                    "To: ops@example.com\n\nbody\n",
                                    {{"SMTPHOST", "127.0.0.1:" + std::to_string(port)}},
                                    ProcessLimits{1'000'000});
  EXPECT_TRUE(client.timedOut) << client.error;
  EXPECT_TRUE(smtp.waitForText("stalling")) << smtp.stderrText();
  EXPECT_EQ(maildirMessages(sandbox_), std::vector<std::string>{});
  // A stalled message doesn't keep the server from stopping.
  auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(smtp.stop(), 0) << smtp.stderrText();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(9));
}

// ---- the whole path, with input that tries to add recipients ----

TEST_F(MailToolsTest, InjectedHeadersNeverAddARecipient) {
  SimProcess smtp;
  int port = startSimSmtp(smtp, sandbox_);
  ASSERT_NE(port, 0) << smtp.stderrText();
  const std::string host = "127.0.0.1:" + std::to_string(port);

  // Into the subject: it stays text of the subject.
  for (const std::string& subject : {std::string("Hello\r\nBcc: evil@example.com"),
                                     std::string("Hello\nCc: evil@example.com\n\nbody")}) {
    std::filesystem::remove_all(sandbox_.path(kSandboxMaildir));
    ProgramResult created = createEmail({"--recipient", "ops@example.com", "--subject", subject});
    ASSERT_EQ(created.status, 0) << created.err;
    ProgramResult r = sendmail({"-t"}, created.out);
    ASSERT_EQ(r.status, 0) << r.err;
    r = femail(created.out, host);
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> filed = maildirMessages(sandbox_);
    ASSERT_EQ(filed.size(), 2u);
    for (const std::string& f : filed) {
      EXPECT_EQ(envelopeTo(f), "ops@example.com");
      EXPECT_THAT(f, Not(HasSubstr("\nBcc:")));
      EXPECT_THAT(f, Not(HasSubstr("\nCc:")));
    }
  }

  // Into an address: nothing is written, so even a caller that ignores the status sends nothing.
  for (const std::string& address : {std::string("ops@example.com\nCc: evil@example.com"),
                                     std::string("ops@example.com\r\nBcc: evil@example.com"),
                                     std::string("ops@example.com, evil@example.com"),
                                     std::string("\"Ops\" <ops@example.com>, evil@example.com")}) {
    std::filesystem::remove_all(sandbox_.path(kSandboxMaildir));
    for (const char* option : {"--recipient", "--admin_email"}) {
      std::vector<std::string> args = {"--recipient", "ops@example.com", "--subject", "s"};
      if (std::string(option) == "--admin_email")
        args.insert(args.end(), {option, address});
      else
        args[1] = address;
      ProgramResult created = createEmail(args);
      EXPECT_EQ(created.status, 65) << address;
      EXPECT_EQ(created.out, "");
      EXPECT_NE(sendmail({"-t"}, created.out).status, 0);
      EXPECT_NE(femail(created.out, host).status, 0);
    }
    EXPECT_EQ(maildirMessages(sandbox_), std::vector<std::string>{}) << address;
  }
}

}  // namespace
}  // namespace velm::test
