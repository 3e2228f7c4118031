#include "base/ordered_work.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <numeric>
#include <system_error>
#include <thread>
#include <vector>

#include "base/scope_guard.h"

namespace corvelstow {
namespace {

using Work = std::function<bool(const StowWorkSlot&)>;
using Progress = std::function<void(std::size_t)>;

std::size_t runAlone(std::size_t count, std::size_t every, const Work& work,
                     const Progress& progress) {
  std::size_t finished = 0;
  for (std::size_t index = 0; index < count; ++index) {
    if (work({0, index, nullptr}) && ++finished % every == 0) progress(finished);
  }
  if (finished % every != 0) progress(finished);
  return finished;
}

// What the threads share: the order in which they take the indexes and how far they are in it,
// the cut-off after a failure, and under the mutex what the calling thread waits for.
struct Crew {
  Crew(std::size_t count, std::size_t every, const Work& work)
      : count(count), every(every), work(work), cutoff(count) {}

  std::size_t indexAt(std::size_t position) const {
    return order.empty() ? position : order[position];
  }

  void runThread(unsigned thread);
  void fail(std::size_t index, std::exception_ptr error);

  const std::size_t count, every;
  const Work& work;
  std::vector<std::size_t> order;    // of the indexes, when it is not increasing
  std::atomic<std::size_t> next{0};  // the next position in that order
  std::atomic<std::size_t> cutoff;   // the indexes from here on are no longer needed

  std::mutex mutex;
  std::condition_variable changed;
  std::size_t finished = 0;
  unsigned running = 0;  // threads that have not ended yet
  std::size_t failedAt = SIZE_MAX;
  std::exception_ptr failure;
};

void Crew::runThread(unsigned thread) {
  for (std::size_t position; (position = next.fetch_add(1)) < count;) {
    // Past a failure only lower indexes are still needed, and they may come later in the order.
    const std::size_t index = indexAt(position);
    if (index >= cutoff.load()) continue;
    try {
      if (work({thread, index, &cutoff})) {
        std::lock_guard lock(mutex);
        if (++finished % every == 0) changed.notify_all();
      }
    } catch (...) {
      fail(index, std::current_exception());
    }
  }
  std::lock_guard lock(mutex);
  --running;
  changed.notify_all();
}

// The lowest failing index is the one whose failure counts; the indexes after it are cancelled.
void Crew::fail(std::size_t index, std::exception_ptr error) {
  std::lock_guard lock(mutex);
  if (index >= failedAt) return;
  failedAt = index;
  failure = std::move(error);
  if (index + 1 < cutoff.load()) cutoff.store(index + 1);
}

}  // namespace

std::size_t runInOrder(std::size_t count, unsigned threads, std::size_t every, const Work& work,
                       const Progress& progress, const std::function<bool(std::size_t)>& early) {
  if (threads <= 1 || count <= 1) return runAlone(count, every, work, progress);

  Crew crew(count, every, work);
  if (early) {
    crew.order.resize(count);
    std::iota(crew.order.begin(), crew.order.end(), std::size_t{0});
    std::stable_partition(crew.order.begin(), crew.order.end(), early);
  }
  std::vector<std::thread> pool;
  ScopeGuard joinAll([&] {
    crew.cutoff.store(0);  // when the calling thread stops waiting early, nothing is needed
    for (std::thread& thread : pool) thread.join();
  });
  for (unsigned thread = 0; thread < threads && thread < count; ++thread) {
    std::lock_guard lock(crew.mutex);
    try {
      pool.emplace_back([&crew, thread] { crew.runThread(thread); });
      ++crew.running;
    } catch (const std::system_error&) {
      break;  // the system has no more threads to give: those started do the work
    }
  }
  if (pool.empty()) return runAlone(count, every, work, progress);

  std::size_t reported = 0;
  {
    std::unique_lock lock(crew.mutex);
    for (;;) {
      crew.changed.wait(
          lock, [&] { return crew.running == 0 || crew.finished / every != reported / every; });
      if (crew.running == 0) break;
      reported = crew.finished;
      lock.unlock();
      progress(reported);
      lock.lock();
    }
  }
  if (crew.failure) std::rethrow_exception(crew.failure);
  if (crew.finished != reported) progress(crew.finished);
  return crew.finished;
}

}  // namespace corvelstow
