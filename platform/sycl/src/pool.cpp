#include "sycl/pool.hpp"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

namespace sycl::host {
namespace {

int usable_cpus() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
  return std::max(1, CPU_COUNT(&set));
}

/// One call of parallel_for_pieces; lives on the caller's stack.
struct job {
  std::size_t count;
  std::size_t grain;
  range_function body;
  std::atomic<std::size_t> next{0};
  std::exception_ptr error{};
  std::mutex error_lock{};

  void work() {
    for (;;) {
      const std::size_t begin = next.fetch_add(grain, std::memory_order_relaxed);
      if (begin >= count) return;
      try {
        body(begin, std::min(begin + grain, count));
      } catch (...) {
        const std::lock_guard hold(error_lock);
        if (!error) error = std::current_exception();
        next.store(count, std::memory_order_relaxed);
        return;
      }
    }
  }
};

thread_local bool inside_job = false;

class pool {
 public:
  void run(job& work, int helpers) {
    if (!owner_.try_lock()) return work.work();
    const std::lock_guard own(owner_, std::adopt_lock);
    {
      const std::lock_guard hold(lock_);
      for (; workers_ < helpers; ++workers_) std::thread([this] { serve(); }).detach();
      job_ = &work;
      places_ = helpers;
    }
    if (helpers == 1) {
      wake_.notify_one();
    } else {
      wake_.notify_all();
    }
    work.work();
    std::unique_lock hold(lock_);
    job_ = nullptr;  // a worker that wakes from now on finds nothing; wait for those that took part
    done_.wait(hold, [this] { return active_ == 0; });
  }

 private:
  void serve() {
    inside_job = true;
    std::unique_lock hold(lock_);
    for (;;) {
      wake_.wait(hold, [this] { return job_ != nullptr && places_ > 0; });
      job& work = *job_;
      --places_;
      ++active_;
      hold.unlock();
      work.work();
      hold.lock();
      if (--active_ == 0) done_.notify_one();
    }
  }

  std::mutex owner_;
  std::mutex lock_;
  std::condition_variable wake_;
  std::condition_variable done_;
  job* job_ = nullptr;
  int places_ = 0;
  int active_ = 0;
  int workers_ = 0;
};

std::atomic<pool*> the_pool{nullptr};
std::atomic<int> thread_count{0};

/// The pool is never destroyed: its workers sleep in it until the process ends. A forked child has none of
/// them, so it starts a pool of its own.
pool& current_pool() {
  static const int once = [] {
    the_pool.store(new pool);
    pthread_atfork(nullptr, nullptr, [] {
      the_pool.store(new pool);
      inside_job = false;
    });
    return 0;
  }();
  static_cast<void>(once);
  return *the_pool.load(std::memory_order_acquire);
}

}  // namespace

int pool_threads() {
  int threads = thread_count.load(std::memory_order_relaxed);
  if (threads == 0) {
    threads = usable_cpus();
    thread_count.store(threads, std::memory_order_relaxed);
  }
  return threads;
}

void set_pool_threads(int threads) {
  thread_count.store(std::max(1, threads), std::memory_order_relaxed);
}

void parallel_for_pieces(std::size_t count, std::size_t grain, range_function body) {
  if (count == 0) return;
  job work{count, std::max<std::size_t>(grain, 1), body};
  const auto pieces = (count - 1) / work.grain + 1;
  const int helpers =
      static_cast<int>(std::min<std::size_t>(pieces, static_cast<std::size_t>(pool_threads()))) - 1;
  if (helpers <= 0 || inside_job) {
    work.work();
  } else {
    inside_job = true;
    current_pool().run(work, helpers);
    inside_job = false;
  }
  if (work.error) std::rethrow_exception(work.error);
}

}  // namespace sycl::host
