#include "tarn/platform/DataDirectory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <string>

#include "tarn/core/Shared.h"

namespace tarn {

namespace {

std::mutex& dirMutex() {
    static detail::NeverDestroyed<std::mutex> m;
    return *m;
}

std::filesystem::path& dirOverride() {
    static detail::NeverDestroyed<std::filesystem::path> p;
    return *p;
}

std::filesystem::path defaultDirectory() {
    if (const char* env = std::getenv("TARN_DATA_DIR"); env && *env) {
        return env;
    }
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) {
        return std::filesystem::path(xdg) / "TarniOSCommonKit";
    }
    if (const char* home = std::getenv("HOME"); home && *home) {
        return std::filesystem::path(home) / ".local" / "share" / "TarniOSCommonKit";
    }
    return std::filesystem::path("/tmp") / ("TarniOSCommonKit-" + std::to_string(::getuid()));
}

}  // namespace

std::filesystem::path dataDirectory() {
    std::filesystem::path folder;
    {
        std::lock_guard lock(dirMutex());
        folder = dirOverride().empty() ? defaultDirectory() : dirOverride();
    }
    std::error_code ec;
    if (!std::filesystem::exists(folder, ec)) {
        std::filesystem::create_directories(folder, ec);
        ::chmod(folder.c_str(), 0700);
    }
    return folder;
}

void setDataDirectory(const std::filesystem::path& folder) {
    std::lock_guard lock(dirMutex());
    dirOverride() = folder;
}

}  // namespace tarn
