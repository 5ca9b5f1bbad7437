// Where the fields of a record stand in its image on the bus: signed 32-bit words, little-endian,
// without gaps. Words left out here carry no meaning for a client.
#pragma once

#include <cstddef>
#include <cstdint>

// A broken-down time within an image.
enum tm_word : std::size_t {
  TM_SEC,
  TM_MIN,
  TM_HOUR,
  TM_MDAY,
  TM_MON,  // 0 to 11
  TM_YEAR, // since 1900
  TM_WORDS = 11,
};

enum timer_word : std::size_t {
  TIMER_ID = 0,
  TIMER_TYPE = 1,
  TIMER_PRIORITY = 2,
  TIMER_TM = 4,
  TIMER_WEEK_FLAG = 16,
  TIMER_DISABLE_PERIOD_EFFECT = 17,
  TIMER_TIME_TYPE = 18,
  TIMER_WORDS = 19,
};

enum period_word : std::size_t {
  PERIOD_START_TM = 0,
  PERIOD_END_TM = TM_WORDS,
  PERIOD_START_LEAP = 22,
  PERIOD_END_LEAP = 23,
  PERIOD_ID = 24,
  PERIOD_WORDS = 25,
};

constexpr std::size_t word_size = 4;

inline std::int32_t word_at(const std::uint8_t *image, std::size_t word) {
  std::uint32_t value = 0;
  for (std::size_t byte = 0; byte < word_size; ++byte)
    value |= std::uint32_t{image[word_size * word + byte]} << (8 * byte);
  return static_cast<std::int32_t>(value);
}
