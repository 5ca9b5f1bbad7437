#pragma once

#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

constexpr const char *kMainDb = "/opt/dbspace/.dravel.db";
constexpr const char *kWakeupDb = "/opt/dbspace/.wakeup_dravel.db";

// The rows that `sql` gives, as "1|0 2|5"; runs any other statement too.
inline std::string rows(const std::string &sql, const char *path = kMainDb) {
  const auto append = [](void *data, int columns, char **values, char **) {
    auto &out = *static_cast<std::string *>(data);
    for (int i = 0; i < columns; i++)
      out += (i > 0 ? "|" : out.empty() ? "" : " ") + std::string(values[i] ? values[i] : "NULL");
    return 0;
  };
  sqlite3 *db = nullptr;
  std::string out;
  sqlite3_open(path, &db);
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), append, &out, nullptr), SQLITE_OK) << sql;
  sqlite3_close(db);
  return out;
}
