#include "machine.h"

#include <Ecore.h>
#include <linux/ioctl.h>
#include <linux/types.h>
// The contract has another record of this name.
namespace kernel {
#include <linux/rtc.h>
}
using kernel::rtc_param;
using kernel::rtc_wkalrm;
#include <due_timers.h>
#include <glib.h>
#include <time_values.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <linux/input.h>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

static constexpr auto kLongestWait = std::chrono::seconds(10);
static constexpr int kTurnsOfAnOrder = 6; // until what it leads to has been called and is known
static constexpr std::string_view kError = "PRIORITY=3\nSYSLOG_IDENTIFIER=DRAVEL_LINUX\nMESSAGE=";
static constexpr const char *kMock = "org.freedesktop.DBus.Mock";

fake_rtc rtc;
fake_cec cec;

static std::int64_t wall_clock = kNow;
static std::int64_t slept;                               // seconds
static std::int64_t passed;                              // while it was awake
static std::multimap<double, Ecore_Task_Cb> live_timers; // by their seconds
static std::string record_of_events;
static int journal = -1;

void append(std::string &list, const std::string &entry, const char *separator) {
  list += (list.empty() ? "" : separator) + entry;
}

void happened(const std::string &what) { append(record_of_events, what); }

void write_file(const std::string &path, const std::string &content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path) << content;
}

std::string read_file(const std::string &path) {
  std::stringstream content;
  content << std::ifstream(path).rdbuf();
  std::string text = content.str();
  return text.ends_with('\n') ? text.substr(0, text.size() - 1) : text;
}

// --- the daemon ---

std::vector<due_timer> late_timers;

std::size_t dravel_due_timers(std::uint32_t from, std::uint32_t until, due_timer *out,
                              std::size_t room) {
  if (!late_timers.empty())
    happened("due " + std::to_string(from) + " " + std::to_string(until));
  std::ranges::copy(late_timers, out);
  EXPECT_LE(late_timers.size(), room);
  return late_timers.size();
}

// --- the kernel ---

static int refuse(int error) {
  errno = error;
  return -1;
}

static int set_alarm(const rtc_wkalrm &alarm) {
  std::tm fields{};
  fields.tm_sec = alarm.time.tm_sec;
  fields.tm_min = alarm.time.tm_min;
  fields.tm_hour = alarm.time.tm_hour;
  fields.tm_mday = alarm.time.tm_mday;
  fields.tm_mon = alarm.time.tm_mon;
  fields.tm_year = alarm.time.tm_year;
  const bool stands = alarm.enabled != 0 && rtc.refuses == 0 && !rtc.forgets;
  write_file(kAlarmPath, stands ? std::to_string(civil_seconds(fields)) : "");
  return rtc.refuses == 0 ? 0 : refuse(rtc.refuses);
}

static int transmit(const cec_msg &sent) {
  const std::span<const std::uint8_t> bytes(sent.msg, sent.len);
  std::string text;
  for (const std::uint8_t byte : bytes)
    text += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 0xf]};
  if (sent.reply != 0)
    text += '?' + std::to_string(sent.timeout);
  append(cec.sent, text, " ");
  return cec.refuses == 0 ? 0 : refuse(cec.refuses);
}

cec_msg received(std::initializer_list<std::uint8_t> bytes) {
  cec_msg heard{};
  std::ranges::copy(bytes, heard.msg);
  heard.len = static_cast<std::uint32_t>(bytes.size());
  heard.rx_status = CEC_RX_STATUS_OK;
  return heard;
}

static int claim(const cec_log_addrs &wanted) {
  ++cec.claims;
  if (wanted.num_log_addrs != 1 || wanted.cec_version != CEC_OP_CEC_VERSION_1_4 ||
      wanted.vendor_id != CEC_VENDOR_ID_NONE ||
      wanted.primary_device_type[0] != CEC_OP_PRIM_DEVTYPE_PLAYBACK ||
      wanted.log_addr_type[0] != CEC_LOG_ADDR_TYPE_PLAYBACK)
    return refuse(EINVAL);
  if (cec.refuses_claim != 0)
    return refuse(cec.refuses_claim);
  cec.addresses = wanted;
  cec.addresses.log_addr[0] = CEC_LOG_ADDR_PLAYBACK_1;
  cec.addresses.log_addr_mask = 1 << CEC_LOG_ADDR_PLAYBACK_1;
  return 0;
}

