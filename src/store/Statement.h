#pragma once
// Small helpers for the store's prepared statements: reading a column, binding a value without a
// copy, and resetting a statement when a use of it ends. Shared by the store's pieces
// (store/StoreConnection.h, store/StoreRecovery.h and the manager); nothing here opens or holds a
// connection.

#include <sqlite3.h>

#include <cstddef>
#include <optional>
#include <string>

#include "tarn/core/Date.h"

namespace tarn::store {

/// A failure's reason, or nothing on success.
using Error = std::optional<std::string>;

inline std::optional<std::string> columnText(sqlite3_stmt* stmt, int column) {
    if (sqlite3_column_type(stmt, column) == SQLITE_NULL) {
        return std::nullopt;
    }
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    return std::string(text ? text : "",
                       static_cast<std::size_t>(sqlite3_column_bytes(stmt, column)));
}

inline std::optional<Date> columnDate(sqlite3_stmt* stmt, int column) {
    if (sqlite3_column_type(stmt, column) == SQLITE_NULL) {
        return std::nullopt;
    }
    return Date{sqlite3_column_double(stmt, column)};
}

/// Binds without copying: `text` must outlive the statement's use.
inline void bindText(sqlite3_stmt* stmt, int index, const std::string& text) {
    sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

inline void bindText(sqlite3_stmt* stmt, int index, const std::optional<std::string>& text) {
    if (text) {
        bindText(stmt, index, *text);
    } else {
        sqlite3_bind_null(stmt, index);
    }
}

inline void bindDate(sqlite3_stmt* stmt, int index, const std::optional<Date>& date) {
    if (date) {
        sqlite3_bind_double(stmt, index, date->secondsSince1970);
    } else {
        sqlite3_bind_null(stmt, index);
    }
}

/// Resets a statement and drops its bindings when it leaves scope.
struct StatementUse {
    sqlite3_stmt* stmt;
    ~StatementUse() {
        sqlite3_reset(stmt);
        sqlite3_clear_bindings(stmt);
    }
};

}  // namespace tarn::store
