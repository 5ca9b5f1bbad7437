// What the fuzzers draw from an input. Once it is used up it gives zeros.
#pragma once

#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>

class input : public FuzzedDataProvider {
public:
  using FuzzedDataProvider::FuzzedDataProvider;

  bool empty() { return remaining_bytes() == 0; }

  std::uint32_t word() { return ConsumeIntegral<std::uint32_t>(); }

  // From 0 to `limit` - 1.
  template <typename T> T below(T limit) {
    return limit == 0 ? 0 : ConsumeIntegralInRange<T>(0, limit - 1);
  }

  // True for `chances` of 256 values; never for a used-up input.
  bool seldom(int chances) { return below(256) >= 256 - chances; }
};
