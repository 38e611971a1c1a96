// Workgroup messaging: COSMailslot, a mailbox through which the computers of a workgroup greet,
// ping and message each other. Mailboxes are UDP sockets found through a workgroup directory.
#pragma once

#include <cstdint>

#include "zrobj/coslock.h"
#include "zrobj/cosobject.h"
#include "zrobj/costhread.h"
#include "zrobj/cpstr.h"
#include "zrobj/cpvlist.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// System message types (the receiver dispatches on Type + 8); other values are application types.
inline constexpr LONG MAIL_GOODBYE = -1;
inline constexpr LONG MAIL_HELLO = -2;
inline constexpr LONG MAIL_HELLO_ACK = -3;
inline constexpr LONG MAIL_PING = -4;
inline constexpr LONG MAIL_PONG = -5;
inline constexpr LONG MAIL_SMS = -6;
inline constexpr LONG MAIL_MESSAGE = -7;
inline constexpr LONG MAIL_RESERVED = -8;

inline constexpr DWORD MAIL_HEADER_SIZE = 16;
inline constexpr DWORD MAIL_HELLO_SIZE = 184;
inline constexpr DWORD MAIL_INTERFACE_VERSION = 0x20001;
inline constexpr DWORD MAIL_FLAG_OPEN_PROJECTS = 2;
inline constexpr DWORD MAIL_QUEUE_CAPACITY = 400;  // items per queue
inline constexpr DWORD MAIL_MAX_DATAGRAM = 65507;  // the largest UDP payload on IPv4

// Every message starts with this header; on the wire all fields are 32-bit little-endian.
struct tagMAILHEADER {
  DWORD Size;        // whole message, header included
  DWORD ComputerID;  // the sender (in the outgoing queue: the destination)
  DWORD Tag;         // the sender's running number towards this receiver
  LONG Type;
};
static_assert(sizeof(tagMAILHEADER) == MAIL_HEADER_SIZE, "mail header layout");

// HELLO and HELLO_ACK.
struct tagMAILHELLO {
  tagMAILHEADER Header;
  WCHAR Computer[16];
  WCHAR User[64];
  DWORD Version;  // MAIL_INTERFACE_VERSION
  DWORD Flags;    // MAIL_FLAG_OPEN_PROJECTS or 0
};
static_assert(sizeof(tagMAILHELLO) == MAIL_HELLO_SIZE, "hello layout");

// State bits of a target: cleared when a PING goes out, set again by its answers.
inline constexpr DWORD MAIL_STATE_ANSWERED = 0x1;  // a PONG came back
inline constexpr DWORD MAIL_STATE_GREETED = 0x2;   // a HELLO or HELLO_ACK came in

// One known (or escrowed) computer, as GetTargetList and GetEscrowList hand them out.
struct tagMAILTARGET {
  DWORD ItemWord;     // the list's item word
  WCHAR Computer[16];
  WCHAR User[64];     // the second name
  DWORD ComputerID;   // sort key
  DWORD LastTag;      // last tag received
  DWORD LastTick;     // GetTickCount of the last communication
  DWORD LostTags;
  DWORD State;        // MAIL_STATE_ bits
  DWORD Pending;      // 1 while a message waits for the computer to come back
  DWORD Address;      // IPv4, host order (0 while unknown)
  DWORD Port;
};

namespace zr::net {
struct MailboxState;
class MailboxEngine;
}  // namespace zr::net

// Application messages (type -7) from known computers; the payload follows the header.
class COSMailslot;
using ZRMAILMSGPROC = void (*)(COSMailslot& mailslot, const tagMAILHEADER* item, const WCHAR* computer,
                               void* context);
// Change notifications and other application types (>= 0) sent with Notify.
using ZRMAILNOTIFYPROC = void (*)(const tagMAILHEADER* item, void* context);

class ZROBJ_API COSMailslot {
 public:
  // Reads "MinTimeout" and "MaxTimeout" of "ZRO.INI" [Network] (1000 and 5000 ms).
  explicit COSMailslot(unsigned long flags = 0);
  virtual ~COSMailslot();
  COSMailslot(const COSMailslot&) = delete;
  COSMailslot& operator=(const COSMailslot&) = delete;

