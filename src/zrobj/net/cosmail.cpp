// COSMailslot: a mailbox of the workgroup on a UDP socket, with its four threads (reader,
// processor, writer, escrow), the wire format of the system messages and the tag accounting.
#include "zrobj/cosmail.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "net/cosmail_internal.h"
#include "platform/clock.h"
#include "platform/desktop.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "platform/identity.h"
#include "platform/netsock.h"
#include "platform/text.h"
#include "zrobj/byteorder.h"
#include "zrobj/zrcrash.h"
#include "zrobj/zrdiag.h"
#include "zrobj/locator.h"
#include "zrobj/zrhash.h"
#include "zrobj/zrobj.h"

namespace os = zr::os;
namespace net = zr::net;

namespace {

constexpr unsigned kChannel = 3;
constexpr unsigned kError = 0;
constexpr unsigned kWarning = 3;
constexpr unsigned kInfo = 9;
constexpr DWORD kWaitTimeout = 258;
constexpr DWORD kReaderPollMs = 100;
constexpr DWORD kThreadStopWaitMs = 5000;
constexpr DWORD kNameUnits = 16;
constexpr DWORD kUserUnits = 64;

enum ThreadIndex { kProcessor, kReader, kWriter, kEscrow, kThreadCount };

constexpr const WCHAR* kThreadNames[kThreadCount] = {u"COSMailSlot::Processor", u"COSMailSlot::Reader",
                                                     u"COSMailSlot::Write", u"COSMailSlot::Escrow"};

tagMAILHEADER LoadHeader(const BYTE* bytes) {
  return tagMAILHEADER{zr::LoadLE32(bytes), zr::LoadLE32(bytes + 4), zr::LoadLE32(bytes + 8),
                       static_cast<LONG>(zr::LoadLE32(bytes + 12))};
}

void StoreHeader(BYTE* bytes, DWORD size, DWORD computerId, DWORD tag, LONG type) {
  zr::StoreLE32(bytes, size);
  zr::StoreLE32(bytes + 4, computerId);
  zr::StoreLE32(bytes + 8, tag);
  zr::StoreLE32(bytes + 12, static_cast<DWORD>(type));
}

// UTF-16LE units from `bytes` up to the first zero unit or `units`, whichever comes first.
std::u16string LoadText(const BYTE* bytes, std::size_t units) {
  std::u16string text;
  for (std::size_t i = 0; i < units; ++i) {
    const char16_t c = zr::LoadLE16(bytes + 2 * i);
    if (c == 0) break;
    text.push_back(c);
  }
  return text;
}

void StoreText(BYTE* bytes, std::u16string_view text, std::size_t units) {
  for (std::size_t i = 0; i < units; ++i) zr::StoreLE16(bytes + 2 * i, i < text.size() ? text[i] : 0);
}

std::u16string Bounded(const WCHAR* text, std::size_t units) {
  if (text == nullptr) return {};
  std::u16string s(text, os::WStrLen(text));
  if (s.size() >= units) s.resize(units - 1);
  return s;
}

bool SameName(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    auto fold = [](char16_t c) { return c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - 32) : c; };
    if (fold(a[i]) != fold(b[i])) return false;
  }
  return true;
}

constexpr std::size_t kMaxTagPeers = 4096;  // tag counters kept before strangers are forgotten

std::uint64_t PeerKey(const os::NetAddress& a) { return std::uint64_t{a.ipv4} << 16 | a.port; }

DWORD DefaultAddress() {
  const char* configured = std::getenv("ZROBJ_MAIL_ADDRESS");
  os::NetAddress address;
  if (configured && *configured && os::ParseAddress(configured, &address)) return address.ipv4;
  return os::kLoopbackIpv4;
}

}  // namespace

// ---- State ----

namespace zr::net {

struct Target {
  tagMAILTARGET rec{};
  std::vector<BYTE> pending;  // at most one message for a computer in escrow
};

struct MailboxState {
  MailboxState() : incoming(MAIL_QUEUE_CAPACITY), outgoing(MAIL_QUEUE_CAPACITY) {}

  std::vector<Target> targets;  // sorted by computer id
  std::vector<Target> escrow;
  MailQueue incoming;
  MailQueue outgoing;
  int socket = os::kNoSocket;
  os::NetAddress local;
  std::u16string mailslot;  // the name given to Open
  std::vector<std::pair<std::u16string, std::string>> workgroups;  // name, registration file
  std::unordered_map<std::uint64_t, DWORD> tags;                    // last tag sent, per peer
  std::deque<std::vector<BYTE>> kept;  // application messages waiting for GetMessage
  std::vector<std::pair<ZRMAILNOTIFYPROC, void*>> receivers;
  ZRMAILMSGPROC handler = nullptr;
  void* handler_context = nullptr;
  CThread* threads[kThreadCount] = {};
  std::atomic<bool> running{false};

  Target* Find(DWORD id) {
    auto it = LowerBound(id);
    return it != targets.end() && it->rec.ComputerID == id ? &*it : nullptr;
  }
  static Target* FindByName(std::vector<Target>& list, std::u16string_view name) {
    for (Target& t : list)
      if (SameName(t.rec.Computer, name)) return &t;
    return nullptr;
  }
  std::vector<Target>::iterator LowerBound(DWORD id) {
    return std::lower_bound(targets.begin(), targets.end(), id,
                            [](const Target& t, DWORD key) { return t.rec.ComputerID < key; });
  }
};

// The mailbox's behaviour; a friend of COSMailslot so the public class stays small.
class MailboxEngine {
 public:
  // ---- Sending ----

  static std::vector<BYTE> Build(DWORD size, DWORD destinationId, LONG type) {
    std::vector<BYTE> bytes(size, 0);
    StoreHeader(bytes.data(), size, destinationId, 0, type);
    return bytes;
  }

