#include "bus.h"

#include <cstdlib>

std::vector<std::string> read_texts(sd_bus_message *message) {
  std::vector<std::string> texts;
  const char *text = nullptr;
  sd_bus_message_enter_container(message, 'a', "s");
  while (sd_bus_message_read(message, "s", &text) > 0)
    texts.emplace_back(text);
  sd_bus_message_exit_container(message);
  return texts;
}

bool property::is(const char *name, std::string_view type) {
  const char *contents = nullptr;
  if (is_read_ || name_ != name || sd_bus_message_peek_type(message_, nullptr, &contents) <= 0 ||
      type != contents)
    return false;
  is_read_ = true;
  return true;
}

void property::enter() { sd_bus_message_enter_container(message_, 'v', nullptr); }

void property::leave() { sd_bus_message_exit_container(message_); }

bool property::read(const char *name, std::string &text) {
  const char *found = "";
  if (!read(name, "s", &found))
    return false;
  text = found;
  return true;
}

bool property::read(const char *name, std::vector<std::string> &texts) {
  if (!is(name, "as"))
    return false;
  enter();
  texts = read_texts(message_);
  leave();
  return true;
}

bool property::read(const char *name, std::vector<int> &numbers) {
  if (!is(name, "ai"))
    return false;
  enter();
  const void *first = nullptr;
  std::size_t size = 0;
  sd_bus_message_read_array(message_, 'i', &first, &size);
  const auto *begin = static_cast<const int *>(first);
  numbers.assign(begin, begin + size / sizeof(int));
  leave();
  return true;
}
