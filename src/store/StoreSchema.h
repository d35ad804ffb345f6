#pragma once
// The layout of the local database, version 1. Kept apart so that tests and benchmarks can fill a
// file directly.

namespace tarn::store {

/// Creates every table and index of schema version 1 (idempotent).
///
/// - `EventQueue`: one row per queued event. The index on `timestamp` keeps the oldest-first pop a
///   single index probe at any queue length; the row id, implied in every index entry, breaks ties
///   between equal timestamps in insertion order.
/// - `ConversionEntity`: one row per conversion marker. The index on (actorId, convertionName,
///   time) answers the look-up "newest marker of this actor and name after the cutoff" with one
///   backward range probe. The purge of expired markers scans the table instead: it runs once per
///   launch, markers are few (one per armed communication, and those armed on the millisecond
///   scale never expire), and an index on `time` alone would add a page write to every arm and
///   every consume.
///
/// Dates are REAL seconds since 1970.
inline constexpr const char* kSchemaV1 = R"sql(
CREATE TABLE IF NOT EXISTS EventQueue (
    id INTEGER PRIMARY KEY,
    event TEXT,
    timestamp REAL
);
CREATE INDEX IF NOT EXISTS EventQueue_timestamp ON EventQueue (timestamp);
CREATE TABLE IF NOT EXISTS ConversionEntity (
    id INTEGER PRIMARY KEY,
    actorId TEXT,
    communicationCode TEXT,
    convertionName TEXT,
    time REAL
);
CREATE INDEX IF NOT EXISTS ConversionEntity_lookup
    ON ConversionEntity (actorId, convertionName, time);
)sql";

}  // namespace tarn::store
