// The callbacks that the daemon has subscribed to a platform's events.
#pragma once

#include <string_view>
#include <vector>

class callback_list {
public:
  // A subscription is named by static text. Adding returns 0, or -1 for a null callback; removing
  // returns -1 for a callback that is not held.
  template <class Callback>
  int add(std::string_view subscription, Callback callback, void *user_data) {
    return add_any(subscription, reinterpret_cast<any_callback>(callback), user_data);
  }
  template <class Callback> int remove(std::string_view subscription, Callback callback) {
    return remove_any(subscription, reinterpret_cast<any_callback>(callback));
  }

  int count(std::string_view subscription) const;
  void clear() { held_.clear(); }

  // Calls every callback of the subscription, which must be of type `Callback`, with the arguments
  // and its user data. A callback may add and remove.
  template <class Callback, class... Arguments>
  void deliver(std::string_view subscription, Arguments... arguments) const {
    const auto held = held_;
    for (const held_callback &entry : held)
      if (entry.subscription == subscription)
        reinterpret_cast<Callback>(entry.callback)(arguments..., entry.user_data);
  }

private:
  using any_callback = void (*)();
  struct held_callback {
    std::string_view subscription;
    any_callback callback;
    void *user_data;
  };

  int add_any(std::string_view subscription, any_callback callback, void *user_data);
  int remove_any(std::string_view subscription, any_callback callback);

  std::vector<held_callback> held_;
};