  static std::vector<BYTE> BuildText(DWORD destinationId, LONG type, std::u16string_view text) {
    const std::size_t size = MAIL_HEADER_SIZE + 2 * (text.size() + 1);
    if (size > MAIL_MAX_DATAGRAM) return {};
    std::vector<BYTE> bytes = Build(static_cast<DWORD>(size), destinationId, type);
    StoreText(bytes.data() + MAIL_HEADER_SIZE, text, text.size() + 1);
    return bytes;
  }

  static std::vector<BYTE> BuildHello(COSMailslot& m, DWORD destinationId, LONG type) {
    std::vector<BYTE> bytes = Build(MAIL_HELLO_SIZE, destinationId, type);
    StoreText(bytes.data() + 16, m.m_computer, kNameUnits);
    StoreText(bytes.data() + 48, m.m_user, kUserUnits);
    zr::StoreLE32(bytes.data() + 176, MAIL_INTERFACE_VERSION);
    zr::StoreLE32(bytes.data() + 180, m.m_helloFlags);
    return bytes;
  }

  // Queues a message for the writer; nothing goes out while the mailbox is closed.
  static bool Queue(COSMailslot& m, std::vector<BYTE> bytes, const os::NetAddress& peer, std::u16string name) {
    MailboxState& s = *m.m_state;
    if (bytes.empty() || !s.running.load(std::memory_order_acquire)) return false;
    if (s.outgoing.Push(MailItem{std::move(bytes), peer, std::move(name)})) return true;
    os::wPrintf(kChannel, kWarning, u"\rMailslot %s: outgoing queue full, message dropped\r\n", s.mailslot);
    return false;
  }

  static bool QueueTo(COSMailslot& m, const Target& t, std::vector<BYTE> bytes) {
    return Queue(m, std::move(bytes), os::NetAddress{t.rec.Address, static_cast<std::uint16_t>(t.rec.Port)},
                 t.rec.Computer);
  }

  // Replies go to whatever address a datagram came from, so a flood from many addresses would grow
  // the tag counters without end: past the limit, counters of addresses that are no known or
  // escrowed computer's (and not the current one) are forgotten; such a peer starts again at 1.
  static void ForgetStrangerTags(MailboxState& s, std::uint64_t current) {
    std::unordered_set<std::uint64_t> keep{current};
    for (const auto* list : {&s.targets, &s.escrow})
      for (const Target& t : *list)
        keep.insert(PeerKey(os::NetAddress{t.rec.Address, static_cast<std::uint16_t>(t.rec.Port)}));
    std::erase_if(s.tags, [&](const auto& entry) { return !keep.contains(entry.first); });
  }

  // Stamps the own id and the next tag towards the peer, then sends.
  static void Transmit(COSMailslot& m, MailItem& item) {
    MailboxState& s = *m.m_state;
    if (item.bytes.size() < MAIL_HEADER_SIZE) return;
    const DWORD destinationId = LoadHeader(item.bytes.data()).ComputerID;  // before the own id replaces it
    DWORD tag;
    {
      COSAutoLock hold(&m.m_lock);
      tag = ++s.tags[PeerKey(item.peer)];
      if (s.tags.size() > kMaxTagPeers) ForgetStrangerTags(s, PeerKey(item.peer));
    }
    zr::StoreLE32(item.bytes.data() + 4, m.m_computerId);
    zr::StoreLE32(item.bytes.data() + 8, tag);
    const int error = os::UdpSend(s.socket, item.bytes.data(), item.bytes.size(), item.peer);
    if (error == 0) return;
    const WCHAR* name = item.name.c_str();
    if (os::IsSendBufferFull(error)) {
      os::wPrintf(kChannel, kWarning, u"\rNetwork: Computer %ls unreachable (timeout XMit)\r\n", name);
    } else {
      os::wPrintf(kChannel, kWarning, u"\rNetwork: Computer %ls unreachable (timeout) Result=%u\r\n", name,
                  static_cast<DWORD>(error));
    }
    if (!item.name.empty()) PutIntoEscrow(m, item.name, destinationId);
  }

  // The members of the attached workgroups under this mailbox's name, without this mailbox.
  static std::vector<Registration> Members(COSMailslot& m, std::u16string_view only) {
    MailboxState& s = *m.m_state;
    std::vector<std::u16string> groups;
    {
      COSAutoLock hold(&m.m_lock);
      for (const auto& g : s.workgroups)
        if (only.empty() || SameName(g.first, only)) groups.push_back(g.first);
    }
    std::vector<Registration> members;
    for (const std::u16string& g : groups) {
      for (Registration& r : ScanWorkgroup(g, s.mailslot)) {
        const bool self = SameName(r.computer, m.m_computer) && r.address == s.local;
        const bool seen = std::any_of(members.begin(), members.end(),
                                      [&](const Registration& x) { return x.address == r.address; });
        if (!self && !seen) members.push_back(std::move(r));
      }
    }
    return members;
  }

  // Sends `bytes` to every member: through the writer, or at once (`now`, used when closing).
  static int Broadcast(COSMailslot& m, const std::vector<BYTE>& bytes, std::u16string_view only, bool now) {
    int sent = 0;
    for (const Registration& r : Members(m, only)) {
      std::vector<BYTE> copy = bytes;
      zr::StoreLE32(copy.data() + 4, GetHashIDWi(r.computer.c_str()));
      if (now) {
        MailItem item{std::move(copy), r.address, r.computer};
        Transmit(m, item);
        ++sent;
      } else if (Queue(m, std::move(copy), r.address, r.computer)) {
        ++sent;
      }
    }
    return sent;
  }

  // ---- Escrow ----

