#pragma once
// What a packed format says of itself beside its layout and its decoding. Every header of this folder
// describes one format, or what several share; formats/list.h has the list, from which all tables, limits and
// messages are made. docs/formats.md has the bytes.

#include <limits>

namespace tolvane {

struct format {
  /// Activation rows that go to a kernel for a few rows, 1 where there is none, on devices of class
  /// `gpu_summit` and on others.
  static constexpr int few_rows_on_summit = 1;
  static constexpr int few_rows = 1;
  /// Whether devices of class `gpu_igx` multiply by the format, and how many outputs a work-group computes
  /// there; 2 on others.
  static constexpr bool forward_on_igx = true;
  static constexpr int rows_on_igx = 2;
  /// Whether many outputs of a long input are made in slices of the expanded weight.
  static constexpr bool sliced_expansion = false;
  /// Whether a single activation row is quantized, and multiplied in integers.
  static constexpr bool quantizes_activations = false;
  /// Whether the matrix engine takes the format, and whether the operator `dequant` does.
  static constexpr bool matrix_engine = false;
  static constexpr bool dequant = false;
  /// Whether the host goes on while an expansion may still run, on the same two kinds of devices.
  static constexpr bool plain_expansion_on_summit = false;
  static constexpr bool plain_expansion = false;
  /// The greatest magnitude of a value before the scale, infinite where some values are not finite or there
  /// is no need to know; and whether all values are whole numbers.
  static constexpr float largest_value = std::numeric_limits<float>::infinity();
  static constexpr bool whole_values = false;
};

/// Formats whose values lie in one zone and whose scales in another one behind it.
struct zoned_format : format {
  static constexpr bool zoned = true;
};

/// Formats of records, each a block with its scales.
struct record_format : format {
  static constexpr bool zoned = false;
};

/// Records of 256 elements, multiplied in integers.
struct super_block_format : record_format {
  static constexpr int block = 256;
  static constexpr bool quantizes_activations = true;
  static constexpr bool forward_on_igx = false;
};

}  // namespace tolvane
