// Locks and events against the standard primitives: uncontended critical section, read-mostly
// reader/writer throughput on two threads, and event set-to-wake latency between two threads.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "zrobj/coslock.h"
#include "zrobj/cosobject.h"
#include "zrobj/zrdiag.h"

namespace {

// The locks are for multi-threaded programs: make the process one before anything is measured, so
// that the C library's single-thread shortcuts do not flatter the standard primitives.
[[maybe_unused]] const bool g_multithreaded = [] {
  std::thread([] {}).join();
  return true;
}();

// ---- Uncontended critical section ----

void BM_COSCriticalSection_EnterLeave(benchmark::State& state) {
  SetDebugMode(0);
  COSCriticalSection cs;
  for (auto _ : state) {
    cs.Enter(0);
    cs.Leave();
  }
}
BENCHMARK(BM_COSCriticalSection_EnterLeave);

void BM_StdRecursiveMutex_LockUnlock(benchmark::State& state) {
  std::recursive_mutex m;
  for (auto _ : state) {
    m.lock();
    m.unlock();
  }
}
BENCHMARK(BM_StdRecursiveMutex_LockUnlock);

void BM_COSCriticalSection_Recursive(benchmark::State& state) {
  COSCriticalSection cs;
  cs.Enter(0);
  for (auto _ : state) {
    cs.Enter(0);
    cs.Leave();
  }
  cs.Leave();
}
BENCHMARK(BM_COSCriticalSection_Recursive);

void BM_StdRecursiveMutex_Recursive(benchmark::State& state) {
  std::recursive_mutex m;
  m.lock();
  for (auto _ : state) {
    m.lock();
    m.unlock();
  }
  m.unlock();
}
BENCHMARK(BM_StdRecursiveMutex_Recursive);

// ---- Reader/writer ----

void BM_COSRWInterlock_ReadUncontended(benchmark::State& state) {
  COSRWInterlock rw;
  for (auto _ : state) {
    rw.EnterRead();
    rw.LeaveRead();
  }
}
BENCHMARK(BM_COSRWInterlock_ReadUncontended);

void BM_StdSharedMutex_ReadUncontended(benchmark::State& state) {
  std::shared_mutex m;
  for (auto _ : state) {
    m.lock_shared();
    m.unlock_shared();
  }
}
BENCHMARK(BM_StdSharedMutex_ReadUncontended);

void BM_COSRWInterlock_WriteUncontended(benchmark::State& state) {
  COSRWInterlock rw;
  for (auto _ : state) {
    rw.EnterWrite();
    rw.LeaveWrite();
  }
}
BENCHMARK(BM_COSRWInterlock_WriteUncontended);

void BM_StdSharedMutex_WriteUncontended(benchmark::State& state) {
  std::shared_mutex m;
  for (auto _ : state) {
    m.lock();
    m.unlock();
  }
}
BENCHMARK(BM_StdSharedMutex_WriteUncontended);

// Two threads, each doing 100 reads and one write per iteration over shared data.
constexpr int kReadsPerWrite = 100;
long long g_shared_value = 0;

template <class ReadLock, class WriteLock>
void ReadMostly(benchmark::State& state, ReadLock read, WriteLock write) {
  long long seen = 0;
  for (auto _ : state) {
    for (int i = 0; i < kReadsPerWrite; ++i) read([&] { seen += g_shared_value; });
    write([] { ++g_shared_value; });
  }
  benchmark::DoNotOptimize(seen);
  state.SetItemsProcessed(state.iterations() * (kReadsPerWrite + 1));
}

COSRWInterlock g_interlock;
std::shared_mutex g_shared_mutex;

void BM_COSRWInterlock_ReadMostly(benchmark::State& state) {
  ReadMostly(
      state,
      [](auto body) {
        COSRWRAutoLock lock(g_interlock);
        body();
      },
      [](auto body) {
        COSRWWAutoLock lock(g_interlock);
        body();
      });
}
BENCHMARK(BM_COSRWInterlock_ReadMostly)->Threads(2)->UseRealTime();

void BM_StdSharedMutex_ReadMostly(benchmark::State& state) {
  ReadMostly(
      state,
      [](auto body) {
        std::shared_lock lock(g_shared_mutex);
        body();
      },
      [](auto body) {
        std::unique_lock lock(g_shared_mutex);
        body();
      });
}
BENCHMARK(BM_StdSharedMutex_ReadMostly)->Threads(2)->UseRealTime();

// ---- Event set-to-wake latency: one iteration is a round trip (two wake-ups) ----

void BM_COSEvent_PingPong(benchmark::State& state) {
  COSEvent ping, pong;
  std::atomic<bool> stop{false};
  std::thread partner([&] {
    for (;;) {
      ping.Wait(INFINITE);
      if (stop.load()) return;
      pong.Set();
    }
  });
  for (auto _ : state) {
    ping.Set();
    pong.Wait(INFINITE);
  }
  stop = true;
  ping.Set();
  partner.join();
  state.counters["per_wake"] = benchmark::Counter(static_cast<double>(state.iterations()) * 2,
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_StdConditionVariable_PingPong(benchmark::State& state) {
  std::mutex m;
  std::condition_variable cv_ping, cv_pong;
  bool ping = false, pong = false, stop = false;
  std::thread partner([&] {
    std::unique_lock lock(m);
    for (;;) {
      cv_ping.wait(lock, [&] { return ping || stop; });
      if (stop) return;
      ping = false;
      pong = true;
      cv_pong.notify_one();
    }
  });
  for (auto _ : state) {
    std::unique_lock lock(m);
    ping = true;
    cv_ping.notify_one();
    cv_pong.wait(lock, [&] { return pong; });
    pong = false;
  }
  {
    std::lock_guard lock(m);
    stop = true;
  }
  cv_ping.notify_one();
  partner.join();
  state.counters["per_wake"] = benchmark::Counter(static_cast<double>(state.iterations()) * 2,
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

}  // namespace

BENCHMARK(BM_COSEvent_PingPong)->UseRealTime();
BENCHMARK(BM_StdConditionVariable_PingPong)->UseRealTime();