  static void PutIntoEscrow(COSMailslot& m, const std::u16string& name, DWORD id) {
    MailboxState& s = *m.m_state;
    COSAutoLock hold(&m.m_lock);
    if (MailboxState::FindByName(s.escrow, name) != nullptr) return;
    Target t;
    if (Target* known = s.Find(id); known != nullptr && SameName(known->rec.Computer, name)) {
      t = std::move(*known);
      s.targets.erase(s.LowerBound(id));
    } else {
      os::WStrCopy(t.rec.Computer, kNameUnits, Bounded(name.c_str(), kNameUnits));
      t.rec.ComputerID = id;
    }
    t.rec.LastTick = os::GetTickCount();
    os::wPrintf(kChannel, kWarning, u"\rCOSMail::Putting %ls into escrow\r\n", t.rec.Computer);
    s.escrow.push_back(std::move(t));
  }

  // Takes the computer out of escrow (it answered); its pending message goes out.
  static void Unescrow(COSMailslot& m, Target& known) {
    MailboxState& s = *m.m_state;
    Target* held = MailboxState::FindByName(s.escrow, known.rec.Computer);
    if (held == nullptr) return;
    os::wPrintf(kChannel, kInfo, u"\rCOSMailslot::Removing %ls from escrow\r\n", known.rec.Computer);
    std::vector<BYTE> pending = std::move(held->pending);
    s.escrow.erase(s.escrow.begin() + (held - s.escrow.data()));
    if (!pending.empty()) QueueTo(m, known, std::move(pending));
  }

  static void RetryEscrow(COSMailslot& m, DWORD now) {
    MailboxState& s = *m.m_state;
    std::vector<std::pair<std::u16string, os::NetAddress>> retry;
    {
      COSAutoLock hold(&m.m_lock);
      for (Target& t : s.escrow) {
        if (now - t.rec.LastTick < m.m_minTimeout) continue;
        t.rec.LastTick = now;
        retry.emplace_back(t.rec.Computer, os::NetAddress{t.rec.Address, static_cast<std::uint16_t>(t.rec.Port)});
      }
    }
    for (auto& [name, address] : retry) {
      os::wPrintf(kChannel, kInfo, u"\rRetrying to connect to %ls\r\n", name.c_str());
      os::NetAddress found;
      if (FindComputer(name, s.mailslot, &found)) address = found;
      if (address.port == 0) {
        os::wPrintf(kChannel, kWarning, u"\rNetwork: Computer %ls unreachable (no handle)\r\n", name.c_str());
        continue;
      }
      Queue(m, BuildHello(m, GetHashIDWi(name.c_str()), MAIL_HELLO), address, name);
    }
  }

  // Targets silent for MaxTimeout although pinged go into escrow.
  static void EscrowSilent(COSMailslot& m, DWORD now) {
    MailboxState& s = *m.m_state;
    std::vector<std::pair<std::u16string, DWORD>> silent;
    {
      COSAutoLock hold(&m.m_lock);
      for (const Target& t : s.targets) {
        const DWORD age = now - t.rec.LastTick;
        if (age < m.m_maxTimeout) continue;
        os::wPrintf(kChannel, kWarning, u"\rNetwork: Computer %ls unreachable (timeout %ums) Result=%u\r\n",
                    t.rec.Computer, age, kWaitTimeout);
        silent.emplace_back(t.rec.Computer, t.rec.ComputerID);
      }
    }
    for (const auto& [name, id] : silent) PutIntoEscrow(m, name, id);
  }

  static void RefreshRegistrations(COSMailslot& m) {
    MailboxState& s = *m.m_state;
    COSAutoLock hold(&m.m_lock);
    for (const auto& g : s.workgroups)
      if (!TouchRegistration(g.second)) WriteRegistration(g.second, s.local, m.m_user);
  }

  // ---- Receiving ----

  // Framing checks of the reader; 1 when the datagram holds one whole message.
  static bool Check(COSMailslot& m, const BYTE* bytes, DWORD length, const os::NetAddress& from) {
    const WCHAR* name = m.m_state->mailslot.c_str();
    if (length < MAIL_HEADER_SIZE) {
      os::wPrintf(kChannel, kWarning, u"\rMailslot %s: datagram of %u bytes from %hs dropped (shorter than a message header)\r\n",
                  name, length, os::FormatAddress(from));
      return false;
    }
    const DWORD size = zr::LoadLE32(bytes);
    if (size != length) {
      os::wPrintf(kChannel, kWarning, u"\rMailslot %s: datagram from %hs dropped (Size=%u, %u bytes received)\r\n",
                  name, os::FormatAddress(from), size, length);
      return false;
    }
    return true;
  }

  // Tag accounting; false when the message is a repeat to drop.
  static bool AccountTag(COSMailslot& m, const tagMAILHEADER& h) {
    MailboxState& s = *m.m_state;
    COSAutoLock hold(&m.m_lock);
    Target* t = s.Find(h.ComputerID);
    if (t == nullptr) return true;
    if (t->rec.LastTag >= h.Tag && h.Type != MAIL_HELLO) {
      os::wPrintf(kChannel, kInfo, u"\rMailslot %s: tag %u of computer %08X repeated, dropped\r\n", s.mailslot,
                  h.Tag, h.ComputerID);
      return false;
    }
    if (std::uint64_t{h.Tag} > std::uint64_t{t->rec.LastTag} + 1) {
      const DWORD lost = h.Tag - t->rec.LastTag - 1;
      t->rec.LostTags += lost;
      os::wPrintf(kChannel, kWarning, u"Mailslot %s: %u tags lost\r\n", s.mailslot, lost);
    }
    t->rec.LastTag = h.Tag;
    return true;
  }

  static std::u16string NameOf(COSMailslot& m, DWORD id) {
    COSAutoLock hold(&m.m_lock);
    const Target* t = m.m_state->Find(id);
    return t ? std::u16string(t->rec.Computer) : std::u16string();
  }

