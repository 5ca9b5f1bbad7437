#include "ledger.h"

#include "journal.h"
#include "output.h"

#include <glib.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

static constexpr std::size_t kKept = 256;
static constexpr std::size_t kMostLines = 4 * kKept;

static std::string line_of(const ledger::entry &entry) {
  return json{{"key", entry.key}, {"result", entry.result}}.dump() + "\n";
}

std::string read_file(const std::string &file) {
  g_autofree char *contents = nullptr;
  gsize length = 0;
  g_file_get_contents(file.c_str(), &contents, &length, nullptr);
  return contents != nullptr ? std::string(contents, length) : "";
}

void write_file(const std::string &file, const std::string &contents) {
  g_autoptr(GError) error = nullptr;
  if (g_file_set_contents_full(file.c_str(), contents.data(), static_cast<gssize>(contents.size()),
                               static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT |
                                                                  G_FILE_SET_CONTENTS_DURABLE),
                               0600, &error) == FALSE)
    throw failure{error->message, ""};
}

ledger::ledger(std::string file) : file_(std::move(file)) {
  const std::string text = read_file(file_);
  for (std::size_t at = 0, end = 0; at < text.size(); at = end + 1, ++lines_) {
    end = std::min(text.find('\n', at), text.size());
    json read =
        json::parse(text.substr(at, end - at), nullptr, false); // a missing member reads as null
    if (read.is_object() && read["key"].is_string() && read["result"].is_string())
      put({read["key"], read["result"]});
  }
  // The last line may be torn, and the name of a new file must be on the disk. What cannot be noted
  // is refused later; the rest works meanwhile.
  try {
    rewrite();
  } catch (const failure &failure) {
    log_problem(failure.what);
    lines_ = kMostLines;
  }
}

const ledger::entry *ledger::find(const std::string &key) const {
  const auto found = std::ranges::find(entries_, key, &entry::key);
  return found != entries_.end() ? &*found : nullptr;
}

void ledger::put(const entry &line) {
  const auto found = std::ranges::find(entries_, line.key, &entry::key);
  if (found != entries_.end()) {
    found->result = line.result;
    return;
  }
  entries_.push_back(line);
  if (entries_.size() > kKept)
    entries_.pop_front();
}

void ledger::rewrite() {
  std::string lines;
  for (const entry &kept : entries_)
    lines += line_of(kept);
  write_file(file_, lines);
  lines_ = entries_.size();
}

void ledger::append(const entry &line) {
  if (lines_ >= kMostLines)
    rewrite();
  const std::string text = line_of(line);
  const int descriptor = open(file_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  const bool is_stored =
      descriptor >= 0 &&
      write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
      fdatasync(descriptor) == 0;
  const int error = errno;
  if (descriptor >= 0)
    close(descriptor);
  if (!is_stored) {
    lines_ = kMostLines; // the line may be torn; the next one must not continue it
    throw failure{"the command cannot be noted in " + file_ + ": " + g_strerror(error), ""};
  }
  ++lines_;
}

void ledger::begin(const std::string &key) {
  append({key, ""});
  put({key, ""});
}

// It stays known to this run at least.
void ledger::end(const std::string &key, const std::string &result) {
  put({key, result});
  try {
    append({key, result});
  } catch (const failure &failure) {
    log_problem(failure.what);
  }
}
