#pragma once
// Where the logger hands its records. The logger is a utility below the platform seams, so it
// does not post "TarnLogNotification" itself: the notification centre installs a sink on its first
// use (before anyone can observe the name), and `log` hands every record to it before printing.

#include <optional>
#include <string>
#include <string_view>

namespace tarn::detail {

/// Receives one record as `log` was given it, synchronously on the logging thread.
using LogRecordSink = void (*)(const std::string& message, std::optional<std::string_view> tag);

/// Installs `sink` for every later `log` call. Any thread.
void setLogRecordSink(LogRecordSink sink);

}  // namespace tarn::detail
