// The least that a service on the daemon's main loop, bus binding and store can do for the same
// requests: it reads the same arguments, runs the same statements and sends replies of the same
// size and as many signals. What the daemon costs beyond it is the daemon's own.
//
// Usage: bare_service DATABASE WAKEUP-DATABASE SIGNALS-AT-START

#include <E_DBus.h>
#include <Ecore.h>
#include <sqlite3.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

static constexpr const char *kBusName = "org.olvara.tv.bare";
static constexpr const char *kObjectPath = "/org/olvara/tv/bare";
static constexpr std::size_t kImageWords = 19;
static constexpr std::size_t kWordSize = 4;

// The daemon's statements, to the letter.
static constexpr const char *kInsertDravel =
    "INSERT INTO dravel \t(type, priority, date_type, tm_sec, tm_min, tm_hour, tm_mday, tm_mon,"
    "\ttm_year, tm_wday, tm_yday, tm_isdst, delay, week_flag,\tdisable_period_effect, time_type, "
    "micom_flag) \tVALUES (%d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d)";

static constexpr const char *kUpdateDravel =
    "UPDATE dravel SET \ttype=%d, priority=%d, date_type=%d, tm_sec=%d, tm_min=%d, tm_hour=%d,"
    "\ttm_mday=%d, tm_mon=%d, tm_year=%d, tm_wday=%d, tm_yday=%d, tm_isdst=%d,"
    "\tdelay=%d, week_flag=%d, disable_period_effect=%d, time_type=%d WHERE timer_id = %d";

static sqlite3 *store;
static std::vector<unsigned char> kept_images;
static int signals_of_a_change;

// A benchmark of statements that fail would measure nothing.
static void execute(sqlite3 *db, const char *sql) {
  char *error = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &error) == SQLITE_OK)
    return;
  std::fprintf(stderr, "bare_service: %s\n", error != nullptr ? error : sqlite3_errmsg(db));
  std::exit(1);
}

// Checks, reads and marks it, and synchronises as the daemon does.
static sqlite3 *open_database(const char *path) {
  sqlite3 *db = nullptr;
  sqlite3_open(path, &db);
  execute(db, "pragma integrity_check; pragma synchronous = extra; SELECT * FROM dravel;"
              "pragma user_version = 1");
  return db;
}

template <typename... Values> static void execute_with(const char *format, Values... values) {
  char sql[1024];
  std::snprintf(sql, sizeof sql, format, values...);
  execute(store, sql);
}

template <std::size_t N, std::size_t... I>
static bool read_ints(DBusMessage *call, std::array<dbus_int32_t, N> &values,
                      std::index_sequence<I...>) {
  const auto type_or_address = [&]<std::size_t At>(std::integral_constant<std::size_t, At>) {
    if constexpr (At % 2 == 0)
      return int{DBUS_TYPE_INT32};
    else
      return &values[At / 2];
  };
  return dbus_message_get_args(call, nullptr,
                               type_or_address(std::integral_constant<std::size_t, I>{})...,
                               DBUS_TYPE_INVALID);
}

template <std::size_t N> static std::array<dbus_int32_t, N> ints_of(DBusMessage *call) {
  std::array<dbus_int32_t, N> values{};
  read_ints(call, values, std::make_index_sequence<2 * N>{});
  return values;
}

static DBusMessage *reply_int(DBusMessage *call, dbus_int32_t value) {
  DBusMessage *reply = dbus_message_new_method_return(call);
  dbus_message_append_args(reply, DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID);
  return reply;
}

// As large as what the stand-in tells of a request to the set.
static void send_signals(int count) {
  static constexpr const char *kWord = "set_wakeup_time";
  static constexpr dbus_uint32_t kNumber = 0;
  E_DBus_Connection *bus = e_dbus_bus_get(DBUS_BUS_SYSTEM);
  for (; count > 0; --count) {
    DBusMessage *signal = dbus_message_new_signal(kObjectPath, kBusName, "Requested");
    dbus_message_append_args(signal, DBUS_TYPE_STRING, &kWord, DBUS_TYPE_UINT32, &kNumber,
                             DBUS_TYPE_UINT32, &kNumber, DBUS_TYPE_INVALID);
    e_dbus_message_send(bus, signal, nullptr, 0, nullptr);
    dbus_message_unref(signal);
  }
}

static DBusMessage *schedule_timer(E_DBus_Object *, DBusMessage *call) {
  const auto [type, week_flag, priority, delay, year, mon, mday, hour, min, sec, wday, yday, isdst,
              effect, time_type] = ints_of<15>(call);
  execute_with(kInsertDravel, type, priority, 0, sec, min, hour, mday, mon, year, wday, yday, isdst,
               delay, week_flag, effect, time_type, 0);
  send_signals(signals_of_a_change);
  return reply_int(call, static_cast<dbus_int32_t>(sqlite3_last_insert_rowid(store)));
}

