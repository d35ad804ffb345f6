// A record of the offline queue as read back from the store, on its way to the request body: the
// bounded parse refuses or accepts it, and an accepted object serialises without throwing.
#include "FuzzSupport.h"
#include "base/InputSafety.h"
#include "tarn/network/ServiceClient.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarn::fuzz::prepareProcess();
    auto event = tarn::parseJsonBounded(tarn::fuzz::text(data, size));
    if (event.is_discarded() || !event.is_object()) {
        return 0;
    }
    std::string error;
    auto body = tarn::ServiceClient::serialize(event, &error);
    if (!body && error.empty()) {
        tarn::fuzz::violated("an unserialisable record gives no reason");
    }
    return 0;
}
