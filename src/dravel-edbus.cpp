#include "dravel-edbus.h"

#include "dravel-cb.h"
#include "dravel-db.h"
#include "dravel-item.h"
#include "dravel-list.h"
#include "dravel-log.h"
#include "dravel-timer.h"

#include <E_DBus.h>
#include <gio/gio.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <endian.h>
#include <memory>
#include <utility>

static constexpr const char *kBusName = "org.olvara.tv.system.dravel";
static constexpr const char *kObjectPath = "/org/olvara/tv/system/dravel";
static constexpr const char *kCopiedDbName = ".dravel.db";
static constexpr int kCopiedDbMode = 0664;

static E_DBus_Connection *bus_connection;

namespace {

using message = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;

template <typename T> struct c_free {
  void operator()(T *memory) const { std::free(memory); }
};
template <typename T> using c_memory = std::unique_ptr<T, c_free<T>>;

// A method call: its reply, made before anything else, and the error that its
// arguments may turn out to be.
class method_call {
public:
  explicit method_call(DBusMessage *call)
      : call_(call), reply_(dbus_message_new_method_return(call), dbus_message_unref) {
    dbus_error_init(&error_);
  }
  ~method_call() { dbus_error_free(&error_); }
  method_call(const method_call &) = delete;
  method_call &operator=(const method_call &) = delete;

  // Reads arguments named as for dbus_message_get_args, without its terminator.
  // Surplus arguments are no failure.
  template <typename... Args> bool read(Args... args) {
    if (dbus_message_get_args(call_, &error_, args..., DBUS_TYPE_INVALID))
      return true;
    LOGE("failed to get dbus message args\n");
    return false;
  }

  template <std::size_t N> bool read_ints(std::array<dbus_int32_t, N> &values) {
    return read_ints(values, std::make_index_sequence<2 * N>{});
  }

  // Ends the call with what `args` append, as for dbus_message_append_args.
  template <typename... Args> DBusMessage *reply(Args... args) {
    if (reply_)
      dbus_message_append_args(reply_.get(), args..., DBUS_TYPE_INVALID);
    return reply_.release();
  }

  DBusMessage *reply_int(dbus_int32_t value) { return reply(DBUS_TYPE_INT32, &value); }

  DBusMessage *reply_image(dbus_int32_t first, const unsigned char *image, std::size_t size) {
    return reply(DBUS_TYPE_INT32, &first, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &image,
                 static_cast<int>(size));
  }

  DBusMessage *reply_empty() { return reply_.release(); }

private:
  // Integers come as pairs of a type and an address.
  template <std::size_t N, std::size_t... I>
  bool read_ints(std::array<dbus_int32_t, N> &values, std::index_sequence<I...>) {
    return read(type_or_address<I>(values)...);
  }

  template <std::size_t I, std::size_t N>
  static auto type_or_address(std::array<dbus_int32_t, N> &values) {
    if constexpr (I % 2 == 0)
      return int{DBUS_TYPE_INT32};
    else
      return &values[I / 2];
  }

  DBusMessage *call_;
  message reply_;
  DBusError error_;
};

} // namespace

static void put_word(unsigned char *image, std::size_t word, int value) {
  const std::uint32_t bits = htole32(static_cast<std::uint32_t>(value));
  std::memcpy(image + word * sizeof bits, &bits, sizeof bits);
}

// Fills an image: little-endian words at their fixed places, whatever the
// host's own layout is. Words that no field fills must be 0 already.
template <typename Record> static void put_image(unsigned char *image, const Record &record) {
  for (const record_field &field : record_fields<Record>)
    put_word(image, field.word, field_of(record, field));
}

static DBusMessage *reply_item(method_call &call, const dravel_item &item, int result) {
  unsigned char image[image_size<dravel_item>] = {};
  put_image(image, item);
  return call.reply_image(result, image, sizeof image);
}

// Stands for an item that there is not.
static DBusMessage *reply_no_item(method_call &call) {
  dravel_item filler{};
  filler.timer_id = -1;
  filler.type = -1;
  filler.priority = -1;
  filler.date_type = -1;
  filler.delay = -1;
  filler.week_flag = -1;
  return reply_item(call, filler, -1);
}

