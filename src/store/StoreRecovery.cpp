#include "store/StoreRecovery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>
#include <vector>

#include "store/Statement.h"
#include "tarn/core/Log.h"

namespace tarn::store {

namespace {

/// What a moved-aside store's name carries between the database's name and its UTC time.
constexpr const char* kCorruptInfix = ".corrupt-";

std::string utcStamp() {
    std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
    return text;
}

/// Removes the oldest moved-aside stores (and their companions) beyond the newest `keep`. Their
/// names end in a fixed-width UTC time, so name order is age order.
void pruneMovedAside(const std::filesystem::path& path, std::size_t keep) {
    const std::string prefix = path.filename().string() + kCorruptInfix;
    std::vector<std::filesystem::path> stores;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(path.parent_path(), ec), end; !ec && it != end;
         it.increment(ec)) {
        auto name = it->path().filename().string();
        if (name.rfind(prefix, 0) != 0) {
            continue;
        }
        bool companion = false;
        for (const char* suffix : kCompanionSuffixes) {
            std::string_view tail(suffix);
            companion =
                companion || (name.size() > tail.size() &&
                              name.compare(name.size() - tail.size(), tail.size(), tail) == 0);
        }
        if (!companion) {
            stores.push_back(it->path());
        }
    }
    if (stores.size() <= keep) {
        return;
    }
    std::sort(stores.begin(), stores.end());
    for (std::size_t i = 0; i + keep < stores.size(); ++i) {
        std::filesystem::remove(stores[i], ec);
        for (const char* suffix : kCompanionSuffixes) {
            std::filesystem::remove(stores[i].string() + suffix, ec);
        }
    }
}

/// Renames the database and its companions to "<name>.corrupt-<UTC time>[-<n>]" plus the same
/// suffixes, so SQLite still opens the moved copy together with its log. Returns the new path, or
/// the reason it could not be moved.
std::pair<std::optional<std::filesystem::path>, std::string> moveAside(
    const std::filesystem::path& path) {
    std::string base = path.string() + kCorruptInfix + utcStamp();
    std::string target = base;
    for (int n = 2; ::access(target.c_str(), F_OK) == 0 && n < 1000; ++n) {
        target = base + "-" + std::to_string(n);
    }
    if (::rename(path.c_str(), target.c_str()) != 0) {
        return {std::nullopt, std::strerror(errno)};
    }
    ::fchmodat(AT_FDCWD, target.c_str(), 0600, AT_SYMLINK_NOFOLLOW);
    for (const char* suffix : kCompanionSuffixes) {
        auto from = path.string() + suffix;
        if (::access(from.c_str(), F_OK) != 0) {
            continue;
        }
        auto to = target + suffix;
        // A log left beside a new, empty database would be replayed into it: it must go too.
        if (::rename(from.c_str(), to.c_str()) != 0) {
            return {std::nullopt, std::strerror(errno)};
        }
        ::fchmodat(AT_FDCWD, to.c_str(), 0600, AT_SYMLINK_NOFOLLOW);
    }
    return {std::filesystem::path(target), {}};
}

}  // namespace

bool meansCorruption(int code) {
    code &= 0xff;
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

std::optional<std::string> quickCheck(sqlite3* db, int& failure) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db, "PRAGMA quick_check(1)", -1, SQLITE_PREPARE_PERSISTENT, &stmt,
                           nullptr) != SQLITE_OK) {
        failure = sqlite3_extended_errcode(db);
        return sqlite3_errmsg(db);
    }
    Error error;
    int rc = sqlite3_step(stmt);
    if (rc != SQLITE_ROW) {
        failure = sqlite3_extended_errcode(db);
        error = sqlite3_errmsg(db);
    } else if (auto verdict = columnText(stmt, 0); verdict != "ok") {
        failure = SQLITE_CORRUPT;
        error = "The store failed its integrity check: " + verdict.value_or("");
    }
    sqlite3_finalize(stmt);
    return error;
}

bool moveUnreadableAside(const std::filesystem::path& path, std::size_t keep,
                         const std::string& logtag) {
    auto [moved, reason] = moveAside(path);
    if (!moved) {
        log("The unreadable store could not be moved aside: " + reason, logtag, LogLevel::error);
        return false;
    }
    pruneMovedAside(path, keep);
    log("The unreadable store was moved to " + moved->string() + "; a new store is created.",
        logtag, LogLevel::warning);
    return true;
}

}  // namespace tarn::store
