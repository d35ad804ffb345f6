#pragma once
// Shared set-up of the fuzz targets.

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarn::fuzz {

/// Points the library's data folder at a fresh temporary folder (once per process) and silences
/// standard output, where every log line goes.
void prepareProcess();

/// The input as a string.
inline std::string text(const std::uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

/// Ends the process with a message: a property the target checks does not hold.
[[noreturn]] void violated(const char* what);

}  // namespace tarn::fuzz
