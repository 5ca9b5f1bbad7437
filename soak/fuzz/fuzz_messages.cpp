// The daemon's bus methods, between what else happens on a set: an input is a sequence of calls,
// events and expiries. Calls mostly carry what the method is registered for, now and then more,
// less or something else.

#include "binding.h"
#include "dravel-edbus.h"
#include "dravel-list.h"
#include "run.h"
#include "standin.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

static constexpr const char *kBusName = "org.olvara.tv.system.dravel";
static constexpr const char *kObjectPath = "/org/olvara/tv/system/dravel";
static constexpr int kMaxSteps = 100;
static constexpr std::size_t kMaxFilled = 90;

namespace {

using message = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;

struct argument {
  int type;
  int number;
  std::string text; // of a string
};

} // namespace

// How many stored timers may be listed. A full list loses the timer with the smallest id, which is
// a transient one where there is one: each that was accepted makes room for one stored timer more.
static std::size_t most_stored;

// --- directories to copy to and from -------------------------------------------------------------

static const char *const kDirectories[] = {"/tmp/copies",
                                           "/tmp/copies/",
                                           "/tmp/garbage",
                                           "/tmp/directory",
                                           "/tmp/link",
                                           "/tmp/dangling",
                                           "/tmp/pipe",
                                           "/tmp/missing",
                                           "/opt/dbspace",
                                           "/tmp/file",
                                           "",
                                           ".",
                                           "/tmp/../tmp/.",
                                           "/proc/self",
                                           "/dev/null",
                                           "/"};

static bool directories_made;

// Each holds something else at the name of the copy.
static void make_directories() {
  if (std::exchange(directories_made, true))
    return;
  for (const char *path : {"/tmp/copies", "/tmp/garbage", "/tmp/directory/.dravel.db", "/tmp/link",
                           "/tmp/dangling", "/tmp/pipe"})
    fs::create_directories(path);
  for (const char *pipe : {"/tmp/pipe/.dravel.db", "/tmp/pipe/.dravel.db.part"})
    mkfifo(pipe, 0600);
  std::ofstream("/tmp/garbage/.dravel.db") << std::string(4096, 'x');
  std::ofstream("/tmp/file") << "a file";
  fs::create_symlink("/tmp/garbage/.dravel.db", "/tmp/link/.dravel.db");
  fs::create_symlink("/tmp/nowhere", "/tmp/dangling/.dravel.db");
}

static void remove_directories() {
  directories_made = false;
  for (const char *path :
       {"/tmp/copies", "/tmp/garbage", "/tmp/directory", "/tmp/link", "/tmp/dangling", "/tmp/pipe",
        "/tmp/file", "/tmp/.dravel.db", "/.dravel.db", "/tmp/nowhere"})
    fs::remove_all(path);
}

static std::string draw_directory(input &in) {
  make_directories();
  const std::size_t choice = in.below(std::size(kDirectories) + 4);
  if (choice < std::size(kDirectories))
    return kDirectories[choice];
  if (choice == std::size(kDirectories)) // too long a path, and too long a name
    return std::string(5000, '/') + "tmp";
  if (choice == std::size(kDirectories) + 1)
    return "/tmp/" + std::string(300, 'n');
  // A message carries nothing but valid text.
  std::string text = "/tmp/";
  for (const char letter : in.bytes(40))
    text += static_cast<char>(letter & 0x7f) < ' ' ? '/' : static_cast<char>(letter & 0x7f);
  return text;
}

// --- calls ---------------------------------------------------------------------------------------

static std::vector<int> draw_numbers(const bound_method &method, input &in) {
  if (method.name == "schedule_timer") {
    const wanted_timer timer = draw_timer(in);
    return {std::begin(timer.values), std::end(timer.values)};
  }
  if (method.name == "request_set_disable_period") {
    const wanted_period period = draw_period(in);
    return {std::begin(period.values), std::end(period.values)};
  }
  if (method.name == "request_remove_disabled_period")
    return {draw_period_id(in)};
  if (method.name == "request_copy_db" || method.name.starts_with("request_halt_"))
    return {in.byte() % 2};
  return {draw_timer_id(in), in.byte() % 3};
}

static std::vector<argument> draw_arguments(const bound_method &method, input &in) {
  std::vector<int> numbers = draw_numbers(method, in);
  for (std::size_t odd = in.seldom(64) ? in.below(4) + 1 : 0; odd > 0; --odd)
    numbers[in.below(numbers.size())] = draw_number(in);
  std::vector<argument> arguments;
  for (std::size_t i = 0; i < method.signature.size(); ++i) {
    const int type = method.signature[i];
    arguments.push_back({type, numbers[i % numbers.size()],
                         type == DBUS_TYPE_STRING ? draw_directory(in) : std::string()});
  }
  return arguments;
}

