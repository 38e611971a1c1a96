// zrtool mail: joins a workgroup with a mailbox and prints what arrives, pings or messages one
// computer, and lists the members registered in a workgroup.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/cosmail.h"
#include "zrobj/cpcomputerlist.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace zrtool {
namespace {

int RunMail(const Args& args);

const Command kMail = {
    "mail", "talk to the computers of a workgroup through mailboxes",
    "usage: zrtool mail join WORKGROUP [--name N] [--user U] [--address A.B.C.D] [--slot S]\n"
    "       zrtool mail ping COMPUTER [--timeout MS] [--name N] [--address A.B.C.D] [--slot S]\n"
    "       zrtool mail sms COMPUTER TEXT... [--timeout MS] [--name N] [--address A.B.C.D] [--slot S]\n"
    "       zrtool mail who [WORKGROUP]\n\n"
    "join  opens the mailbox S (default \"zrobj\") as computer N (default: this computer's name),\n"
    "      registers it in WORKGROUP, greets the members and prints every line the mailbox reports\n"
    "      until SIGINT or SIGTERM, then says GOODBYE and ends with status 0.\n"
    "ping  greets COMPUTER (found in the workgroup directory) and pings it; prints the round trip.\n"
    "      Status 1 when no PONG comes back within MS milliseconds (default 5000).\n"
    "sms   greets COMPUTER and sends it TEXT as an SMS; status 1 when it does not answer.\n"
    "who   lists the registrations of WORKGROUP (default $ZROBJ_WORKGROUP, else \"WORKGROUP\"):\n"
    "      computer, mailbox, user, address and how long ago the member last refreshed it.\n"
    "The mailbox binds A.B.C.D (default $ZROBJ_MAIL_ADDRESS, else 127.0.0.1); the workgroup\n"
    "directory is $ZROBJ_WORKGROUP_DIR, else \"Workgroups\" in the settings directory.\n",
    RunMail};
ZRTOOL_COMMAND(kMail);

std::atomic<bool> g_stop{false};
extern "C" void OnSignal(int) { g_stop.store(true); }

struct Options {
  std::vector<std::string> words;
  std::string name, user, address, slot = "zrobj";
  unsigned timeout = 5000;
  std::string error;
};

Options Parse(const Args& args) {
  Options o;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool valued = a == "--name" || a == "--user" || a == "--address" || a == "--slot" || a == "--timeout";
    if (!valued) {
      if (a.rfind("--", 0) == 0) o.error = "unknown option " + a;
      o.words.push_back(a);
      continue;
    }
    if (i + 1 >= args.size()) {
      o.error = a + " needs a value";
      break;
    }
    const std::string& v = args[++i];
    if (a == "--name") o.name = v;
    if (a == "--user") o.user = v;
    if (a == "--address") o.address = v;
    if (a == "--slot") o.slot = v;
    if (a == "--timeout") {
      char* end = nullptr;
      const unsigned long ms = std::strtoul(v.c_str(), &end, 10);
      if (v.empty() || *end != 0 || ms == 0 || ms > 600000) o.error = "--timeout needs 1..600000 ms";
      o.timeout = static_cast<unsigned>(ms);
    }
  }
  return o;
}

// Prints every line the library reports and lets the caller wait for one that contains a text.
class Printer : public zr::DiagListener {
 public:
  explicit Printer(bool echo) : echo_(echo) {}
  void OnMessage(unsigned, unsigned, std::u16string_view text) override {
    std::string line = ToNarrow(text);
    while (!line.empty() && (line.front() == '\r' || line.front() == '\n')) line.erase(0, 1);
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
    std::lock_guard hold(lock_);
    if (echo_) {
      std::printf("%s\n", line.c_str());
      std::fflush(stdout);
    }
    seen_.push_back(line);
    changed_.notify_all();
  }
  bool WaitFor(const std::string& part, unsigned ms) {
    std::unique_lock hold(lock_);
    return changed_.wait_for(hold, std::chrono::milliseconds(ms), [&] {
      for (const auto& l : seen_)
        if (l.find(part) != std::string::npos) return true;
      return false;
    });
  }

 private:
  bool echo_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::string> seen_;
};

bool Prepare(COSMailslot& box, const Options& o, const std::string& default_name) {
  const std::string name = o.name.empty() ? default_name : o.name;
  if (!name.empty() && !box.SetIdentity(ToWide(name).c_str(), o.user.empty() ? nullptr : ToWide(o.user).c_str())) {
    std::fprintf(stderr, "zrtool: %s: not a usable computer name (1..15 characters, no separators)\n", name.c_str());
    return false;
  }
  if (!o.address.empty()) {
    unsigned a = 0, b = 0, c = 0, d = 0;
    char tail = 0;
    if (std::sscanf(o.address.c_str(), "%u.%u.%u.%u%c", &a, &b, &c, &d, &tail) != 4 || a > 255 || b > 255 ||
        c > 255 || d > 255) {
      std::fprintf(stderr, "zrtool: %s: not an IPv4 address\n", o.address.c_str());
      return false;
    }
    box.SetLocalAddress(a << 24 | b << 16 | c << 8 | d);
  }
  if (!box.Open(ToWide(o.slot).c_str())) {
    std::fprintf(stderr, "zrtool: cannot open the mailbox \"%s\"\n", o.slot.c_str());
    return false;
  }
  return true;
}

