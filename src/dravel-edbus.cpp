#include "dravel-edbus.h"

#include "dravel-bus.h"
#include "dravel-changes.h"
#include "dravel-db.h"
#include "dravel-item.h"
#include "dravel-list.h"
#include "dravel-log.h"
#include "dravel-state.h"
#include "dravel-timer.h"

#include <E_DBus.h>
#include <gio/gio.h>
#include <glib/gstdio.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <endian.h>
#include <memory>
#include <span>
#include <unistd.h>

static constexpr const char *kCopiedDbName = ".dravel.db";

static E_DBus_Connection *bus_connection;

namespace {

using message = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;

// A method call: its arguments, read in order, and its reply, which is made first.
class method_call {
public:
  explicit method_call(DBusMessage *call)
      : reply_(dbus_message_new_method_return(call), dbus_message_unref) {
    dbus_message_iter_init(call, &arguments_);
  }

  // Read the next arguments. False when they are missing or of another type: the line that says so
  // names the `handler`. Surplus arguments are no failure.
  bool read(std::span<dbus_int32_t> values, const char *handler = __builtin_FUNCTION()) {
    for (dbus_int32_t &value : values) {
      if (!read_next(DBUS_TYPE_INT32, &value, handler))
        return false;
    }
    return true;
  }

  bool read(const char **text, const char *handler = __builtin_FUNCTION()) {
    return read_next(DBUS_TYPE_STRING, text, handler);
  }

  // Gives the reply, with `args` appended as by dbus_message_append_args.
  template <typename... Args> DBusMessage *reply(Args... args) {
    if (reply_ != nullptr && !dbus_message_append_args(reply_.get(), args..., DBUS_TYPE_INVALID))
      reply_.reset(); // out of memory
    return reply_.release();
  }

  DBusMessage *reply_int(dbus_int32_t value) { return reply(DBUS_TYPE_INT32, &value); }

  DBusMessage *reply_image(dbus_int32_t first, const std::uint32_t *image, std::size_t words) {
    return reply(DBUS_TYPE_INT32, &first, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &image,
                 static_cast<int>(words * sizeof *image));
  }

  DBusMessage *reply_empty() { return reply_.release(); }

private:
  bool read_next(int type, void *out, const char *handler) {
    if (dbus_message_iter_get_arg_type(&arguments_) != type) {
      LOG_FROM(handler, SYSTEM_LOG_ERROR, "failed to get dbus message args\n");
      return false;
    }
    dbus_message_iter_get_basic(&arguments_, out);
    dbus_message_iter_next(&arguments_);
    return true;
  }

  message reply_;
  DBusMessageIter arguments_;
};

} // namespace

// Fills the fields of `record` that the method's arguments carry.
template <typename Record>
static bool read_record(method_call &call, Record &record,
                        const char *handler = __builtin_FUNCTION()) {
  std::array<dbus_int32_t, kArgumentCount<Record>> arguments{};
  if (!call.read(arguments, handler))
    return false;
  for (const record_field &field : kRecordFields<Record>) {
    if (field.argument != kNoArgument)
      field_of(record, field) = arguments[static_cast<std::size_t>(field.argument)];
  }
  return true;
}

// Fills an image: little-endian words at their fixed places, on every host. Words that no field
// fills must be 0 already.
template <typename Record> static void put_image(std::uint32_t *image, const Record &record) {
  for (const record_field &field : kRecordFields<Record>)
    image[field.word] = htole32(static_cast<std::uint32_t>(field_of(record, field)));
}

static DBusMessage *reply_item(method_call &call, const dravel_item &item, int result) {
  std::array<std::uint32_t, kImageWords<dravel_item>> image{};
  put_image(image.data(), item);
  return call.reply_image(result, image.data(), image.size());
}

// The reply for an unknown timer.
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

template <typename Record>
static DBusMessage *reply_list(method_call &call, Eina_List *list,
                               const char *handler = __builtin_FUNCTION()) {
  const std::size_t count = eina_list_count(list);
  const std::size_t words = count * kImageWords<Record>;
  // One word more, so that an empty list has a buffer, too.
  g_autofree std::uint32_t *images = g_try_new0(std::uint32_t, words + 1);
  if (images == nullptr) {
    LOG_FROM(handler, SYSTEM_LOG_ERROR, "failed to allocate memory\n");
    return nullptr;
  }
  std::uint32_t *image = images;
  for (const Record *record : items_of<Record>(list)) {
    put_image(image, *record);
    image += kImageWords<Record>;
  }
  return call.reply_image(static_cast<dbus_int32_t>(count), images, words);
}

