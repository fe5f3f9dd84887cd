// ParallelRanges: splits [0, n) into contiguous ranges and runs a function
// over each on its own thread. The trainer's batch jobs (posteriors of a
// split, scoring frames for mining) share it.
#ifndef KESTREL_TRAINING_TRAINER_PARALLEL_RANGES_H_
#define KESTREL_TRAINING_TRAINER_PARALLEL_RANGES_H_

#include <algorithm>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrel {

// Runs `work(first, end)` over contiguous ranges of [0, n) on up to
// `num_threads` threads (the calling one alone if that is 1) and waits for
// all; rethrows the first error.
template <class Work>
void ParallelRanges(int n, int num_threads, const Work& work) {
  num_threads = std::max(1, std::min(num_threads, n));
  if (num_threads == 1) {  // no thread to start for a single range
    work(0, n);
    return;
  }
  std::vector<std::thread> threads;
  std::exception_ptr error;
  std::mutex mutex;
  for (int t = 0; t < num_threads; ++t) {
    int first = static_cast<int>(static_cast<long>(n) * t / num_threads);
    int end = static_cast<int>(static_cast<long>(n) * (t + 1) / num_threads);
    threads.emplace_back([&, first, end]() {
      try {
        work(first, end);
      } catch (...) {
        std::lock_guard<std::mutex> lock(mutex);
        if (!error) error = std::current_exception();
      }
    });
  }
  for (std::thread& th : threads) th.join();
  if (error) std::rethrow_exception(error);
}

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_PARALLEL_RANGES_H_