template <typename Record> static DBusMessage *reply_list(method_call &call, Eina_List *list) {
  const std::size_t count = eina_list_count(list);
  // One byte more, so that an empty list has its buffer too.
  const c_memory<unsigned char> images(
      static_cast<unsigned char *>(std::calloc(count * image_size<Record> + 1, 1)));
  if (!images) {
    LOGE("failed to allocate memory\n");
    return nullptr;
  }
  unsigned char *image = images.get();
  for (const Record *record : items_of<Record>(list)) {
    put_image(image, *record);
    image += image_size<Record>;
  }
  return call.reply_image(static_cast<dbus_int32_t>(count), images.get(),
                          count * image_size<Record>);
}

static DBusMessage *edbus_schedule_timer_cb(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 15> args{};
  if (!call.read_ints(args))
    return nullptr;
  const auto [type, week_flag, priority, delay, year, mon, mday, hour, min, sec, wday, yday, isdst,
              effect, time_type] = args;
  constexpr int date_type = 0;
  dravel_item *item = create_dravel_item(type, priority, date_type, year, mon, mday, hour, min, sec,
                                         wday, yday, isdst, delay, week_flag, effect, time_type);
  if (item == nullptr)
    return nullptr;

  dravel_item *duplicate = nullptr;
  if (has_type(item, TIMER_TYPE_REPLACING) && find_duplicate_ontimer(item, &duplicate) == 0) {
    LOGI("cancel_dravel_item: [%d]", duplicate->timer_id);
    cancel_dravel_item(duplicate);
  }
  // A timer that the next start would not know is not accepted.
  if (add_dravel_item(item) == nullptr) {
    std::free(item);
    return call.reply_int(-1);
  }
  if (schedule_dravel_item(item, dravel_expire_cb, nullptr) == SCHEDULE_NEVER_FIRES) {
    remove_dravel_item(item);
    return call.reply_int(-1);
  }
  LOGE("edbus_schedule_timer_cb: [%d]", item->timer_id);
  return call.reply_int(item->timer_id);
}

static DBusMessage *edbus_cancel_timer_cb(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> timer_id{};
  if (!call.read_ints(timer_id))
    return nullptr;
  dravel_item *item = find_dravel_item(timer_id[0]);
  if (item == nullptr)
    return call.reply_int(-1);
  cancel_dravel_item(item);
  LOGE("cancel_dravel_item: [%d]", timer_id[0]);
  return call.reply_int(0);
}

static DBusMessage *edbus_request_timer_list_cb(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> unused{};
  if (!call.read_ints(unused))
    return nullptr;
  return reply_list<dravel_item>(call, get_dravel_list());
}

static DBusMessage *edbus_request_wakeup_timer(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> unused{};
  if (!call.read_ints(unused))
    return nullptr;
  const dravel_item *item = get_wakeup_timer();
  if (item != nullptr)
    return reply_item(call, *item, 0);
  LOGE("failed to get wakeup item\n");
  return reply_no_item(call);
}

// Gets the value for a halt flag out of a call, and the call's reply. A call that
// cannot be read releases the halt: a set that no longer wakes or sleeps would be
// worse.
static int get_halt_onofftimers(DBusMessage *msg, DBusMessage **reply) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> value{};
  if (!call.read_ints(value)) {
    *reply = call.reply_empty();
    return 0;
  }
  LOGD("set dbus message args: %d", value[0]);
  *reply = call.reply_int(0);
  return value[0];
}

static DBusMessage *edbus_request_halt_ontimers(E_DBus_Object *, DBusMessage *msg) {
  DBusMessage *reply = nullptr;
  ontimer_halt = get_halt_onofftimers(msg, &reply);
  return reply;
}

static DBusMessage *edbus_request_halt_offtimers(E_DBus_Object *, DBusMessage *msg) {
  DBusMessage *reply = nullptr;
  offtimer_halt = get_halt_onofftimers(msg, &reply);
  return reply;
}

static DBusMessage *edbus_request_get_timers_halt_effect(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> unused{};
  if (!call.read_ints(unused))
    return nullptr;
  return call.reply(DBUS_TYPE_INT32, &ontimer_halt, DBUS_TYPE_INT32, &offtimer_halt);
}

static void read_date(std::tm *date, const dbus_int32_t *args) {
  date->tm_year = args[0];
  date->tm_mon = args[1];
  date->tm_mday = args[2];
  date->tm_hour = args[3];
  date->tm_min = args[4];
  date->tm_sec = args[5];
  date->tm_wday = args[6];
  date->tm_yday = args[7];
  date->tm_isdst = args[8];
}

