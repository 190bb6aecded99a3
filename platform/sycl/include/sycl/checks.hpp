#pragma once
// Debug builds check every access that a kernel makes through the vocabulary against the allocation it falls
// into.

#include <cstddef>
#include <type_traits>

namespace sycl::host {

/// Tells that [memory, memory + bytes) may be accessed by kernels; and that it may no longer.
void allow_access(const void* memory, std::size_t bytes);
void forbid_access(const void* memory);

/// Throws std::out_of_range where [address, address + bytes) does not lie within one such range.
void check_access(const void* address, std::size_t bytes);

/// Allows access to some memory for as long as it lives.
class accessible {
 public:
  accessible(const void* memory, std::size_t bytes) : memory_(memory) { allow_access(memory, bytes); }
  ~accessible() { forbid_access(memory_); }
  accessible(const accessible&) = delete;
  accessible& operator=(const accessible&) = delete;

 private:
  const void* memory_;
};

#if defined(HOST_SYCL_CHECKS)
inline constexpr bool checks_enabled = true;
#else
inline constexpr bool checks_enabled = false;
#endif

/// `accessible` in debug builds; else nothing.
struct unchecked {
  unchecked(const void*, std::size_t) {}
};
using accessible_here = std::conditional_t<checks_enabled, accessible, unchecked>;

/// check_access in debug builds; else nothing.
template <class T>
[[gnu::always_inline]] inline void checked(const T* address, std::size_t bytes) {
  if constexpr (checks_enabled) {
    if (bytes > 0) check_access(address, bytes);
  }
}

}  // namespace sycl::host
