#include "tarn/platform/DataDirectory.h"

#include <errno.h>  // program_invocation_short_name
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tarn/core/Log.h"
#include "tarn/core/Shared.h"
#include "tarn/platform/Bundle.h"

namespace tarn {

namespace {

namespace fs = std::filesystem;

constexpr const char* kLogTag = "Tarn-DataDirectory:";
constexpr const char* kTreeName = "TarniOSCommonKit";
constexpr const char* kGroupsName = "groups";
/// Longest folder name made from an id; longer ones are cut and end in a hash.
constexpr std::size_t kMaxNameLength = 200;

std::mutex& dirMutex() {
    static detail::NeverDestroyed<std::mutex> m;
    return *m;
}

fs::path& dirOverride() {
    static detail::NeverDestroyed<fs::path> p;
    return *p;
}

/// An environment variable's value when it is an absolute path (the XDG rule: a relative one is
/// ignored).
std::optional<fs::path> absoluteFromEnvironment(const char* name) {
    const char* value = std::getenv(name);
    if (!value || value[0] != '/') {
        return std::nullopt;
    }
    return fs::path(value);
}

/// Where this release's tree lives, and where the shared folder of earlier releases would be.
struct Tree {
    fs::path root;
    fs::path legacy;
};

/// The private folder of this process when there is no home: made once, on first need.
std::optional<fs::path> processTemporaryFolder() {
    static std::once_flag once;
    static detail::NeverDestroyed<std::optional<fs::path>> folder;
    std::call_once(once, [] {
        const char* tmp = std::getenv("TMPDIR");
        fs::path base = tmp && tmp[0] == '/' ? fs::path(tmp) : fs::path("/tmp");
        std::string pattern = (base / (std::string(kTreeName) + "-XXXXXX")).string();
        if (::mkdtemp(pattern.data())) {  // mode 0700, a name nobody could have guessed
            *folder = fs::path(pattern);
        }
    });
    return *folder;
}

Tree defaultTree() {
    const fs::path legacyTmp =
        fs::path("/tmp") / (std::string(kTreeName) + "-" + std::to_string(::getuid()));
    if (auto xdg = absoluteFromEnvironment("XDG_DATA_HOME")) {
        return {*xdg / kTreeName, *xdg / kTreeName};
    }
    if (auto home = absoluteFromEnvironment("HOME")) {
        auto root = *home / ".local" / "share" / kTreeName;
        return {root, root};
    }
    if (auto runtime = absoluteFromEnvironment("XDG_RUNTIME_DIR")) {
        return {*runtime / kTreeName, legacyTmp};
    }
    if (auto temporary = processTemporaryFolder()) {
        return {*temporary, legacyTmp};
    }
    return {refusedFolderPath() / "no-temporary-folder", legacyTmp};
}

/// The folder given to `setDataDirectory`, else TARN_DATA_DIR, else none.
std::optional<fs::path> overriddenFolder() {
    {
        std::lock_guard lock(dirMutex());
        if (!dirOverride().empty()) {
            return dirOverride();
        }
    }
    if (const char* env = std::getenv("TARN_DATA_DIR"); env && *env) {
        return fs::path(env);
    }
    return std::nullopt;
}

std::string executableName() {
    std::error_code ec;
    auto exe = fs::read_symlink("/proc/self/exe", ec);
    std::string name = ec ? std::string() : exe.filename().string();
    const std::string deleted = " (deleted)";  // the file was replaced while the process runs
    if (name.size() > deleted.size() &&
        name.compare(name.size() - deleted.size(), deleted.size(), deleted) == 0) {
        name.resize(name.size() - deleted.size());
    }
    if (name.empty() && program_invocation_short_name) {
        name = program_invocation_short_name;
    }
    return name.empty() ? "application" : name;
}

std::uint64_t fnv1a(const std::string& text) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (unsigned char c : text) {
        hash = (hash ^ c) * 0x100000001b3ULL;
    }
    return hash;
}

bool isPlain(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

/// Names the tree uses itself, now or in earlier releases.
bool isReserved(const std::string& name) {
    return name == kGroupsName || name == "Preferences" ||
           name.rfind("TarnDatabase.sqlite", 0) == 0;
}

/// Logs each refused folder once per process.
void reportRefusal(const fs::path& folder, const std::string& reason) {
    static detail::NeverDestroyed<std::mutex> mutex;
    static detail::NeverDestroyed<std::set<std::string>> reported;
    {
        std::lock_guard lock(*mutex);
        if (!reported->insert(folder.native()).second) {
            return;
        }
    }
    log("The folder " + folder.string() + " is refused for the library's data: " + reason +
            ". Nothing is saved in it.",
        kLogTag);
}

/// Why `folder` may not hold the library's data, or none.
std::optional<std::string> refusal(const struct stat& st) {
    if (S_ISLNK(st.st_mode)) {
        return "it is a symbolic link";
    }
    if (st.st_uid != ::geteuid()) {
        return "it belongs to another user (uid " + std::to_string(st.st_uid) + ")";
    }
    if (st.st_mode & (S_IWGRP | S_IWOTH)) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        return std::string("other users can write to it (mode ") + mode + ")";
    }
    return std::nullopt;
}

/// Creates the missing folders above `folder`, mode 0700, without looking at those that exist.
void createMissingParents(const fs::path& folder) {
    auto parent = folder.parent_path();
    if (parent.empty() || parent == folder) {
        return;
    }
    struct stat st {};
    if (::lstat(parent.c_str(), &st) == 0 || errno != ENOENT) {
        return;
    }
    createMissingParents(parent);
    if (::mkdir(parent.c_str(), 0700) == 0) {
        ::chmod(parent.c_str(), 0700);  // a umask may have taken the owner's bits
    }
}

/// Logs once per process that data of an earlier release stays in the shared folder.
void noteLegacyData(const fs::path& legacy, const fs::path& current) {
    static std::atomic<bool> looked{false};
    if (legacy.empty() || looked.exchange(true)) {
        return;
    }
    struct stat st {};
    bool found = false;
    for (const char* name : {"TarnDatabase.sqlite", "Preferences"}) {
        found = found || ::lstat((legacy / name).c_str(), &st) == 0;
    }
    if (found) {
        log("Data of an earlier release is left in the shared folder " + legacy.string() +
                "; this application's data is now kept in " + current.string() + ".",
            kLogTag);
    }
}

/// The layout in use: this application's folder and the folder of the groups, with the folders
/// of the tree above them that are checked first.
struct Layout {
    fs::path application;
    fs::path groups;
    std::vector<fs::path> above;
    fs::path legacy;
};

Layout currentLayout() {
    if (auto folder = overriddenFolder()) {
        return {*folder, *folder / kGroupsName, {}, {}};
    }
    auto tree = defaultTree();
    return {tree.root / folderNameFor(applicationIdentifier()),
            tree.root / kGroupsName,
            {tree.root},
            tree.legacy};
}

/// Ensures every folder of `chain` in order; false as soon as one is refused.
bool ensureChain(const std::vector<fs::path>& chain) {
    for (const auto& folder : chain) {
        if (!ensurePrivateFolder(folder)) {
            return false;
        }
    }
    return true;
}

}  // namespace

