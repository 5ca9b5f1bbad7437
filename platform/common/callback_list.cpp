#include "callback_list.h"

#include <algorithm>

int callback_list::add_any(std::string_view subscription, any_callback callback, void *user_data) {
  if (callback == nullptr)
    return -1;
  held_.push_back({subscription, callback, user_data});
  return 0;
}

int callback_list::remove_any(std::string_view subscription, any_callback callback) {
  const auto found = std::ranges::find_if(held_, [&](const held_callback &entry) {
    return entry.subscription == subscription && entry.callback == callback;
  });
  if (found == held_.end())
    return -1;
  held_.erase(found);
  return 0;
}

int callback_list::count(std::string_view subscription) const {
  return static_cast<int>(std::ranges::count(held_, subscription, &held_callback::subscription));
}
