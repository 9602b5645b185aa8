// The framework's hash accumulator: feed it the bytes or words that a value's
// operator== compares, in a fixed order, and take result(). The mixing is
// fixed across processes and builds, so hashes may be stored in shared memory.
//
//   Kiv::HashAccumulator h;
//   h.mix(&ptr, sizeof ptr);
//   h.mix32(word);
//   return h.result();
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Kiv {

class HashAccumulator {
 public:
  explicit HashAccumulator(std::uint64_t seed = 0x9e3779b97f4a7c15ull) : h_(seed) {}

  void mix64(std::uint64_t v) { h_ = fmix((h_ ^ v) * 0xff51afd7ed558ccdull + 0x2545f4914f6cdd1dull); }
  void mix32(std::uint32_t v) { mix64(v); }
  void mix(void const* data, std::size_t n) {
    auto const* p = static_cast<unsigned char const*>(data);
    while (n >= 8) {
      std::uint64_t w;
      std::memcpy(&w, p, 8);
      mix64(w);
      p += 8;
      n -= 8;
    }
    if (n) {
      std::uint64_t w = 0;
      std::memcpy(&w, p, n);
      mix64(w ^ (std::uint64_t(n) << 56));
    }
  }
  std::uint64_t result() const { return fmix(h_); }

  // The finaliser of MurmurHash3: a full-avalanche 64-bit mix.
  static std::uint64_t fmix(std::uint64_t k) {
    k ^= k >> 33;
    k *= 0xff51afd7ed558ccdull;
    k ^= k >> 33;
    k *= 0xc4ceb9fe1a85ec53ull;
    k ^= k >> 33;
    return k;
  }

 private:
  std::uint64_t h_;
};

}  // namespace Kiv
