#include "input.h"

#include "bus.h"
#include "milliseconds.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/input.h>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

static constexpr const char *kInputDirectory = "/dev/input";
static constexpr const char *kParentDirectory = "/dev";
static constexpr std::string_view kDirectoryName = "input";
static constexpr std::string_view kPrefix = "event";
static constexpr std::size_t kEventsAtOnce = 64;

namespace {

struct input_device {
  explicit input_device(const fs::path &device_path);
  ~input_device();
  input_device(const input_device &) = delete;
  input_device &operator=(const input_device &) = delete;

  fs::path path;
  int fd;
  bool is_stamped = false; // its events, by CLOCK_BOOTTIME
  sd_event_source *source = nullptr;
};

} // namespace

static std::vector<std::unique_ptr<input_device>> input_devices;
static sd_event_source *directory_watch;
static int open_error; // of a device, the last one

static int device_ready(sd_event_source *, int fd, std::uint32_t ready, void *data);

input_device::input_device(const fs::path &device_path)
    : path(device_path), fd(open(device_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
  if (fd < 0) {
    open_error = errno;
    return;
  }
  int clock = CLOCK_BOOTTIME;
  is_stamped = ioctl(fd, EVIOCSCLOCKID, &clock) == 0;
  sd_event_add_io(bus_events(), &source, fd, EPOLLIN, device_ready, this);
}

input_device::~input_device() {
  sd_event_source_disable_unref(source);
  if (fd >= 0)
    close(fd);
}

static std::int64_t stamp_of(const input_event &entry) {
  return entry.input_event_sec * kSecondMs + entry.input_event_usec / kMillisecondUs;
}

// When a key was pressed last, not released; nothing when none was. The power button's driver
// reports KEY_WAKEUP at each resume, whatever has woken the machine.
static std::optional<std::int64_t> last_press(std::span<const input_event> events) {
  std::optional<std::int64_t> found;
  for (const input_event &entry : events)
    if (entry.type == EV_KEY && entry.code != KEY_WAKEUP && entry.value != 0)
      found = stamp_of(entry);
  return found;
}

static int device_ready(sd_event_source *, int fd, std::uint32_t, void *data) {
  input_event events[kEventsAtOnce];
  const bool is_stamped = static_cast<const input_device *>(data)->is_stamped;
  std::optional<std::int64_t> pressed;
  ssize_t size = 0;
  while ((size = read(fd, events, sizeof events)) > 0)
    if (const auto last = last_press({events, static_cast<std::size_t>(size) / sizeof *events}))
      pressed = last;
  if (size == 0 || errno != EAGAIN) // it has gone
    std::erase_if(input_devices, [=](const auto &device) { return device.get() == data; });
  if (pressed)
    happens(event::input{is_stamped ? *pressed : kNever});
  return 0;
}

// A sound card alone has many without keys, and the kernel takes its time to close each.
static bool has_keys(const std::string &name) {
  std::ifstream file("/sys/class/input/" + name + "/device/capabilities/ev");
  unsigned long types = 0;
  return !(file >> std::hex >> types) || (types >> EV_KEY & 1) != 0;
}

static void open_device(const fs::path &path) {
  const std::string name = path.filename();
  const auto is_same = [&](const auto &device) { return device->path == path; };
  if (!name.starts_with(kPrefix) || !has_keys(name) || std::ranges::any_of(input_devices, is_same))
    return;
  auto device = std::make_unique<input_device>(path);
  if (device->fd >= 0)
    input_devices.push_back(std::move(device));
}

// A device that appears is readable once udev has set its mode, which is an event of its own.
static int directory_changed(sd_event_source *, const struct inotify_event *change, void *) {
  if ((change->mask & IN_IGNORED) != 0) // the directory has gone with its last device
    watch_input(true);
  else if (change->len > 0)
    open_device(fs::path(kInputDirectory) / change->name);
  return 0;
}

static void open_all(int watch_error) {
  open_error = 0;
  std::error_code none; // a machine without input has no such directory
  for (const auto &entry : fs::directory_iterator(kInputDirectory, none))
    open_device(entry.path());
  const int error = watch_error == 0 && input_devices.empty() ? open_error : watch_error;
  if (error != 0)
    happens(event::refused{problem::kInput, error});
  else
    happens(event::works{problem::kInput});
}

// The kernel waits some 20 ms for each that is closed, and an on-time may be now: a thread does it.
static void close_all() {
  std::vector<int> left;
  left.reserve(input_devices.size());
  for (const auto &device : input_devices)
    left.push_back(std::exchange(device->fd, -1));
  input_devices.clear();
  if (left.empty())
    return;
  const auto close_each = [left] { std::ranges::for_each(left, close); };
  try {
    std::thread(close_each).detach();
  } catch (const std::system_error &) { // no thread is to be had
    close_each();
  }
}

static int parent_changed(sd_event_source *, const struct inotify_event *change, void *) {
  if (change->len > 0 && change->name == kDirectoryName)
    watch_input(true);
  return 0;
}

static int watch_directory(const char *path, sd_event_inotify_handler_t changed) {
  return sd_event_add_inotify(bus_events(), &directory_watch, path, IN_CREATE | IN_ATTRIB, changed,
                              nullptr);
}

// The directory comes with its first device, perhaps a keyboard on USB that has woken the machine.
static int watch_directory_or_parent() {
  const int error = watch_directory(kInputDirectory, directory_changed);
  return error == -ENOENT ? watch_directory(kParentDirectory, parent_changed) : error;
}

void watch_input(bool on) {
  directory_watch = sd_event_source_disable_unref(directory_watch);
  close_all();
  if (!on)
    return;
  open_all(-watch_directory_or_parent());
}
