#include "q2_k.h"

#include <cstring>
#include <utility>

#include "lanes.h"

namespace quarn {
namespace {

constexpr int parts = 16, part_elements = 16, halves = 2;
constexpr float top_code = 3, top_scale = 15;

/// What the field of 16 scales and minima holds, in float, for the eight sub-blocks of each half.
struct Fields {
  Floats scale[halves], minimum[halves];
};

/// d and dmin as stored.
struct Steps {
  float scale = 0, minimum = 0;
};

struct Solution {
  Steps steps;
  Fields fields;
  float error = infinity;
};

/// Sums over a sub-block, from which the line through its codes follows.
struct Moments {
  Floats q{}, qq{}, xq{};
};

/// The nearest codes of value = code * slope - minimum.
struct Coder {
  Floats inverse, shift;

  Coder(Floats slope, Floats minimum) : inverse(quotient(all(1), slope)), shift(minimum * inverse) {}
  Floats operator()(Floats x) const { return clamp(round(fused(x, inverse, shift)), 0, top_code); }
};

/// One block, a sub-block to a lane: element e of sub-block 8 * half + lane is x[half][e][lane].
template <bool weighted>
struct Block {
  Floats x[halves][part_elements], w[halves][part_elements];
  Floats sum_w[halves]{}, sum_x[halves]{};

  Block(const float* weights, const float* importance, float sign) {
    for (int half = 0; half < halves; ++half) {
      for (int e = 0; e < part_elements; ++e) {
        for (int lane = 0; lane < lanes; ++lane) {
          const int from = (half * lanes + lane) * part_elements + e;
          x[half][e][lane] = sign * weights[from];
          w[half][e][lane] = weighted ? importance[from] : 1;
        }
        sum_w[half] += w[half][e];
        sum_x[half] += w[half][e] * x[half][e];
      }
    }
  }

  /// The weighted squared error of value = code * slope - minimum with the nearest codes.
  Floats error(int half, Floats slope, Floats minimum) const {
    const Coder coder(slope, minimum);
    Floats sums[2]{};
    for (int e = 0; e < part_elements; ++e) {
      const Floats code = coder(x[half][e]);
      const Floats off = fused(-code, slope, x[half][e] + minimum);
      sums[e % 2] = fused(weighted ? off * w[half][e] : off, off, sums[e % 2]);
    }
    return sums[0] + sums[1];
  }

  Moments moments(int half, Floats slope, Floats minimum) const {
    const Coder coder(slope, minimum);
    Moments sums;
    for (int e = 0; e < part_elements; ++e) {
      const Floats code = coder(x[half][e]), product = weighted ? code * w[half][e] : code;
      sums.q += product;
      sums.qq = fused(product, code, sums.qq);
      sums.xq = fused(product, x[half][e], sums.xq);
    }
    return sums;
  }

  /// Slopes and minima of least error, as any numbers, but the minimum not below 0.
  Fields fit() const;

  /// The fields of least error around (slopes, minima) under the steps; `reach` is how far around.
  Solution quantize(Steps steps, const Fields& around, int reach) const;

  /// The steps that fit a solution's fields and codes best.
  Steps refit(const Solution& solution) const;

