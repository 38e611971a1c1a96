// CPComputerList (computer names sorted case-insensitively), the network neighbourhood read from
// the workgroup directory, and the ping service COSPing.
#include "zrobj/cpcomputerlist.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "net/cosmail_internal.h"
#include "platform/fileutil.h"
#include "platform/netsock.h"
#include "platform/text.h"
#include "zrobj/coslock.h"

namespace os = zr::os;
namespace net = zr::net;

namespace {

char16_t Fold(char16_t c) { return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c - u'A' + u'a') : c; }

// Case-insensitive comparison of two names (ASCII letters fold to lower case), like _wcsicmp: the
// signs between 'Z' and 'a' ("[\\]^_`") sort before the letters.
int CompareNames(const WCHAR* a, const WCHAR* b) {
  for (;; ++a, ++b) {
    const char16_t x = Fold(*a);
    const char16_t y = Fold(*b);
    if (x != y || x == 0) return x < y ? -1 : (x > y ? 1 : 0);
  }
}

bool IsUsableName(const WCHAR* name) { return name != nullptr && os::WStrLen(name) <= ZR_MAX_COMPUTERNAME; }

}  // namespace

// ---- CPComputerList ----

const tagCOMPUTERENTRY* CPComputerList::GetEntry(unsigned int index) const {
  if (index >= GetNItems()) return nullptr;
  return static_cast<const tagCOMPUTERENTRY*>(GetCList()) + index;
}

unsigned int CPComputerList::LocateEntry(const WCHAR* name) {
  const DWORD count = GetNItems();
  if (count == 0) return 0;
  const DWORD last = count - 1;
  if (CompareNames(name, GetEntry(0)->Name) <= 0) return 0;
  if (CompareNames(name, GetEntry(last)->Name) > 0) return count;
  if (last < 2) return last;
  DWORD low = 0;
  DWORD high = last;
  while (high - low > 1) {
    const DWORD mid = (low + high) / 2;
    if (CompareNames(GetEntry(mid)->Name, name) >= 0) {
      high = mid;
    } else {
      low = mid;
    }
  }
  return high;
}

unsigned int CPComputerList::Add(const WCHAR* name) {
  if (!IsUsableName(name)) return ZR_INVALID_INDEX;
  tagCOMPUTERENTRY entry{};
  os::WStrCopy(entry.Name, ZR_MAX_COMPUTERNAME + 1, name);
  return Insert(&entry, LocateEntry(name));
}

unsigned int CPComputerList::Find(const WCHAR* name) {
  if (!IsUsableName(name)) return ZR_INVALID_INDEX;
  for (DWORD i = 0; i < GetNItems(); ++i)
    if (CompareNames(GetEntry(i)->Name, name) == 0) return i;
  return ZR_INVALID_INDEX;
}

int CPComputerList::Delete(unsigned int index) {
  if (index >= GetNItems()) return 1;
  return CPvList::Delete(index, 1, 0);
}

// ---- Neighbourhood ----

UINT ZRNET_GetWorkgroupDirectory(WCHAR* buffer, UINT length) {
  if (buffer == nullptr) return 0;
  const std::u16string root = os::Utf8ToUtf16(net::WorkgroupRoot());
  if (root.empty() || root.size() + 1 > length) return 0;
  os::WStrCopy(buffer, length, root);
  return static_cast<UINT>(root.size());
}

DWORD ZRNET_GetWorkgroupMembers(const WCHAR* workgroup, CPvList& members) {
  members.Clear(0);
  if (workgroup == nullptr || members.GetItemSize() != sizeof(tagWORKGROUPMEMBER)) return 0;
  for (const net::Registration& r : net::ScanWorkgroup(workgroup, {})) {
    tagWORKGROUPMEMBER m{};
    os::WStrCopy(m.Computer, 16, r.computer);
    os::WStrCopy(m.Mailslot, 64, r.mailslot);
    os::WStrCopy(m.User, 64, r.user);
    m.Address = r.address.ipv4;
    m.Port = r.address.port;
    m.AgeMs = r.age_ms > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<DWORD>(r.age_ms);
    members.Add(&m);
  }
  return members.GetNItems();
}

CPComputerList ZRNET_GetNetworkNeighbourhood() {
  CPComputerList list;
  const char* configured = std::getenv("ZROBJ_WORKGROUP");
  const std::u16string workgroup = os::Utf8ToUtf16(configured && *configured ? configured : "WORKGROUP");
  for (const net::Registration& r : net::ScanWorkgroup(workgroup, {}))
    if (list.Find(r.computer.c_str()) == ZR_INVALID_INDEX) list.Add(r.computer.c_str());
  return list;
}

// ---- COSPing ----

