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

    /// Runs `sql`, collecting the first column of every row into `rows` (NULL as "<null>");
    /// returns the error message, or an empty string.
    std::string exec(const std::string& sql, std::vector<std::string>* rows = nullptr) {
        auto collect = [](void* out, int, char** values, char**) {
            if (out)
                static_cast<std::vector<std::string>*>(out)->push_back(values[0] ? values[0]
                                                                                 : "<null>");
            return 0;
        };
        char* message = nullptr;
        int rc = sqlite3_exec(db_, sql.c_str(), collect, rows, &message);
        std::string text = rc == SQLITE_OK ? "" : message ? message : "error";
        sqlite3_free(message);
        return text;
    }

    /// The first column of every row of `sql`, as text.
    std::vector<std::string> column(const std::string& sql) {
        std::vector<std::string> rows;
        if (auto error = exec(sql, &rows); !error.empty())
            throw std::runtime_error(error);
        return rows;
    }

    std::int64_t integer(const std::string& sql) { return std::stoll(column(sql).at(0)); }

  private:
    sqlite3* db_ = nullptr;
};

}  // namespace tarn::test