static void misshape(std::vector<argument> &arguments, input &in) {
  static constexpr int kTypes[] = {
      DBUS_TYPE_UINT32, DBUS_TYPE_STRING,  DBUS_TYPE_BYTE,        DBUS_TYPE_BOOLEAN,
      DBUS_TYPE_INT16,  DBUS_TYPE_UINT16,  DBUS_TYPE_INT64,       DBUS_TYPE_UINT64,
      DBUS_TYPE_DOUBLE, DBUS_TYPE_VARIANT, DBUS_TYPE_OBJECT_PATH, DBUS_TYPE_SIGNATURE,
      DBUS_TYPE_ARRAY,  DBUS_TYPE_STRUCT,  DBUS_TYPE_INT32,       DBUS_TYPE_DICT_ENTRY};
  switch (in.byte() % 3) {
  case 0:
    arguments.resize(in.below(arguments.size()));
    break;
  case 1:
    arguments.push_back({in.one_of(kTypes), draw_number(in), "surplus"});
    break;
  default:
    arguments[in.below(arguments.size())] = {in.one_of(kTypes), draw_number(in), "other"};
  }
}

static void append_number(DBusMessageIter *out, int type, int number) {
  DBusBasicValue value{};
  if (type == DBUS_TYPE_BOOLEAN)
    value.bool_val = number != 0 ? TRUE : FALSE;
  else if (type == DBUS_TYPE_DOUBLE)
    value.dbl = number;
  else
    value.i64 = number;
  dbus_message_iter_append_basic(out, type, &value);
}

