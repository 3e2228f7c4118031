#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace corvelstow {

/// A fixed set of threads that run tasks in the order they were queued. Each task is told the
/// index of the thread that runs it, from 0 to threads() − 1, so that it may use state kept per
/// thread. A pool without threads runs each task at once on the thread that queues it, as index
/// 0. The destructor drops the tasks not yet started, lets the running ones end, and joins the
/// threads. Not movable: the threads refer to it.
class WorkerPool {
 public:
  using Task = std::function<void(std::size_t thread)>;

  /// Starts `threads` threads, or fewer when the system refuses more (with none, tasks run
  /// inline).
  explicit WorkerPool(std::size_t threads);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  /// The number of threads started.
  std::size_t threads() const { return threads_.size(); }

  /// Queues `task`. The future is ready once it has run, and get() raises what it threw.
  std::future<void> submit(Task task);

 private:
  void serve(std::size_t index);

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::packaged_task<void(std::size_t)>> queue_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace corvelstow
