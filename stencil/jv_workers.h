#pragma once
// Threads for one stage of one page: nothing here is shared between pages
// or kept between calls.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace jvk {

// Runs work(index, count) for index 0 .. count - 1, each on its own thread
// (index 0 on the caller's), and returns when all have returned. `count`
// is `requested` unless the system refuses to start more threads, in which
// case it is the number that did start (at least 1); `work` must split its
// job by the count it is given. The threads' writes are visible to the
// caller afterwards (std::thread::join). `work` must not throw.
void runWorkers(int requested, const std::function<void(int index, int count)>& work);

// A counter that one thread raises and another waits on.
//
// publish() is a sequentially consistent (so also release) store, and the
// value a waiter returns with was read by an acquire load: whatever the
// publishing thread wrote before publishing a value is visible to a thread
// that has waited for that value.
//
// A waiter spins briefly; if the value does not come, it sleeps on a
// condition variable until the value reaches `wakeAt`, which may lie well
// beyond what it needs, so that it then runs for a while without waiting
// again instead of trailing the publisher step by step. It announces the
// value it sleeps for in `wakeAt_`; publish() takes the mutex, withdraws
// the announcement and notifies only once a value reaches it. The
// announcement and the counter are both sequentially consistent, so either
// the waiter reads the new value after announcing (and does not sleep, or
// stops sleeping), or the publisher reads the announcement after storing
// the value and notifies under the mutex, which the waiter holds from its
// announcement until it sleeps: no wake-up is lost. One waiter at a time.
class Progress {
 public:
  void publish(int64_t value);
  // Returns a value >= `target` (the one last seen); after a sleep one
  // >= min(wakeAt, the last value ever published).
  int64_t waitAtLeast(int64_t target, int64_t wakeAt, int64_t finalValue);

 private:
  alignas(64) std::atomic<int64_t> value_{0};
  std::atomic<int64_t> wakeAt_{INT64_MAX};
  std::mutex mutex_;
  std::condition_variable wake_;
};

}  // namespace jvk
