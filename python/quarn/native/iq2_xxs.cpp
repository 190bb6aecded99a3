#include "iq2_xxs.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "formats/iq2xxs_grid.h"
#include "lanes.h"

namespace quarn {
namespace {

constexpr int parts = 8, groups = 4, group_elements = 8, entries = 256;
constexpr int part_elements = groups * group_elements;
constexpr int steps = 16;
constexpr float largest_magnitude = 43;

/// The grid by element, so that eight entries make a register.
struct Grid {
  float magnitude[group_elements][entries]{};
  float squares[entries]{};

  constexpr Grid() {
    for (int entry = 0; entry < entries; ++entry) {
      for (int e = 0; e < group_elements; ++e) {
        magnitude[e][entry] = static_cast<float>(tolvane::iq2xxs_grid[entry] >> 8 * e & 255);
        squares[entry] += magnitude[e][entry] * magnitude[e][entry];
      }
    }
  }
};
constexpr Grid grid;

/// The error of a group of eight under a scale f is a constant plus f^2 squares - 2 f product, for each entry
/// of the grid: product = sum(w |x| m), and squares = sum(w m^2). Where an odd number of elements is
/// negative, one element must have the wrong sign; the one of least w |x| m costs least, and its share leaves
/// the product twice.
struct Group {
  float product[entries], squares[entries];
  float size[group_elements];
  bool odd;

  void prepare(const float* x, const float* w);
  /// The element of an odd group that gets the wrong sign under an entry.
  int flipped(int entry) const;
};

void Group::prepare(const float* x, const float* w) {
  odd = false;
  for (int e = 0; e < group_elements; ++e) {
    size[e] = std::fabs(x[e]) * (w ? w[e] : 1);
    odd ^= x[e] < 0;
  }
  for (int entry = 0; entry < entries; entry += lanes) {
    Floats total{}, least = all(infinity), weighted{};
    for (int e = 0; e < group_elements; ++e) {
      const Floats magnitude = load(&grid.magnitude[e][entry]), term = size[e] * magnitude;
      total += term;
      least = min(least, term);
      if (w) weighted += w[e] * magnitude * magnitude;
    }
    store(product + entry, odd ? total - 2 * least : total);
    store(squares + entry, w ? weighted : load(&grid.squares[entry]));
  }
}

int Group::flipped(int entry) const {
  int found = 0;
  for (int e = 1; e < group_elements; ++e)
    if (size[e] * grid.magnitude[e][entry] < size[found] * grid.magnitude[found][entry]) found = e;
  return found;
}

/// What the best entries under a scale give: the error without its constant, and the sums that it is made of.
struct Fit {
  float error = 0, product = 0, squares = 0;
  Fit& operator+=(const Fit& other) {
    error += other.error;
    product += other.product;
    squares += other.squares;
    return *this;
  }
};

struct Part {
  Group group[groups];

  /// The least error under a scale, by all groups; without the sums.
  float error(float scale) const {
    float sum = 0;
    for (const Group& one : group) {
      const auto part = [&](int entry) {
        return fused(all(scale), load(one.squares + entry), -2 * load(one.product + entry));
      };
      Floats even = all(infinity), odd = even;
      for (int entry = 0; entry < entries; entry += 2 * lanes) {
        even = min(even, part(entry));
        odd = min(odd, part(entry + lanes));
      }
      sum += smallest_of(min(even, odd));
    }
    return scale * sum;
  }

