#pragma once
// Fetches the in-app communications and the server configuration block in one request.

#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tarn/inapp/AppCommunication.h"

namespace tarn {

/// The in-app request's body: exactly "actorId", "applicationName" and "configuration".
struct AppCommunucationRequest {
    std::string actorId;
    std::string applicationName;
    bool configuration = true;
    nlohmann::json dictionary() const;
};

class InAppRepository {
  public:
    static InAppRepository& shared();
    const std::string logtag = "Tarn-InAppRepository:";

    /// Posts `request` to the in-app endpoint and decodes the answer. `completion` receives the
    /// answer, or nothing when there was no data or it did not decode (logged), on the HTTP
    /// transport's callback thread. A 5xx answer with retries left never completes.
    void fetchInAppCommunications(const nlohmann::json& request,
                                  std::function<void(std::optional<AppCommunication>)> completion);
};

}  // namespace tarn