static DBusMessage *edbus_request_set_disable_period(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  c_memory<disabled_period_item> period(
      static_cast<disabled_period_item *>(std::calloc(1, sizeof(disabled_period_item))));
  if (!period) {
    LOGE("Failed to alloc period item\n");
    return nullptr;
  }
  std::array<dbus_int32_t, 20> args{};
  if (!call.read_ints(args))
    return nullptr;
  read_date(&period->start_tm, &args[0]);
  read_date(&period->end_tm, &args[9]);
  period->start_date_leap_year_f = args[18];
  period->end_date_leap_year_f = args[19];
  LOG_TIME(SYSTEM_LOG_ERROR, "start_date : %s", &period->start_tm);
  LOG_TIME(SYSTEM_LOG_ERROR, "end_date: %s", &period->end_tm);
  LOGD("start_date_leap_year_f : %d", period->start_date_leap_year_f);
  LOGD("end_date_leap_year_f : %d", period->end_date_leap_year_f);

  if (add_disabled_period_item(period.get()) == nullptr) {
    LOGE("failed to add disabled period item");
    return call.reply_int(-1);
  }
  const disabled_period_item *listed = period.release();
  adjust_dravel_all_items(nullptr, nullptr);
  return call.reply_int(listed->period_id);
}

static DBusMessage *edbus_request_remove_disabled_period(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> period_id{};
  if (!call.read_ints(period_id))
    return nullptr;
  disabled_period_item *period = find_disabled_period_item(period_id[0]);
  if (period == nullptr)
    return call.reply_int(-1);
  remove_disabled_period_item(period);
  adjust_dravel_all_items(nullptr, nullptr);
  return call.reply_int(0);
}

static DBusMessage *edbus_request_disabled_period_list_cb(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> unused{};
  if (!call.read_ints(unused))
    return nullptr;
  return reply_list<disabled_period_item>(call, get_disabled_period_list());
}

static DBusMessage *edbus_request_set_disable_period_effect(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 2> args{};
  if (!call.read_ints(args))
    return nullptr;
  const auto [timer_id, effect] = args;
  LOGE("timer_id: %d, disable_period_effect: %d", timer_id, effect);
  dravel_item *item = find_dravel_item(timer_id);
  if (item == nullptr) {
    LOGE("failed to set disable period effect");
    return call.reply_int(-1);
  }
  item->disable_period_effect = effect;
  update_disable_period_effect_db(timer_id, effect);
  adjust_dravel_all_items(nullptr, nullptr);
  return call.reply_int(0);
}

// Copies the whole file at `source` over `destination`: by way of a new file
// that is on the disk before it takes the place, so that neither a disk without
// room nor a power cut costs what was there. A pipe would keep the daemon
// waiting.
static bool copy_file(const char *source, const char *destination) {
  constexpr auto whole_or_not = static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT |
                                                                   G_FILE_SET_CONTENTS_DURABLE);
  GError *failure = nullptr;
  char *contents = nullptr;
  gsize size = 0;
  if (!g_file_test(source, G_FILE_TEST_IS_REGULAR))
    g_set_error(&failure, G_FILE_ERROR, G_FILE_ERROR_INVAL, "%s is no regular file", source);
  else if (g_file_get_contents(source, &contents, &size, &failure))
    g_file_set_contents_full(destination, contents, static_cast<gssize>(size), whole_or_not,
                             kCopiedDbMode, &failure);
  g_free(contents);
  if (failure == nullptr)
    return true;
  LOGE("failed to copy file: %s", failure->message);
  g_error_free(failure);
  return false;
}

static DBusMessage *edbus_request_copy_db(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  dbus_int32_t copy_in = 0;
  const char *directory = nullptr;
  if (!call.read(DBUS_TYPE_INT32, &copy_in, DBUS_TYPE_STRING, &directory))
    return nullptr;

  const std::unique_ptr<char, decltype(&g_free)> outside(
      g_build_filename(directory, kCopiedDbName, nullptr), g_free);
  const char *source = copy_in != 0 ? outside.get() : kDravelDbPath;
  const char *destination = copy_in != 0 ? kDravelDbPath : outside.get();
  if (!g_file_test(source, G_FILE_TEST_EXISTS)) {
    LOGE("%s is not exit", source);
    return nullptr;
  }
  return copy_file(source, destination) ? call.reply_int(0) : nullptr;
}

