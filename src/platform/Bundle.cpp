#include "tarn/platform/Bundle.h"

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>

#include "tarn/core/Shared.h"
#include "tarn/platform/PropertyList.h"

namespace tarn {

namespace {

std::mutex& mainMutex() {
    static detail::NeverDestroyed<std::mutex> m;
    return *m;
}

std::filesystem::path& mainOverride() {
    static detail::NeverDestroyed<std::filesystem::path> p;
    return *p;
}

std::filesystem::path executableFolder() {
    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) {
        return std::filesystem::current_path(ec);
    }
    return exe.parent_path();
}

}  // namespace

Bundle::Bundle(std::filesystem::path folder) : folder_(std::move(folder)) {}

Bundle Bundle::main() {
    {
        std::lock_guard lock(mainMutex());
        if (!mainOverride().empty()) {
            return Bundle(mainOverride());
        }
    }
    if (const char* env = std::getenv("TARN_MAIN_BUNDLE"); env && *env) {
        return Bundle(env);
    }
    return Bundle(executableFolder());
}

void Bundle::setMain(const std::filesystem::path& folder) {
    std::lock_guard lock(mainMutex());
    mainOverride() = folder;
}

std::optional<std::filesystem::path> Bundle::pathForResource(const std::string& name,
                                                             const std::string& ext) const {
    if (folder_.empty()) {
        return std::nullopt;
    }
    auto candidate = folder_ / (ext.empty() ? name : name + "." + ext);
    std::error_code ec;
    if (std::filesystem::is_regular_file(candidate, ec)) {
        return candidate;
    }
    return std::nullopt;
}

std::optional<std::string> Bundle::infoString(const char* key) const {
    auto info = pathForResource("Info", "plist");
    if (!info) {
        return std::nullopt;
    }
    std::ifstream in(*info, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    auto root = parsePropertyList(bytes.str());
    if (!root || !root->is_object()) {
        return std::nullopt;
    }
    auto it = root->find(key);
    if (it == root->end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

std::optional<std::string> Bundle::bundleIdentifier() const {
    return infoString("CFBundleIdentifier");
}

std::optional<std::string> Bundle::bundleName() const {
    return infoString("CFBundleName");
}

}  // namespace tarn
