#include "tarn/inapp/InAppRepository.h"

#include "tarn/core/Log.h"
#include "tarn/core/Shared.h"
#include "tarn/inapp/AppCommunicationCoding.h"
#include "tarn/network/ServiceClient.h"

namespace tarn {

nlohmann::json AppCommunucationRequest::dictionary() const {
    return {{"actorId", actorId},
            {"applicationName", applicationName},
            {"configuration", configuration}};
}

InAppRepository& InAppRepository::shared() {
    return detail::SharedInstance<InAppRepository, 300>::get();
}

void InAppRepository::fetchInAppCommunications(
    const nlohmann::json& request,
    std::function<void(std::optional<AppCommunication>)> completion) {
    auto& client = ServiceClient::shared();
    client.request(
        client.url(Endpoint::inAppCommunication), request, std::nullopt,
        [completion = std::move(completion)](std::optional<Data> data,
                                             std::optional<ServiceError> /*error*/,
                                             std::optional<int> /*statusCode*/) {
            const std::string tag = "Tarn-InAppRepository:";
            std::optional<AppCommunication> answer;
            if (data) {
                auto decoded = decodeAppCommunication(
                    std::string_view(reinterpret_cast<const char*>(data->data()), data->size()));
                if (decoded) {
                    answer = std::move(decoded).value();
                } else {
                    log(decoded.error().localizedDescription(), std::string("Tarn-Repository"),
                        LogLevel::error);
                }
            }
            if (!answer) {
                log("No Data", tag, LogLevel::error);
            }
            completion(std::move(answer));
        });
}

}  // namespace tarn
