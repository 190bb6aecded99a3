#include "packers.h"

#include <algorithm>
#include <bit>

#include "codebook_formats.h"
#include "float_byte_formats.h"
#include "formats/iq2xxs_grid.h"
#include "integer_formats.h"
#include "iq2_xxs.h"
#include "q2_k.h"
#include "split.h"

namespace quarn {
namespace {

/// Packs blocks of 64 elements, eight side by side.
template <class Format>
void encode_sides(const quarn_job& job, int threads) {
  split(job.blocks, 64 * lanes, threads, [&](std::int64_t first, std::int64_t count) {
    for (std::int64_t block = first; block < first + count; block += lanes) {
      const int side_by_side = static_cast<int>(std::min<std::int64_t>(lanes, first + count - block));
      const Blocks blocks(job.weight + block * block_elements, side_by_side);
      Format::encode(blocks, side_by_side, job.values + block * Format::value_bytes,
                     job.scales + block * Format::scale_bytes);
    }
  });
}

/// Packs records of 256 elements one by one.
template <class Format>
void encode_records(const quarn_job& job, int threads) {
  split(job.blocks, 16, threads, [&](std::int64_t first, std::int64_t count) {
    for (std::int64_t block = first; block < first + count; ++block) {
      const std::int64_t column = block % job.blocks_per_row * Format::elements;
      Format::encode(job.weight + block * Format::elements,
                     job.importance ? job.importance + column : nullptr, job.values + block * Format::bytes);
    }
  });
}

}  // namespace
}  // namespace quarn

using namespace quarn;

void quarn_encode_q4_0(const quarn_job* job, int threads) {
  encode_sides<q4_0>(*job, threads);
}
void quarn_encode_q4_1(const quarn_job* job, int threads) {
  encode_sides<q4_1>(*job, threads);
}
void quarn_encode_q5_0(const quarn_job* job, int threads) {
  encode_sides<q5_0>(*job, threads);
}
void quarn_encode_q5_1(const quarn_job* job, int threads) {
  encode_sides<q5_1>(*job, threads);
}
void quarn_encode_q8_0(const quarn_job* job, int threads) {
  encode_sides<q8_0>(*job, threads);
}
void quarn_encode_nf4(const quarn_job* job, int threads) {
  encode_sides<nf4>(*job, threads);
}
void quarn_encode_nf3(const quarn_job* job, int threads) {
  encode_sides<nf3>(*job, threads);
}
void quarn_encode_fp4(const quarn_job* job, int threads) {
  encode_sides<fp4>(*job, threads);
}
void quarn_encode_fp8_e4m3(const quarn_job* job, int threads) {
  encode_sides<fp8_e4m3>(*job, threads);
}
void quarn_encode_fp8_e5m2(const quarn_job* job, int threads) {
  encode_sides<fp8_e5m2>(*job, threads);
}
void quarn_encode_fp8_e5m2_linear(const quarn_job* job, int threads) {
  encode_sides<fp8_e5m2_linear>(*job, threads);
}
void quarn_encode_iq2_xxs(const quarn_job* job, int threads) {
  encode_records<iq2_xxs>(*job, threads);
}
void quarn_encode_q2_k(const quarn_job* job, int threads) {
  encode_records<q2_k>(*job, threads);
}

float quarn_largest(const float* numbers, std::int64_t count, int threads) {
  // Magnitudes order like their bits, with infinity above all numbers and NaN above infinity.
  std::atomic<int> largest{0};
  split(count, 1 << 15, threads, [&](std::int64_t first, std::int64_t length) {
    int here = 0;
    for (std::int64_t i = first; i < first + length; ++i)
      here = std::max(here, std::bit_cast<int>(numbers[i]) & 0x7FFFFFFF);
    int before = largest.load(std::memory_order_relaxed);
    while (here > before && !largest.compare_exchange_weak(before, here, std::memory_order_relaxed)) {
    }
  });
  return std::bit_cast<float>(largest.load());
}

const std::uint64_t* quarn_iq2xxs_grid() {
  return tolvane::iq2xxs_grid.data();
}