  static void OnGoodbye(COSMailslot& m, const tagMAILHEADER& h) {
    MailboxState& s = *m.m_state;
    os::wPrintf(kChannel, kInfo, u"\rComputer %08X said GOODBYE\r\n", h.ComputerID);
    COSAutoLock hold(&m.m_lock);
    if (s.Find(h.ComputerID) != nullptr) s.targets.erase(s.LowerBound(h.ComputerID));
    s.escrow.erase(std::remove_if(s.escrow.begin(), s.escrow.end(),
                                  [&](const Target& t) { return t.rec.ComputerID == h.ComputerID; }),
                   s.escrow.end());
    s.outgoing.RemoveIf([&](const MailItem& item) { return LoadHeader(item.bytes.data()).ComputerID == h.ComputerID; });
  }

  static void OnHello(COSMailslot& m, const BYTE* bytes, const tagMAILHEADER& h, const os::NetAddress& from) {
    MailboxState& s = *m.m_state;
    const bool greeting = h.Type == MAIL_HELLO;
    const std::u16string name = h.Size >= 48 ? LoadText(bytes + 16, kNameUnits - 1) : std::u16string();
    if (h.Size != MAIL_HELLO_SIZE || zr::LoadLE32(bytes + 176) != MAIL_INTERFACE_VERSION) {
      os::wPrintf(kChannel, kWarning,
                  greeting ? u"\rComputer %08X (%ls) HELLO: Incompatible interface, refused...\r\n"
                           : u"\rComputer %08X (%ls) HELLO_ACK: Incompatible interface, refused...\r\n",
                  h.ComputerID, name);
      return;
    }
    {
      COSAutoLock hold(&m.m_lock);
      Target* t = s.Find(h.ComputerID);
      if (t == nullptr) {
        Target fresh;
        fresh.rec.ComputerID = h.ComputerID;
        s.targets.insert(s.LowerBound(h.ComputerID), std::move(fresh));
        t = s.Find(h.ComputerID);
      }
      os::WStrCopy(t->rec.Computer, kNameUnits, name);
      os::WStrCopy(t->rec.User, kUserUnits, LoadText(bytes + 48, kUserUnits - 1));
      t->rec.LastTag = h.Tag;
      t->rec.LastTick = os::GetTickCount();
      t->rec.State |= MAIL_STATE_GREETED;
      t->rec.Address = from.ipv4;
      t->rec.Port = from.port;
      Unescrow(m, *t);
    }
    os::wPrintf(kChannel, kInfo,
                greeting ? u"\rComputer %08X (%ls) said HELLO\r\n" : u"\rComputer %08X (%ls) said HELLO ACKNOWLEDGED\r\n",
                h.ComputerID, name);
    if (greeting) Queue(m, BuildHello(m, h.ComputerID, MAIL_HELLO_ACK), from, name);
  }

  static void OnPong(COSMailslot& m, const tagMAILHEADER& h) {
    os::wPrintf(kChannel, kInfo, u"\rComputer %08X (%ls) answered PONG\r\n", h.ComputerID, NameOf(m, h.ComputerID));
    COSAutoLock hold(&m.m_lock);
    if (Target* t = m.m_state->Find(h.ComputerID)) {
      t->rec.LastTick = os::GetTickCount();
      t->rec.State |= MAIL_STATE_ANSWERED;
    }
  }

  static void OnSms(COSMailslot& m, const BYTE* bytes, const tagMAILHEADER& h) {
    const std::u16string text = LoadText(bytes + MAIL_HEADER_SIZE, (h.Size - MAIL_HEADER_SIZE) / 2);
    const std::u16string name = NameOf(m, h.ComputerID);
    os::wPrintf(kChannel, kInfo, u"\rSMS: Computer %08X (%ls): %ls\r\n", h.ComputerID, name, text);
    m.ShowSMS(name.c_str(), text.c_str());
  }

  static void OnMessage(COSMailslot& m, const BYTE* bytes, const tagMAILHEADER& h) {
    tagMAILTARGET from;
    {
      COSAutoLock hold(&m.m_lock);
      const Target* t = m.m_state->Find(h.ComputerID);
      if (t == nullptr) return;  // only known computers send application messages
      from = t->rec;
    }
    // The item keeps its wire layout; copied so that the header is aligned for the handler.
    std::vector<DWORD> aligned((h.Size + 3) / 4);
    std::memcpy(aligned.data(), bytes, h.Size);
    m.ProcessMessage(reinterpret_cast<const tagMAILHEADER*>(aligned.data()), from);
  }

  static void Dispatch(COSMailslot& m, const BYTE* bytes, const os::NetAddress& from) {
    const tagMAILHEADER h = LoadHeader(bytes);
    // Widened: Type + 8 must not overflow for the largest application types.
    switch (std::int64_t{h.Type} + 8) {
      case 7: OnGoodbye(m, h); break;
      case 6: case 5: OnHello(m, bytes, h, from); break;
      case 4:
        os::wPrintf(kChannel, kInfo, u"\rComputer %08X (%ls) said PING\r\n", h.ComputerID, NameOf(m, h.ComputerID));
        Queue(m, Build(MAIL_HEADER_SIZE, h.ComputerID, MAIL_PONG), from, NameOf(m, h.ComputerID));
        break;
      case 3: OnPong(m, h); break;
      case 2: OnSms(m, bytes, h); break;
      case 1: OnMessage(m, bytes, h); break;
      default: {
        std::vector<DWORD> aligned((h.Size + 3) / 4);
        std::memcpy(aligned.data(), bytes, h.Size);
        m.DefaultHandler(reinterpret_cast<const tagMAILHEADER*>(aligned.data()), from.ipv4, from.port);
      }
    }
  }

  struct ProcessCall {
    COSMailslot* mailslot;
    const BYTE* bytes;
    const os::NetAddress* from;
    bool threw;
  };

  static void DispatchCatching(void* context) {
    auto* call = static_cast<ProcessCall*>(context);
    try {
      Dispatch(*call->mailslot, call->bytes, *call->from);
    } catch (...) {
      call->threw = true;
    }
  }