  /// The best entry of each group under a scale.
  Fit fit(float scale, int* chosen) const {
    Fit sum;
    for (int i = 0; i < groups; ++i) {
      const Group& one = group[i];
      Floats least = all(infinity);
      Ints at{}, now = {0, 1, 2, 3, 4, 5, 6, 7};
      for (int entry = 0; entry < entries; entry += lanes, now += lanes) {
        const Floats error = fused(all(scale), load(one.squares + entry), -2 * load(one.product + entry));
        const auto better = error < least;
        least = better ? error : least;
        at = better ? now : at;
      }
      int best = 0;
      for (int lane = 1; lane < lanes; ++lane) best = least[lane] < least[best] ? lane : best;
      chosen[i] = at[best];
      sum += {scale * least[best], one.product[at[best]], one.squares[at[best]]};
    }
    return sum;
  }
};

/// How d and the steps of a block's parts are set.
struct Solution {
  float d = 0;
  int step[parts] = {};
  float error = infinity;
};

/// The scale of a step: exactly what a decoder computes.
float scale_of(float d, int step) {
  return (static_cast<float>(step) + 0.5f) * d * 0.25f;
}

/// The scale of least error of a part, any number. Starts from a ladder of scales, then fits.
float free_scale(const Part& part, float largest) {
  constexpr float highest = 1.2f, ratio = 0.9f;
  constexpr int rungs = 24, rounds = 2;
  float best = 0, best_error = 0;
  float scale = highest * largest / largest_magnitude;
  for (int rung = 0; rung < rungs; ++rung, scale *= ratio) {
    const float error = part.error(scale);
    if (error < best_error) best_error = error, best = scale;
  }
  for (int turn = 0; turn < rounds && best > 0; ++turn) {
    int chosen[groups];
    const Fit fit = part.fit(best, chosen);
    best = std::max(fit.product / fit.squares, 0.0f);
  }
  return best;
}

/// The steps of least error under d, tried next to those that the parts' free scales ask for.
Solution quantize(const Part* block, const float* scales, float d) {
  constexpr int reach = 1;
  Solution solution{d, {}, 0};
  for (int part = 0; part < parts; ++part) {
    const float ideal = d > 0 ? std::min(4 * scales[part] / d - 0.5f, 15.0f) : 0;
    const int around = std::clamp(static_cast<int>(std::lrint(ideal)), 0, steps - 1);
    float best = infinity;
    for (int step = std::max(around - reach, 0); step <= std::min(around + reach, steps - 1); ++step) {
      const float error = block[part].error(scale_of(d, step));
      if (error < best) best = error, solution.step[part] = step;
    }
    solution.error += best;
  }
  return solution;
}

/// The d that fits the entries best which a solution chooses.
float refit(const Part* block, const Solution& solution) {
  double product = 0, squares = 0;
  for (int part = 0; part < parts; ++part) {
    int chosen[groups];
    const float unit = scale_of(1, solution.step[part]);
    const Fit fit = block[part].fit(scale_of(solution.d, solution.step[part]), chosen);
    product += unit * fit.product;
    squares += unit * unit * fit.squares;
  }
  return squares > 0 ? nearest_half(static_cast<float>(product / squares)) : 0;
}

Solution solve(const Part* block, const float* largest) {
  float scales[parts], highest = 0;
  for (int part = 0; part < parts; ++part) {
    scales[part] = free_scale(block[part], largest[part]);
    highest = std::max(highest, scales[part]);
  }
  Solution best;
  for (int shrink = 0; shrink < 10; ++shrink) {
    const float top = 15.5f - 0.75f * static_cast<float>(shrink);
    const Solution found = quantize(block, scales, nearest_half(4 * highest / top));
    if (found.error < best.error) best = found;
  }
  for (int turn = 0; turn < 2; ++turn) {
    const Solution found = quantize(block, scales, refit(block, best));
    if (found.error < best.error) best = found;
  }
  return best;
}

}  // namespace

void iq2_xxs::encode(const float* weights, const float* importance, std::uint8_t* record) {
  static thread_local Part block[parts];
  float largest[parts];
  for (int part = 0; part < parts; ++part) {
    largest[part] = 0;
    for (std::ptrdiff_t i = 0; i < groups; ++i) {
      const std::ptrdiff_t from = (part * groups + i) * group_elements;
      for (int e = 0; e < group_elements; ++e)
        largest[part] = std::max(largest[part], std::fabs(weights[from + e]));
      block[part].group[i].prepare(weights + from, importance ? importance + from : nullptr);
    }
  }
  const Solution solution = solve(block, largest);
  const unsigned short d = half_bits(solution.d);
  std::memcpy(record, &d, sizeof d);
  for (std::ptrdiff_t part = 0; part < parts; ++part) {
    int chosen[groups];
    block[part].fit(scale_of(solution.d, solution.step[part]), chosen);
    std::uint8_t* bytes = record + 2 + 8 * part;
    std::uint32_t word = static_cast<std::uint32_t>(solution.step[part]) << 28;
    for (std::ptrdiff_t i = 0; i < groups; ++i) {
      const float* x = weights + part * part_elements + i * group_elements;
      std::uint32_t signs = 0;
      for (int e = 0; e < group_elements; ++e) signs |= static_cast<std::uint32_t>(x[e] < 0) << e;
      if (block[part].group[i].odd) signs ^= 1u << block[part].group[i].flipped(chosen[i]);
      bytes[i] = static_cast<std::uint8_t>(chosen[i]);
      word |= (signs & 127) << 7 * i;
    }
    std::memcpy(bytes + 4, &word, sizeof word);
  }
}

}  // namespace quarn
