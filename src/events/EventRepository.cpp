#include "tarn/events/EventRepository.h"

#include "tarn/core/Shared.h"
#include "tarn/network/ServiceClient.h"

namespace tarn {

EventRepository& EventRepository::shared() {
    return detail::SharedInstance<EventRepository, 300>::get();
}

void EventRepository::sendEvent(const std::string& eventJson, Completion completion) {
    auto& client = ServiceClient::shared();
    client.requestJsonText(client.url(Endpoint::event), eventJson, std::nullopt,
                           [completion = std::move(completion)](std::optional<Data> data,
                                                                std::optional<ServiceError> error,
                                                                std::optional<int> statusCode) {
                               // A status the server chose is a failed send but not an error of the
                               // exchange.
                               const bool answered =
                                   error && error->networkError() &&
                                   error->networkError()->kind == NetworkError::Kind::httpError;
                               const bool failed = error.has_value() || !data || statusCode != 200;
                               completion(answered ? std::nullopt : error, statusCode, failed);
                           });
}

}  // namespace tarn
