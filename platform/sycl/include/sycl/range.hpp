#pragma once

#include <array>
#include <cstddef>

namespace sycl {

/// Extent of an index space in D dimensions; the last one varies fastest.
template <int D>
class range {
 public:
  static_assert(D >= 1 && D <= 3, "SYCL has index spaces of one to three dimensions");
  template <class... Sizes>
  requires(sizeof...(Sizes) == D) constexpr range(Sizes... sizes)
      : sizes_{static_cast<std::size_t>(sizes)...} {}  // NOLINT: implicit as in SYCL
  constexpr range() = default;

  constexpr std::size_t get(int dimension) const { return sizes_[dimension]; }
  constexpr std::size_t operator[](int dimension) const { return sizes_[dimension]; }
  constexpr std::size_t& operator[](int dimension) { return sizes_[dimension]; }
  constexpr std::size_t size() const {
    std::size_t product = 1;
    for (const std::size_t size : sizes_) product *= size;
    return product;
  }
  friend constexpr bool operator==(const range&, const range&) = default;

 private:
  std::array<std::size_t, D> sizes_{};
};

/// A global range cut into work-groups of the local range.
template <int D>
class nd_range {
 public:
  constexpr nd_range(range<D> global, range<D> local) : global_(global), local_(local) {}
  constexpr const range<D>& get_global_range() const { return global_; }
  constexpr const range<D>& get_local_range() const { return local_; }
  constexpr range<D> get_group_range() const {
    range<D> groups;
    for (int d = 0; d < D; ++d) groups[d] = global_[d] / local_[d];
    return groups;
  }

 private:
  range<D> global_;
  range<D> local_;
};

}  // namespace sycl
