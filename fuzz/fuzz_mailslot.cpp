// Feeds datagrams straight into a mailbox's receive path: the first byte picks the sender among
// four, the rest is the datagram. A known sender is greeted first so that its messages reach every
// handler. Whatever arrives must be handled or dropped without a fault or a read past the bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "zrobj/byteorder.h"
#include "zrobj/cosmail.h"
#include "zrobj/zrdiag.h"

namespace {

class Quiet : public zr::DiagListener {
 public:
  void OnMessage(unsigned, unsigned, std::u16string_view) override {}
};

void OnNotify(const tagMAILHEADER* item, void*) {
  if (item->Size < MAIL_HEADER_SIZE) std::abort();
}

void OnMessage(COSMailslot&, const tagMAILHEADER* item, const WCHAR*, void*) {
  if (item->Size < MAIL_HEADER_SIZE || item->Type != MAIL_MESSAGE) std::abort();
}

COSMailslot& Mailbox() {
  static Quiet quiet;
  static zr::ScopedDiagRedirect redirect(&quiet);
  static COSMailslot* box = [] {
    auto* b = new COSMailslot;
    b->SetIdentity(u"FUZZ", u"fuzzer");
    b->RegisterChangeNotify(OnNotify, nullptr);
    b->SetMessageHandler(OnMessage, nullptr);
    // A known computer with id 1, so that tag accounting and application messages are reached.
    std::vector<BYTE> hello(MAIL_HELLO_SIZE, 0);
    zr::StoreLE32(hello.data(), MAIL_HELLO_SIZE);
    zr::StoreLE32(hello.data() + 4, 1);
    zr::StoreLE32(hello.data() + 12, static_cast<DWORD>(MAIL_HELLO));
    zr::StoreLE16(hello.data() + 16, u'K');
    zr::StoreLE32(hello.data() + 176, MAIL_INTERFACE_VERSION);
    b->HandleDatagram(hello.data(), MAIL_HELLO_SIZE, 0x7F000001, 1);
    return b;
  }();
  return *box;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  COSMailslot& box = Mailbox();
  // An exact-size copy, so that the sanitizer sees any read past the datagram.
  std::vector<BYTE> datagram(data + 1, data + size);
  const int handled = box.HandleDatagram(datagram.empty() ? nullptr : datagram.data(),
                                         static_cast<DWORD>(datagram.size()), 0x7F000001, 1 + data[0] % 4);
  const bool framed = datagram.size() >= MAIL_HEADER_SIZE && zr::LoadLE32(datagram.data()) == datagram.size();
  if (handled != (framed ? 1 : 0)) std::abort();
  // Keep the kept-message queue from growing without bound.
  std::vector<BYTE> sink(MAIL_MAX_DATAGRAM);
  while (box.GetMessageSize() != 0) box.GetMessage(sink.data(), static_cast<DWORD>(sink.size()));
  return 0;
}
