#pragma once
// Fetches the in-app communications and the server configuration block in one request.

#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/core/Export.h"
#include "tarn/inapp/AppCommunication.h"

namespace tarn {

/// The in-app request's body: exactly "actorId", "applicationName" and "configuration".
struct TARN_API AppCommunucationRequest {
    /// The actor the communications are fetched for.
    std::string actorId;
    /// The host's application name.
    std::string applicationName;
    /// Whether the answer should carry the configuration block.
    bool configuration = true;
    /// The request body as a JSON object.
    nlohmann::json dictionary() const;
};

/// Fetches the in-app communications and the configuration block from the server.
class TARN_API InAppRepository {
  public:
    /// The one instance, created on first use and never destroyed.
    static InAppRepository& shared();
    /// Prefix of this component's log lines.
    const std::string logtag = "Tarn-InAppRepository:";

    /// Posts `request` to the in-app endpoint and decodes the answer. `completion` receives the
    /// answer, or nothing when there was no data or it did not decode (logged), on the HTTP
    /// transport's callback thread. A 5xx answer with retries left never completes.
    void fetchInAppCommunications(const nlohmann::json& request,
                                  std::function<void(std::optional<AppCommunication>)> completion);
};

}  // namespace tarn