fs::path refusedFolderPath() {
    return fs::path("/dev/null") / "TarniOSCommonKit-refused";
}

std::string folderNameFor(const std::string& name) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    const bool reserved = isReserved(name);
    for (std::size_t i = 0; i < name.size(); ++i) {
        auto c = static_cast<unsigned char>(name[i]);
        bool escape = !isPlain(c) || (i == 0 && (c == '.' || reserved));
        if (escape) {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0xF];
        } else {
            out += static_cast<char>(c);
        }
    }
    if (out.size() > kMaxNameLength) {
        std::size_t cut = kMaxNameLength - 17;
        // Never cut an escape in two.
        while (cut > 0 && (out[cut - 1] == '%' || (cut >= 2 && out[cut - 2] == '%'))) {
            --cut;
        }
        char digits[17];
        std::snprintf(digits, sizeof digits, "%016llx",
                      static_cast<unsigned long long>(fnv1a(name)));
        out = out.substr(0, cut) + "~" + digits;
    }
    return out;
}

std::string applicationIdentifier() {
    static detail::NeverDestroyed<std::mutex> mutex;
    static detail::NeverDestroyed<std::pair<fs::path, std::string>> cached;
    auto bundle = Bundle::main();
    {
        std::lock_guard lock(*mutex);
        if (!cached->second.empty() && cached->first == bundle.path()) {
            return cached->second;
        }
    }
    auto id = bundle.bundleIdentifier().value_or("");
    if (id.empty()) {
        id = executableName();
    }
    std::lock_guard lock(*mutex);
    *cached = {bundle.path(), id};
    return id;
}

bool ensurePrivateFolder(const fs::path& folder) {
    struct stat st {};
    if (::lstat(folder.c_str(), &st) != 0) {
        if (errno != ENOENT) {
            return true;  // cannot be looked at: writing there fails on its own
        }
        createMissingParents(folder);
        if (::mkdir(folder.c_str(), 0700) == 0) {
            ::chmod(folder.c_str(), 0700);
        } else if (errno != EEXIST) {
            return true;
        }
        if (::lstat(folder.c_str(), &st) != 0) {
            return true;
        }
    }
    if (!S_ISLNK(st.st_mode) && !S_ISDIR(st.st_mode)) {
        return true;  // no folder: nothing can be created in it
    }
    if (auto reason = refusal(st)) {
        reportRefusal(folder, *reason);
        return false;
    }
    return true;
}

fs::path dataDirectory() {
    auto layout = currentLayout();
    auto chain = layout.above;
    chain.push_back(layout.application);
    fs::path folder = ensureChain(chain) ? layout.application : refusedFolderPath();
    noteLegacyData(layout.legacy, layout.application);
    return folder;
}

fs::path appGroupDirectory(const std::string& group) {
    auto layout = currentLayout();
    auto name = folderNameFor(group);
    auto chain = layout.above;
    chain.push_back(layout.groups);
    chain.push_back(layout.groups / name);
    if (name.empty() || !ensureChain(chain)) {
        return refusedFolderPath() / kGroupsName / (name.empty() ? "%" : name);
    }
    return layout.groups / name;
}

void setDataDirectory(const fs::path& folder) {
    std::lock_guard lock(dirMutex());
    dirOverride() = folder;
}

}  // namespace tarn
