#pragma once
// Elements of half, bfloat16 and float as floats in registers, and back. Only for files that are compiled for
// AVX2; all of it is local to them.

#include <cstdint>

#include "element_type.hpp"
#include "spmd/memory.hpp"
#include "spmd/movement.hpp"

namespace kelvor_xpu {
namespace {

constexpr int lanes = spmd::native_lanes<float>;  // NOLINT(misc-definitions-in-headers): local to each file
using floats = spmd::lanes<float, lanes>;

/// The next values of a row widened; the `left` that it still has and zeros, where these are fewer than
/// lanes.
template <class T>
[[gnu::always_inline]] inline floats widened(const T* from, std::int64_t left) {
  if (left >= lanes) return spmd::convert<float>(spmd::load<lanes>(from));
  return spmd::convert<float>(spmd::load<lanes>(from, spmd::first_lanes{static_cast<int>(left)}));
}

/// A sum as an element of T. Rounding to bfloat16 has no case for NaN.
template <class T>
[[gnu::always_inline]] inline T narrowed(float value) {
  if constexpr (spmd::reduced<T>) {
    return value == value ? T(value) : T::from_bits(0x7fff);
  } else {
    return value;
  }
}

/// Calls body(T()) for the type.
template <class Body>
void with_type(ElementType type, const Body& body) {
  switch (type) {
    case ElementType::single:
      return body(float());
    case ElementType::half:
      return body(spmd::half());
    case ElementType::bfloat16:
      return body(spmd::bfloat16());
  }
}

}  // namespace
}  // namespace kelvor_xpu
