#pragma once
// The library's one logging routine.
//
// Every call posts a `TarnLog` record as the notification "TarnLogNotification" (object: the
// record) on `NotificationCenter::defaultCenter()`, synchronously on the calling thread, and then
// prints the line "<tag> <message>;" to standard output. There are no levels and no switch.
//
// One of the base utilities under every subsystem (sources in src/base/); it includes nothing
// of the library above that layer.

#include <chrono>
#include <optional>
#include <string>

#include "tarn/core/Export.h"

namespace tarn {

inline constexpr const char* kTarnLogNotification = "TarnLogNotification";
inline constexpr const char* kTarnPageInNotification = "TarnPageInNotification";
inline constexpr const char* kTarnPageOutNotification = "TarnPageOutNotification";

/// One log record.
struct TARN_API TarnLog {
    /// The message as logged.
    std::string logMessage;
    /// The tag of the component that logged it, when given.
    std::optional<std::string> sector;
    /// When it was logged.
    std::chrono::system_clock::time_point logDate;

    /// "<sector or Tarn> <message>;".
    std::string getFullMessage() const;
    /// "dd-MM-yyyy HH:mm:ss --- " (local time) followed by `getFullMessage()`.
    std::string getFullMessageWithDate() const;
};

/// Logs `message` under `tag`: posts "TarnLogNotification", then prints the line. Any thread.
TARN_API void log(const std::string& message, const std::optional<std::string>& tag = std::nullopt);
/// As above, for a tag the caller keeps (no copy is made unless someone observes the records).
TARN_API void log(const std::string& message, const std::string& tag);
TARN_API void log(const std::string& message, const char* tag);

/// Prints one line to standard output directly, bypassing the logger (for the few messages that the
/// library writes without a record).
TARN_API void printLine(const std::string& line);

}  // namespace tarn
