// Which commands were carried out, and with which results: so that none is carried out twice, not
// even when the bridge is killed in between. A line is appended to the file before an act, and one
// with the result after it; the newest 256 commands are kept.
#pragma once

#include <deque>
#include <string>

class ledger {
public:
  explicit ledger(std::string file); // what is unreadable counts as not written

  struct entry {
    std::string key;    // topic and id
    std::string result; // empty: begun
  };
  const entry *find(const std::string &key) const;

  // Throws a failure when it cannot be stored: then nothing must be done.
  void begin(const std::string &key);
  void end(const std::string &key, const std::string &result);

private:
  void put(const entry &line);
  void append(const entry &line);
  void rewrite();

  std::string file_;
  std::deque<entry> entries_; // the oldest first
  std::size_t lines_ = 0;     // in the file
};

std::string read_file(const std::string &file); // empty when it cannot be read

// Replaces a file whole: after a power cut it has the old contents or the new ones. Throws a
// failure.
void write_file(const std::string &file, const std::string &contents);
