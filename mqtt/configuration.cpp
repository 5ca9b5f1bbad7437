#include "configuration.h"

#include "client.h"
#include "ledger.h"

#include <glib.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <unistd.h>

static constexpr std::size_t kLongestName = 64;
static constexpr int kPort = 1883;
static constexpr int kTlsPort = 8883;
static constexpr const char *kCommands[] = {"timers", "holidays", "halt",
                                            "screen", "apply",    "test"};
static constexpr const char *kUntilNamed = "test"; // it can send the machine to sleep
// Makes the machine's id at the broker another one than /etc/machine-id, which is confidential.
static constexpr const char *kMachineId = "/etc/machine-id";
static constexpr std::array<guchar, 16> kApplication = {
    0x5e, 0x0b, 0x91, 0x6f, 0x2d, 0xc4, 0x47, 0xa1, 0x8f, 0x3a, 0xc0, 0x72, 0x19, 0xe6, 0xd8, 0x54};

namespace {

// What is read before it is known whether it goes together.
struct draft {
  configuration result;
  std::string host = "localhost";
  int port = 0;
  int tls = -1; // -1: not given
  bool plain_text = false;
};

struct key_row {
  const char *group;
  const char *name;
  void (*set)(draft &draft, const std::string &value); // throws what the value must be
};

} // namespace

// --- values ---

static bool is_name(const std::string &text) {
  return !text.empty() && text.size() <= kLongestName && std::ranges::all_of(text, [](char c) {
    return g_ascii_isalnum(c) != FALSE || c == '_' || c == '-';
  });
}

static std::string checked_name(const std::string &text) {
  if (!is_name(text))
    throw std::string("must be of 1 to 64 letters, digits, _ and -");
  return text;
}

static std::string host_of(const std::string &text) {
  if (text.empty())
    throw std::string("must be the broker's name or address");
  return text;
}

static bool flag_of(const std::string &text) {
  if (text != "yes" && text != "no")
    throw std::string("must be yes or no");
  return text == "yes";
}

static int number_of(const std::string &text, int least, int most) {
  gint64 number = 0;
  if (g_ascii_string_to_signed(text.c_str(), 10, least, most, &number, nullptr) == FALSE)
    throw "must be a number from " + std::to_string(least) + " to " + std::to_string(most);
  return static_cast<int>(number);
}

// A prefix may have several levels, none of them empty or a wildcard.
static std::string prefix_of(const std::string &text) {
  g_auto(GStrv) levels = g_strsplit(text.c_str(), "/", -1);
  const auto *end = levels + g_strv_length(levels);
  if (levels[0] == nullptr || !std::all_of(const_cast<const char *const *>(levels),
                                           const_cast<const char *const *>(end), is_name))
    throw std::string("must be names of letters, digits, _ and -, with / between");
  return text;
}

static std::string file_of(const std::string &text) {
  if (access(text.c_str(), R_OK) != 0)
    throw "cannot be read: " + std::string(std::strerror(errno));
  return text;
}

static std::vector<std::string> words_of(const std::string &text) {
  std::vector<std::string> words;
  g_auto(GStrv) parts = g_strsplit(text.c_str(), ",", -1);
  for (char **part = parts; *part != nullptr; ++part)
    if (const std::string word = g_strstrip(*part); !word.empty())
      words.push_back(word);
  return words;
}

static std::set<std::string> commands_of(const std::string &text) {
  std::set<std::string> commands;
  for (const std::string &word : words_of(text)) {
    if (std::ranges::find(kCommands, word) == std::end(kCommands))
      throw word + " is none of timers, holidays, halt, screen, apply, test";
    commands.insert(word);
  }
  return commands;
}

static std::vector<std::string> groups_of(const std::string &text) {
  auto groups = words_of(text);
  std::ranges::for_each(groups, checked_name);
  return groups;
}

static constexpr key_row kKeys[] = {
    {"broker", "host", [](draft &to, const std::string &text) { to.host = host_of(text); }},
    {"broker", "port",
     [](draft &to, const std::string &text) { to.port = number_of(text, 1, 65535); }},
    {"broker", "user", [](draft &to, const std::string &text) { to.result.broker.user = text; }},
    {"broker", "tls", [](draft &to, const std::string &text) { to.tls = flag_of(text) ? 1 : 0; }},
    {"broker", "ca-file",
     [](draft &to, const std::string &text) { to.result.broker.ca_file = file_of(text); }},
    {"broker", "certificate",
     [](draft &to, const std::string &text) { to.result.broker.certificate = file_of(text); }},
    {"broker", "plain-text",
     [](draft &to, const std::string &text) { to.plain_text = flag_of(text); }},
    {"broker", "reconnect-spread",
     [](draft &to, const std::string &text) {
       to.result.broker.spread_s = number_of(text, 0, 3600);
     }},
    {"broker", "settle-milliseconds",
     [](draft &to, const std::string &text) { to.result.settle_ms = number_of(text, 10, 60000); }},
    {"machine", "name",
     [](draft &to, const std::string &text) { to.result.name = checked_name(text); }},
    {"machine", "prefix",
     [](draft &to, const std::string &text) { to.result.prefix = prefix_of(text); }},
    {"machine", "groups",
     [](draft &to, const std::string &text) { to.result.groups = groups_of(text); }},
    {"machine", "commands",
     [](draft &to, const std::string &text) { to.result.commands = commands_of(text); }},
    {"machine", "enforce",
     [](draft &to, const std::string &text) { to.result.enforce = flag_of(text); }},
    {"home-assistant", "discovery",
     [](draft &to, const std::string &text) { to.result.home_assistant = flag_of(text); }},
    {"home-assistant", "prefix",
     [](draft &to, const std::string &text) { to.result.discovery_prefix = prefix_of(text); }},
};

