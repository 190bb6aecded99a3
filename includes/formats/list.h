#pragma once
// The list of packed weight formats, and what is folded from it: format ids (`qtype`), block sizes, and the
// texts that name formats. A new format is a header of its own and an entry here.

#include <array>
#include <cstdint>
#include <string>
#include <type_traits>

#include "formats/fp4.h"
#include "formats/fp8_e4m3.h"
#include "formats/fp8_e5m2.h"
#include "formats/iq2_xxs.h"
#include "formats/nf3.h"
#include "formats/nf4.h"
#include "formats/q2_k.h"
#include "formats/q4_0.h"
#include "formats/q4_1.h"
#include "formats/q5_0.h"
#include "formats/q5_1.h"
#include "formats/q8_0.h"

namespace tolvane {

template <class... Formats>
struct format_list {
  /// Calls body(std::type_identity<Format>()) for each, in order.
  template <class Body>
  static constexpr void for_each(const Body& body) {
    (body(std::type_identity<Formats>()), ...);
  }
};

/// Formats in the order of their ids.
using packed_formats =
    format_list<q4_0, q4_1, q5_0, q5_1, q8_0, nf4, nf3, fp8_e4m3, fp4, fp8_e5m2, iq2_xxs, q2_k>;

inline constexpr int qtype_count = 24;

/// Bytes of a block with its scales.
template <class Format>
constexpr std::uint64_t block_bytes() {
  if constexpr (Format::zoned) {
    return Format::value_bytes + Format::scale_bytes;
  } else {
    return Format::record_bytes;
  }
}

/// A table by qtype of entry(std::type_identity<Format>()).
template <class Value, class Entry>
constexpr std::array<Value, qtype_count> by_qtype(const Entry& entry) {
  std::array<Value, qtype_count> table{};
  packed_formats::for_each(
      [&]<class Format>(std::type_identity<Format> format) { table[Format::qtype] = entry(format); });
  return table;
}

/// Elements of a block, by qtype; 0 for an id that is no format. 9 are blocks of activations, and 22 has
/// sizes only.
inline constexpr auto GGML_BLCK_SIZE = [] {
  auto table = by_qtype<std::int32_t>([]<class Format>(std::type_identity<Format>) { return Format::block; });
  table[9] = block_q8_1::block;
  table[22] = 256;
  return table;
}();

/// Bytes of a block with its scales, by qtype; 0 for an id that is no format.
inline constexpr auto GGML_TYPE_SIZE = [] {
  auto table =
      by_qtype<std::uint64_t>([]<class Format>(std::type_identity<Format>) { return block_bytes<Format>(); });
  table[9] = sizeof(block_q8_1);
  table[22] = 74;
  return table;
}();

/// Whether the operator `dequant` takes the format; whether the matrix engine does, one bit per qtype.
inline constexpr auto dequant_takes =
    by_qtype<bool>([]<class Format>(std::type_identity<Format>) { return Format::dequant; });
inline constexpr std::uint32_t sysarr_formats = [] {
  std::uint32_t mask = 0;
  packed_formats::for_each([&]<class Format>(std::type_identity<Format>) {
    mask |= std::uint32_t{Format::matrix_engine} << Format::qtype;
  });
  return mask;
}();
static_assert(sysarr_formats == 557316);

/// "2, 3 or 6": the ids of the qtypes that `takes` accepts.
template <class Takes>
std::string qtypes_in_words(const Takes& takes) {
  std::string text;
  int last = -1;
  for (int qtype = 0; qtype < qtype_count; ++qtype) {
    if (!takes(qtype)) continue;
    if (last >= 0) text += (text.empty() ? "" : ", ") + std::to_string(last);
    last = qtype;
  }
  return text + (text.empty() ? "" : " or ") + std::to_string(last);
}

}  // namespace tolvane
