#pragma once
// Posts one event body to the event endpoint.

#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"
#include "tarn/network/NetworkError.h"

namespace tarn {

/// Posts one stored event body to the server's event endpoint.
class TARN_API EventRepository {
  public:
    /// The one instance, created on first use and never destroyed.
    static EventRepository& shared();
    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-EventRepository:";

    /// The outcome of one send: `error` is the transport's error when the exchange itself failed,
    /// and none when the server answered (whatever its status); `failed` is set unless the server
    /// answered 200.
    using Completion = std::function<void(std::optional<ServiceError> error,
                                          std::optional<int> statusCode, bool failed)>;

    /// Posts `eventJson` (JSON object text, valid UTF-8, as the queue stored it) as it stands to
    /// "/orbital-harbor/sdk-public/event/mobile". `completion` runs on the HTTP transport's
    /// callback thread; a 5xx answer with retries left never completes.
    void sendEvent(const std::string& eventJson, Completion completion);
};

}  // namespace tarn
