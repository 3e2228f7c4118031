#pragma once

#include <atomic>
#include <cstddef>
#include <functional>

namespace corvelstow {

/// One index of ordered work, as the thread that runs it sees it.
struct StowWorkSlot {
  unsigned thread = 0;  ///< which thread runs it, from 0: for state each thread keeps of its own
  std::size_t index = 0;
  const std::atomic<std::size_t>* cutoff = nullptr;  ///< indexes from here on are not needed

  /// True once the outcome no longer depends on this index (an earlier one failed, or the
  /// waiting ended): the work may then stop by throwing anything.
  bool cancelled() const { return cutoff && index >= cutoff->load(std::memory_order_relaxed); }
};

/// Runs `work` on every index from 0 to `count` - 1 on up to `threads` threads, which take the
/// indexes in increasing order, those for which `early` answers true before the others (the
/// long ones, so that none of them is left to run alone at the end); with one thread, all in
/// increasing order on the calling thread alone. The calling thread hears `progress(finished)`,
/// with the number of indexes finished whose `work` returned true, whenever that number reaches
/// a multiple of `every` (it may have grown further by then), and once at the end. Returns that
/// number.
///
/// The outcome is that of running the indexes one after another: when some fail, the exception
/// of the lowest failing index is rethrown here, every index below it has run to its end, and no
/// index above it starts once it has failed. No thread outlives the call, which also holds when
/// `progress` throws.
std::size_t runInOrder(std::size_t count, unsigned threads, std::size_t every,
                       const std::function<bool(const StowWorkSlot&)>& work,
                       const std::function<void(std::size_t finished)>& progress,
                       const std::function<bool(std::size_t index)>& early = {});

}  // namespace corvelstow
