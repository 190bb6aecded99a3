#pragma once
// Numbers out of the bits of 32-bit words: what the codes of packed blocks stand for.

#include <array>

#include "spmd/convert.hpp"

namespace spmd {

/// Bytes `Byte` of the words as the upper halves of 16-bit words, lower halves 0. Two neighbouring bytes
/// stand in the two halves of one register, so that they share their shuffles.
template <int Byte, int N>
[[gnu::always_inline]] inline vec<std::uint16_t, N> upper_bytes(vec<std::uint32_t, N> words) {
  constexpr auto order = constants<std::int8_t, 4 * N>(
      [](int i) { return i % 2 == 0 ? -1 : Byte / 2 * 2 + i % 16 / 8 + i % 8 / 2 * 4; });
  const auto pairs = target::shuffled_bytes(reinterpret_cast<vec<std::uint8_t, 4 * N>>(words), order);
  // The two bytes come in turns of 64 bits.
  constexpr int turns = N / 2;
  const auto sorted = shuffled<turns>(reinterpret_cast<vec<std::uint64_t, turns>>(pairs),
                                      [](int i) { return i % (turns / 2) * 2 + i / (turns / 2); });
  return shuffled<N>(reinterpret_cast<vec<std::uint16_t, 2 * N>>(sorted),
                     [](int i) { return Byte % 2 * N + i; });
}

/// The half whose upper byte is byte `Byte` of each word and whose lower byte is `Lower`, as float. 1
/// conversion, and a byte shuffle and a permutation for two neighbouring bytes.
template <int Byte, std::uint8_t Lower, int N>
[[gnu::always_inline]] inline lanes<float, N> half_from_upper_byte(const lanes<std::uint32_t, N>& word) {
  return per_register_as<float>(
      []<class V>(V x) [[gnu::always_inline]] {
        auto halves = upper_bytes<Byte, sizeof(V) / 4>(x);
        if constexpr (Lower != 0) halves |= Lower;
        return target::from_halves(halves);
      },
      word);
}
template <int Byte, std::uint8_t Lower>
[[gnu::always_inline]] inline float half_from_upper_byte(std::uint32_t word) {
  return sycl::host::half_value(static_cast<std::uint16_t>((word >> (8 * Byte) & 0xFF) << 8 | Lower));
}

/// The half that has the sign of byte `Byte` of each word, then a zero bit, then the byte's other seven bits,
/// as float: an eight-bit float with four exponent bits. Costs as above and 2 operations more.
template <int Byte, int N>
[[gnu::always_inline]] inline lanes<float, N> half_from_shifted_byte(const lanes<std::uint32_t, N>& word) {
  return per_register_as<float>(
      []<class V>(V x) [[gnu::always_inline]] {
        constexpr int n = sizeof(V) / 4;
        const auto moved = reinterpret_cast<vec<std::int16_t, n>>(upper_bytes<Byte, n>(x)) >> 1;
        return target::from_halves(reinterpret_cast<vec<std::uint16_t, n>>(moved) & 0xBF80);
      },
      word);
}
template <int Byte>
[[gnu::always_inline]] inline float half_from_shifted_byte(std::uint32_t word) {
  const std::uint32_t byte = word >> (8 * Byte) & 0xFF;
  return sycl::host::half_value(static_cast<std::uint16_t>((byte & 0x80) << 8 | (byte & 0x7F) << 7));
}

/// The half whose bits are the low 16 of each word, whose upper 16 are 0.
template <int N>
[[gnu::always_inline]] inline lanes<half, N> half_from_bits(const lanes<std::uint32_t, N>& bits) {
  return lanes<half, N>(per_register_as<float>(
      [](auto x) [[gnu::always_inline]] { return target::from_halves(target::narrowed(x)); }, bits));
}
[[gnu::always_inline]] inline half half_from_bits(std::uint32_t bits) {
  return half::from_bits(static_cast<std::uint16_t>(bits));
}

/// Eight floats of a table in a register, rounded to T once.
template <class T>
[[gnu::always_inline]] inline vec<float, 8> register_table(const float* table) {
  const lanes<float, 8> values(loaded<vec<float, 8>>(table));
  if constexpr (reduced<T>) {
    return rounded<T>(values).w.v;
  } else {
    return values.v;
  }
}

/// table[code] as T, where the code is the three bits from Bit of each word; the bits above are ignored. 2
/// operations.
template <class T, int Bit, int N>
[[gnu::always_inline]] inline lanes<T, N> table8(const std::array<float, 8>& table,
                                                 const lanes<std::uint32_t, N>& word) {
  const auto values = register_table<T>(table.data());
  return convert_exact<T>(per_register_as<float>(
      [values](auto x) [[gnu::always_inline]] { return target::lookup8(values, x >> Bit); }, word));
}
template <class T, int Bit>
[[gnu::always_inline]] inline T table8(const std::array<float, 8>& table, std::uint32_t word) {
  return convert<T>(table[word >> Bit & 7]);
}

/// The values of T nearest to a table's as multiples of 2^-14 above -2: their low bytes, and the high ones,
/// twice each.
template <reduced T>
struct fixed_point_table {
  std::array<std::uint8_t, 32> low{}, high{};
  explicit constexpr fixed_point_table(const std::array<float, 16>& table) {
    constexpr int left_over = std::same_as<T, half> ? 13 : 16;  // mantissa bits that T does not have
    for (int i = 0; i < 32; ++i) {
      const auto bits = std::bit_cast<std::uint32_t>(table[i % 16]);
      const std::uint32_t above = bits + (1u << (left_over - 1)) - 1 + (bits >> left_over & 1);
      const float entry = (std::bit_cast<float>(above >> left_over << left_over) + 2) * 0x1p14f;
      const auto whole = static_cast<std::uint32_t>(entry);
      if (static_cast<float>(whole) != entry || whole > 0xFFFF) throw "a table that does not fit";
      low[i] = whole & 0xFF;
      high[i] = whole >> 8;
    }
  }
};

/// Table[code] as T, where the code is the four bits from Bit of each word. 5 operations on registers of 32
/// bytes, 2 on larger ones.
template <const std::array<float, 16>& Table, class T, int Bit, int N>
[[gnu::always_inline]] inline lanes<T, N> table16(const lanes<std::uint32_t, N>& word) {
  if constexpr (reduced<T> && target::looks_up_fixed_point) {
    static constexpr fixed_point_table<T> fixed(Table);
    const auto low = loaded<vec<std::uint8_t, 32>>(fixed.low.data());
    const auto high = loaded<vec<std::uint8_t, 32>>(fixed.high.data());
    return lanes<T, N>(per_register_as<float>(
        [low, high](auto x) [[gnu::always_inline]] { return target::fixed_point16<Bit>(low, high, x); },
        word));
  } else {
    const auto low = register_table<T>(Table.data()), high = register_table<T>(Table.data() + 8);
    return convert_exact<T>(per_register_as<float>(
        [low, high](auto x) [[gnu::always_inline]] { return target::lookup16(low, high, x >> Bit); }, word));
  }
}
template <const std::array<float, 16>& Table, class T, int Bit>
[[gnu::always_inline]] inline T table16(std::uint32_t word) {
  return convert<T>(Table[word >> Bit & 15]);
}

/// table[code], negated where the bit above the three of the code is set. 4 operations, or 2 where sixteen
/// are looked up in one.
template <class T, int Bit, int N>
[[gnu::always_inline]] inline lanes<T, N> signed_table8(const std::array<float, 8>& table,
                                                        const lanes<std::uint32_t, N>& word) {
  const auto values = register_table<T>(table.data());
  return convert_exact<T>(per_register_as<float>(
      [values]<class V>(V x) [[gnu::always_inline]] {
        if constexpr (sizeof(V) == 64 && target::looks_up_sixteen) {
          return target::lookup16(values, -values, x >> Bit);
        }
        const auto magnitude = reinterpret_cast<decltype(x)>(target::lookup8(values, x >> Bit));
        const auto sign = (x << (28 - Bit)) & 0x80000000u;
        return reinterpret_cast<decltype(target::lookup8(values, x))>(magnitude | sign);
      },
      word));
}
template <class T, int Bit>
[[gnu::always_inline]] inline T signed_table8(const std::array<float, 8>& table, std::uint32_t word) {
  const float magnitude = table[word >> Bit & 7];
  return convert<T>(word >> Bit & 8 ? -magnitude : magnitude);
}

/// The unsigned field of Width bits from bit Bit of each word, plus Offset, as float: the field is put into
/// the mantissa of a float whose unit is its lowest bit, and the rest of that float is taken away again. 3
/// operations, which use no shift or conversion port; where the field reaches into the exponent, the words
/// are shifted down by 12 bits first, once for all such fields. Where a table is looked up in one operation,
/// four bits take that and a shift.
template <int Width, int Bit, int Offset, int N>
[[gnu::always_inline]] inline lanes<float, N> field_value(const lanes<std::uint32_t, N>& word) {
  if constexpr (Width == 4 && N >= 16 && target::looks_up_sixteen) {
    constexpr auto low = constants<float, 8>([](int i) { return i + Offset; });
    constexpr auto high = constants<float, 8>([](int i) { return i + 8 + Offset; });
    return per_register_as<float>(
        [low, high](auto x) [[gnu::always_inline]] { return target::lookup16(low, high, x >> Bit); }, word);
  } else if constexpr (Bit + Width > 23) {
    return field_value<Width, Bit - 12, Offset>(word >> 12);
  } else {
    constexpr float unit_bias = static_cast<float>(1 << (23 - Bit));
    constexpr auto exponent = std::bit_cast<std::uint32_t>(unit_bias);
    const auto biased = (word & (((1u << Width) - 1) << Bit)) | exponent;
    return bit_cast<float>(biased) - (unit_bias - Offset);
  }
}
template <int Width, int Bit, int Offset>
[[gnu::always_inline]] inline float field_value(std::uint32_t word) {
  return static_cast<float>(static_cast<int>(word >> Bit & ((1u << Width) - 1)) + Offset);
}

}  // namespace spmd