  // The identity this mailbox speaks for; the defaults are the process's computer and user name.
  // Call before Open (lets one process play several computers).
  int SetIdentity(const WCHAR* computer, const WCHAR* user);
  // The IPv4 address (host order) the mailbox binds and registers; default $ZROBJ_MAIL_ADDRESS,
  // else 127.0.0.1. Call before Open.
  void SetLocalAddress(DWORD ipv4);
  // Flags sent with HELLO (MAIL_FLAG_OPEN_PROJECTS when projects are open).
  void SetHelloFlags(DWORD flags);

  int Open(const WCHAR* name);
  int Open(const char* name);
  // Says GOODBYE to every attached workgroup, stops the threads, drops the registrations.
  void Close();
  int IsOpen() const;

  int AttachComputer(const char* name);
  int AttachComputer(const WCHAR* name);
  int AttachWorkgroup(const WCHAR* name);
  int AttachWorkgroup(const char* name);
  int DetachWorkgroup(const WCHAR* name);
  int UnscrowComputer(const WCHAR* name);

  int PingComputer(DWORD computerId);
  int PingWorkgroup();
  int SMSComputer(DWORD computerId, const WCHAR* text);
  int SendMessage(DWORD computerId, const WCHAR* text);
  int SendMessage(const WCHAR* computer, const WCHAR* text);
  // A binary application message (type -7) of `size` payload bytes.
  int SendMessageEx(const WCHAR* computer, const void* payload, DWORD size);
  // Application messages that arrived while no handler was installed, oldest first: the size of
  // the next one (header included, 0 when none) and taking it (0 when none or it does not fit).
  DWORD GetMessageSize();
  DWORD GetMessage(void* buffer, DWORD size);

  // Sends `item` (header filled in per member) to every member of the attached workgroups.
  int Notify(const tagMAILHEADER* item);
  int RegisterChangeNotify(ZRMAILNOTIFYPROC callback, void* context);
  int UnregisterChangeNotify(ZRMAILNOTIFYPROC callback, void* context);
  void SetMessageHandler(ZRMAILMSGPROC handler, void* context);

  // Copies of the lists (items tagMAILTARGET), the target names one per line ("\r\n" after each),
  // and the ids (DWORD each) of the targets that answered since their last PING.
  CPvList GetTargetList();
  CPvList GetEscrowList();
  CPWStr GetPartyList();
  int GetActiveList(CPMemory& ids);

  // Pings every target silent for at least `timeout` ms; returns the largest age below it.
  DWORD PingTimedOut(DWORD timeout, DWORD now);

  DWORD GetMinTimeout() const { return m_minTimeout; }
  DWORD GetMaxTimeout() const { return m_maxTimeout; }
  DWORD GetComputerID() const { return m_computerId; }
  const WCHAR* GetComputerName() const { return m_computer; }
  // The bound port (0 while closed).
  DWORD GetLocalPort() const;
  DWORD GetLocalAddress() const { return m_address; }

  // The receive path without a socket: checks a datagram from `ipv4`:`port` (host order) and
  // handles it at once on the calling thread. 1 when handled, 0 when dropped as malformed.
  int HandleDatagram(const void* bytes, DWORD length, DWORD ipv4, DWORD port);

 protected:
  virtual void ProcessMessage(const tagMAILHEADER* item, const tagMAILTARGET& from);
  // Types outside -8..-1 (and the reserved -8).
  virtual void DefaultHandler(const tagMAILHEADER* item, DWORD ipv4, DWORD port);
  // Shows an SMS to the user through the desktop's message box.
  virtual void ShowSMS(const WCHAR* computer, const WCHAR* text);

 private:
  friend class zr::net::MailboxEngine;

  zr::net::MailboxState* m_state;  // lists, queues, socket, threads
  COSCriticalSection m_lock;
  COSEvent m_stop;  // manual reset: set at close
  CPTStr m_name;    // "\\.\mailslot\NAME"
  DWORD m_minTimeout;
  DWORD m_maxTimeout;
  DWORD m_computerId = 0;
  WCHAR m_computer[16] = {};
  WCHAR m_user[64] = {};
  DWORD m_address;
  DWORD m_helloFlags = 0;
};

// The store's mailbox: the object store's change notifications (an access list created or removed)
// go out through its Notify to the attached workgroups. Setting one installs the store's sender;
// null, or destroying that mailbox, stops the sending. Returns the previous one.
ZROBJ_API COSMailslot* ZRNET_SetStoreMailslot(COSMailslot* mailslot);
ZROBJ_API COSMailslot* ZRNET_GetStoreMailslot();