namespace {

// The process-wide ping service: built at load, stopped at unload.
struct PingService {
  PingService() { Start(); }
  ~PingService() { Stop(); }
  void Start() {
    icmp = os::ProbeEchoSocket() != os::EchoSocket::kNone;
    initialised = true;
  }
  void Stop() {
    initialised = false;
    icmp = false;
  }
  COSCriticalSection lock;
  bool initialised = false;
  bool icmp = false;
};

PingService& Service() {
  static PingService service;
  return service;
}

unsigned int PingCore(PingService& service, const char* host, unsigned int timeout, unsigned int* roundTrip) {
  unsigned int measured = timeout;
  unsigned int result = ZRPING_NOT_INITIALISED;
  std::uint32_t ipv4 = 0;
  if (!service.initialised) {
    result = ZRPING_NOT_INITIALISED;
  } else if (!service.icmp) {
    result = os::ResolveHost(host, &ipv4) && os::RouteExists(ipv4) ? ZRPING_OK : ZRPING_UNREACHABLE;
  } else if (!os::ResolveHost(host, &ipv4)) {
    result = ZRPING_UNREACHABLE;
  } else {
    std::uint32_t rtt = 0;
    const int echo = os::IcmpEcho(ipv4, timeout, &rtt);
    result = echo == 0 ? ZRPING_OK : ZRPING_NO_REPLY;
    if (echo == 0) measured = rtt;
  }
  if (roundTrip) *roundTrip = result == ZRPING_OK ? measured : timeout;
  return result;
}

// "//server/share/dir" -> "server"; empty when the path names no server.
std::u16string ServerOf(std::u16string_view path) {
  if (path.size() < 3 || path[0] != u'/' || path[1] != u'/') return {};
  const std::size_t end = path.find(u'/', 2);
  return std::u16string(path.substr(2, end == std::u16string_view::npos ? std::u16string_view::npos : end - 2));
}

}  // namespace

void COSPing::Startup() {
  PingService& service = Service();
  COSAutoLock hold(&service.lock);
  service.Start();
}

void COSPing::Shutdown() {
  PingService& service = Service();
  COSAutoLock hold(&service.lock);
  service.Stop();
}

int COSPing::IsInitialised() { return Service().initialised ? 1 : 0; }
int COSPing::HasIcmp() { return Service().icmp ? 1 : 0; }

unsigned int COSPing::Ping(const char* host, unsigned int timeout, unsigned int* roundTrip) {
  PingService& service = Service();
  COSAutoLock hold(&service.lock);
  return PingCore(service, host ? host : "", timeout, roundTrip);
}

unsigned int COSPing::Ping(const WCHAR* host, unsigned int timeout, unsigned int* roundTrip) {
  std::u16string name = host ? std::u16string(host) : std::u16string();
  if (name.size() > ZR_MAX_COMPUTERNAME) name.resize(ZR_MAX_COMPUTERNAME);
  return Ping(os::Utf16ToUtf8(name).c_str(), timeout, roundTrip);
}

unsigned int COSPing::PingPath(const WCHAR* path, unsigned int timeout, unsigned int* roundTrip, int createPath) {
  if (path == nullptr) return 1;
  const std::string narrow = os::Utf16ToUtf8(path);
  const UINT type = os::GetDriveType(narrow);
  if (type == os::kDriveUnknown) return 1;
  if (type != os::kDriveRemote) {
    if (roundTrip) *roundTrip = 0;
    return 0;
  }
  WCHAR formatted[ZR_MAX_PATH];
  if (os::WStrLen(path) >= ZR_MAX_PATH) return 1;
  os::WStrCopy(formatted, ZR_MAX_PATH, path);
  // Formatting collapses the two leading separators of the network form: put one back.
  const bool network = (path[0] == u'/' || path[0] == u'\\') && (path[1] == u'/' || path[1] == u'\\');
  if (!os::FU_FormatPath(formatted, ZR_MAX_PATH, u'/')) return 1;
  const std::u16string normal = network ? u"/" + std::u16string(formatted) : std::u16string(formatted);
  // A path in network form has no local directory behind it: it can be pinged, not created.
  std::u16string server = ServerOf(normal);
  const bool local = server.empty();
  if (local) server = ServerOf(os::Utf8ToUtf16(os::NetworkFormOfPath(os::Utf16ToUtf8(formatted))));
  if (server.empty()) return 1;
  const unsigned int result = Ping(server.c_str(), timeout, roundTrip);
  if (result != 0) return result;
  const bool exists = local && os::FU_TestDirExists(formatted);
  if (!exists && createPath && (!local || !os::FU_CreatePath(formatted))) return ZRPING_NO_PATH;
  return 0;
}
