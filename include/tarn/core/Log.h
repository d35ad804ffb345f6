#pragma once
// The library's one logging routine.
//
// Every call posts a `TarnLog` record as the notification "TarnLogNotification" (object: the
// record) on `NotificationCenter::defaultCenter()`, synchronously on the calling thread, and then
// writes the line "<tag> <message>;". A line the library logs while it holds one of its own locks
// is posted and written on the same thread right after that lock is released, so neither an
// observer nor the handler ever runs under a lock of the library's. Every call site gives its line a level (`LogLevel`; info
// when it names none), which decides nothing by default: every line goes to standard output,
// word for word, as it always has.
//
// A host decides where the lines go instead:
// - `setLogHandler` hands every line, with its level, to a function of the host's instead of
//   standard output (`nullptr` brings standard output back);
// - the environment variable TARN_LOG (off, error, warning, info or debug) keeps only the lines at
//   or above that level: the others are neither printed nor handed to the handler. It is read once,
//   at the first line; unset means debug (every line), and any other value means the same, with
//   one warning line saying so.
// Neither changes "TarnLogNotification": it is posted for every call, whatever the level, the
// handler or TARN_LOG, before the line is written.
//
// One of the base utilities under every subsystem (sources in src/base/); it includes nothing
// of the library above that layer.

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

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

/// How much a line matters, most important first: a failure (`error`), something that went
/// wrong but was coped with or will be tried again (`warning`), the normal course of things
/// (`info`), detail that is only of use when looking into a problem (`debug`).
enum class LogLevel { error, warning, info, debug };

/// "error", "warning", "info" or "debug": the spelling TARN_LOG takes.
TARN_API const char* logLevelName(LogLevel level);

/// Receives one line and its level. `line` is exactly the text that would have been printed,
/// without the line end: "<tag> <message>;" for a logged record, or the bare text of the few
/// lines the library prints without a record. It is only valid during the call.
using LogHandler = std::function<void(LogLevel level, std::string_view line)>;

/// Sends every later line that TARN_LOG lets through to `handler` instead of standard output;
/// `nullptr` sends them to standard output again. Any thread; a line being written on another
/// thread while the handler changes goes to the old handler or the new one.
///
/// The handler is called synchronously on the thread that logs: the host's thread, the library's
/// main queue (timers), or an HTTP transfer thread. It must be thread-safe. It is never called
/// while the library holds a lock of its own, so it may call back into the library (log, set the
/// handler, call any public call). It is not re-entered on one thread: lines logged while it runs
/// on that thread (by the handler itself, or by library calls it makes) are handed to it right
/// after it returns. An exception it throws is dropped.
///
/// The handler is a `std::function` so that C++ hosts can pass a lambda with captures; a plain C
/// function with a context pointer fits as well (`[ctx](LogLevel l, std::string_view s) {
/// fn(ctx, static_cast<int>(l), s.data(), s.size()); }`).
TARN_API void setLogHandler(LogHandler handler);

/// Logs `message` under `tag` at `level`: posts "TarnLogNotification", then writes the line (to the
/// handler or standard output, when TARN_LOG lets `level` through). Any thread.
TARN_API void log(const std::string& message, const std::optional<std::string>& tag = std::nullopt,
                  LogLevel level = LogLevel::info);
/// As above, for a tag the caller keeps (no copy is made unless someone observes the records).
TARN_API void log(const std::string& message, const std::string& tag,
                  LogLevel level = LogLevel::info);
TARN_API void log(const std::string& message, const char* tag, LogLevel level = LogLevel::info);

/// Writes one line directly, bypassing the records (for the few messages that the library writes
/// without one): no notification is posted, but the line goes where logged lines go (the handler
/// or standard output) and TARN_LOG filters it at `level`.
TARN_API void printLine(const std::string& line, LogLevel level = LogLevel::info);

}  // namespace tarn
