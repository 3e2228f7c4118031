#include "base/worker_pool.h"

#include <system_error>
#include <utility>

namespace corvelstow {

WorkerPool::WorkerPool(std::size_t threads) {
  threads_.reserve(threads);
  try {
    while (threads_.size() < threads)
      threads_.emplace_back(&WorkerPool::serve, this, threads_.size());
  } catch (const std::system_error&) {
    // Out of threads: the work is shared among those that started.
  }
}

WorkerPool::~WorkerPool() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    queue_.clear();
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

std::future<void> WorkerPool::submit(Task task) {
  std::packaged_task<void(std::size_t)> packaged(std::move(task));
  std::future<void> done = packaged.get_future();
  if (threads_.empty()) {
    packaged(0);
    return done;
  }
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(std::move(packaged));
  }
  wake_.notify_one();
  return done;
}

void WorkerPool::serve(std::size_t index) {
  for (;;) {
    std::packaged_task<void(std::size_t)> task;
    {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (stopping_) return;
      task = std::move(queue_.front());
      queue_.pop_front();
    }
    task(index);  // what the task throws goes into its future
  }
}

}  // namespace corvelstow
