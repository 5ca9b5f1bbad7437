#include "store.h"

#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string_view>

namespace fs = std::filesystem;

void require_sandbox() {
  const char *directory = std::getenv("XDG_RUNTIME_DIR");
  if (directory == nullptr || directory != std::string_view("/run/bench"))
    throw std::runtime_error("run through scripts/sandbox: the daemon's files are removed");
}

void empty_store() {
  require_sandbox();
  for (const auto &entry : fs::directory_iterator(fs::path(kDravelDbPath).parent_path()))
    fs::remove_all(entry);
  for (const char *marker : {kInitMarkerPath, kFinishMarkerPath})
    fs::remove(marker);
}

static int append_row(void *out, int columns, char **values, char **) {
  std::string row;
  for (int i = 0; i < columns; i++)
    row += std::string(i > 0 ? "|" : "") + (values[i] != nullptr ? values[i] : "NULL");
  auto &text = *static_cast<std::string *>(out);
  text += (text.empty() ? "" : " ") + row;
  return 0;
}

std::string rows(const std::string &sql, const char *path) {
  sqlite3 *db = nullptr;
  std::string out;
  sqlite3_open(path, &db);
  const int result = sqlite3_exec(db, sql.c_str(), append_row, &out, nullptr);
  const std::string failure = sqlite3_errmsg(db);
  sqlite3_close(db);
  if (result != SQLITE_OK)
    throw std::runtime_error(sql + ": " + failure);
  return out;
}
