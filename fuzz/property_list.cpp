// Property lists (the service file and the bundle's Info.plist): the reader refuses or converts
// any bytes without crashing, and what it returns can be written with bad bytes replaced.
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
    // Strings keep the file's bytes, UTF-8 or not; with those replaced the value is writable
    // (no depth or type the writer refuses).
    try {
        (void)value->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    } catch (const nlohmann::json::exception&) {
        tarn::fuzz::violated("a property-list value cannot be written");
    }
    return 0;
}