  /// The least error found over all of that.
  Solution solve() const;
};

template <bool weighted>
Fields Block<weighted>::fit() const {
  static constexpr float starts[][2] = {{0, 0},     {0.05f, 0.05f}, {0.1f, 0.1f},   {0.16f, 0.16f},
                                        {0, 0.15f}, {0.15f, 0},     {0.25f, 0.05f}, {0.05f, 0.25f}};
  constexpr int rounds = 3;
  Fields best;
  for (int half = 0; half < halves; ++half) {
    Floats low = x[half][0], high = x[half][0];
    for (const Floats& value : x[half]) low = min(low, value), high = max(high, value);
    low = min(low, Floats{});
    Floats best_error = all(infinity);
    for (const auto& [below, above] : starts) {
      const Floats range = high - low;
      Floats slope = (1 - below - above) * range / top_code, minimum = max(-(low + below * range), Floats{});
      for (int turn = 0; turn <= rounds; ++turn) {
        const Floats now = error(half, slope, minimum);
        const auto better = now < best_error;
        best_error = better ? now : best_error;
        best.scale[half] = better ? slope : best.scale[half];
        best.minimum[half] = better ? minimum : best.minimum[half];
        if (turn == rounds) break;
        const Moments sums = moments(half, slope, minimum);
        const Floats spread = sum_w[half] * sums.qq - sums.q * sums.q;
        slope = quotient(sum_w[half] * sums.xq - sum_x[half] * sums.q, spread);
        minimum = (slope * sums.q - sum_x[half]) / sum_w[half];
        slope = minimum < 0 ? quotient(sums.xq, sums.qq) : slope;
        slope = max(slope, Floats{});
        minimum = max(minimum, Floats{});
      }
    }
  }
  return best;
}

template <bool weighted>
Solution Block<weighted>::quantize(Steps steps, const Fields& around, int reach) const {
  Solution solution{steps, {}, 0};
  for (int half = 0; half < halves; ++half) {
    const Floats scale = round(quotient(around.scale[half], all(steps.scale)));
    const Floats minimum = round(quotient(around.minimum[half], all(steps.minimum)));
    Floats best = all(infinity);
    for (int i = -reach; i <= reach; ++i) {
      const Floats s = clamp(scale + static_cast<float>(i), 0, top_scale);
      for (int j = -reach; j <= reach; ++j) {
        const Floats m = clamp(minimum + static_cast<float>(j), 0, top_scale);
        const Floats now = error(half, steps.scale * s, steps.minimum * m);
        const auto better = now < best;
        best = better ? now : best;
        solution.fields.scale[half] = better ? s : solution.fields.scale[half];
        solution.fields.minimum[half] = better ? m : solution.fields.minimum[half];
      }
    }
    solution.error += sum_of(best);
  }
  return solution;
}

template <bool weighted>
Steps Block<weighted>::refit(const Solution& solution) const {
  Floats uu{}, uv{}, vv{}, xu{}, xv{};
  for (int half = 0; half < halves; ++half) {
    const Floats u = solution.fields.scale[half], v = solution.fields.minimum[half];
    const Moments sums = moments(half, solution.steps.scale * u, solution.steps.minimum * v);
    uu += u * u * sums.qq;
    uv += u * v * sums.q;
    vv += v * v * sum_w[half];
    xu += u * sums.xq;
    xv += v * sum_x[half];
  }
  const double a = sum_of(uu), b = sum_of(uv), c = sum_of(vv), p = sum_of(xu), r = sum_of(xv);
  const double determinant = a * c - b * b;
  if (determinant <= 1e-9 * a * c)
    return {a > 0 ? nearest_half(static_cast<float>(p / a)) : 0, solution.steps.minimum};
  return {nearest_half(static_cast<float>((p * c - b * r) / determinant)),
          nearest_half(static_cast<float>((b * p - a * r) / determinant))};
}

template <bool weighted>
Solution Block<weighted>::solve() const {
  constexpr int reach = 1;
  static constexpr float shrinks[] = {1, 0.94f, 0.88f, 0.82f, 0.76f};
  const Fields free = fit();
  const float scale = largest_of(max(free.scale[0], free.scale[1])) / top_scale;
  const float minimum = largest_of(max(free.minimum[0], free.minimum[1])) / top_scale;
  Solution best;
  for (const float by_scale : shrinks) {
    for (const float by_minimum : shrinks) {
      const Solution found =
          quantize({nearest_half(by_scale * scale), nearest_half(by_minimum * minimum)}, free, 0);
      if (found.error < best.error) best = found;
    }
  }
  Steps steps = best.steps;
  for (int turn = 0; turn < 3; ++turn) {
    const Solution found = quantize(steps, free, reach);
    if (found.error < best.error) best = found;
    steps = refit(found);
  }
  return best;
}

/// The better of a solution for the weights and one for their negatives, and its sign. The minima lie on one
/// side of 0 only, so that weights of one sign pack well under one of the two.
template <bool weighted>
std::pair<Solution, float> either_sign(const float* weights, const float* importance) {
  const Solution up = Block<weighted>(weights, importance, 1).solve();
  const Solution down = Block<weighted>(weights, importance, -1).solve();
  return up.error <= down.error ? std::pair{up, 1.0f} : std::pair{down, -1.0f};
}

}  // namespace

void q2_k::encode(const float* weights, const float* importance, std::uint8_t* record) {
  const auto [solution, sign] =
      importance ? either_sign<true>(weights, importance) : either_sign<false>(weights, nullptr);
  const Block<false> block(weights, nullptr, sign);
  const auto& [steps, fields, error] = solution;
  std::memset(record, 0, bytes);
  for (int half = 0; half < halves; ++half) {
    const Floats slope = steps.scale * fields.scale[half], minimum = steps.minimum * fields.minimum[half];
    for (int lane = 0; lane < lanes; ++lane) {
      record[half * lanes + lane] = static_cast<std::uint8_t>(
          static_cast<int>(fields.scale[half][lane]) | static_cast<int>(fields.minimum[half][lane]) << 4);
    }
    const Coder coder(slope, minimum);
    for (int e = 0; e < part_elements; ++e) {
      const Floats code = coder(block.x[half][e]);
      for (int lane = 0; lane < lanes; ++lane) {
        const int at = lane * part_elements + e;  // within 128 elements: four runs of 32
        record[parts + half * 32 + at % 32] |=
            static_cast<std::uint8_t>(static_cast<int>(code[lane]) << at / 32 * 2);
      }
    }
  }
  const unsigned short stored[] = {half_bits(sign * steps.scale), half_bits(sign * steps.minimum)};
  std::memcpy(record + 80, stored, sizeof stored);
}

}  // namespace quarn
