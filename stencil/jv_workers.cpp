#include "stencil/jv_workers.h"

#include <system_error>
#include <thread>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace jvk {

namespace {

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  _mm_pause();
#endif
}

// A few microseconds of pauses before a waiter sleeps: long enough for the
// next publish of a band running just ahead at the same speed, short enough
// not to burn much of a core that the publisher may be waiting for.
const int kSpins = 256;

}  // namespace

void runWorkers(int requested, const std::function<void(int, int)>& work) {
  if (requested <= 1) {
    work(0, 1);
    return;
  }
  // The workers learn the final count only once every thread that could be
  // started has been: they wait for it on `started`.
  std::mutex mutex;
  std::condition_variable started;
  int count = 0;  // 0 until decided; guarded by mutex
  std::vector<std::thread> threads;
  threads.reserve(static_cast<size_t>(requested - 1));
  for (int i = 1; i < requested; ++i) {
    try {
      threads.emplace_back([&, i] {
        int n;
        {
          std::unique_lock<std::mutex> lock(mutex);
          started.wait(lock, [&] { return count != 0; });
          n = count;
        }
        work(i, n);
      });
    } catch (const std::system_error&) {
      break;  // run with the threads there are
    }
  }
  const int n = static_cast<int>(threads.size()) + 1;
  {
    std::lock_guard<std::mutex> lock(mutex);
    count = n;
  }
  started.notify_all();
  work(0, n);
  for (std::thread& t : threads) t.join();
}

void Progress::publish(int64_t value) {
  value_.store(value, std::memory_order_seq_cst);
  if (value >= wakeAt_.load(std::memory_order_seq_cst)) {
    std::lock_guard<std::mutex> lock(mutex_);
    // Withdraw the announcement, so that the publishes until the waiter
    // runs again do not notify it once more.
    if (value >= wakeAt_.load(std::memory_order_relaxed)) {
      wakeAt_.store(INT64_MAX, std::memory_order_relaxed);
      wake_.notify_all();
    }
  }
}

int64_t Progress::waitAtLeast(int64_t target, int64_t wakeAt, int64_t finalValue) {
  int64_t v = value_.load(std::memory_order_acquire);
  for (int i = 0; v < target && i < kSpins; ++i) {
    cpuRelax();
    v = value_.load(std::memory_order_acquire);
  }
  if (v >= target) return v;
  if (wakeAt < target) wakeAt = target;
  if (wakeAt > finalValue) wakeAt = finalValue;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    // Announce (again, after a wake-up that came too early), then check.
    wakeAt_.store(wakeAt, std::memory_order_seq_cst);
    v = value_.load(std::memory_order_seq_cst);
    if (v >= wakeAt) break;
    wake_.wait(lock);
  }
  wakeAt_.store(INT64_MAX, std::memory_order_relaxed);
  return v;
}

}  // namespace jvk