// One number in a container: "ai", "(i)", "a{ii}" or a variant of it.
static void append_container(DBusMessageIter *out, int type, int number) {
  const bool is_dict = type == DBUS_TYPE_DICT_ENTRY;
  const char *contents = type == DBUS_TYPE_STRUCT ? nullptr : is_dict ? "{ii}" : "i";
  DBusMessageIter outer;
  DBusMessageIter entry;
  dbus_message_iter_open_container(out, is_dict ? DBUS_TYPE_ARRAY : type, contents, &outer);
  if (is_dict) {
    dbus_message_iter_open_container(&outer, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
    append_number(&entry, DBUS_TYPE_INT32, number);
    append_number(&entry, DBUS_TYPE_INT32, number);
    dbus_message_iter_close_container(&outer, &entry);
  } else {
    append_number(&outer, DBUS_TYPE_INT32, number);
  }
  dbus_message_iter_close_container(out, &outer);
}

static void append(DBusMessageIter *out, const argument &value) {
  const char *text = value.text.c_str();
  switch (value.type) {
  case DBUS_TYPE_OBJECT_PATH:
    text = "/a/path";
    break;
  case DBUS_TYPE_SIGNATURE:
    text = "ai";
    break;
  case DBUS_TYPE_STRING:
    break;
  case DBUS_TYPE_VARIANT:
  case DBUS_TYPE_ARRAY:
  case DBUS_TYPE_STRUCT:
  case DBUS_TYPE_DICT_ENTRY:
    append_container(out, value.type, value.number);
    return;
  default:
    append_number(out, value.type, value.number);
    return;
  }
  dbus_message_iter_append_basic(out, value.type, &text);
}

// --- replies -------------------------------------------------------------------------------------

static bool is_readable(const bound_method &method, const std::vector<argument> &arguments) {
  if (arguments.size() < method.signature.size())
    return false;
  for (std::size_t i = 0; i < method.signature.size(); ++i)
    if (arguments[i].type != method.signature[i])
      return false;
  return true;
}

static void check_image(const bound_method &method, DBusMessage *reply) {
  dbus_int32_t first = 0;
  const unsigned char *image = nullptr;
  int size = 0;
  if (!dbus_message_get_args(reply, nullptr, DBUS_TYPE_INT32, &first, DBUS_TYPE_ARRAY,
                             DBUS_TYPE_BYTE, &image, &size, DBUS_TYPE_INVALID))
    breach("a reply cannot be read");
  if (method.name == "request_timer_list") {
    if (first != static_cast<int>(eina_list_count(get_dravel_list())) || size != first * 76)
      breach("the list of timers has another size than it says");
  } else if (method.name == "request_disabled_period_list") {
    if (first != static_cast<int>(eina_list_count(get_disabled_period_list())) ||
        size != first * 100)
      breach("the list of disabled periods has another size than it says");
  } else if (size != 76) {
    breach("a timer's image has another size than it should");
  }
}

static void check_id(const bound_method &method, DBusMessage *reply) {
  dbus_int32_t id = 0;
  dbus_message_get_args(reply, nullptr, DBUS_TYPE_INT32, &id, DBUS_TYPE_INVALID);
  if (method.name == "schedule_timer" && id != -1 && find_dravel_item(id) == nullptr)
    breach("a timer was accepted that is not listed");
  if (method.name == "schedule_timer" && id <= kUnstoredTimerId)
    ++most_stored;
  if (method.name == "request_set_disable_period" && id != -1 &&
      find_disabled_period_item(id) == nullptr)
    breach("a disabled period was accepted that is not listed");
}

// A halt whose arguments cannot be read is released, with an empty answer.
static void check_reply(const bound_method &method, bool readable, DBusMessage *reply) {
  const bool is_halt = method.name.starts_with("request_halt_");
  const bool may_be_silent = method.name == "request_copy_db";
  if (reply == nullptr) {
    if (is_halt || (readable && !may_be_silent))
      breach("a call got no answer");
    return;
  }
  const std::string_view signature = dbus_message_get_signature(reply);
  if (!readable) {
    if (!is_halt || !signature.empty())
      breach("a call that cannot be read got an answer");
    return;
  }
  if (signature != method.reply_signature)
    breach("a reply has another signature than the method's");
  if (signature == "iay")
    check_image(method, reply);
  else
    check_id(method, reply);
}

static void call(const bound_method &method, const std::vector<argument> &arguments) {
  static dbus_uint32_t serial = 0;
  const message request(
      dbus_message_new_method_call(kBusName, kObjectPath, kBusName, method.name.c_str()),
      dbus_message_unref);
  dbus_message_set_serial(request.get(), ++serial == 0 ? ++serial : serial);
  DBusMessageIter out;
  dbus_message_iter_init_append(request.get(), &out);
  for (const argument &value : arguments)
    append(&out, value);

  const message reply(method.handler(nullptr, request.get()), [](DBusMessage *answer) {
    if (answer != nullptr)
      dbus_message_unref(answer);
  });
  check_reply(method, is_readable(method, arguments), reply.get());
}

static const bound_method &method_named(std::string_view name) {
  for (const bound_method &method : bound_methods())
    if (method.name == name)
      return method;
  breach("a method is not there");
}

// --- steps ---------------------------------------------------------------------------------------

static void call_any(input &in) {
  const bound_method &method = bound_methods()[in.below(bound_methods().size())];
  call(method, draw_arguments(method, in));
}

static void call_misshapen(input &in) {
  const bound_method &method = bound_methods()[in.below(bound_methods().size())];
  std::vector<argument> arguments = draw_arguments(method, in);
  misshape(arguments, in);
  call(method, arguments);
}

static void call_named(const char *name, input &in) {
  const bound_method &method = method_named(name);
  call(method, draw_arguments(method, in));
}

static void schedule(input &in) { call_named("schedule_timer", in); }

static void cancel(input &in) { call_named("cancel_timer", in); }

static void set_period(input &in) { call_named("request_set_disable_period", in); }

// A few equal ones; seldom as many as are kept and some more, because they make all else slow.
static void fill(input &in) {
  const std::size_t wanted = in.below(in.seldom(32) ? kMaxFilled : 4);
  const wanted_timer timer = draw_timer(in);
  const bound_method &method = method_named("schedule_timer");
  std::vector<argument> arguments;
  for (const int value : timer.values)
    arguments.push_back({DBUS_TYPE_INT32, value, {}});
  for (std::size_t i = 0; i < wanted; ++i)
    call(method, arguments);
}

static constexpr void (*kSteps[])(input &) = {
    schedule, schedule,    schedule,   schedule,   call_any,       call_any,   draw_expiry,
    cancel,   draw_expiry, draw_event, set_period, call_misshapen, draw_event, fill};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  input in(data, size);
  system_log_threshold = in.seldom(32) ? SYSTEM_LOG_DEBUG : SYSTEM_LOG_ERROR;
  most_stored = kMaxStoredTimers;
  if (in.seldom(32)) // the set's clock is not known yet when it starts
    standin_set_tv_clock(0);
  if (!start_daemon())
    breach("the daemon gave up");
  load_and_schedule();
  for (int step = 0; step < kMaxSteps && !in.empty(); ++step) {
    in.one_of(kSteps)(in);
    check_state(most_stored);
  }
  for (const char *name : {"request_timer_list", "request_disabled_period_list"})
    call(method_named(name), {{DBUS_TYPE_INT32, 0, {}}});
  stop_daemon();
  if (directories_made)
    remove_directories();
  check_leaks();
  return 0;
}
