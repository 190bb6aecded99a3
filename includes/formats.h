#pragma once
// The catalogue of packed weight formats: format ids (`qtype`) and block sizes. The tables of a format's
// bytes stand in docs/formats.md, the decoding of its elements in decoders.h.

#include <array>
#include <cstdint>

namespace tolvane {

enum qtype : int {
  qtype_q4_0 = 2,
  qtype_q4_1 = 3,
  qtype_q5_0 = 6,
  qtype_q5_1 = 7,
  qtype_q8_0 = 8,
  qtype_nf4 = 10,
  qtype_nf3 = 11,
  qtype_fp8_e4m3 = 15,
  qtype_fp4 = 16,
  qtype_fp8_e5m2 = 19,
  qtype_iq2_xxs = 21,
  qtype_q2_k = 23,
};

inline constexpr int qtype_count = 24;

/// Elements of a block, by qtype; 0 for an id that is no format.
inline constexpr std::array<std::int32_t, qtype_count> GGML_BLCK_SIZE = {
    0, 0, 64, 64, 0, 0, 64, 64, 64, 32, 64, 64, 0, 0, 0, 64, 64, 0, 0, 64, 0, 256, 256, 256};

/// Bytes of a block with its scales, by qtype; 0 for an id that is no format.
inline constexpr std::array<std::uint64_t, qtype_count> GGML_TYPE_SIZE = {
    0, 0, 34, 36, 0, 0, 44, 44, 68, 36, 34, 26, 0, 0, 0, 68, 34, 0, 0, 68, 0, 66, 74, 84};

}  // namespace tolvane
