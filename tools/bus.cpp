#include "bus.h"

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
  sd_bus_message_enter_container(message_, 'v', "as");
  texts = read_texts(message_);
  sd_bus_message_exit_container(message_);
  return true;
}

bool property::read(const char *name, std::vector<int> &numbers) {
  if (!is(name, "ai"))
    return false;
  const void *first = nullptr;
  std::size_t size = 0;
  sd_bus_message_enter_container(message_, 'v', "ai");
  const int result = sd_bus_message_read_array(message_, 'i', &first, &size);
  sd_bus_message_exit_container(message_);
  if (result < 0)
    return false;
  const auto *begin = static_cast<const int *>(first);
  numbers.assign(begin, begin + size / sizeof(int));
  return true;
}

bool property::read(const char *name, std::vector<std::pair<int, std::uint32_t>> &pairs) {
  if (!is(name, "a(iu)"))
    return false;
  std::pair<int, std::uint32_t> found;
  sd_bus_message_enter_container(message_, 'v', "a(iu)");
  sd_bus_message_enter_container(message_, 'a', "(iu)");
  while (sd_bus_message_read(message_, "(iu)", &found.first, &found.second) > 0)
    pairs.push_back(found);
  sd_bus_message_exit_container(message_);
  sd_bus_message_exit_container(message_);
  return true;
}
