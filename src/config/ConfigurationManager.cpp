#include "tarn/config/ConfigurationManager.h"

#include <fstream>
#include <sstream>

#include "base/LogLineBatch.h"
#include "tarn/core/Log.h"
#include "tarn/core/Shared.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/PropertyList.h"

namespace tarn {

ConfigurationManager& ConfigurationManager::shared() {
    // The first use reads the file under the instance's lock; its line waits for the lock's end.
    detail::LogLineBatch lines;
    return detail::SharedInstance<ConfigurationManager, 300>::get();
}

ConfigurationManager::ConfigurationManager() {
    loadSettings();
}

void ConfigurationManager::loadSettings() {
    auto fail = [] { printLine("Failed to load the TarnService-Info file.", LogLevel::error); };
    auto path = Bundle::main().pathForResource("TarnService-Info", "plist");
    if (!path) {
        return fail();
    }
    std::ifstream in(*path, std::ios::binary);
    if (!in) {
        return fail();
    }
    std::stringstream bytes;
    bytes << in.rdbuf();
    if (in.bad()) {
        return fail();
    }
    auto root = parsePropertyList(bytes.str());
    if (!root || !root->is_object()) {
        return fail();
    }
    settings_ = std::move(*root);
}

}  // namespace tarn
