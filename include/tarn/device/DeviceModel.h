#pragma once
// The device's marketing model name and operating system version.
//
// Both values are computed once per process, on first use, and then reused; the first call may come
// from several threads at once.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarn/core/Export.h"

namespace tarn {

/// One row of the model table: the hardware identifiers that share one marketing name.
struct TARN_API DeviceModelRow {
    /// The hardware identifiers of this model.
    std::vector<std::string_view> identifiers;
    /// The marketing name of the model.
    std::string_view name;
};

/// The model table, in lookup order.
TARN_API const std::vector<DeviceModelRow>& deviceModelTable();

/// Maps a hardware identifier (for example "iPhone14,2") to its marketing name. The first table row
/// that lists the identifier wins. The simulator identifiers "i386", "x86_64" and "arm64" map
/// `simulatorModelIdentifier` (the value of "SIMULATOR_MODEL_IDENTIFIER", "iOS" when absent) by the
/// same rules and prefix "Simulator ". Any other identifier is returned unchanged. Pure: reads no
/// environment.
TARN_API std::string modelNameForIdentifier(std::string_view identifier,
                                   const std::optional<std::string>& simulatorModelIdentifier);

/// The machine field of `uname`, up to its first zero byte ("" when `uname` fails).
TARN_API std::string machineIdentifier();

/// The marketing model name of this machine: `machineIdentifier()` mapped through
/// `modelNameForIdentifier` with the process environment's "SIMULATOR_MODEL_IDENTIFIER". On a Linux
/// machine the identifier is the processor architecture ("x86_64", "aarch64", ...); "x86_64" is one
/// of the simulator identifiers, so such a machine reports "Simulator " followed by the mapped
/// variable, or "Simulator iOS". Computed once per process; any thread.
TARN_API const std::string& modelName();

/// The operating system version: the kernel release from `uname` (for example "6.8.0-45-generic").
/// The kernel release is what the running system is on every Linux machine, also inside a
/// container whose /etc/os-release describes only the image; "" when `uname` fails. Computed once
/// per process; any thread.
TARN_API const std::string& osVersion();

}  // namespace tarn