static DBusMessage *cancel_timer(E_DBus_Object *, DBusMessage *call) {
  execute_with("DELETE FROM dravel WHERE timer_id = %d", ints_of<1>(call)[0]);
  send_signals(signals_of_a_change);
  return reply_int(call, 0);
}

static DBusMessage *request_timer_list(E_DBus_Object *, DBusMessage *call) {
  ints_of<1>(call);
  const auto count = static_cast<dbus_int32_t>(kept_images.size() / (kImageWords * kWordSize));
  const unsigned char *images = kept_images.data();
  DBusMessage *reply = dbus_message_new_method_return(call);
  dbus_message_append_args(reply, DBUS_TYPE_INT32, &count, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &images,
                           static_cast<int>(kept_images.size()), DBUS_TYPE_INVALID);
  return reply;
}

static DBusMessage *request_get_timers_halt_effect(E_DBus_Object *, DBusMessage *call) {
  ints_of<1>(call);
  const dbus_int32_t none = 0;
  DBusMessage *reply = dbus_message_new_method_return(call);
  dbus_message_append_args(reply, DBUS_TYPE_INT32, &none, DBUS_TYPE_INT32, &none,
                           DBUS_TYPE_INVALID);
  return reply;
}

// Takes the images that request_timer_list gives back and update_all stores.
static DBusMessage *keep(E_DBus_Object *, DBusMessage *call) {
  const unsigned char *images = nullptr;
  int size = 0;
  dbus_message_get_args(call, nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &images, &size,
                        DBUS_TYPE_INVALID);
  kept_images.assign(images, images + size);
  return dbus_message_new_method_return(call);
}

// Takes how many signals a change sends from now on.
static DBusMessage *announce(E_DBus_Object *, DBusMessage *call) {
  signals_of_a_change = ints_of<1>(call)[0];
  return dbus_message_new_method_return(call);
}

static int word_at(const unsigned char *image, std::size_t word) {
  std::uint32_t bits = 0;
  for (unsigned byte = 0; byte < kWordSize; ++byte)
    bits |= std::uint32_t{image[word * kWordSize + byte]} << (8 * byte);
  return static_cast<int>(bits);
}

static DBusMessage *update_all(E_DBus_Object *, DBusMessage *call) {
  for (std::size_t at = 0; at < kept_images.size(); at += kImageWords * kWordSize) {
    const auto word = [image = &kept_images[at]](std::size_t index) {
      return word_at(image, index);
    };
    // Words 13 and 14 have no column.
    execute_with(kUpdateDravel, word(1), word(2), word(3), word(4), word(5), word(6), word(7),
                 word(8), word(9), word(10), word(11), word(12), word(15), word(16), word(17),
                 word(18), word(0));
  }
  send_signals(signals_of_a_change);
  return dbus_message_new_method_return(call);
}

static constexpr struct {
  const char *name;
  const char *signature;
  const char *reply_signature;
  E_DBus_Method_Cb handler;
} kMethods[] = {
    {"schedule_timer", "iiiiiiiiiiiiiii", "i", schedule_timer},
    {"cancel_timer", "i", "i", cancel_timer},
    {"request_timer_list", "i", "iay", request_timer_list},
    {"request_get_timers_halt_effect", "i", "ii", request_get_timers_halt_effect},
    {"keep", "ay", "", keep},
    {"announce", "i", "", announce},
    {"update_all", "", "", update_all},
};

int main(int argc, char **argv) {
  if (argc != 4)
    return 64;
  ecore_init();
  store = open_database(argv[1]);
  sqlite3 *wakeup_store = open_database(argv[2]);

  e_dbus_init();
  E_DBus_Connection *bus = e_dbus_bus_get(DBUS_BUS_SYSTEM);
  if (bus == nullptr)
    return 1;
  e_dbus_request_name(bus, kBusName, 0, nullptr, nullptr);
  E_DBus_Interface *interface = e_dbus_interface_new(kBusName);
  for (const auto &method : kMethods)
    e_dbus_interface_method_add(interface, method.name, method.signature, method.reply_signature,
                                method.handler);
  e_dbus_object_interface_attach(e_dbus_object_add(bus, kObjectPath, nullptr), interface);
  send_signals(std::atoi(argv[3]));

  ecore_main_loop_begin();
  sqlite3_close(store);
  sqlite3_close(wakeup_store);
  ecore_shutdown();
  return 0;
}
