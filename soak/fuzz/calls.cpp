#include "bus.h"
#include "life.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string_view>
#include <sys/stat.h>

namespace fs = std::filesystem;

using arguments = std::vector<std::string>; // in GVariant's text form

// --- arguments ---

// Places to copy to and from. Some hold something else at the name of the copy.
static std::string draw_directory(input &in) {
  static const std::string directories[] = {"/tmp/copies",  "/tmp/directory",
                                            "/tmp/pipe",    "/tmp/missing",
                                            "/opt/dbspace", "",
                                            "/proc/self",   "/dev/null",
                                            "/tmp/link",    "/tmp/" + std::string(300, 'n')};
  for (const char *path : {"/tmp/copies", "/tmp/directory/.dravel.db", "/tmp/pipe", "/tmp/link"})
    fs::create_directories(path);
  mkfifo("/tmp/pipe/.dravel.db", 0600);
  std::error_code exists;
  fs::create_symlink("/tmp/copies/.dravel.db", "/tmp/link/.dravel.db", exists);
  return in.one_of(directories);
}

template <typename Record> static int draw_id(input &in, Eina_List *list, int Record::*id) {
  const auto *record = static_cast<const Record *>(
      eina_list_nth(list, static_cast<unsigned>(in.below(eina_list_count(list)))));
  return record == nullptr ? -1 : record->*id;
}

static std::vector<int> draw_numbers(const bound_method &method, input &in) {
  if (method.name == "schedule_timer")
    return draw_timer(in);
  if (method.name == "request_set_disable_period")
    return draw_period(in);
  if (method.name == "request_remove_disabled_period")
    return {draw_id(in, get_disabled_period_list(), &disabled_period_item::period_id)};
  if (method.name == "request_copy_db" || method.name.starts_with("request_halt_"))
    return {in.byte() % 2};
  return {draw_id(in, get_dravel_list(), &dravel_item::timer_id), in.byte() % 3};
}

static void misshape(arguments &values, input &in) {
  static constexpr const char *kOthers[] = {"uint32 1", "'/other'", "byte 7",
                                            "1.5",      "[1]",      "objectpath '/other'"};
  const std::size_t place = in.below(values.size());
  if (in.byte() % 2 == 0)
    values.resize(place);
  values.insert(values.begin() + static_cast<std::ptrdiff_t>(place), in.one_of(kOthers));
}

static arguments draw_arguments(const bound_method &method, input &in) {
  std::vector<int> numbers = draw_numbers(method, in);
  for (std::size_t odd = in.seldom(64) ? in.below(4) + 1 : 0; odd > 0; --odd)
    numbers[in.below(numbers.size())] = draw_number(in);
  arguments values;
  for (const char type : method.signature)
    values.push_back(type == DBUS_TYPE_STRING
                         ? "'" + draw_directory(in) + "'"
                         : std::to_string(numbers[values.size() % numbers.size()]));
  if (in.seldom(32))
    misshape(values, in);
  return values;
}

// --- replies ---

static void check_image(const bound_method &method, const message &reply) {
  const words image = image_of(reply);
  const bool is_period = method.name == "request_disabled_period_list";
  Eina_List *list = is_period ? get_disabled_period_list() : get_dravel_list();
  const std::size_t size = is_period ? std::size_t{PERIOD_WORDS} : std::size_t{TIMER_WORDS};
  const bool is_list = method.name.ends_with("_list");
  EXPECT_EQ(image.size(), 1 + size * (is_list ? eina_list_count(list) : 1));
  EXPECT_TRUE(!is_list || image[0] == static_cast<int>(eina_list_count(list)));
}

static void check_id(const bound_method &method, int id) {
  if (method.name == "request_set_disable_period")
    EXPECT_TRUE(id == -1 || find_disabled_period_item(id) != nullptr);
  if (method.name != "schedule_timer" || id == -1)
    return;
  EXPECT_NE(find_dravel_item(id), nullptr);
  if (id <= kUnstoredTimerId) {
    ++most_stored;
    last_transient = id;
  }
}

// A halt whose arguments cannot be read is released, with an empty answer.
static void check_reply(const bound_method &method, bool readable, const message &reply) {
  const bool is_halt = method.name.starts_with("request_halt_");
  if (reply == nullptr) {
    EXPECT_TRUE(!is_halt && (!readable || method.name == "request_copy_db")) << method.name;
    return;
  }
  EXPECT_TRUE(readable || is_halt) << method.name;
  EXPECT_STREQ(dbus_message_get_signature(reply.get()),
               readable ? method.reply_signature.c_str() : "");
  if (readable && method.reply_signature == "iay")
    check_image(method, reply);
  else if (readable)
    check_id(method, int_of(reply));
}

static void call(const bound_method &method, const arguments &values) {
  const std::string text = "(" + joined(values) + (values.size() == 1 ? ",)" : ")");
  const message request = request_of(kDaemon, method.name.c_str(), text);
  dbus_message_set_serial(request.get(), 1);
  const std::string_view given = dbus_message_get_signature(request.get());
  const message reply(method.handler(nullptr, request.get()));
  check_reply(method, given.starts_with(method.signature), reply);
}

// --- steps ---

void call_any(input &in) {
  const bound_method &method = bound_methods()[in.below(bound_methods().size())];
  call(method, draw_arguments(method, in));
}

// Some equal ones; seldom more than are kept, because they make all else slow.
void call_schedule(input &in) {
  const bound_method &method =
      *std::ranges::find(bound_methods(), "schedule_timer", &bound_method::name);
  const arguments timer = draw_arguments(method, in);
  for (std::size_t more = in.seldom(16) ? in.below(in.seldom(64) ? 90 : 4) : 0; more > 0; --more)
    call(method, timer);
  call(method, timer);
}
