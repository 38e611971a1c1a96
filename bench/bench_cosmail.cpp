// Mailbox round trips against a plain UDP echo of 16 bytes on loopback, and the application
// messages per second one mailbox takes in.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "zrobj/cosmail.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace {

int LoopbackSocket(sockaddr_in* bound) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
  socklen_t length = sizeof sa;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &length);
  *bound = sa;
  return fd;
}

void BM_PlainUdpEcho16(benchmark::State& state) {
  sockaddr_in echo_addr{}, client_addr{};
  const int echo = LoopbackSocket(&echo_addr);
  const int client = LoopbackSocket(&client_addr);
  std::atomic<bool> stop{false};
  std::thread echoer([&] {
    char buffer[64];
    sockaddr_in from{};
    socklen_t length = sizeof from;
    while (!stop.load()) {
      const ssize_t n = ::recvfrom(echo, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
      if (n == 16) ::sendto(echo, buffer, 16, 0, reinterpret_cast<sockaddr*>(&from), length);
    }
  });
  char message[16] = {16};
  char reply[64];
  for (auto _ : state) {
    ::sendto(client, message, 16, 0, reinterpret_cast<sockaddr*>(&echo_addr), sizeof echo_addr);
    benchmark::DoNotOptimize(::recv(client, reply, sizeof reply, 0));
  }
  stop.store(true);
  char last[1] = {0};
  ::sendto(client, last, 1, 0, reinterpret_cast<sockaddr*>(&echo_addr), sizeof echo_addr);
  echoer.join();
  ::close(echo);
  ::close(client);
}
BENCHMARK(BM_PlainUdpEcho16)->UseRealTime();

// Counts PONG lines; the pinging side waits for the next one.
class PongCounter : public zr::DiagListener {
 public:
  void OnMessage(unsigned, unsigned, std::u16string_view text) override {
    if (text.find(u"answered PONG") == std::u16string_view::npos) return;
    std::lock_guard hold(lock_);
    ++pongs_;
    changed_.notify_all();
  }
  bool WaitBeyond(long count) {
    std::unique_lock hold(lock_);
    return changed_.wait_for(hold, std::chrono::seconds(5), [&] { return pongs_ > count; });
  }
  long Count() {
    std::lock_guard hold(lock_);
    return pongs_;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  long pongs_ = 0;
};

struct Pair {
  Pair() {
    char pattern[] = "/tmp/bench_cosmail.XXXXXX";
    directory = ::mkdtemp(pattern);
    ::setenv("ZROBJ_WORKGROUP_DIR", directory.c_str(), 1);
    a.SetIdentity(u"BENCHA", u"a");
    b.SetIdentity(u"BENCHB", u"b");
    a.Open(u"bench");
    b.Open(u"bench");
    a.AttachWorkgroup(u"BENCH");
    b.AttachWorkgroup(u"BENCH");
    for (int i = 0; i < 500 && a.GetTargetList().GetNItems() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ~Pair() {
    a.Close();
    b.Close();
    std::system(("rm -rf " + directory).c_str());
  }
  std::string directory;
  COSMailslot a, b;
};

void BM_MailPingPong(benchmark::State& state) {
  PongCounter counter;
  zr::ScopedDiagRedirect redirect(&counter);
  Pair pair;
  const DWORD id = GetHashIDWi(u"BENCHB");
  for (auto _ : state) {
    const long before = counter.Count();
    pair.a.PingComputer(id);
    if (!counter.WaitBeyond(before)) {
      state.SkipWithError("no PONG within 5 s");
      break;
    }
  }
}
BENCHMARK(BM_MailPingPong)->UseRealTime();

struct Inbox {
  std::atomic<long> received{0};
};

void CountMessage(COSMailslot&, const tagMAILHEADER*, const WCHAR*, void* context) {
  static_cast<Inbox*>(context)->received.fetch_add(1, std::memory_order_relaxed);
}

class Silent : public zr::DiagListener {
 public:
  void OnMessage(unsigned, unsigned, std::u16string_view) override {}
};

// Messages of 64 payload bytes sent as fast as the sender's queue takes them; what arrives counts.
void BM_MailMessagesReceived(benchmark::State& state) {
  Silent silent;
  zr::ScopedDiagRedirect redirect(&silent);
  Pair pair;
  Inbox inbox;
  pair.b.SetMessageHandler(CountMessage, &inbox);
  const char payload[64] = {};
  long sent = 0;
  for (auto _ : state) {
    for (int i = 0; i < 1000; ++i) {
      while (!pair.a.SendMessageEx(u"BENCHB", payload, sizeof payload)) std::this_thread::yield();
      ++sent;
    }
  }
  for (int i = 0; i < 200 && inbox.received.load() < sent; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  state.SetItemsProcessed(inbox.received.load());
  state.counters["lost"] = static_cast<double>(sent - inbox.received.load());
}
BENCHMARK(BM_MailMessagesReceived)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
