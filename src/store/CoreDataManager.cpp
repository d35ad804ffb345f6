// The manager: the queue and conversion operations the rest of the library calls, on the store's
// connection (store/StoreConnection.h). Here live what those operations add to the connection:
// the in-memory mirror of the conversion markers, the events handed out by a pop that is still
// running, and the one-transaction save of an event that may complete a conversion.

#include "tarn/store/CoreDataManager.h"

#include <sqlite3.h>

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "store/StoreConnection.h"
#include "tarn/config/TarnState.h"
#include "tarn/core/Log.h"
#include "tarn/core/Settings.h"
#include "tarn/core/Shared.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/store/ConversionManager.h"

namespace tarn {

namespace {

constexpr const char* kQueueLogTag = "Tarn-QueueManager:";
/// Markers at or before now minus this many seconds are purged, whatever the conversion period.
constexpr double kConversionPurgeAge = 86400.0;
/// How often a look-up tries the next marker when other processes consume the ones it finds.
constexpr int kConsumeAttempts = 8;

using Error = std::optional<std::string>;
using store::bindDate;
using store::bindText;
using store::columnDate;
using store::columnText;
using store::StatementUse;

std::string describe(const nlohmann::json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

/// The key of a marker in the in-memory mirror: actor and name, unambiguous for any bytes.
std::string markerKey(const std::string& actorId, const std::string& name) {
    std::string key = std::to_string(actorId.size());
    key += ':';
    key += actorId;
    key += name;
    return key;
}

}  // namespace

/// The store: the connection (store/StoreConnection.h) with the manager's bookkeeping of the
/// conversion markers and of the events a pop is handing out.
class CoreDataManager::Store : public store::Connection {
  public:
    /// How many markers the file holds for each actor and name (`markerKey`), so that the look-up
    /// made for every event asks the file only when a marker may match. Loaded on first use and
    /// again whenever a look-up finds that another connection (another process sharing the file)
    /// has committed; kept current by this connection's own arms, consumes and purges. It may
    /// count a marker that is no longer there (the file then answers). Between look-ups it may miss
    /// a marker another connection has armed: an event that relies on it being absent is inserted
    /// only if the file agrees (`insertEventUnlessMarked`).
    std::unordered_map<std::string, std::size_t> markerCounts;
    bool markersLoaded = false;
    std::int64_t markersVersion = 0;

    /// Events handed to a pop completion that is still running (a pop from inside it must not
    /// hand the same record again).
    std::unordered_set<std::int64_t> eventsInFlight;

    /// The files were erased: nothing opens the store until `reopenAfterErase`.
    bool erased = false;

    /// What `saveInOneTransaction` did; nothing when it stored nothing and left the file as it was.
    struct CombinedSave {
        bool conversionFound = false;
        bool eventSaved = false;
    };
    /// The look-up, consumption and insert of `saveEventCompletingConversion` as one write
    /// transaction. When the mirror knows no marker for the event, that is one conditional insert
    /// in SQLite's implicit transaction; the whole transaction follows only if the file holds one.
    /// Any failure rolls all of it back and answers nothing. Caller holds `mutex`.
    std::optional<CombinedSave> saveInOneTransaction(
        const std::string& eventName, const std::string& actorId,
        const std::function<std::optional<std::string>(const std::optional<std::string>&)>& build);
    /// Finds the newest live marker of `actorId` for `eventName` (time after `cutoff`) that is
    /// not pending deletion. False when the file could not be read.
    bool selectMarker(const std::string& actorId, const std::string& eventName, Date cutoff,
                      std::optional<std::int64_t>& id, std::optional<ConversionItem>& found);

    /// False only when the file certainly holds no marker of `actorId` for `name`.
    bool mayHoldMarker(const std::string& actorId, const std::string& name);
    void markerArmed(const std::string& actorId, const std::optional<std::string>& name);
    void markerConsumed(const std::string& actorId, const std::string& name);

