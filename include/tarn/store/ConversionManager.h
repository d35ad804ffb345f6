#pragma once
// Conversion tracking: arming a marker when a communication is reported, and checking every later
// event against the markers of its actor.
//
// Markers carry their arming time as milliseconds since 1970 read as seconds, a date far in the
// future. Every cutoff computed from the current time therefore lies before every such marker: a
// marker stays armed until a matching event of its actor consumes it, and the one-day purge never
// removes it. The stored data depends on this scale, so it is kept.
//
// Threads: every call is synchronous on the calling thread and safe from any thread.

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"
#include "tarn/store/ConversionItem.h"

namespace tarn {

/// The key under "parameters" of an event body that carries the code of the communication whose
/// conversion the event completes.
inline constexpr const char* kConversionCommunicationCodeKey = "conversionCommunicationCode";

/// What the event pipeline needs from conversion tracking.
class TARN_API ConversionManagerLogic {
  public:
    virtual ~ConversionManagerLogic() = default;
    /// Arms one marker for `conversionEvent` on behalf of the communication `communicationCode`;
    /// `eventName` is the sending event's name (for the failure message). Does nothing when
    /// `conversionEvent` is absent.
    virtual void armConversion(const std::optional<std::string>& communicationCode,
                               const std::optional<std::string>& conversionEvent,
                               const std::string& eventName) = 0;
    /// Consumes the newest armed marker of the current actor for `eventName` and returns its
    /// communication code, or nothing.
    virtual std::optional<std::string> checkConversion(const std::string& eventName) = 0;
};

/// The process-wide conversion tracking on the local store.
class TARN_API ConversionManager : public ConversionManagerLogic {
  public:
    /// The one instance, created on first use.
    static ConversionManager& shared();

    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-ConversionManager:";
    /// The same prefix, for static contexts.
    static constexpr const char* kLogTag = "Tarn-ConversionManager:";

    /// Stores a marker: `communicationCode`, `conversionName` = `conversionEvent`, time = now in
    /// seconds × 1000 truncated to a 64-bit integer and read as seconds, actor = the current actor.
    /// On success logs "Conversion event saved with name: " and the name.
    void armConversion(const std::optional<std::string>& communicationCode,
                       const std::optional<std::string>& conversionEvent,
                       const std::string& eventName) override;

    /// `checkConversion(eventName, Tarn::shared().actorId.get())`.
    std::optional<std::string> checkConversion(const std::string& eventName) override;
    /// Consumes the newest armed marker of `actorId` for `eventName`; returns its code or nothing.
    std::optional<std::string> checkConversion(const std::string& eventName,
                                               const std::string& actorId);

    /// The arming time for `now`: seconds × 1000 as a 64-bit integer. A value outside that range is
    /// a programming error and ends the process.
    static std::int64_t millisecondStamp(Date now);

    /// Writes `communicationCode` into an event's JSON dictionary: takes its "parameters" (an empty
    /// object when absent or not an object), sets "conversionCommunicationCode" when a code is
    /// given and removes it otherwise, and writes "parameters" back, so the dictionary always
    /// carries "parameters" afterwards. A dictionary that is not an object is left unchanged.
    static void applyConversionCode(nlohmann::json& eventDictionary,
                                    const std::optional<std::string>& communicationCode);
};

}  // namespace tarn
