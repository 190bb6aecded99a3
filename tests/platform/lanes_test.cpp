// The vocabulary of varying values, against plain loops.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include "reference.hpp"
#include "spmd/spmd.hpp"
#include "spmd/word_bytes.hpp"
#include "sycl/sycl.hpp"

namespace {

using spmd::bfloat16;
using spmd::half;
using spmd::lanes;

template <class T, int N>
std::vector<T> list(const lanes<T, N>& x) {
  std::vector<T> values(N);
  spmd::store(values.data(), x);
  return values;
}

template <class T, int N>
lanes<T, N> counting(T first) {
  std::vector<T> values(N);
  std::iota(values.begin(), values.end(), first);
  return spmd::load<N>(values.data());
}

/// Memory whose last byte is the last before an unmapped page.
class guarded {
 public:
  explicit guarded(std::size_t bytes) : bytes_(bytes) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    size_ = (bytes + page - 1) / page * page + page;
    base_ = static_cast<std::uint8_t*>(
        mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(base_ + size_ - page, page, PROT_NONE);
    data_ = base_ + size_ - page - bytes;
    for (std::size_t i = 0; i < bytes; ++i) data_[i] = static_cast<std::uint8_t>(i * 37 + 11);
  }
  ~guarded() { munmap(base_, size_); }
  std::uint8_t* data() const { return data_; }
  std::size_t size() const { return bytes_; }

