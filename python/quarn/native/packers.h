#pragma once

#include <cstdint>

/// The functions of this library, called through ctypes.
extern "C" {

/// A weight to pack, in float and finite, and where its bytes go.
struct quarn_job {
  const float* weight;
  std::int64_t blocks;
  /// One positive number per column by which its squared errors count, or null; only formats of 256 elements
  /// read it.
  const float* importance;
  std::int64_t blocks_per_row;
  std::uint8_t* values;
  /// Where the scale zone begins; formats of records have none.
  std::uint8_t* scales;
};

/// Whether this CPU can run the other functions (x86-64-v3).
int quarn_supported();

/// The magnitude of the largest of `count` numbers; NaN where one of them is NaN, infinity where one is
/// infinite.
float quarn_largest(const float* numbers, std::int64_t count, int threads);

/// Packs with the format of the name, on `threads` threads.
void quarn_encode_q4_0(const quarn_job* job, int threads);
void quarn_encode_q4_1(const quarn_job* job, int threads);
void quarn_encode_q5_0(const quarn_job* job, int threads);
void quarn_encode_q5_1(const quarn_job* job, int threads);
void quarn_encode_q8_0(const quarn_job* job, int threads);
void quarn_encode_nf4(const quarn_job* job, int threads);
void quarn_encode_nf3(const quarn_job* job, int threads);
void quarn_encode_fp4(const quarn_job* job, int threads);
void quarn_encode_fp8_e4m3(const quarn_job* job, int threads);
void quarn_encode_fp8_e5m2(const quarn_job* job, int threads);
void quarn_encode_fp8_e5m2_linear(const quarn_job* job, int threads);
void quarn_encode_iq2_xxs(const quarn_job* job, int threads);
void quarn_encode_q2_k(const quarn_job* job, int threads);

/// The 256 entries of the grid of iq2_xxs.
const std::uint64_t* quarn_iq2xxs_grid();
}