// A type that replaces its equal cancels it first.
static void cancel_replaced(const dravel_item *item, const char *handler) {
  dravel_item *duplicate = nullptr;
  if (!has_type(item, TIMER_TYPE_REPLACING) || find_duplicate_ontimer(item, &duplicate) != 0)
    return;
  LOG_FROM(handler, SYSTEM_LOG_INFO, "cancel_dravel_item: [%d]", duplicate->timer_id);
  cancel_dravel_item(duplicate, removal_reason::kReplaced);
}

// Lists and arms `item`. Returns its id, or -1 with the item released. A timer that cannot be
// stored is refused, because the next start would not list it.
static int take_item(dravel_item *item) {
  if (add_dravel_item(item) == nullptr) {
    g_free(item);
    return -1;
  }
  if (const auto reason = schedule_item(item)) {
    remove_dravel_item(item, *reason);
    return -1;
  }
  return item->timer_id;
}

static DBusMessage *edbus_schedule_timer_cb(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  dravel_item fields{};
  fields.timer_id = kUnstoredTimerId;
  if (!read_record(call, fields))
    return nullptr;
  dravel_item *item = copy_dravel_item(&fields);
  if (item == nullptr)
    return nullptr;

  cancel_replaced(item, __func__);
  const int timer_id = take_item(item);
  replace_removed_ontimer();
  if (timer_id != -1)
    LOGP("edbus_schedule_timer_cb: [%d]", timer_id);
  return call.reply_int(timer_id);
}

static DBusMessage *edbus_cancel_timer_cb(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> timer_id{};
  if (!call.read(timer_id))
    return nullptr;
  dravel_item *item = find_dravel_item(timer_id[0]);
  if (item == nullptr)
    return call.reply_int(-1);
  cancel_dravel_item(item);
  LOGP("cancel_dravel_item: [%d]", timer_id[0]);
  return call.reply_int(0);
}

static DBusMessage *edbus_request_timer_list_cb(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> unused{};
  if (!call.read(unused))
    return nullptr;
  return reply_list<dravel_item>(call, get_dravel_list());
}

static DBusMessage *edbus_request_wakeup_timer(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> unused{};
  if (!call.read(unused))
    return nullptr;
  const dravel_item *item = get_wakeup_timer();
  if (item != nullptr)
    return reply_item(call, *item, 0);
  LOGP("failed to get wakeup item\n");
  return reply_no_item(call);
}

// Reads the value for a halt flag from a call and makes the reply. A call that cannot be read
// releases the halt, so that timers turn the set on and off again.
static int get_halt_onofftimers(DBusMessage *msg, DBusMessage **reply) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> value{};
  if (!call.read(value)) {
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
  state_touched();
  return reply;
}

static DBusMessage *edbus_request_halt_offtimers(E_DBus_Object *, DBusMessage *msg) {
  DBusMessage *reply = nullptr;
  offtimer_halt = get_halt_onofftimers(msg, &reply);
  state_touched();
  return reply;
}

static DBusMessage *edbus_request_get_timers_halt_effect(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> unused{};
  if (!call.read(unused))
    return nullptr;
  return call.reply(DBUS_TYPE_INT32, &ontimer_halt, DBUS_TYPE_INT32, &offtimer_halt);
}

static DBusMessage *edbus_request_set_disable_period(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  g_autofree disabled_period_item *period = g_try_new0(disabled_period_item, 1);
  if (period == nullptr) {
    LOGE("Failed to alloc period item\n");
    return nullptr;
  }
  if (!read_record(call, *period))
    return nullptr;
  LOG_TIME(SYSTEM_LOG_PROGRESS, "start_date : %s", &period->start_tm);
  LOG_TIME(SYSTEM_LOG_PROGRESS, "end_date: %s", &period->end_tm);
  LOGD("start_date_leap_year_f : %d", period->start_date_leap_year_f);
  LOGD("end_date_leap_year_f : %d", period->end_date_leap_year_f);

  if (add_disabled_period_item(period) == nullptr) {
    LOGE("failed to add disabled period item");
    return call.reply_int(-1);
  }
  const disabled_period_item *listed = g_steal_pointer(&period);
  adjust_dravel_all_items(nullptr, nullptr);
  return call.reply_int(listed->period_id);
}

static DBusMessage *edbus_request_remove_disabled_period(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> period_id{};
  if (!call.read(period_id))
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
  if (!call.read(unused))
    return nullptr;
  return reply_list<disabled_period_item>(call, get_disabled_period_list());
}

static DBusMessage *edbus_request_set_disable_period_effect(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 2> args{};
  if (!call.read(args))
    return nullptr;
  const auto [timer_id, effect] = args;
  LOGP("timer_id: %d, disable_period_effect: %d", timer_id, effect);
  dravel_item *item = find_dravel_item(timer_id);
  if (item == nullptr) {
    LOGP("failed to set disable period effect");
    return call.reply_int(-1);
  }
  const bool changed = item->disable_period_effect != effect;
  item->disable_period_effect = effect;
  update_disable_period_effect_db(timer_id, effect);
  if (changed)
    timer_changed(timer_id);
  adjust_dravel_all_items(nullptr, nullptr);
  return call.reply_int(0);
}

