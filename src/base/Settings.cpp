#include "tarn/core/Settings.h"

#include "tarn/core/Fatal.h"

namespace tarn {

ProcessSettings& processSettings() {
    return detail::SharedInstance<ProcessSettings, 200>::get();
}

std::string requireBaseUrl() {
    auto base = processSettings().baseUrl.get();
    if (!base) {
        fatalError("The base URL is not set; initialise the library first",
                   "TarniOSCommonKit/Endpoint", 20);
    }
    return *base;
}

}  // namespace tarn
