#pragma once

#include <span>

#include "blocks.h"

/// The scales of least squared error, as the formats of 64 elements store them.
namespace quarn {

/// The scale d of least squared error found for blocks of value = level * d; a block of zeros gets 0.
///
/// Each of `peaks`, and `own_peak` where there is one, is what the block's largest weight is divided by to
/// get a scale to try. That scale gives levels, and the levels give the scale that fits them best: sum(x q) /
/// sum(q^2), rounded by `stored`, the minimum of the parabola sum((x - d q)^2). The candidate that removes
/// most from sum(x^2) wins. `nearest` rounds to the levels. The winner's own levels are fitted again
/// `refinements` times. Computed relative to the largest weight, so that no square overflows or vanishes.
template <class Nearest, class Stored>
Floats best_scale(const Blocks& blocks, std::span<const float> peaks, const Nearest& nearest,
                  const Stored& stored, const Floats* own_peak = nullptr, int refinements = 0) {
  Floats low = blocks.x[0], high = blocks.x[0];
  for (const Floats& x : blocks.x) low = min(low, x), high = max(high, x);
  const Floats largest = -low > high ? low : high;
  Floats relative[block_elements];
  for (int e = 0; e < block_elements; ++e) relative[e] = quotient(blocks.x[e], largest);

  Floats best_gain{}, best{};
  const auto attempt = [&](Floats peak) {
    const Floats factor = quotient(largest, stored(largest / peak));
    const auto [products, squares] = sum([&](int e) {
      const Floats level = nearest(relative[e] * factor);
      return Pair{relative[e] * level, level * level};
    });
    const Floats scale = stored(quotient(products, squares) * largest);
    const Floats ratio = quotient(scale, largest);
    const Floats gain = ratio * (2 * products - ratio * squares);
    const auto better = gain > best_gain;
    best_gain = better ? gain : best_gain;
    best = better ? scale : best;
  };
  if (own_peak) attempt(*own_peak);
  for (const float peak : peaks) attempt(all(peak));
  for (int turn = 0; turn < refinements; ++turn) attempt(quotient(largest, best));
  return best;
}

/// The nearest codes 0 to top of value = code * slope + minimum, in float.
inline Floats line_code(Floats x, Floats slope, Floats minimum, float top) {
  return clamp(round(quotient(x - minimum, slope)), 0, top);
}

struct Line {
  Floats slope, minimum;
};

/// How much of the block's range is cut off below and above where `best_line` starts.
constexpr double cuts[][2] = {{0.0, 0.0}, {0.02, 0.02}, {0.04, 0.04}, {0.07, 0.07},
                              {0.1, 0.1}, {0.0, 0.06},  {0.06, 0.0},  {-0.02, -0.02}};

/// The halves of least squared error found for value = code * slope + minimum, code 0 to top.
///
/// From each start, codes and the line through them are fitted in turns; the slope is rounded to half first,
/// and the minimum makes up for its rounding as far as a half can. A block of equal weights gets slope 0.
inline Line best_line(const Blocks& blocks, float top) {
  Floats low = blocks.x[0], high = blocks.x[0];
  for (const Floats& x : blocks.x) low = min(low, x), high = max(high, x);
  const Floats mean = sum([&](int e) { return blocks.x[e]; }) / block_elements;
  Floats centred[block_elements], codes[block_elements];
  for (int e = 0; e < block_elements; ++e) centred[e] = blocks.x[e] - mean;

  constexpr int rounds = 3;
  Floats best_error = all(infinity);
  Line best{};
  for (const auto& [below, above] : cuts) {
    Floats minimum = as_half(low + static_cast<float>(below) * (high - low));
    Floats slope = as_half(static_cast<float>(1 - below - above) * (high - low) / top);
    for (int turn = 0; turn < rounds; ++turn) {
      const auto [error, total] = sum([&](int e) {
        codes[e] = line_code(blocks.x[e], slope, minimum, top);
        const Floats off = codes[e] * slope + minimum - blocks.x[e];
        return Pair{off * off, codes[e]};
      });
      const auto better = error < best_error;
      best_error = better ? error : best_error;
      best.slope = better ? slope : best.slope;
      best.minimum = better ? minimum : best.minimum;
      const Floats middle = total / block_elements;
      const auto [products, spread] = sum([&](int e) {
        const Floats code = codes[e] - middle;
        return Pair{centred[e] * code, code * code};
      });
      slope = as_half(quotient(products, spread));
      minimum = as_half(mean - slope * middle);
    }
  }
  return best;
}

}  // namespace quarn
