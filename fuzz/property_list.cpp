// Property lists (the service file and the bundle's Info.plist): the reader refuses or converts
// any bytes without crashing, and what it returns is JSON the library can write.
#include "FuzzSupport.h"
#include "tarn/platform/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarn::fuzz::prepareProcess();
    std::string error;
    auto value = tarn::parsePropertyList(tarn::fuzz::text(data, size), &error);
    if (!value) {
        if (error.empty()) {
            tarn::fuzz::violated("a refused property list gives no reason");
        }
        return 0;
    }
    // Strict: throws when a string is not UTF-8, which the reader promises never to return.
    try {
        (void)value->dump(-1, ' ', false, nlohmann::json::error_handler_t::strict);
    } catch (const nlohmann::json::exception&) {
        tarn::fuzz::violated("a property-list string is not UTF-8");
    }
    return 0;
}