 private:
  std::size_t bytes_, size_ = 0;
  std::uint8_t* base_ = nullptr;
  std::uint8_t* data_ = nullptr;
};

TEST(Lanes, ConvertsBetweenWidths) {
  const auto small = counting<std::int32_t, 32>(-7);
  const std::vector<double> wide = list(spmd::convert<double>(small));
  const std::vector<std::int32_t> back = list(spmd::convert<std::int32_t>(spmd::convert<double>(small)));
  const std::vector<float> narrow = list(spmd::convert<float>(spmd::convert<double>(small)));
  for (int l = 0; l < 32; ++l) {
    EXPECT_EQ(wide[l], l - 7);
    EXPECT_EQ(back[l], l - 7);
    EXPECT_EQ(narrow[l], l - 7);
  }
  // Float to half to bfloat16 goes through float and rounds each time.
  const float x = 1.00146484375f;
  EXPECT_EQ(float(list(spmd::convert<bfloat16>(spmd::convert<half>(lanes<float, 32>(x))))[9]),
            reference::nearest_bfloat16(reference::nearest_half(x)));
}

TEST(Lanes, ComparesAndSelects) {
  const auto check = []<class T>(T) {
    const auto x = counting<T, 32>(T(0));
    const std::vector<T> chosen = list(spmd::select(x < T(11), x, x + T(100)));
    const std::vector<T> other =
        list(spmd::select((x > T(3)) & !(x == lanes<T, 32>(T(20))), x, lanes<T, 32>(T(0))));
    for (int l = 0; l < 32; ++l) {
      EXPECT_EQ(chosen[l], l < 11 ? l : l + 100);
      EXPECT_EQ(other[l], l > 3 && l != 20 ? l : 0);
    }
  };
  check(float{});
  check(double{});
  check(std::int32_t{});
}

TEST(Lanes, RampRepeatsTheLastLiveLane) {
  for (int live = 1; live <= 32; ++live) {
    const std::vector<std::int32_t> ids = list(spmd::ramp<32>(64, live));
    for (int l = 0; l < 32; ++l) ASSERT_EQ(ids[l], 64 + std::min(l, live - 1)) << live;
  }
}

TEST(Lanes, FieldsOfWords) {
  std::mt19937 random(3);
  for (int round = 0; round < 1000; ++round) {
    std::uint32_t words[32];
    for (auto& word : words) word = random();
    const auto x = spmd::load<32>(words);
    spmd::unrolled<8>([&](auto nibble) {
      constexpr int bit = nibble * 4;
      const auto value = list(spmd::field_value<4, bit, -8>(x));
      for (int l = 0; l < 32; ++l) {
        ASSERT_EQ(value[l], static_cast<int>(words[l] >> bit & 15) - 8);
        ASSERT_EQ((spmd::field_value<4, bit, -8>(words[l])), value[l]);
      }
    });
    spmd::unrolled<4>([&](auto byte) {
      const auto upper = list(spmd::half_from_upper_byte<byte, 0x80>(x));
      for (int l = 0; l < 32; ++l) {
        const double expected =
            reference::half_value(static_cast<std::uint16_t>((words[l] >> (8 * byte)) << 8 | 0x80));
        ASSERT_TRUE(reference::same(upper[l], expected));
        ASSERT_TRUE(reference::same((spmd::half_from_upper_byte<byte, 0x80>(words[l])), expected));
      }
    });
  }
}

/// Floats, many of them between two values of the type, written by every kind of store; `split` is for
/// bfloat16.
template <class T>
void expect_stores_convert() {
  std::mt19937 random(7);
  for (int round = 0; round < 2000; ++round) {
    alignas(32) float x[32];
    for (float& value : x) {
      const std::uint32_t low[] = {0, 0x1000, 0x7FFF, 0x8000, 0x8001, 0xFFFF};
      const std::uint32_t word = (random() & 0xBFFF0000) + low[random() % 6];  // all finite
      std::memcpy(&value, &word, 4);
    }
    const auto wide = spmd::load<32>(x);
    alignas(64) T stored[32], converted[32], streamed[32], ordinary[32], first[32] = {};
    spmd::store(stored, wide);
    spmd::store(converted, spmd::convert<T>(wide));
    spmd::stream(streamed, wide, true);
    spmd::stream(ordinary, wide, false);
    spmd::store(first, wide, spmd::first_lanes{19});
    for (int l = 0; l < 32; ++l) {
      const T expected(x[l]);
      for (const T* const result : {stored, converted, streamed, ordinary})
        ASSERT_EQ(std::memcmp(&expected, result + l, sizeof(T)), 0) << x[l];
      const T partial = l < 19 ? expected : T(0.0f);
      ASSERT_EQ(std::memcmp(&partial, first + l, sizeof(T)), 0) << l;
    }
  }
}

TEST(Lanes, StoresConvertOnTheWay) {
  expect_stores_convert<half>();
  expect_stores_convert<bfloat16>();
  expect_stores_convert<float>();
  expect_stores_convert<double>();
}

TEST(Lanes, SplitBfloat16sComeBackInOrder) {
  for (std::uint32_t from = 0; from < 0x10000; from += 32) {
    alignas(32) bfloat16 bits[32], back[32];
    for (std::uint32_t l = 0; l < 32; ++l)
      bits[l] = bfloat16::from_bits(static_cast<std::uint16_t>(from + l));
    for (const bool past_caches : {false, true}) {
      spmd::stream_split(back, spmd::convert<float>(spmd::load_split<32>(bits)), past_caches);
      ASSERT_EQ(std::memcmp(bits, back, sizeof bits), 0) << from;
    }
  }
  // Of each 16 the even places come first, and what is written rounds.
  alignas(32) bfloat16 numbers[16], sums[16];
  for (int l = 0; l < 16; ++l) numbers[l] = bfloat16(static_cast<float>(l));
  const auto split = spmd::convert<float>(spmd::load_split<16>(numbers));
  EXPECT_EQ(list(split)[1], 2);
  EXPECT_EQ(list(split)[8], 1);
  spmd::stream_split(sums, split + spmd::lanes<float, 16>(256.0f), true);
  for (int l = 0; l < 16; ++l) EXPECT_EQ(sums[l].bits(), bfloat16(256.0f + static_cast<float>(l)).bits());
}

/// Loads of fewer lanes than the gang has end at the last live lane's bytes and give 0 in the others.
TEST(Lanes, PartialLoadsStopAtTheLastLiveLane) {
  for (int live = 1; live <= 32; ++live) {
    const guarded bytes(static_cast<std::size_t>(live) * 8);
    const auto tile = spmd::load_tile8<32>(bytes.data(), spmd::first_lanes{live});
    const std::vector<std::uint32_t> low = list(tile.word[0]), high = list(tile.word[1]);
    const auto element =
        list(spmd::load<32>(reinterpret_cast<const half*>(bytes.data()) + 3 * live, spmd::first_lanes{live}));
    for (int l = 0; l < 32; ++l) {
      std::uint32_t expected[2] = {0, 0};
      if (l < live) std::memcpy(expected, bytes.data() + 8 * l, 8);
      ASSERT_EQ(low[l], expected[0]) << live;
      ASSERT_EQ(high[l], expected[1]) << live;
      std::uint16_t bits = 0;
      if (l < live) std::memcpy(&bits, bytes.data() + 6 * live + 2 * l, 2);
      ASSERT_TRUE(reference::same(float(element[l]), reference::half_value(bits))) << live;
    }
  }
}

TEST(Lanes, RepeatedLoadsShareOneElementAmongNeighbours) {
  for (int live = 1; live <= 32; ++live) {
    const guarded halves(static_cast<std::size_t>((live + 3) / 4) * 2),
        floats(static_cast<std::size_t>((live + 7) / 8) * 4);
    const auto by_four = list(
        spmd::repeat_each<32, 4>(spmd::load_shared<32, 4, half>(halves.data(), spmd::first_lanes{live})));
    const auto by_eight = list(
        spmd::repeat_each<32, 8>(spmd::load_shared<32, 8, float>(floats.data(), spmd::first_lanes{live})));
    for (int l = 0; l < live; ++l) {
      half h;
      float f = 0;
      std::memcpy(&h, halves.data() + l / 4 * 2, 2);
      std::memcpy(&f, floats.data() + l / 8 * 4, 4);
      ASSERT_TRUE(reference::same(float(by_four[l]), float(h)));
      ASSERT_TRUE(reference::same(by_eight[l], f));
    }
  }
}

/// Up to the last byte before an unmapped page.
TEST(Lanes, BytesAreUpperHalvesOfHalves) {
  for (int first = 0; first < 256; first += 32) {
    const guarded memory(32);
    std::vector<float> expected(32);
    for (int l = 0; l < 32; ++l) {
      memory.data()[l] = static_cast<std::uint8_t>(first + l);
      expected[l] = half::from_bits(static_cast<std::uint16_t>((first + l) << 8 | 0x80));
    }
    const auto check = [&](const auto& loaded, int live) {
      const std::vector<float> actual = list(loaded);
      for (int l = 0; l < live; ++l) EXPECT_TRUE(reference::same(actual[l], expected[32 - live + l])) << live;
    };
    check(spmd::load_upper_bytes<32, 0x80>(memory.data(), spmd::all_lanes<32>()), 32);
    for (const int live : {1, 7, 8, 31})
      check(spmd::load_upper_bytes<32, 0x80>(memory.data() + 32 - live, spmd::first_lanes{live}), live);
  }
}

template <int N>
void check_word_bytes() {
  std::mt19937 random(N);
  std::uint32_t a[N], b[N], weights[N];
  std::int32_t sum[N];
  std::uint8_t run[16];
  for (int l = 0; l < N; ++l) {
    a[l] = random() & 0x3F3F3F3F;  // two products of 63 and -128 stay below 2^15
    b[l] = random();
    weights[l] = random() & 0xFF07FF07;
    sum[l] = static_cast<std::int32_t>(random() % 1000) - 500;
  }
  for (auto& byte : run) byte = static_cast<std::uint8_t>(random());
  const auto in_words = [](const std::uint32_t* p) { return spmd::load<N>(p); };
  const auto dots = list(spmd::dot_bytes(spmd::load<N>(sum), in_words(a), in_words(b)));
  const auto weighted = list(spmd::weighted_dot_bytes(in_words(a), in_words(b), in_words(weights)));
  const auto bytes = spmd::loaded<spmd::vec<std::uint8_t, 16>>(run);
  const auto spread =
      list(spmd::spread_bytes<N>(bytes, [](int l, int j) { return j == 2 ? -1 : (3 * l + j) % 16; }));
  const auto found = list(spmd::looked_up_bytes(bytes, in_words(b)));
  const auto chosen = list(spmd::chosen_by_bit<5>(in_words(b), in_words(a), in_words(weights)));
  const auto repeated = list(spmd::repeated_in_quarters<2>(in_words(b)));
  for (int l = 0; l < N; ++l) {
    const auto byte = [l](const std::uint32_t* p, int j) { return static_cast<int>(p[l] >> (8 * j) & 0xFF); };
    const auto product = [&](int j) { return byte(a, j) * static_cast<std::int8_t>(byte(b, j)); };
    EXPECT_EQ(dots[l], sum[l] + product(0) + product(1) + product(2) + product(3));
    EXPECT_EQ(weighted[l], (product(0) + product(1)) * static_cast<std::int16_t>(weights[l]) +
                               (product(2) + product(3)) * static_cast<std::int16_t>(weights[l] >> 16));
    for (int j = 0; j < 4; ++j) {
      const auto at = [j](std::uint32_t word) { return static_cast<int>(word >> (8 * j) & 0xFF); };
      EXPECT_EQ(at(spread[l]), j == 2 ? 0 : run[(3 * l + j) % 16]);
      EXPECT_EQ(at(found[l]), run[byte(b, j) & 15]);
      EXPECT_EQ(at(chosen[l]), byte(b, j) & 32 ? byte(a, j) : byte(weights, j));
    }
    EXPECT_EQ(repeated[l], b[l / 4 * 4 + 2]);
  }
  const half pair[2] = {half(0.75f), half(-3.0f)};
  const auto both = spmd::repeated_halves<N>(pair);
  EXPECT_EQ(list(both[0]), std::vector<float>(N, 0.75f));
  EXPECT_EQ(list(both[1]), std::vector<float>(N, -3.0f));
  EXPECT_EQ(list(spmd::repeated_half<N>(pair)), std::vector<float>(N, 0.75f));
}

TEST(Lanes, BytesOfWords) {
  check_word_bytes<8>();
  check_word_bytes<16>();
  check_word_bytes<32>();
}

}  // namespace
