#include "outbox.h"

#include <algorithm>
#include <ctime>
#include <utility>

static constexpr std::size_t kMost = 100;
static constexpr long long kLongestMs = 120 * 1000LL;

long long outbox::now() {
  timespec time{};
  clock_gettime(CLOCK_BOOTTIME, &time);
  return time.tv_sec * 1000LL + time.tv_nsec / 1000000;
}

void outbox::put(publication kept) {
  const auto place = std::ranges::upper_bound(kept_, kept.made_at, {}, &publication::made_at);
  kept_.insert(place, std::move(kept));
  if (kept_.size() > kMost)
    kept_.erase(kept_.begin());
}

std::vector<publication> outbox::take(long long when) {
  auto taken = std::exchange(kept_, {});
  std::erase_if(taken, [&](const publication &kept) { return when - kept.made_at > kLongestMs; });
  return taken;
}
