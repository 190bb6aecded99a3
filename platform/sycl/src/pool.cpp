#include "sycl/pool.hpp"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "spmd/target/streams.hpp"

namespace sycl::host {
namespace {

/// The CPUs that the calling thread may use.
cpu_set_t usable_cpus() {
  cpu_set_t set;
  CPU_ZERO(&set);
  sched_getaffinity(0, sizeof set, &set);
  return set;
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
        spmd::target::finish_streams();  // before the job is done
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

/// Turns of a waiting loop in which the launching thread looks whether the others have finished, before it
/// sleeps: some tens of microseconds. They began together and share evenly, so they end nearly together, and
/// a thread that sleeps is woken on the CPU of the one that wakes it.
constexpr int finish_turns = 2000;

/// Turns in which a worker that has finished looks for the next job before it sleeps: some twenty
/// microseconds, which is what a model's code takes from one operator to the next. Waking a thread takes
/// longer than a small operator.
constexpr int idle_turns = 1500;

class pool {
 public:
  void run(job& work, int helpers) {
    if (!owner_.try_lock()) return work.work();
    const std::lock_guard own(owner_, std::adopt_lock);
    {
      const std::lock_guard hold(lock_);
      try {
        while (static_cast<int>(workers_.size()) < helpers) {
          workers_.emplace_back([this] { serve(); });
          launcher_cpu_ = -1;
        }
      } catch (
          const std::system_error&) {  // no further thread can be started: those that there are do it all
      }
      job_ = &work;
      places_ = helpers;
    }
    keep_workers_off(sched_getcpu());
    if (helpers == 1) {
      wake_.notify_one();
    } else {
      wake_.notify_all();
    }
    work.work();
    {
      const std::lock_guard hold(lock_);
      job_ = nullptr;  // a worker that comes from now on finds nothing; wait for those that took part
      places_ = 0;
    }
    for (int turn = 0; turn < finish_turns && active_.load(std::memory_order_acquire) > 0; ++turn)
      __builtin_ia32_pause();
    std::unique_lock hold(lock_);
    done_.wait(hold, [this] { return active_.load(std::memory_order_relaxed) == 0; });
  }

 private:
  void serve() {
    inside_job = true;
    for (;;) {
      for (int turn = 0; turn < idle_turns && places_.load(std::memory_order_relaxed) == 0; ++turn)
        __builtin_ia32_pause();
      std::unique_lock hold(lock_);
      wake_.wait(hold, [this] { return job_ != nullptr && places_ > 0; });
      job& work = *job_;
      --places_;
      active_.fetch_add(1, std::memory_order_relaxed);
      hold.unlock();
      work.work();
      hold.lock();
      if (active_.fetch_sub(1, std::memory_order_release) == 1) done_.notify_one();
    }
  }

  /// Workers may run on any CPU but the launching thread's. A kernel tends to wake a thread on the CPU of the
  /// one that wakes it, where it would begin when the job is over.
  void keep_workers_off(int cpu) {
    if (cpu == launcher_cpu_) return;
    launcher_cpu_ = cpu;
    if (cpu < 0) return;
    cpu_set_t others = usable_;
    CPU_CLR(cpu, &others);
    if (CPU_COUNT(&others) == 0) return;
    for (std::thread& worker : workers_)
      pthread_setaffinity_np(worker.native_handle(), sizeof others, &others);
  }

  std::mutex owner_;
  std::mutex lock_;
  std::condition_variable wake_;
  std::condition_variable done_;
  job* job_ = nullptr;
  std::atomic<int> places_{0};  // for workers in the job; changed under the lock
  std::atomic<int> active_{0};
  std::vector<std::thread> workers_;
  const cpu_set_t usable_ = usable_cpus();
  int launcher_cpu_ = -1;  // where the last job was launched
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
    const cpu_set_t usable = usable_cpus();
    threads = std::max(1, CPU_COUNT(&usable));
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