// --- the file ---

static void read_keys(GKeyFile *file, const char *group, const std::string &where, draft &draft) {
  g_auto(GStrv) names = g_key_file_get_keys(file, group, nullptr, nullptr);
  for (char **name = names; *name != nullptr; ++name) {
    const std::string place = where + ": [" + group + "] " + *name;
    const auto *row = std::ranges::find_if(kKeys, [&](const key_row &known) {
      return std::strcmp(known.group, group) == 0 && std::strcmp(known.name, *name) == 0;
    });
    if (row == std::end(kKeys))
      throw failure{place + " is no key", "see dravel-mqtt.conf(5)", fault::kUsage};
    g_autofree char *value = g_key_file_get_string(file, group, *name, nullptr);
    try {
      row->set(draft, value != nullptr ? value : "");
    } catch (const std::string &wanted) {
      throw failure{std::string(place).append(" ").append(wanted), "see dravel-mqtt.conf(5)",
                    fault::kUsage};
    }
  }
}

static void read_file(const std::string &name, draft &draft) {
  g_autoptr(GKeyFile) file = g_key_file_new();
  g_autoptr(GError) error = nullptr;
  if (g_key_file_load_from_file(file, name.c_str(), G_KEY_FILE_NONE, &error) == FALSE)
    throw failure{name + ": " + error->message, "see dravel-mqtt.conf(5)", fault::kUsage};
  g_auto(GStrv) groups = g_key_file_get_groups(file, nullptr);
  for (char **group = groups; *group != nullptr; ++group)
    read_keys(file, *group, name, draft);
}

// --- what is not in the file ---

static std::string first_line(const std::string &file) {
  const std::string contents = read_file(file);
  return contents.substr(0, contents.find('\n'));
}

// At a shell there are no credentials: root reads the files that they come from.
static std::string credential_file(const std::string &name) {
  const char *directory = std::getenv("CREDENTIALS_DIRECTORY");
  const std::string file =
      directory != nullptr ? std::string(directory) + "/" + name : "/etc/dravel-mqtt." + name;
  const std::string contents = read_file(file);
  return contents.empty() || contents[0] == '\n' ? "" : file; // an empty one is none
}

static std::string password() {
  const std::string file = credential_file("password");
  return file.empty() ? "" : first_line(file);
}

static std::string host_name() {
  std::string name = g_get_host_name();
  std::ranges::replace_if(
      name, [](char c) { return !is_name(std::string(1, c)); }, '_');
  return name.substr(0, kLongestName);
}

static std::array<guchar, 16> bytes_of(const std::string &digits) {
  std::array<guchar, 16> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<guchar>(std::stoi(digits.substr(2 * i, 2), nullptr, 16));
  return bytes;
}

// As sd_id128_get_machine_app_specific gives it, whose library and what that needs would take a
// tenth of the memory.
static std::string machine_id() {
  const std::string digits = first_line(kMachineId);
  if (digits.size() != 32 || digits.find_first_not_of("0123456789abcdef") != std::string::npos)
    throw failure{std::string(kMachineId) + " holds no id", "systemd-machine-id-setup makes one"};
  const auto key = bytes_of(digits);
  GHmac *hmac = g_hmac_new(G_CHECKSUM_SHA256, key.data(), key.size());
  g_hmac_update(hmac, kApplication.data(), kApplication.size());
  std::array<guchar, 32> sum{};
  gsize size = sum.size();
  g_hmac_get_digest(hmac, sum.data(), &size);
  g_hmac_unref(hmac);
  sum[6] = (sum[6] & 0x0f) | 0x40; // a random UUID's marks
  sum[8] = (sum[8] & 0x3f) | 0x80;
  std::string id;
  for (std::size_t i = 0; i < key.size(); ++i) {
    char text[3];
    std::snprintf(text, sizeof text, "%02x", sum[i]);
    id += text;
  }
  return id;
}

static bool is_this_machine(const std::string &host) {
  in_addr address{};
  return host == "localhost" || host == "::1" ||
         (inet_pton(AF_INET, host.c_str(), &address) == 1 &&
          ntohl(address.s_addr) >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET);
}

// A password in clear text must not leave the machine unless it is allowed to.
static void complete_broker(const draft &draft, broker_settings &broker, const std::string &where) {
  const bool is_here = is_this_machine(draft.host);
  broker.host = draft.host;
  broker.tls = draft.tls == -1 ? !is_here && !draft.plain_text : draft.tls == 1;
  broker.port = draft.port != 0 ? draft.port : broker.tls ? kTlsPort : kPort;
  broker.password = password();
  broker.key_file = credential_file("key");
  if (!broker.tls && !is_here && !draft.plain_text && !broker.password.empty())
    throw failure{where + ": the password would go to " + broker.host + " in clear text",
                  "set tls = yes, or plain-text = yes if that is meant", fault::kUsage};
  if (broker.certificate.empty() != broker.key_file.empty())
    throw failure{where + ": a certificate and the credential key go together",
                  "see dravel-mqtt.conf(5)", fault::kUsage};
}

configuration read_configuration(const std::string &file) {
  draft draft;
  draft.result.name = host_name();
  for (const std::string command : kCommands)
    if (command != kUntilNamed)
      draft.result.commands.insert(command);
  read_file(file, draft);
  if (draft.result.name == kGroups)
    throw failure{file + ": [machine] name must not be group: the topics of groups begin so",
                  "see dravel-mqtt.conf(5)", fault::kUsage};
  complete_broker(draft, draft.result.broker, file);
  draft.result.machine_id = machine_id();
  return draft.result;
}
