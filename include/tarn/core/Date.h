#pragma once
// A point in time as seconds since 1970-01-01 00:00:00 UTC, held in a double.
//
// `std::chrono::system_clock::time_point` counts nanoseconds in 64 bits and so ends in the year
// 2262; the conversion markers of the local store carry times on a millisecond-as-second scale
// (about 1.7e12 seconds since 1970), which that type cannot hold. A double holds every whole
// second up to 2^53 exactly, so such a value survives storing and reading unchanged.
//
// One of the base utilities under every subsystem (sources in src/base/); it includes nothing
// of the library above that layer.

#include <compare>
#include <optional>

#include "tarn/core/Export.h"

namespace tarn {

/// A point in time as seconds since 1970-01-01 UTC, as the event bodies and the store carry it.
struct TARN_API Date {
    /// Seconds since 1970-01-01 00:00 UTC, with fractions.
    double secondsSince1970 = 0.0;

    /// The current wall-clock time (or the test clock, see `setNowForTesting`).
    static Date now();
    /// The date `seconds` after 1970-01-01 00:00 UTC.
    static constexpr Date fromSecondsSince1970(double seconds) { return Date{seconds}; }

    /// This date moved by `seconds` (negative moves it back).
    constexpr Date addingTimeInterval(double seconds) const {
        return Date{secondsSince1970 + seconds};
    }
    /// Seconds from `other` to this date.
    constexpr double timeIntervalSince(Date other) const {
        return secondsSince1970 - other.secondsSince1970;
    }

    /// Dates order by time.
    friend constexpr auto operator<=>(const Date&, const Date&) = default;
};

/// Pins `Date::now()` to `fixed` for the whole process, or restores the wall clock with
/// `std::nullopt`. Only for tests.
TARN_API void setNowForTesting(std::optional<Date> fixed);

}  // namespace tarn
