// A small host application: writes a bundle with a service file, initialises the library as a
// host would and reports what happened.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tarn/config/ConfigManager.h"
#include "tarn/core/Log.h"
#include "tarn/core/Tarn.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/PropertyList.h"

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::string domain = argc > 1 ? argv[1] : "http://127.0.0.1:9";
    auto root = fs::temp_directory_path() / ("tarn-example-" + std::to_string(::getpid()));
    fs::create_directories(root / "bundle");
    {
        std::ofstream out(root / "bundle" / "TarnService-Info.plist");
        out << tarn::writePropertyList({{"DOMAIN", domain},
                                        {"CLIENT_ID", "example-client"},
                                        {"CLIENT_SECRET", "example-secret"}});
        std::ofstream info(root / "bundle" / "Info.plist");
        info << tarn::writePropertyList({{"CFBundleIdentifier", "com.example.host"}});
    }
    tarn::setDataDirectory(root / "data");
    tarn::Bundle::setMain(root / "bundle");

    tarn::TarnInitConfig config(tarn::Bundle::main(), "ExampleHost", std::nullopt, std::nullopt,
                                std::nullopt, std::nullopt, std::nullopt, false, true, false);
    tarn::Tarn::shared().initialize(config);
    std::printf("initialize status: %s, actor: %s\n",
                tarn::rawValue(tarn::Tarn::shared().configManager.getInitializeStatus()),
                tarn::Tarn::shared().actorId.get().c_str());
    std::error_code ec;
    fs::remove_all(root, ec);
    return 0;
}
