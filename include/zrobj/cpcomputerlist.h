// The computer list and reachability: CPComputerList (sorted computer names), the network
// neighbourhood of the workgroup directory, and COSPing (ICMP echo with a reachability fallback).
#pragma once

#include "zrobj/cpvlist.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

inline constexpr DWORD ZR_MAX_COMPUTERNAME = 15;

// The list's item word followed by the name, NUL-terminated.
struct tagCOMPUTERENTRY {
  DWORD ItemWord;
  WCHAR Name[ZR_MAX_COMPUTERNAME + 1];
};
static_assert(sizeof(tagCOMPUTERENTRY) == 36, "computer entry layout");

// Names in ascending order, compared case-insensitively (ASCII letters fold).
class ZROBJ_API CPComputerList : public CPvList {
 public:
  CPComputerList() : CPvList(sizeof(tagCOMPUTERENTRY), 5) {}
  const char* GetClassID() const override { return "CPComputerList"; }

  // The list insert's result; 0xFFFFFFFF for a null name or one longer than 15 characters.
  unsigned int Add(const WCHAR* name);
  unsigned int Find(const WCHAR* name);
  // 1 also for an index past the end (nothing changes).
  int Delete(unsigned int index);
  const tagCOMPUTERENTRY* GetEntry(unsigned int index) const;

 private:
  unsigned int LocateEntry(const WCHAR* name);
};

// The computers registered in the workgroup $ZROBJ_WORKGROUP (default "WORKGROUP"), each once.
ZROBJ_API CPComputerList ZRNET_GetNetworkNeighbourhood();

// One registration of a workgroup directory.
struct tagWORKGROUPMEMBER {
  DWORD ItemWord;
  WCHAR Computer[16];
  WCHAR Mailslot[64];
  WCHAR User[64];
  DWORD Address;  // IPv4, host order
  DWORD Port;
  DWORD AgeMs;    // since the member last refreshed its registration
};
// Every registration of `workgroup` (all mailslots), items tagWORKGROUPMEMBER; the count.
ZROBJ_API DWORD ZRNET_GetWorkgroupMembers(const WCHAR* workgroup, CPvList& members);
// The directory that holds the workgroup registrations: $ZROBJ_WORKGROUP_DIR, else "Workgroups"
// in the settings directory. The number of characters written, 0 when it does not fit.
ZROBJ_API UINT ZRNET_GetWorkgroupDirectory(WCHAR* buffer, UINT length);

// Results of COSPing.
inline constexpr unsigned int ZRPING_OK = 0;
inline constexpr unsigned int ZRPING_NOT_INITIALISED = 1;
inline constexpr unsigned int ZRPING_UNREACHABLE = 2;
inline constexpr unsigned int ZRPING_NO_REPLY = 3;
inline constexpr unsigned int ZRPING_NO_PATH = 6;

class ZROBJ_API COSPing {
 public:
  static unsigned int Ping(const char* host, unsigned int timeout, unsigned int* roundTrip);
  static unsigned int Ping(const WCHAR* host, unsigned int timeout, unsigned int* roundTrip);
  static unsigned int PingPath(const WCHAR* path, unsigned int timeout, unsigned int* roundTrip, int createPath);

  // The service is started at load and stopped at unload; these restart it (for tests).
  static void Startup();
  static void Shutdown();
  static int IsInitialised();
  // Whether echo requests go out through an ICMP socket (else the reachability fallback).
  static int HasIcmp();
};