  private:
    Error loadMarkers();
};

Error CoreDataManager::Store::loadMarkers() {
    markersLoaded = false;
    markerCounts.clear();
    {
        StatementUse use{dataVersion};
        if (sqlite3_step(dataVersion) != SQLITE_ROW) {
            return errorMessage();
        }
        markersVersion = sqlite3_column_int64(dataVersion, 0);
    }
    StatementUse use{selectMarkerKeys};
    int rc;
    while ((rc = sqlite3_step(selectMarkerKeys)) == SQLITE_ROW) {
        ++markerCounts[markerKey(*columnText(selectMarkerKeys, 0),
                                 *columnText(selectMarkerKeys, 1))];
    }
    if (rc != SQLITE_DONE) {
        markerCounts.clear();
        return errorMessage();
    }
    markersLoaded = true;
    return std::nullopt;
}

bool CoreDataManager::Store::mayHoldMarker(const std::string& actorId, const std::string& name) {
    if (markersLoaded) {
        StatementUse use{dataVersion};
        if (sqlite3_step(dataVersion) != SQLITE_ROW ||
            sqlite3_column_int64(dataVersion, 0) != markersVersion) {
            markersLoaded = false;  // another connection has committed
        }
    }
    if (!markersLoaded && loadMarkers()) {
        return true;  // the file answers
    }
    return markerCounts.count(markerKey(actorId, name)) > 0;
}

void CoreDataManager::Store::markerArmed(const std::string& actorId,
                                         const std::optional<std::string>& name) {
    if (markersLoaded && name) {
        ++markerCounts[markerKey(actorId, *name)];
    }
}

void CoreDataManager::Store::markerConsumed(const std::string& actorId, const std::string& name) {
    if (!markersLoaded) {
        return;
    }
    if (auto it = markerCounts.find(markerKey(actorId, name)); it != markerCounts.end()) {
        if (--it->second == 0) {
            markerCounts.erase(it);
        }
    }
}

CoreDataManager& CoreDataManager::shared() {
    return detail::SharedInstance<CoreDataManager, 500>::get();
}

CoreDataManager::CoreDataManager() : store_(std::make_unique<Store>()) {}

CoreDataManager::~CoreDataManager() = default;

std::filesystem::path CoreDataManager::databasePath() {
    return dataDirectory() / kDatabaseFileName;
}

void CoreDataManager::saveEventToQueue(const std::string& eventJson, Date timestamp,
                                       const nlohmann::json& eventDictionary) {
    {
        std::lock_guard lock(store_->mutex);
        if (!store_->ensureOpen(logtag)) {
            return;
        }
        auto error = store_->write(true, [&]() -> Error {
            sqlite3_bind_text(store_->insertEvent, 1, eventJson.data(),
                              static_cast<int>(eventJson.size()), SQLITE_STATIC);
            sqlite3_bind_double(store_->insertEvent, 2, timestamp.secondsSince1970);
            return store_->runToDone(store_->insertEvent);
        });
        if (error) {
            return;  // a failed save is not reported; the event is lost
        }
    }
    if (eventDictionary.is_object()) {
        if (auto it = eventDictionary.find("name"); it != eventDictionary.end()) {
            log(describe(*it) + " has been saved to the queue.", kQueueLogTag, LogLevel::debug);
        }
    }
}

void CoreDataManager::popOldestEvent(
    const std::function<void(std::optional<std::string>)>& completion) {
    std::lock_guard lock(store_->mutex);
    auto& s = *store_;
    if (!s.ensureOpen(logtag)) {
        log("Fetch or delete error: " + s.unavailable(), logtag, LogLevel::error);
        completion(std::nullopt);
        return;
    }
    // Taking an event is one write transaction from the fetch to the delete, so that of several
    // processes sharing the file exactly one hands each record out: the write lock keeps every
    // other connection's pop waiting until this one has committed (or rolled back). The completion
    // runs inside it, after the fetch and before the delete. A pop from inside a completion runs in
    // the enclosing transaction.
    const bool outer = !s.inTransaction();
    if (outer) {
        if (auto error = s.begin()) {
            log("Fetch or delete error: " + *error, logtag);
            completion(std::nullopt);
            return;
        }
    }
    // Fetch the oldest record that is neither pending deletion nor being handed out already.
    std::optional<std::int64_t> id;
    std::optional<std::string> text;
    Error fetchError;
    {
        StatementUse use{s.selectOldest};
        auto skip = s.pendingEventDeletes.size() + s.eventsInFlight.size();
        sqlite3_bind_int64(s.selectOldest, 1, static_cast<sqlite3_int64>(skip + 1));
        int rc;
        while ((rc = sqlite3_step(s.selectOldest)) == SQLITE_ROW) {
            auto rowId = sqlite3_column_int64(s.selectOldest, 0);
            if (s.pendingEventDeletes.count(rowId) || s.eventsInFlight.count(rowId)) {
                continue;
            }
            id = rowId;
            text = columnText(s.selectOldest, 1);
            break;
        }
        if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
            fetchError = s.errorMessage();
        }
    }
    if (fetchError || !id) {
        if (outer) {
            // Nothing was taken; an empty queue's commit still deletes any pending records.
            s.end(fetchError);
        }
        if (fetchError) {
            log("Fetch or delete error: " + *fetchError, logtag, LogLevel::error);
        }
        completion(std::nullopt);
        return;
    }
    // The completion sees the event before it is deleted; a failed delete calls it again.
    s.eventsInFlight.insert(*id);
    struct InFlight {
        Store& s;
        std::int64_t id;
        ~InFlight() { s.eventsInFlight.erase(id); }
    };
    {
        InFlight guard{s, *id};
        completion(std::move(text));
    }
    Error error;
    {
        sqlite3_bind_int64(s.deleteEvent, 1, *id);
        error = s.runToDone(s.deleteEvent);
    }
    if (!error) {
        s.deletedEvent(*id);
    } else {
        s.pendingEventDeletes.insert(*id);
    }
    if (outer) {
        error = s.end(error);
    }
    if (error) {
        log("Fetch or delete error: " + *error, logtag, LogLevel::error);
        completion(std::nullopt);
    }
}

void CoreDataManager::saveConversion(const ConversionItem& item, const std::string& eventName,
                                     const std::function<void()>& onSaved) {
    std::string actorId = TarnState::shared().actorId.get();
    Error error;
    {
        std::lock_guard lock(store_->mutex);
        auto& s = *store_;
        if (!s.ensureOpen(logtag)) {
            error = s.unavailable();
        } else {
            error = s.write(true, [&]() -> Error {
                bindText(s.insertConversion, 1, actorId);
                bindText(s.insertConversion, 2, item.communicationCode);
                bindText(s.insertConversion, 3, item.conversionName);
                bindDate(s.insertConversion, 4, item.time);
                return s.runToDone(s.insertConversion);
            });
            if (!error) {
                s.markerArmed(actorId, item.conversionName);
            }
        }
    }
    if (error) {
        log(eventName + " conversion couldn't save. " +
                "Save Error: An error occurred while saving the conversion event!",
            ConversionManager::kLogTag, LogLevel::error);
        return;
    }
    if (onSaved) {
        onSaved();
    }
}

namespace {

/// The line `findConversion` logs for its outcome.
void logConversionOutcome(const std::string& eventName, bool failed, bool found) {
    if (failed) {
        log(eventName + " is not a conversion event. " +
                "Fetch Error: An error occurred while fetching the conversion event!",
            ConversionManager::kLogTag, LogLevel::error);
    } else if (!found) {
        log(eventName + " is not a conversion event. " +
                "Not Found: Requestted item was not found in conversion database!",
            ConversionManager::kLogTag, LogLevel::debug);
    } else {
        log(eventName + " is a conversion event", ConversionManager::kLogTag, LogLevel::info);
    }
}

Date conversionCutoff() {
    return Date::now().addingTimeInterval(processSettings().conversionOffset.load());
}

}  // namespace

bool CoreDataManager::Store::selectMarker(const std::string& actorId, const std::string& eventName,
                                          Date cutoff, std::optional<std::int64_t>& id,
                                          std::optional<ConversionItem>& found) {
    if (!mayHoldMarker(actorId, eventName)) {
        return true;
    }
    StatementUse use{selectConversion};
    bindText(selectConversion, 1, actorId);
    bindText(selectConversion, 2, eventName);
    sqlite3_bind_double(selectConversion, 3, cutoff.secondsSince1970);
    sqlite3_bind_int64(selectConversion, 4,
                       static_cast<sqlite3_int64>(pendingConversionDeletes.size() + 1));
    int rc;
    while ((rc = sqlite3_step(selectConversion)) == SQLITE_ROW) {
        auto rowId = sqlite3_column_int64(selectConversion, 0);
        if (pendingConversionDeletes.count(rowId)) {
            continue;
        }
        id = rowId;
        found = ConversionItem{columnText(selectConversion, 1), columnText(selectConversion, 2),
                               columnDate(selectConversion, 3)};
        break;
    }
    return rc == SQLITE_ROW || rc == SQLITE_DONE;
}

void CoreDataManager::findConversion(
    const std::string& eventName, const std::string& actorId,
    const std::function<void(std::optional<ConversionItem>)>& completion) {
    Date cutoff = conversionCutoff();
    std::optional<ConversionItem> found;
    bool failed = false;
    {
        std::lock_guard lock(store_->mutex);
        auto& s = *store_;
        if (!s.ensureOpen(logtag)) {
            failed = true;
        }
        // One marker is consumed by one matching event. The delete tells whether this connection
        // took the marker: when another one (another process sharing the file) consumed it
        // between the look-up and the delete, the next newest is looked up.
        for (int attempt = 0; !failed && attempt < kConsumeAttempts; ++attempt) {
            std::optional<std::int64_t> id;
            found.reset();
            failed = !s.selectMarker(actorId, eventName, cutoff, id, found);
            if (!id) {
                break;
            }
            int deleted = 0;
            auto error = s.write(true, [&]() -> Error {
                sqlite3_bind_int64(s.deleteConversion, 1, *id);
                auto failure = s.runToDone(s.deleteConversion);
                deleted = sqlite3_changes(s.db);
                return failure;
            });
            if (error) {
                s.pendingConversionDeletes.insert(*id);
                failed = true;
                found.reset();
            } else if (deleted > 0) {
                s.deletedConversion(*id);
                s.markerConsumed(actorId, eventName);
                break;
            } else {
                found.reset();  // taken by another connection
            }
        }
    }
    logConversionOutcome(eventName, failed, found.has_value());
    completion(std::move(found));
}

std::optional<CoreDataManager::Store::CombinedSave> CoreDataManager::Store::saveInOneTransaction(
    const std::string& eventName, const std::string& actorId,
    const std::function<std::optional<std::string>(const std::optional<std::string>&)>& build) {
    if (!sqlite3_get_autocommit(db)) {
        return std::nullopt;  // inside a transaction of a caller further up
    }
    CombinedSave outcome;
    const Date cutoff = conversionCutoff();
    if (markersLoaded && pendingEventDeletes.empty() && pendingConversionDeletes.empty() &&
        markerCounts.count(markerKey(actorId, eventName)) == 0) {
        // The usual event completes nothing: one statement inserts it unless the file holds a
        // marker after all (armed by another connection since the mirror was read). A body that
        // cannot be written takes the whole transaction: a marker in the file is consumed even so.
        auto text = build(std::nullopt);
        if (text) {
            sqlite3_bind_text(insertEventUnlessMarked, 1, text->data(),
                              static_cast<int>(text->size()), SQLITE_STATIC);
            sqlite3_bind_double(insertEventUnlessMarked, 2, Date::now().secondsSince1970);
            bindText(insertEventUnlessMarked, 3, actorId);
            bindText(insertEventUnlessMarked, 4, eventName);
            sqlite3_bind_double(insertEventUnlessMarked, 5, cutoff.secondsSince1970);
            if (runToDone(insertEventUnlessMarked)) {
                return std::nullopt;
            }
            if (sqlite3_changes(db) > 0) {
                outcome.eventSaved = true;
                return outcome;
            }
            markersLoaded = false;  // the mirror is behind the file: read it again below
        }
    }
    std::optional<std::int64_t> markerId;
    auto error = write(false, [&]() -> Error {
        std::optional<ConversionItem> marker;
        if (!selectMarker(actorId, eventName, cutoff, markerId, marker)) {
            return errorMessage();
        }
        if (markerId) {
            sqlite3_bind_int64(deleteConversion, 1, *markerId);
            if (auto failed = runToDone(deleteConversion)) {
                return failed;
            }
        }
        outcome.conversionFound = marker.has_value();
        auto text = build(marker ? marker->communicationCode : std::nullopt);
        if (!text) {
            return std::nullopt;
        }
        sqlite3_bind_text(insertEvent, 1, text->data(), static_cast<int>(text->size()),
                          SQLITE_STATIC);
        sqlite3_bind_double(insertEvent, 2, Date::now().secondsSince1970);
        outcome.eventSaved = true;
        return runToDone(insertEvent);
    });
    if (error) {
        return std::nullopt;  // rolled back whole
    }
    if (markerId) {
        markerConsumed(actorId, eventName);
    }
    return outcome;
}

void CoreDataManager::saveEventCompletingConversion(
    const std::string& eventName, const std::string& actorId,
    const std::function<std::optional<std::string>(const std::optional<std::string>&)>& build) {
    std::optional<Store::CombinedSave> done;
    {
        std::lock_guard lock(store_->mutex);
        if (store_->ensureOpen(logtag)) {
            done = store_->saveInOneTransaction(eventName, actorId, build);
        }
    }
    if (done) {
        logConversionOutcome(eventName, false, done->conversionFound);
        if (done->eventSaved) {
            log(eventName + " has been saved to the queue.", kQueueLogTag, LogLevel::debug);
        }
        return;
    }
    // No store, the write lock held elsewhere or a failed statement: the two steps one by one,
    // with their own failures and messages.
    std::optional<std::string> code;
    findConversion(eventName, actorId, [&](std::optional<ConversionItem> marker) {
        if (marker) {
            code = marker->communicationCode;
        }
    });
    if (auto text = build(code)) {
        saveEventToQueue(*text, Date::now(), nlohmann::json{{"name", eventName}});
    }
}

void CoreDataManager::deleteExpiredConversions() {
    Date cutoff = Date::now().addingTimeInterval(-kConversionPurgeAge);
    std::lock_guard lock(store_->mutex);
    auto& s = *store_;
    if (!s.ensureOpen(logtag)) {
        log("Delete error: " + s.unavailable(), logtag, LogLevel::error);
        return;
    }
    std::vector<std::int64_t> expired;
    Error error;
    {
        StatementUse use{s.selectExpired};
        sqlite3_bind_double(s.selectExpired, 1, cutoff.secondsSince1970);
        int rc;
        while ((rc = sqlite3_step(s.selectExpired)) == SQLITE_ROW) {
            expired.push_back(sqlite3_column_int64(s.selectExpired, 0));
        }
        if (rc != SQLITE_DONE) {
            error = s.errorMessage();
        }
    }
    if (!error && !expired.empty()) {
        error = s.write(expired.size() == 1, [&]() -> Error {
            for (auto id : expired) {
                sqlite3_bind_int64(s.deleteConversion, 1, id);
                if (auto e = s.runToDone(s.deleteConversion)) {
                    return e;
                }
            }
            return std::nullopt;
        });
        if (error) {
            s.pendingConversionDeletes.insert(expired.begin(), expired.end());
        }
        s.markersLoaded = false;  // counted again at the next look-up
    }
    if (error) {
        log("Delete error: " + *error, logtag, LogLevel::error);
    }
}

std::optional<std::int64_t> CoreDataManager::deleteAllEvents() {
    std::lock_guard lock(store_->mutex);
    auto& s = *store_;
    if (!s.ensureOpen(logtag)) {
        return std::nullopt;
    }
    if (auto error = s.exec("DELETE FROM EventQueue")) {
        log("Delete error: " + *error, logtag, LogLevel::error);
        return std::nullopt;
    }
    // Whatever was pending deletion is gone with the rest.
    s.pendingEventDeletes.clear();
    return sqlite3_changes64(s.db);
}

bool CoreDataManager::eraseFiles() {
    std::lock_guard lock(store_->mutex);
    auto& s = *store_;
    if (s.inTransaction() || !s.eventsInFlight.empty()) {
        return false;
    }
    // The checkpoint thread's own connection goes first (its destructor joins it), then ours.
    s.checkpointer.reset();
    s.close();
    s.checkpointer = std::make_unique<store::Checkpointer>();
    s.erased = true;
    s.attempted = true;
    s.reloadWhenUsed = false;
    s.loadError = "The store's files were erased";
    s.pendingEventDeletes.clear();
    s.pendingConversionDeletes.clear();
    s.eventsDeletedInTransaction.clear();
    s.conversionsDeletedInTransaction.clear();
    s.markerCounts.clear();
    s.markersLoaded = false;
    const auto path = databasePath();
    bool gone = true;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        auto file = path.string() + suffix;
        if (::unlink(file.c_str()) != 0 && errno != ENOENT) {
            gone = false;
        }
    }
    return gone;
}

void CoreDataManager::reopenAfterErase() {
    std::lock_guard lock(store_->mutex);
    if (store_->erased) {
        store_->erased = false;
        store_->attempted = false;
    }
}

void CoreDataManager::setBusyTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard lock(store_->mutex);
    store_->busyTimeoutMs = static_cast<int>(timeout.count());
    if (store_->db) {
        sqlite3_busy_timeout(store_->db, store_->busyTimeoutMs);
    }
}

bool CoreDataManager::isStoreLoaded() {
    std::lock_guard lock(store_->mutex);
    return store_->ensureOpen(logtag);
}

}  // namespace tarn