extern "C" {

// A CEC mode is refused, as where another program follows the device exclusively.
int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  switch (request) {
  case RTC_WKALM_SET:
    return set_alarm(*static_cast<rtc_wkalrm *>(argument));
  case RTC_PARAM_GET:
    static_cast<rtc_param *>(argument)->uvalue =
        rtc.minutes ? 1 << RTC_FEATURE_ALARM_RES_MINUTE : 0;
    return rtc.refuses == 0 ? 0 : refuse(rtc.refuses);
  case CEC_ADAP_G_CAPS:
    static_cast<cec_caps *>(argument)->capabilities = cec.needs_address ? CEC_CAP_PHYS_ADDR : 0;
    return 0;
  case CEC_ADAP_G_PHYS_ADDR:
    *static_cast<std::uint16_t *>(argument) = cec.physical;
    return 0;
  case CEC_ADAP_S_PHYS_ADDR:
    cec.physical = *static_cast<std::uint16_t *>(argument);
    return 0;
  case CEC_ADAP_G_LOG_ADDRS:
    *static_cast<cec_log_addrs *>(argument) = cec.addresses;
    return 0;
  case CEC_ADAP_S_LOG_ADDRS:
    return claim(*static_cast<cec_log_addrs *>(argument));
  case CEC_S_MODE:
    cec.mode = *static_cast<std::uint32_t *>(argument);
    return refuse(EBUSY);
  case CEC_DQEVENT:
    return std::exchange(cec.has_event, false) ? 0 : -1;
  case CEC_RECEIVE:
    return read(fd, argument, sizeof(cec_msg)) > 0 ? 0 : -1;
  case CEC_TRANSMIT:
    return transmit(*static_cast<cec_msg *>(argument));
  case EVIOCSCLOCKID:
    return *static_cast<int *>(argument) == CLOCK_BOOTTIME ? 0 : refuse(EINVAL);
  default:
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
  }
}

// --- time ---

std::time_t time(std::time_t *timer) noexcept {
  return timer == nullptr ? wall_clock : *timer = wall_clock;
}

// As the kernel gives it to a timespec of 64 bits.
#ifdef SYS_clock_gettime64
static constexpr long kClockCall = SYS_clock_gettime64;
#else
static constexpr long kClockCall = SYS_clock_gettime;
#endif

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
int clock_gettime(clockid_t clock, timespec *out) noexcept {
  const auto result = static_cast<int>(syscall(kClockCall, clock, out));
  if (clock == CLOCK_REALTIME)
    *out = {wall_clock, 0};
  else if (clock == CLOCK_BOOTTIME)
    out->tv_sec += passed + slept;
  else if (clock == CLOCK_MONOTONIC)
    out->tv_sec += passed;
  return result;
}

gint64 g_get_monotonic_time() { return passed * G_USEC_PER_SEC; }

Ecore_Timer *ecore_timer_add(double seconds, Ecore_Task_Cb callback, const void *) {
  return reinterpret_cast<Ecore_Timer *>(&*live_timers.emplace(seconds, callback));
}

void *ecore_timer_del(Ecore_Timer *timer) {
  const auto is_same = [=](const auto &live) { return static_cast<const void *>(&live) == timer; };
  EXPECT_EQ(std::erase_if(live_timers, is_same), 1U)
      << "a main-loop timer is deleted that has already ended";
  return nullptr;
}
}

void set_now(std::int64_t utc) { wall_clock = utc; }

void pass(std::int64_t seconds) {
  wall_clock += seconds;
  passed += seconds;
}

void sleep_for(std::int64_t seconds) {
  wall_clock += seconds;
  slept += seconds;
  write_file("/sys/class/rtc/rtc0/since_epoch", std::to_string(wall_clock));
  write_file("/sys/power/suspend_stats/success", "1");
}

std::string timers() {
  std::string out;
  for (const auto &[seconds, callback] : live_timers)
    append(out, std::to_string(std::lround(seconds)), " ");
  return out;
}

void fire() {
  ASSERT_EQ(live_timers.size(), 1U);
  const auto callback = live_timers.begin()->second;
  live_timers.clear();
  callback(nullptr);
}

// --- services ---

bus_client &client() {
  static bus_client connection;
  return connection;
}

