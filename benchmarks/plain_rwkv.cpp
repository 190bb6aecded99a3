// The recurrences of RWKV layers as plain loops in float: what the operators are measured against.

#include <cmath>
#include <cstddef>
#include <cstring>

extern "C" {

// Version 4. key, value and out are [batch][tokens][channels], the states [batch][channels].
void plain_rwkv_v4(const float* w, const float* u, const float* key, const float* value, float* num,
                   float* den, float* max, float* out, std::size_t batch, std::size_t tokens,
                   std::size_t channels) {
  for (std::size_t b = 0; b < batch; ++b) {
    for (std::size_t c = 0; c < channels; ++c) {
      const std::size_t state = b * channels + c;
      float n = num[state], d = den[state], m = max[state];
      for (std::size_t t = 0; t < tokens; ++t) {
        const std::size_t at = (b * tokens + t) * channels + c;
        const float k = key[at], v = value[at];
        float p = std::fmax(m, k + u[c]);
        float e1 = std::exp(m - p), e2 = std::exp(k + u[c] - p);
        out[at] = (e1 * n + e2 * v) / (e1 * d + e2);
        p = std::fmax(m + w[c], k);
        e1 = std::exp(m + w[c] - p);
        e2 = std::exp(k - p);
        n = e1 * n + e2 * v;
        d = e1 * d + e2;
        m = p;
      }
      num[state] = n;
      den[state] = d;
      max[state] = m;
    }
  }
}

// Version 5, a column of the state after the other, as the operator is defined. The inputs are
// [batch][heads][tokens][64], out is [batch][tokens][heads][64].
void plain_rwkv_v5_columns(const float* w, const float* u, const float* r, const float* k, const float* v,
                           float* state, float* out, std::size_t batch, std::size_t heads,
                           std::size_t tokens) {
  for (std::size_t head = 0; head < batch * heads; ++head) {
    const std::size_t b = head / heads, h = head % heads;
    for (std::size_t j = 0; j < 64; ++j) {
      float* const from = state + head * 4096 + j;
      float s[64];
      for (std::size_t i = 0; i < 64; ++i) s[i] = from[i * 64];
      for (std::size_t t = 0; t < tokens; ++t) {
        const std::size_t at = (head * tokens + t) * 64;
        float acc = 0;
        for (std::size_t i = 0; i < 64; ++i) {
          const float kv = k[at + i] * v[at + j];
          acc += r[at + i] * (u[h * 64 + i] * kv + s[i]);
          s[i] = kv + w[h * 64 + i] * s[i];
        }
        out[((b * tokens + t) * heads + h) * 64 + j] = acc;
      }
      for (std::size_t i = 0; i < 64; ++i) from[i * 64] = s[i];
    }
  }
}

// The same with all columns in the inner loop, which the compiler vectorises.
void plain_rwkv_v5_rows(const float* w, const float* u, const float* r, const float* k, const float* v,
                        float* state, float* out, std::size_t batch, std::size_t heads, std::size_t tokens) {
  for (std::size_t head = 0; head < batch * heads; ++head) {
    const std::size_t b = head / heads, h = head % heads;
    float* const s = state + head * 4096;
    for (std::size_t t = 0; t < tokens; ++t) {
      const std::size_t at = (head * tokens + t) * 64;
      float acc[64] = {};
      for (std::size_t i = 0; i < 64; ++i) {
        const float ki = k[at + i], ri = r[at + i], ui = u[h * 64 + i], wi = w[h * 64 + i];
        for (std::size_t j = 0; j < 64; ++j) {
          const float kv = ki * v[at + j];
          acc[j] += ri * (ui * kv + s[i * 64 + j]);
          s[i * 64 + j] = kv + wi * s[i * 64 + j];
        }
      }
      std::memcpy(out + ((b * tokens + t) * heads + h) * 64, acc, sizeof acc);
    }
  }
}
}
