#pragma once
// Programming errors end the process: the message and its source go to standard error, then abort.
//
// One of the base utilities under every subsystem (sources in src/base/); it includes nothing
// of the library above that layer.

#include <string>
#include <string_view>

#include "tarn/core/Export.h"

namespace tarn {

/// Prints "<source>:<line>: Fatal error: <message>" to standard error and aborts the process.
[[noreturn]] TARN_API void fatalError(std::string_view message, std::string_view source, int line);

}  // namespace tarn

/// Ends the process with `message`, naming the calling file and line.
#define TARN_FATAL(message) ::tarn::fatalError((message), __FILE__, __LINE__)
