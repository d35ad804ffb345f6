#pragma once
// A plain SQLite connection on the store's file, for looking at what the library wrote and for
// holding the file's write lock from the outside.

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::test {

class RawDatabase {
  public:
    explicit RawDatabase(const std::filesystem::path& file) {
        if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(db_));
        sqlite3_busy_timeout(db_, 5000);
    }
    ~RawDatabase() { sqlite3_close(db_); }
    RawDatabase(const RawDatabase&) = delete;
    RawDatabase& operator=(const RawDatabase&) = delete;

    /// Runs `sql`; returns the error message, or an empty string.
    std::string exec(const std::string& sql) {
        char* message = nullptr;
        int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message);
        std::string text = rc == SQLITE_OK ? "" : message ? message : "error";
        sqlite3_free(message);
        return text;
    }

    /// The first column of every row of `sql`, as text (NULL as "<null>").
    std::vector<std::string> column(const std::string& sql) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(db_));
        std::vector<std::string> rows;
        int rc;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
            const auto* text = sqlite3_column_text(stmt, 0);
            rows.push_back(text ? reinterpret_cast<const char*>(text) : "<null>");
        }
        sqlite3_finalize(stmt);
        if (rc != SQLITE_DONE)
            throw std::runtime_error(sqlite3_errmsg(db_));
        return rows;
    }

    std::int64_t integer(const std::string& sql) { return std::stoll(column(sql).at(0)); }

  private:
    sqlite3* db_ = nullptr;
};

}  // namespace tarn::test