  // One checked message: trace, tag accounting, then the handler under a fault guard.
  static void Process(COSMailslot& m, const BYTE* bytes, const os::NetAddress& from) {
    const tagMAILHEADER h = LoadHeader(bytes);
    if (IsDebugOn()) {
      os::wPrintf(kChannel, kInfo, u"\rRead Size=%u ComputerID=%08X Tag=%08X Type=%08X\r\n", h.Size, h.ComputerID,
                  h.Tag, static_cast<DWORD>(h.Type));
    }
    if (!AccountTag(m, h)) return;
    ProcessCall call{&m, bytes, &from, false};
    if (os::GuardedCall(DispatchCatching, &call) != 0) {
      CUnhandledException::AnalyseException(CUnhandledException::GetExceptionInfo(), 1);
    } else if (call.threw) {
      os::wPrintf(kChannel, kError, u"\rMailslot %s: message handler threw, message dropped\r\n", m.m_state->mailslot);
    }
  }

  // ---- Threads ----

  static DWORD Reader(void* parameter) {
    COSMailslot& m = *static_cast<COSMailslot*>(parameter);
    MailboxState& s = *m.m_state;
    os::wPrintf(kChannel, kInfo, u"\rReader started\r\n");
    std::vector<BYTE> buffer(MAIL_MAX_DATAGRAM + 1);
    while (s.running.load(std::memory_order_acquire)) {
      if (os::UdpWait(s.socket, kReaderPollMs) != 1) continue;
      os::NetAddress from;
      const long n = os::UdpReceive(s.socket, buffer.data(), buffer.size(), &from);
      if (!s.running.load(std::memory_order_acquire)) break;
      if (n < 0) {
        os::wPrintf(kChannel, kError, u"\rNetwork notification: Reader could not read message\r\n");
        continue;
      }
      const DWORD length = static_cast<DWORD>(std::min<long>(n, static_cast<long>(buffer.size())));
      if (!Check(m, buffer.data(), length, from)) continue;
      if (!s.incoming.Push(MailItem{std::vector<BYTE>(buffer.begin(), buffer.begin() + length), from, {}})) {
        os::wPrintf(kChannel, kWarning, u"\rMailslot %s: incoming queue full, message from %hs dropped\r\n",
                    s.mailslot, os::FormatAddress(from));
      }
    }
    os::wPrintf(kChannel, kInfo, u"\rReader exited\r\n");
    return 0;
  }

  // The processor and the writer: take items until the stop event, print their start and end.
  static DWORD Drain(COSMailslot& m, bool writer) {
    os::wPrintf(kChannel, kInfo, writer ? u"\rWriter started\r\n" : u"\rProcessor started\r\n");
    MailQueue& queue = writer ? m.m_state->outgoing : m.m_state->incoming;
    MailItem item;
    while (queue.Pop(m.m_stop, &item)) {
      if (item.bytes.empty()) continue;  // purged after a GOODBYE
      if (writer) {
        Transmit(m, item);
      } else {
        Process(m, item.bytes.data(), item.peer);
      }
    }
    os::wPrintf(kChannel, kInfo, writer ? u"\rWriter exited\r\n" : u"\rProcessor exited\r\n");
    return 0;
  }
  static DWORD Processor(void* parameter) { return Drain(*static_cast<COSMailslot*>(parameter), false); }
  static DWORD Writer(void* parameter) { return Drain(*static_cast<COSMailslot*>(parameter), true); }

  static DWORD Escrow(void* parameter) {
    COSMailslot& m = *static_cast<COSMailslot*>(parameter);
    os::wPrintf(kChannel, kInfo, u"\rEscrow started\r\n");
    const DWORD period = std::max<DWORD>(m.m_minTimeout / 2, 10);
    while (m.m_stop.Wait(period) == kWaitTimeout) {
      const DWORD now = os::GetTickCount();
      RefreshRegistrations(m);
      EscrowSilent(m, now);
      m.PingTimedOut(m.m_minTimeout, now);
      RetryEscrow(m, now);
    }
    os::wPrintf(kChannel, kInfo, u"\rEscrow exited\r\n");
    return 0;
  }

  static bool StartThreads(COSMailslot& m) {
    static constexpr ZR_THREAD_FN kFunctions[kThreadCount] = {Processor, Reader, Writer, Escrow};
    MailboxState& s = *m.m_state;
    for (int i = 0; i < kThreadCount; ++i) {
      s.threads[i] = new CThread(nullptr, 0, kFunctions[i], &m, 0);
      if (s.threads[i] == nullptr || s.threads[i]->GetStatus() == CTHREAD_CREATE_FAILED) return false;
      s.threads[i]->Label(kThreadNames[i]);
    }
    return true;
  }

  static void StopThreads(COSMailslot& m) {
    MailboxState& s = *m.m_state;
    s.running.store(false, std::memory_order_release);
    m.m_stop.Set();
    for (CThread*& thread : s.threads) {
      if (thread == nullptr) continue;
      if (thread->GetStatus() != CTHREAD_CREATE_FAILED) thread->Wait(kThreadStopWaitMs);
      delete thread;
      thread = nullptr;
    }
  }
};

}  // namespace zr::net

using zr::net::MailboxEngine;
using zr::net::MailboxState;
using zr::net::Target;

// ---- Construction ----

COSMailslot::COSMailslot(unsigned long /*flags*/)
    : m_state(new MailboxState),
      m_stop(nullptr, 1, 0, net::PrivateObjectName(u"stop").data()),
      m_address(DefaultAddress()) {
  const int min = ZROBJ_GetProfileInt("Network", "MinTimeout", 1000, 1);
  const int max = ZROBJ_GetProfileInt("Network", "MaxTimeout", 5000, 1);
  m_minTimeout = static_cast<DWORD>(min);
  m_maxTimeout = max < min ? static_cast<DWORD>(min) + 1000 : static_cast<DWORD>(max);
}

