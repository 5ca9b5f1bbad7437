#include "store.h"

#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
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

std::string rows(const std::string &sql, const char *path) {
  const auto append = [](void *data, int columns, char **values, char **) {
    auto &out = *static_cast<std::string *>(data);
    for (int i = 0; i < columns; i++)
      out += (i > 0         ? "|"
              : out.empty() ? ""
                            : " ") +
             std::string(values[i] != nullptr ? values[i] : "NULL");
    return 0;
  };
  sqlite3 *opened = nullptr;
  std::string out;
  sqlite3_open(path, &opened);
  const std::unique_ptr<sqlite3, int (*)(sqlite3 *)> db(opened, sqlite3_close);
  if (sqlite3_exec(opened, sql.c_str(), append, &out, nullptr) != SQLITE_OK)
    throw std::runtime_error(sql + ": " + sqlite3_errmsg(opened));
  return out;
}
