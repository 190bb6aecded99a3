#pragma once
// What tests see of a queue from the outside: how many kernels were submitted, which, in what shape, and
// whether the host waited for them.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <typeinfo>
#include <vector>

namespace sycl::host {

/// One submission of a kernel. `kernel` is the functor's type, demangled; `label` the one its profiler record
/// gave.
struct submission {
  std::uint64_t id = 0;
  std::string kernel;
  int dimensions = 1;
  std::array<std::size_t, 3> global{};
  std::array<std::size_t, 3> local{};
  bool waited = false;
  std::string label;
};

/// Submissions and host waits since the process began.
std::uint64_t submission_count();
std::uint64_t wait_count();

/// The newest submissions, oldest first: at most the last 1024, and only those after `clear_submissions`.
std::vector<submission> submissions();
void clear_submissions();

/// Writes one entry and returns its id (1, 2, …).
std::uint64_t record_submission(const std::type_info& kernel, int dimensions,
                                const std::array<std::size_t, 3>& global,
                                const std::array<std::size_t, 3>& local);
void record_wait(std::uint64_t id);
void record_label(std::uint64_t id, const std::string& label);

}  // namespace sycl::host