COSMailslot::~COSMailslot() {
  if (ZRNET_GetStoreMailslot() == this) ZRNET_SetStoreMailslot(nullptr);
  Close();
  delete m_state;
}

int COSMailslot::SetIdentity(const WCHAR* computer, const WCHAR* user) {
  if (IsOpen()) return 0;
  if (computer != nullptr) {
    if (os::WStrLen(computer) > kNameUnits - 1 || !net::IsValidName(computer)) return 0;
    os::WStrCopy(m_computer, kNameUnits, computer);
  }
  if (user != nullptr) os::WStrCopy(m_user, kUserUnits, Bounded(user, kUserUnits));
  return 1;
}

void COSMailslot::SetLocalAddress(DWORD ipv4) { m_address = ipv4; }
void COSMailslot::SetHelloFlags(DWORD flags) { m_helloFlags = flags; }
int COSMailslot::IsOpen() const { return m_state->running.load(std::memory_order_acquire) ? 1 : 0; }
DWORD COSMailslot::GetLocalPort() const { return IsOpen() ? m_state->local.port : 0; }

// ---- Open and close ----

int COSMailslot::Open(const char* name) {
  return name ? Open(os::Utf8ToUtf16(name).c_str()) : 0;
}

int COSMailslot::Open(const WCHAR* name) {
  MailboxState& s = *m_state;
  if (IsOpen() || name == nullptr || !net::IsValidName(name)) return 0;
  if (m_computer[0] == 0) GetCreateComputerName(m_computer, kNameUnits);
  if (m_user[0] == 0) {
    DWORD length = kUserUnits;
    if (!os::QueryUserName(m_user, &length)) m_user[0] = 0;
  }
  m_computerId = GetHashIDWi(m_computer);
  s.mailslot = name;
  m_name = (u"\\\\.\\mailslot\\" + s.mailslot).c_str();
  s.socket = os::UdpOpen(os::NetAddress{m_address, 0}, &s.local);
  s.incoming.Reset();
  s.outgoing.Reset();
  m_stop.Reset();
  s.running.store(true, std::memory_order_release);
  if (s.socket == os::kNoSocket || !MailboxEngine::StartThreads(*this)) {
    os::wPrintf(kChannel, kError, u"\rMailslot not started successfully!!!\r\n");
    Close();
    return 0;
  }
  return 1;
}

void COSMailslot::Close() {
  MailboxState& s = *m_state;
  if (s.socket == os::kNoSocket && s.threads[0] == nullptr) return;
  while (true) {
    std::u16string group;
    {
      COSAutoLock hold(&m_lock);
      if (s.workgroups.empty()) break;
      group = s.workgroups.back().first;
    }
    DetachWorkgroup(group.c_str());
  }
  MailboxEngine::StopThreads(*this);
  os::UdpClose(s.socket);
  s.socket = os::kNoSocket;
  COSAutoLock hold(&m_lock);
  s.targets.clear();
  s.escrow.clear();
  s.tags.clear();
  s.incoming.Reset();
  s.outgoing.Reset();
}

// ---- Attaching ----

int COSMailslot::AttachComputer(const char* name) { return name ? AttachComputer(os::Utf8ToUtf16(name).c_str()) : 0; }

int COSMailslot::AttachComputer(const WCHAR* name) {
  if (!IsOpen() || name == nullptr || !net::IsValidName(name)) return 0;
  os::NetAddress address;
  if (!net::FindComputer(name, m_state->mailslot, &address)) {
    os::wPrintf(kChannel, kWarning, u"\rNetwork: Computer %ls unreachable (no handle)\r\n", name);
    MailboxEngine::PutIntoEscrow(*this, name, GetHashIDWi(name));
    return 0;
  }
  const DWORD id = GetHashIDWi(name);
  return MailboxEngine::Queue(*this, MailboxEngine::BuildHello(*this, id, MAIL_HELLO), address, name) ? 1 : 0;
}

int COSMailslot::AttachWorkgroup(const char* name) { return name ? AttachWorkgroup(os::Utf8ToUtf16(name).c_str()) : 0; }

int COSMailslot::AttachWorkgroup(const WCHAR* name) {
  MailboxState& s = *m_state;
  if (!IsOpen() || name == nullptr) return 0;
  const std::string directory = net::MailslotDirectory(name, s.mailslot);
  const std::string file = directory.empty() ? std::string() : net::RegistrationFile(directory, m_computer);
  if (file.empty() || !net::WriteRegistration(file, s.local, m_user)) {
    const std::u16string shown = directory.empty() ? std::u16string(name) : os::Utf8ToUtf16(directory);
    os::wPrintf(kChannel, kError, u"\rNetwork notifications: Could not register on %s\r\n", shown);
    return 0;
  }
  {
    COSAutoLock hold(&m_lock);
    const bool known = std::any_of(s.workgroups.begin(), s.workgroups.end(),
                                   [&](const auto& g) { return SameName(g.first, name); });
    if (!known) s.workgroups.emplace_back(name, file);
  }
  MailboxEngine::Broadcast(*this, MailboxEngine::BuildHello(*this, 0, MAIL_HELLO), name, false);
  return 1;
}

int COSMailslot::DetachWorkgroup(const WCHAR* name) {
  MailboxState& s = *m_state;
  if (name == nullptr) return 0;
  std::string file;
  {
    COSAutoLock hold(&m_lock);
    auto it = std::find_if(s.workgroups.begin(), s.workgroups.end(),
                           [&](const auto& g) { return SameName(g.first, name); });
    if (it == s.workgroups.end()) return 0;
    file = it->second;
  }
  std::vector<BYTE> goodbye = MailboxEngine::Build(MAIL_HEADER_SIZE, 0, MAIL_GOODBYE);
  MailboxEngine::Broadcast(*this, goodbye, name, true);
  net::RemoveRegistration(file);
  COSAutoLock hold(&m_lock);
  s.workgroups.erase(std::remove_if(s.workgroups.begin(), s.workgroups.end(),
                                    [&](const auto& g) { return SameName(g.first, name); }),
                     s.workgroups.end());
  return 1;
}