static bus_target mock_of(const bus_service &service, const char *interface) {
  return {service.name, service.path, interface};
}

void tell(const bus_service &service, const char *method, const std::string &arguments) {
  EXPECT_EQ(client().ask(mock_of(service, kMock), method,
                         std::string("('") + service.interface + "', " + arguments + ")"),
            "()");
}

void set_property(const bus_service &service, const char *property, const std::string &value) {
  tell(service, "UpdateProperties", std::string("{'") + property + "': <" + value + ">}");
}

void refuse(const bus_service &service, const char *method, const char *types) {
  tell(service, "AddMethod",
       std::string("'") + method + "', '" + types +
           "', '', \"raise dbus.exceptions.DBusException('no', "
           "name='org.freedesktop.DBus.Error.AccessDenied')\"");
}

void emit(const bus_service &service, const char *signal, const char *types,
          const std::string &values) {
  tell(service, "EmitSignal", std::string("'") + signal + "', '" + types + "', [" + values + "]");
}

void Machine::start_services() {
  client().listen("type='signal',interface='org.freedesktop.DBus.Mock'");
  services.emplace(std::vector<std::string>{SERVICES});
  services->wait_name(client(), mock_of(kSystemd, kMock)); // the last one of them
}

// --- waiting ---

// The platform takes the daemon for started in the second pass.
static Eina_Bool is_idle(void *passes) {
  if (--*static_cast<int *>(passes) > 0)
    return ECORE_CALLBACK_RENEW;
  ecore_main_loop_quit();
  return ECORE_CALLBACK_CANCEL;
}

void run_until_idle() {
  int passes = 3;
  ecore_idler_add(is_idle, &passes);
  ecore_main_loop_begin();
}

// The platform runs; then everything has arrived that was sent before.
static void take_turn() {
  ecore_main_loop_iterate();
  client().ask({DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_PEER}, "Ping", "()");
}

void wait_until(const std::function<bool()> &is_done) {
  const auto deadline = std::chrono::steady_clock::now() + kLongestWait;
  for (take_turn(); !is_done(); take_turn())
    if (std::chrono::steady_clock::now() > deadline)
      throw std::runtime_error("what is waited for does not happen");
}

std::string next_entry() {
  char entry[1024];
  const ssize_t size = recv(journal, entry, sizeof entry, MSG_DONTWAIT);
  return {entry, static_cast<std::size_t>(std::max(size, ssize_t{0}))};
}

static void take_signal(DBusMessage *arrived) {
  if (dbus_message_is_signal(arrived, DBUS_INTERFACE_PROPERTIES, "PropertiesChanged") != 0)
    happened("changed " + body_text(arrived));
  if (dbus_message_is_signal(arrived, kMock, "MethodCalled") == 0)
    return;
  const std::string call = body_text(arrived); // as "('StopUnit', [<'x.target'>, <'replace'>])"
  char method[32] = "";
  char argument[64] = "";
  std::sscanf(call.c_str(), "('%31[^']', [<%63[^>]", method, argument);
  static constexpr std::string_view kQuestions[] = {"Subscribe",  "ListJobs",    "ListSessions",
                                                    "CanSuspend", "CanPowerOff", "CanHibernate"};
  if (std::ranges::find(kQuestions, method) == std::end(kQuestions))
    happened(method + (*argument == '\0' ? "" : std::string(" ") + argument));
}

std::string seen() {
  for (int turn = 0; turn < kTurnsOfAnOrder; ++turn) {
    take_turn();
    if (client().pid_of(kLogind.name) >= 0)
      client().ask(mock_of(kLogind, DBUS_INTERFACE_PEER), "Ping", "()");
  }
  ecore_main_loop_iterate();
  for (std::string entry = next_entry(); !entry.empty(); entry = next_entry())
    if (entry.starts_with(kError))
      happened(entry.substr(kError.size(), entry.find('\n', kError.size()) - kError.size()));
  client().drain(take_signal);
  return std::exchange(record_of_events, "");
}

// --- what has happened ---

// The machine's own sleeps are not counted. The two clocks are not read at once.
static long before_sleeps(std::int64_t boot) {
  timespec with{}, without{};
  clock_gettime(CLOCK_BOOTTIME, &with);
  clock_gettime(CLOCK_MONOTONIC, &without);
  const double own = with.tv_sec - without.tv_sec + (with.tv_nsec - without.tv_nsec) / 1e9;
  return boot == 0 ? 0 : std::lround(static_cast<double>(boot) / 1000 - own);
}