static DBusMessage *edbus_dravel_get_timer_by_id_cb(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> timer_id{};
  if (!call.read_ints(timer_id))
    return nullptr;
  LOGI("time_id = %d\n", timer_id[0]);
  const dravel_item *item = find_dravel_item(timer_id[0]);
  if (item != nullptr)
    return reply_item(call, *item, 0);
  LOGE("failed to get dravel item\n");
  return reply_no_item(call);
}

static constexpr struct {
  const char *name;
  const char *signature;
  const char *reply_signature;
  E_DBus_Method_Cb handler;
} kMethods[] = {
    {"schedule_timer", "iiiiiiiiiiiiiii", "i", edbus_schedule_timer_cb},
    {"cancel_timer", "i", "i", edbus_cancel_timer_cb},
    {"request_timer_list", "i", "iay", edbus_request_timer_list_cb},
    {"request_wakeup_timer", "i", "iay", edbus_request_wakeup_timer},
    {"request_halt_ontimers", "i", "i", edbus_request_halt_ontimers},
    {"request_halt_offtimers", "i", "i", edbus_request_halt_offtimers},
    {"request_get_timers_halt_effect", "i", "ii", edbus_request_get_timers_halt_effect},
    {"request_set_disable_period", "iiiiiiiiiiiiiiiiiiii", "i", edbus_request_set_disable_period},
    {"request_remove_disabled_period", "i", "i", edbus_request_remove_disabled_period},
    {"request_disabled_period_list", "i", "iay", edbus_request_disabled_period_list_cb},
    {"request_set_disable_period_effect", "ii", "i", edbus_request_set_disable_period_effect},
    {"request_copy_db", "is", "i", edbus_request_copy_db},
    {"dravel_get_timer_by_id", "i", "iay", edbus_dravel_get_timer_by_id_cb},
};

static constexpr const char *kExpiredSignal = "dravel_expired";
static constexpr const char *kTypeExpiredSignal = "dravel_type_expired";
static constexpr const char *kWeekFlagExpiredSignal = "dravel_week_flag_expired";

static int send_signal(const char *name, dbus_int32_t value) {
  const message signal(dbus_message_new_signal(kObjectPath, kBusName, name), dbus_message_unref);
  if (signal && bus_connection != nullptr) {
    dbus_message_append_args(signal.get(), DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID);
    e_dbus_message_send(bus_connection, signal.get(), nullptr, -1, nullptr);
  }
  return 0;
}

int send_expire_signal(int timer_id) { return send_signal(kExpiredSignal, timer_id); }

int send_expire_by_type_signal(int type) { return send_signal(kTypeExpiredSignal, type); }

int send_expire_week_flag_signal(int week_flag) {
  return send_signal(kWeekFlagExpiredSignal, week_flag);
}

// Whether the name was granted shows on the bus, not here.
static void edbus_request_name_cb(void *, DBusMessage *, DBusError *) { LOGD("dbus name get!\n"); }

int init_edbus_handler(void) {
  if (bus_connection != nullptr)
    return 0;
  if (e_dbus_init() == 0) {
    LOGE("e_dbus_init() failed\n");
    return -1;
  }
  bus_connection = e_dbus_bus_get(DBUS_BUS_SYSTEM);
  if (bus_connection == nullptr) {
    LOGE("e_dbus_bus_get() failed\n");
    return -1;
  }
  if (e_dbus_request_name(bus_connection, kBusName, 0, edbus_request_name_cb, nullptr) == nullptr) {
    LOGE("e_dbus_request_name() failed\n");
    return -1;
  }
  E_DBus_Object *object = e_dbus_object_add(bus_connection, kObjectPath, nullptr);
  if (object == nullptr) {
    LOGE("e_dbus_object_add() failed\n");
    return -1;
  }
  E_DBus_Interface *interface = e_dbus_interface_new(kBusName);
  if (interface == nullptr) {
    LOGE("e_dbus_interface_new() failed\n");
    return -1;
  }
  for (const auto &method : kMethods)
    e_dbus_interface_method_add(interface, method.name, method.signature, method.reply_signature,
                                method.handler);
  for (const char *name : {kExpiredSignal, kTypeExpiredSignal, kWeekFlagExpiredSignal})
    e_dbus_interface_signal_add(interface, name, "i");
  e_dbus_object_interface_attach(object, interface);
  return 0;
}

int shutdown_edbus_handler(void) {
  e_dbus_shutdown();
  bus_connection = nullptr;
  return 0;
}
