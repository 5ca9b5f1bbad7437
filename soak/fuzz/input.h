// An input read from its front. Once it is used up it gives zeros, so that every input means
// something and a longer one begins as its own beginning does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class input {
public:
  input(const std::uint8_t *data, std::size_t size) : data_(data), left_(size) {}

  bool empty() const { return left_ == 0; }

  std::uint8_t byte() {
    if (left_ == 0)
      return 0;
    --left_;
    return *data_++;
  }

  std::uint32_t word() {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
      value = value << 8 | byte();
    return value;
  }

  std::size_t below(std::size_t limit) { return limit == 0 ? 0 : byte() % limit; }

  template <typename T, std::size_t N> const T &one_of(const T (&table)[N]) {
    return table[below(N)];
  }

  // True for `chances` of the 256 byte values, never for 0: a used-up input gives false.
  bool seldom(unsigned chances) {
    const unsigned drawn = byte();
    return drawn != 0 && drawn <= chances;
  }

  std::string bytes(std::size_t limit) {
    std::string text;
    for (std::size_t length = below(limit + 1); text.size() < length && !empty();)
      text += static_cast<char>(byte());
    return text;
  }

private:
  const std::uint8_t *data_;
  std::size_t left_;
};