int COSMailslot::UnscrowComputer(const WCHAR* name) {
  MailboxState& s = *m_state;
  if (name == nullptr) return 0;
  COSAutoLock hold(&m_lock);
  Target* t = MailboxState::FindByName(s.escrow, name);
  if (t == nullptr) return 0;
  s.escrow.erase(s.escrow.begin() + (t - s.escrow.data()));
  return 1;
}

// ---- Sending ----

int COSMailslot::PingComputer(DWORD computerId) {
  COSAutoLock hold(&m_lock);
  Target* t = m_state->Find(computerId);
  if (t == nullptr) return 0;
  t->rec.State &= ~(MAIL_STATE_ANSWERED | MAIL_STATE_GREETED);
  return MailboxEngine::QueueTo(*this, *t, MailboxEngine::Build(MAIL_HEADER_SIZE, computerId, MAIL_PING)) ? 1 : 0;
}

int COSMailslot::PingWorkgroup() {
  std::vector<DWORD> ids;
  {
    COSAutoLock hold(&m_lock);
    for (const Target& t : m_state->targets) ids.push_back(t.rec.ComputerID);
  }
  int pinged = 0;
  for (DWORD id : ids) pinged += PingComputer(id);
  return pinged;
}

DWORD COSMailslot::PingTimedOut(DWORD timeout, DWORD now) {
  DWORD largest = 0;
  COSAutoLock hold(&m_lock);
  for (Target& t : m_state->targets) {
    const DWORD age = now - t.rec.LastTick;
    if (age < timeout) {
      largest = std::max(largest, age);
      continue;
    }
    t.rec.State &= ~(MAIL_STATE_ANSWERED | MAIL_STATE_GREETED);
    MailboxEngine::QueueTo(*this, t, MailboxEngine::Build(MAIL_HEADER_SIZE, t.rec.ComputerID, MAIL_PING));
  }
  return largest;
}

namespace {

// Sends to a known computer, or keeps the message as the one pending for a computer in escrow.
int SendTo(COSMailslot& m, MailboxState& s, COSCriticalSection& lock, DWORD id, std::vector<BYTE> bytes) {
  if (bytes.empty()) return 0;
  COSAutoLock hold(&lock);
  if (Target* t = s.Find(id)) return MailboxEngine::QueueTo(m, *t, std::move(bytes)) ? 1 : 0;
  for (Target& t : s.escrow) {
    if (t.rec.ComputerID != id) continue;
    t.pending = std::move(bytes);
    t.rec.Pending = 1;
    return 1;
  }
  return 0;
}

}  // namespace

int COSMailslot::SMSComputer(DWORD computerId, const WCHAR* text) {
  if (text == nullptr) return 0;
  return SendTo(*this, *m_state, m_lock, computerId, MailboxEngine::BuildText(computerId, MAIL_SMS, text));
}

int COSMailslot::SendMessage(DWORD computerId, const WCHAR* text) {
  if (text == nullptr) return 0;
  return SendTo(*this, *m_state, m_lock, computerId, MailboxEngine::BuildText(computerId, MAIL_MESSAGE, text));
}

int COSMailslot::SendMessage(const WCHAR* computer, const WCHAR* text) {
  return computer ? SendMessage(GetHashIDWi(computer), text) : 0;
}

int COSMailslot::SendMessageEx(const WCHAR* computer, const void* payload, DWORD size) {
  if (computer == nullptr || (payload == nullptr && size != 0) || size > MAIL_MAX_DATAGRAM - MAIL_HEADER_SIZE) return 0;
  const DWORD id = GetHashIDWi(computer);
  std::vector<BYTE> bytes = MailboxEngine::Build(MAIL_HEADER_SIZE + size, id, MAIL_MESSAGE);
  if (size != 0) std::memcpy(bytes.data() + MAIL_HEADER_SIZE, payload, size);
  return SendTo(*this, *m_state, m_lock, id, std::move(bytes));
}

int COSMailslot::Notify(const tagMAILHEADER* item) {
  if (item == nullptr || item->Size < MAIL_HEADER_SIZE || item->Size > MAIL_MAX_DATAGRAM || !IsOpen()) return 0;
  std::vector<BYTE> bytes(item->Size);
  std::memcpy(bytes.data(), item, item->Size);
  StoreHeader(bytes.data(), item->Size, 0, 0, item->Type);
  MailboxEngine::Broadcast(*this, bytes, {}, false);
  return 1;
}

// ---- Receivers ----

int COSMailslot::RegisterChangeNotify(ZRMAILNOTIFYPROC callback, void* context) {
  if (callback == nullptr) return 0;
  COSAutoLock hold(&m_lock);
  m_state->receivers.emplace_back(callback, context);
  return 1;
}

int COSMailslot::UnregisterChangeNotify(ZRMAILNOTIFYPROC callback, void* context) {
  COSAutoLock hold(&m_lock);
  auto& r = m_state->receivers;
  auto it = std::find(r.begin(), r.end(), std::make_pair(callback, context));
  if (it == r.end()) return 0;
  r.erase(it);
  return 1;
}

void COSMailslot::SetMessageHandler(ZRMAILMSGPROC handler, void* context) {
  COSAutoLock hold(&m_lock);
  m_state->handler = handler;
  m_state->handler_context = context;
}