// Whether both paths name one file that exists.
static bool is_same_file(const GStatBuf &source, const char *destination) {
  GStatBuf other;
  return g_stat(destination, &other) == 0 && other.st_dev == source.st_dev &&
         other.st_ino == source.st_ino;
}

static void set_failure(GError **failure, const char *path, const char *reason) {
  g_set_error(failure, G_FILE_ERROR, G_FILE_ERROR_FAILED, "%s %s", path, reason);
}

// Copies the whole file at `source` over `destination`, with its permissions. The new file is
// written beside the old one, so that this survives a full disk and a power cut. Only a regular
// file is read: a pipe would block the daemon. When both paths name one file nothing is done,
// because the store must stay the file that is open.
static void copy_file(const char *source, const char *destination, GError **failure) {
  GStatBuf status;
  if (g_stat(source, &status) != 0 || !S_ISREG(status.st_mode))
    return set_failure(failure, source, "is no regular file");
  if (is_same_file(status, destination))
    return;
  g_autofree char *beside = g_strconcat(destination, ".copy-XXXXXX", nullptr);
  const int fd = g_mkstemp(beside);
  if (fd == -1)
    return set_failure(failure, destination, g_strerror(errno));
  close(fd);

  g_autoptr(GFile) from = g_file_new_for_path(source);
  g_autoptr(GFile) to = g_file_new_for_path(beside);
  if (g_file_copy(from, to, G_FILE_COPY_OVERWRITE, nullptr, nullptr, nullptr, failure) != FALSE &&
      replace_file(beside, destination) != 0)
    set_failure(failure, destination, g_strerror(errno));
  if (*failure != nullptr)
    g_unlink(beside);
}

static DBusMessage *edbus_request_copy_db(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> copy_in{};
  const char *directory = nullptr;
  if (!call.read(copy_in) || !call.read(&directory))
    return nullptr;

  g_autofree char *outside = g_build_filename(directory, kCopiedDbName, nullptr);
  const char *source = copy_in[0] != 0 ? outside : kDravelDbPath;
  const char *destination = copy_in[0] != 0 ? kDravelDbPath : outside;
  if (!g_file_test(source, G_FILE_TEST_EXISTS)) {
    LOGP("%s is not exit", source);
    return nullptr;
  }
  g_autoptr(GError) failure = nullptr;
  copy_file(source, destination, &failure);
  if (failure == nullptr)
    return call.reply_int(0);
  LOGE("failed to copy file: %s", failure->message);
  return nullptr;
}

static DBusMessage *edbus_dravel_get_timer_by_id_cb(E_DBus_Object *, DBusMessage *msg) {
  method_call call(msg);
  std::array<dbus_int32_t, 1> timer_id{};
  if (!call.read(timer_id))
    return nullptr;
  LOGI("time_id = %d\n", timer_id[0]);
  const dravel_item *item = find_dravel_item(timer_id[0]);
  if (item != nullptr)
    return reply_item(call, *item, 0);
  LOGP("failed to get dravel item\n");
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
  const message signal(dbus_message_new_signal(kDravelObjectPath, kDravelBusName, name),
                       dbus_message_unref);
  if (signal != nullptr && bus_connection != nullptr &&
      dbus_message_append_args(signal.get(), DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID))
    e_dbus_message_send(bus_connection, signal.get(), nullptr, -1, nullptr);
  return 0;
}

int send_expire_signal(int timer_id) { return send_signal(kExpiredSignal, timer_id); }

int send_expire_by_type_signal(int type) { return send_signal(kTypeExpiredSignal, type); }

int send_expire_week_flag_signal(int week_flag) {
  return send_signal(kWeekFlagExpiredSignal, week_flag);
}

// Called for a granted and for a refused name.
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
  if (e_dbus_request_name(bus_connection, kDravelBusName, 0, edbus_request_name_cb, nullptr) ==
      nullptr) {
    LOGE("e_dbus_request_name() failed\n");
    return -1;
  }
  E_DBus_Object *object = e_dbus_object_add(bus_connection, kDravelObjectPath, nullptr);
  if (object == nullptr) {
    LOGE("e_dbus_object_add() failed\n");
    return -1;
  }
  E_DBus_Interface *interface = e_dbus_interface_new(kDravelBusName);
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
  init_state_object(bus_connection);
  return 0;
}

int shutdown_edbus_handler(void) {
  fini_state_object();
  e_dbus_shutdown();
  bus_connection = nullptr;
  return 0;
}