namespace {

struct event_words {
  using text = std::string;
  text operator()(const event::sleep_begins &) const { return "sleep begins"; }
  text operator()(const event::sleep_ends &) const { return "sleep ends"; }
  text operator()(const event::shutdown_begins &) const { return "shutdown begins"; }
  text operator()(const event::shutdown_ends &) const { return "shutdown ends"; }
  text operator()(const event::sleep_answered &e) const { return with("answered", e.error); }
  text operator()(const event::preparing &e) const {
    return with("preparing", e.sleep, e.shutdown);
  }
  text operator()(const event::use_changed &e) const {
    return with(e.is_answer ? "use answered" : "use", before_sleeps(e.session_at),
                before_sleeps(e.active_at), e.blocked, e.can, e.delay_max_ms);
  }
  text operator()(const event::input &e) const { return with("input", e.at); }
  text operator()(const event::job_began &e) const { return with("job", e.id, int(e.of)); }
  text operator()(const event::job_ended &e) const { return with("job ended", e.id); }
  text operator()(const event::jobs_told_again &) const { return "jobs"; }
  text operator()(const event::unit_refused &e) const {
    return with("unit refused", int(e.of), e.error);
  }
  text operator()(const event::tv_reports &e) const { return with("tv", int(e.state)); }
  text operator()(const event::tv_silent &) const { return "silent"; }
  text operator()(const event::tv_denies &e) const { return with("denies", e.opcode, e.for_good); }
  text operator()(const event::tv_standby &) const { return "standby"; }
  text operator()(const event::tv_asks_source &) const { return "source?"; }
  text operator()(const event::tv_reachable &e) const { return with("reachable", e.adapter); }
  text operator()(const event::clock_stepped &) const { return "step"; }
  text operator()(const event::zone_changed &e) const {
    return with("zone", e.next_transition, e.changed);
  }
  text operator()(const event::ntp &e) const {
    return with("ntp", e.on, e.synchronised, e.answered);
  }
  text operator()(const event::refused &e) const { return with("refused", int(e.part), e.error); }
  text operator()(const event::works &e) const { return with("works", int(e.part)); }
  template <class Other> text operator()(const Other &) const { return "?"; }

private:
  template <class... Numbers> static text with(text name, Numbers... numbers) {
    ((name += ' ' + std::to_string(numbers)), ...);
    return name;
  }
};

} // namespace

// The sink of adapters without the shell.
static void hear(const event::any &what) { happened(std::visit(event_words{}, what)); }

// --- the sandbox ---

bool inhibitor_is_held() {
  const std::filesystem::directory_iterator open_files("/proc/self/fd");
  return std::ranges::any_of(open_files, [](const std::filesystem::path &file) {
    std::error_code closed;
    return std::filesystem::read_symlink(file, closed) == "/tmp/inhibitor";
  });
}

void configure(const std::string &lines) {
  std::ofstream(kConfigurationPath) << "[linux]\n" << lines << '\n';
}

static void make_files() {
  write_file(kAlarmPath, "");
  write_file("/sys/class/rtc/rtc0/since_epoch", std::to_string(kNow));
  write_file("/sys/class/rtc/rtc0/hctosys", "1");
  write_file("/sys/power/suspend_stats/success", "0");
  write_file("/dev/rtc0", "");
  std::filesystem::create_directories("/dev/input");
  std::filesystem::create_directories("/run/systemd/journal");
  configure("");
}

static void set_environment() {
  setenv("STATE_DIRECTORY", "/tmp/state", 1);
  setenv("RUNTIME_DIRECTORY", "/tmp/run", 1);
  setenv("DRAVEL_CONFIGURATION", kConfigurationPath, 1);
  setenv("DRAVEL_LOG_STDERR", "1", 1);
  setenv("TZ", "UTC", 1);
}

Machine::Machine() {
  happens = hear;
  EXPECT_EQ(bus_events(), nullptr) << "each case needs a process of its own: use ctest";
  make_files();
  set_environment();
  const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
  journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(journal, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  ecore_init();
}

Machine::~Machine() { ecore_shutdown(); }