int Join(const Options& o) {
  if (o.words.size() != 1) return UsageError(kMail, "expected: mail join WORKGROUP");
  Printer printer(true);
  zr::ScopedDiagRedirect redirect(&printer);
  COSMailslot box;
  if (!Prepare(box, o, "")) return 1;
  if (!box.AttachWorkgroup(ToWide(o.words[0]).c_str())) return Fail("cannot register in workgroup " + o.words[0]);
  std::printf("joined %s as %s on port %lu\n", o.words[0].c_str(), ToNarrow(box.GetComputerName()).c_str(),
              static_cast<unsigned long>(box.GetLocalPort()));
  std::fflush(stdout);
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  while (!g_stop.load()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  box.Close();
  std::printf("left %s\n", o.words[0].c_str());
  return 0;
}

// Greets COMPUTER, then pings it (after sending an SMS for `sms`), and waits for its PONG.
int Reach(const Options& o, const std::u16string* sms) {
  if (o.words.empty() || (sms == nullptr && o.words.size() != 1)) return UsageError(kMail, "expected a COMPUTER");
  const std::string target = o.words[0];
  Printer printer(false);
  zr::ScopedDiagRedirect redirect(&printer);
  COSMailslot box;
  if (!Prepare(box, o, "ZRTOOL" + std::to_string(std::random_device{}() % 1000000))) return 1;
  const std::u16string wide = ToWide(target);
  if (!box.AttachComputer(wide.c_str())) return Fail(target + ": not registered under mailbox \"" + o.slot + "\"");
  const DWORD id = GetHashIDWi(wide.c_str());
  if (!printer.WaitFor("said HELLO ACKNOWLEDGED", o.timeout)) return Fail(target + ": no answer to HELLO");
  if (sms && !box.SMSComputer(id, sms->c_str())) return Fail(target + ": the SMS could not be sent");
  const auto start = std::chrono::steady_clock::now();
  if (!box.PingComputer(id)) return Fail(target + ": not a known computer");
  if (!printer.WaitFor("answered PONG", o.timeout)) return Fail(target + ": no PONG");
  const auto ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  if (sms) {
    std::printf("SMS delivered to %s\n", target.c_str());
  } else {
    std::printf("PONG from %s in %.3f ms\n", target.c_str(), ms);
  }
  return 0;
}

int Who(const Options& o) {
  if (o.words.size() > 1) return UsageError(kMail, "expected: mail who [WORKGROUP]");
  const char* configured = std::getenv("ZROBJ_WORKGROUP");
  const std::string group = !o.words.empty() ? o.words[0] : (configured && *configured ? configured : "WORKGROUP");
  CPvList members(sizeof(tagWORKGROUPMEMBER));
  const DWORD count = ZRNET_GetWorkgroupMembers(ToWide(group).c_str(), members);
  std::printf("workgroup %s: %lu member%s\n", group.c_str(), static_cast<unsigned long>(count), count == 1 ? "" : "s");
  const auto* items = static_cast<const tagWORKGROUPMEMBER*>(members.GetCList());
  for (DWORD i = 0; i < count; ++i) {
    const tagWORKGROUPMEMBER& m = items[i];
    std::printf("%-15s %-12s %-16s %u.%u.%u.%u:%lu  seen %.1f s ago\n", ToNarrow(m.Computer).c_str(),
                ToNarrow(m.Mailslot).c_str(), ToNarrow(m.User).c_str(), m.Address >> 24, (m.Address >> 16) & 0xFF,
                (m.Address >> 8) & 0xFF, m.Address & 0xFF, static_cast<unsigned long>(m.Port), m.AgeMs / 1000.0);
  }
  return 0;
}

int RunMail(const Args& args) {
  if (args.empty()) return UsageError(kMail, "expected join, ping, sms or who");
  const Options o = Parse(args);
  if (!o.error.empty()) return UsageError(kMail, o.error);
  if (args[0] == "join") return Join(o);
  if (args[0] == "ping") return Reach(o, nullptr);
  if (args[0] == "who") return Who(o);
  if (args[0] != "sms") return UsageError(kMail, "unknown subcommand " + args[0]);
  if (o.words.size() < 2) return UsageError(kMail, "expected: mail sms COMPUTER TEXT...");
  std::string text;
  for (std::size_t i = 1; i < o.words.size(); ++i) text += (i > 1 ? " " : "") + o.words[i];
  const std::u16string wide = ToWide(text);
  return Reach(o, &wide);
}

}  // namespace
}  // namespace zrtool