void COSMailslot::ProcessMessage(const tagMAILHEADER* item, const tagMAILTARGET& from) {
  ZRMAILMSGPROC handler;
  void* context;
  {
    COSAutoLock hold(&m_lock);
    handler = m_state->handler;
    context = m_state->handler_context;
    if (handler == nullptr) {
      if (m_state->kept.size() >= MAIL_QUEUE_CAPACITY) {
        os::wPrintf(kChannel, kWarning, u"\rMailslot %s: %u messages unread, message dropped\r\n", m_state->mailslot,
                    MAIL_QUEUE_CAPACITY);
        return;
      }
      const auto* bytes = reinterpret_cast<const BYTE*>(item);
      m_state->kept.emplace_back(bytes, bytes + item->Size);
      return;
    }
  }
  handler(*this, item, from.Computer, context);
}

void COSMailslot::DefaultHandler(const tagMAILHEADER* item, DWORD /*ipv4*/, DWORD /*port*/) {
  if (item->Type < 0) {
    os::wPrintf(kChannel, kWarning, u"\rMailslot %s: message type %d from computer %08X dropped\r\n",
                m_state->mailslot, item->Type, item->ComputerID);
    return;
  }
  std::vector<std::pair<ZRMAILNOTIFYPROC, void*>> receivers;
  {
    COSAutoLock hold(&m_lock);
    receivers = m_state->receivers;
  }
  for (const auto& [callback, context] : receivers) callback(item, context);
}

void COSMailslot::ShowSMS(const WCHAR* computer, const WCHAR* text) {
  const std::u16string caption = u"SMS from " + std::u16string(computer ? computer : u"");
  os::MessageBoxW(nullptr, text, caption.c_str(), os::MB_OK);
}

DWORD COSMailslot::GetMessageSize() {
  COSAutoLock hold(&m_lock);
  return m_state->kept.empty() ? 0 : static_cast<DWORD>(m_state->kept.front().size());
}

DWORD COSMailslot::GetMessage(void* buffer, DWORD size) {
  COSAutoLock hold(&m_lock);
  auto& kept = m_state->kept;
  if (kept.empty() || buffer == nullptr || size < kept.front().size()) return 0;
  const DWORD taken = static_cast<DWORD>(kept.front().size());
  std::memcpy(buffer, kept.front().data(), taken);
  kept.pop_front();
  return taken;
}

// ---- Lists ----

namespace {

CPvList CopyList(const std::vector<Target>& list) {
  CPvList copy(sizeof(tagMAILTARGET));
  for (const Target& t : list) copy.Add(&t.rec);
  return copy;
}

}  // namespace

CPvList COSMailslot::GetTargetList() {
  COSAutoLock hold(&m_lock);
  return CopyList(m_state->targets);
}

CPvList COSMailslot::GetEscrowList() {
  COSAutoLock hold(&m_lock);
  return CopyList(m_state->escrow);
}

CPWStr COSMailslot::GetPartyList() {
  std::u16string names;
  {
    COSAutoLock hold(&m_lock);
    for (const Target& t : m_state->targets) names += std::u16string(t.rec.Computer) + u"\r\n";
  }
  return CPWStr(names.c_str());
}

int COSMailslot::GetActiveList(CPMemory& ids) {
  std::vector<DWORD> active;
  {
    COSAutoLock hold(&m_lock);
    for (const Target& t : m_state->targets)
      if (t.rec.State & (MAIL_STATE_ANSWERED | MAIL_STATE_GREETED)) active.push_back(t.rec.ComputerID);
  }
  if (active.empty()) {
    ids.Free();
    return 0;
  }
  if (!ids.Alloc(static_cast<unsigned long>(active.size() * sizeof(DWORD)))) return 0;
  std::memcpy(ids.GetDataPtr(), active.data(), active.size() * sizeof(DWORD));
  return static_cast<int>(active.size());
}

// ---- The receive path without a socket ----

int COSMailslot::HandleDatagram(const void* bytes, DWORD length, DWORD ipv4, DWORD port) {
  const os::NetAddress from{ipv4, static_cast<std::uint16_t>(port)};
  const auto* data = static_cast<const BYTE*>(bytes);
  if (data == nullptr && length != 0) return 0;
  if (!MailboxEngine::Check(*this, data, length, from)) return 0;
  MailboxEngine::Process(*this, data, from);
  return 1;
}

// ---- the store's mailbox ----

namespace {

struct StoreMailbox {
  std::mutex lock;  // held while sending, so that the mailbox cannot go away during a Notify
  COSMailslot* mailslot = nullptr;
};

StoreMailbox& Store() {
  static auto* store = new StoreMailbox;  // never destroyed: a grant may come during unload
  return *store;
}

// The store's sender: a whole mail item (little-endian header first) through the mailbox's Notify.
int SendThroughStoreMailbox(const void* message, DWORD size) {
  if (message == nullptr || size < MAIL_HEADER_SIZE || size > MAIL_MAX_DATAGRAM) return 0;
  const auto* bytes = static_cast<const BYTE*>(message);
  if (zr::LoadLE32(bytes) != size) return 0;
  std::vector<DWORD> item((size + 3) / 4);  // aligned for the header
  std::memcpy(item.data(), bytes, size);
  auto* header = reinterpret_cast<tagMAILHEADER*>(item.data());
  *header = LoadHeader(bytes);
  StoreMailbox& store = Store();
  std::lock_guard hold(store.lock);
  return store.mailslot ? store.mailslot->Notify(header) : 0;
}

}  // namespace

COSMailslot* ZRNET_SetStoreMailslot(COSMailslot* mailslot) {
  StoreMailbox& store = Store();
  std::lock_guard hold(store.lock);
  COSMailslot* previous = store.mailslot;
  store.mailslot = mailslot;
  zr::SetStoreNotifySender(mailslot ? &SendThroughStoreMailbox : nullptr);
  return previous;
}

COSMailslot* ZRNET_GetStoreMailslot() {
  StoreMailbox& store = Store();
  std::lock_guard hold(store.lock);
  return store.mailslot;
}
