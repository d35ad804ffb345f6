// Where the library keeps its data on a desktop: a folder per application, a folder per app group,
// private folders and files, refused hostile folders and planted links. Hosts run as real
// processes (the helper program) in default data folders of a temporary home, against
// `tarn serve`.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "support/ChildProcess.h"
#include "support/PipelineFixture.h"
#include "support/TestSupport.h"
#include "tarn/config/Preferences.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/PreferenceStore.h"
#include "tarn/store/CoreDataManager.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

std::string readText(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

unsigned modeOf(const fs::path& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0xFFFF;
}

/// Every path under `folder` (links not followed), with its size: what a test compares to see
/// that nothing was written there.
std::map<std::string, std::uintmax_t> contentsOf(const fs::path& folder) {
    std::map<std::string, std::uintmax_t> seen;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code sizeError;
        auto size = it->is_regular_file(sizeError) ? it->file_size(sizeError) : 0;
        seen[it->path().string()] = size;
    }
    return seen;
}

/// The value after "<key> " on a line of `output`, or empty.
std::string field(const std::string& output, const std::string& key) {
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind(key + " ", 0) == 0)
            return line.substr(key.size() + 1);
    return "";
}

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t n = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

const std::string kRefused = "Tarn-DataDirectory: The folder ";

/// Host applications of one user, each a bundle folder with its own identifier, in a home of the
/// test's own; `tarn serve` as their server.
class DataFolderTest : public CliTest {
  protected:
    void SetUp() override {
        CliTest::SetUp();
        if (IsSkipped())
            return;
        serve_ = std::make_unique<ChildProcess>(std::vector<std::string>{
            tarnExecutable(), "serve", "--port", "0", "--client-id", "client-id", "--client-secret",
            "client-secret", "--events-file", events().string()});
        auto first = serve_->readLine(10s).value_or("");
        const std::string prefix = "tarn serve: listening on ";
        ASSERT_EQ(first.rfind(prefix, 0), 0u) << first << serve_->err;
        url_ = first.substr(prefix.size());
    }
    fs::path home() const { return temp_.path() / "home"; }
    fs::path tree() const { return home() / "data" / "TarniOSCommonKit"; }
    fs::path events() const { return temp_.path() / "events.jsonl"; }
    std::string environment() const { return "XDG_DATA_HOME=" + (home() / "data").string(); }

    /// A bundle folder for the application `id` that talks to the server.
    fs::path bundle(const std::string& id) {
        auto folder = temp_.path() / ("bundle-" + id);
        writeInfoPlist(folder, id);
        writeServiceFile(
            folder,
            {{"DOMAIN", url_}, {"CLIENT_ID", "client-id"}, {"CLIENT_SECRET", "client-secret"}});
        return folder;
    }
    /// Runs the application of `bundleFolder` to the end of `app_run`; its output.
    std::string run(const fs::path& bundleFolder, const std::string& group = "-", int events = 1) {
        std::string out;
        EXPECT_EQ(runHelper({"app_run", "-", environment(), bundleFolder.string(), group,
                             std::to_string(events)},
                            &out),
                  0)
            << out;
        return out;
    }
    /// The events the server received so far, in order.
    std::vector<json> received() const {
        std::vector<json> all;
        std::ifstream in(events());
        for (std::string line; std::getline(in, line);)
            all.push_back(json::parse(line));
        return all;
    }
    std::vector<std::string> actorsOf(const std::string& name) const {
        std::vector<std::string> actors;
        for (const auto& event : received())
            if (event["name"] == name)
                actors.push_back(event.value("actorId", ""));
        return actors;
    }

    TempDir temp_;
    std::unique_ptr<ChildProcess> serve_;
    std::string url_;
};

TEST_F(DataFolderTest, TwoApplicationsKeepTheirOwnIdentityQueueAndInstallAndEachSendsInstall) {
    // The shared folder of an earlier release, with an identity and a database in it.
    fs::create_directories(tree() / "Preferences");
    std::ofstream(tree() / "Preferences" / "standard.json") << R"({"actorId":"earlier-actor"})";
    std::ofstream(tree() / "TarnDatabase.sqlite") << "earlier database";
    const auto earlier = contentsOf(tree());
    auto alpha = bundle("com.example.alpha"), beta = bundle("com.example.beta");

    // Alpha keeps two events without sending them; beta then runs and must not send them.
    std::string out;
    ASSERT_EQ(runHelper({"store_pending", "-", environment(), alpha.string(), "2"}, &out), 0);
    EXPECT_EQ(field(out, "data"), (tree() / "com.example.alpha").string());
    const std::string moved =
        "Tarn-DataDirectory: Data of an earlier release is left in the "
        "shared folder " +
        tree().string() + "; this application's data is now kept in ";
    EXPECT_EQ(occurrences(out, moved + (tree() / "com.example.alpha").string() + ".;"), 1u) << out;
    auto betaFirst = run(beta);
    EXPECT_EQ(occurrences(betaFirst, moved + (tree() / "com.example.beta").string() + ".;"), 1u);
    EXPECT_EQ(field(betaFirst, "install"), "first");
    EXPECT_TRUE(actorsOf("pending-0").empty()) << betaFirst;
    auto alphaFirst = run(alpha);
    EXPECT_EQ(field(alphaFirst, "install"), "first");
    const auto alphaActor = field(alphaFirst, "actor"), betaActor = field(betaFirst, "actor");
    EXPECT_FALSE(alphaActor.empty());
    EXPECT_FALSE(betaActor.empty());
    EXPECT_NE(alphaActor, betaActor);
    EXPECT_NE(alphaActor, "earlier-actor");
    for (const auto& name : {"pending-0", "pending-1"}) {
        EXPECT_EQ(actorsOf(name).size(), 1u) << name;
        EXPECT_EQ(occurrences(alphaFirst, std::string("name: ") + name + ", response code : 200;"),
                  1u);
    }

    // Each keeps its identity and install flag in a new process: no second install.
    auto alphaAgain = run(alpha), betaAgain = run(beta);
    EXPECT_EQ(field(alphaAgain, "actor"), alphaActor);
    EXPECT_EQ(field(betaAgain, "actor"), betaActor);
    EXPECT_EQ(field(alphaAgain, "install"), "already");
    EXPECT_EQ(field(betaAgain, "install"), "already");
    auto installs = actorsOf("install");
    EXPECT_EQ(std::multiset<std::string>(installs.begin(), installs.end()),
              (std::multiset<std::string>{alphaActor, betaActor}));
    EXPECT_EQ(actorsOf("last"),
              (std::vector<std::string>{betaActor, alphaActor, alphaActor, betaActor}));

    // The earlier release's files are as they were; everything new is private.
    for (const auto& [path, size] : earlier)
        EXPECT_EQ(contentsOf(tree())[path], size) << path;
    EXPECT_EQ(readText(tree() / "Preferences" / "standard.json"), R"({"actorId":"earlier-actor"})");
    for (const auto& id : {"com.example.alpha", "com.example.beta"}) {
        auto folder = tree() / id;
        EXPECT_EQ(modeOf(folder), 0700u) << folder;
        EXPECT_EQ(modeOf(folder / "Preferences"), 0700u);
        EXPECT_THAT(
            readText(folder / "Preferences" / "standard.json"),
            testing::HasSubstr(id == std::string("com.example.alpha") ? alphaActor : betaActor));
        for (const auto& [path, size] : contentsOf(folder))
            EXPECT_EQ(modeOf(path), fs::is_directory(path) ? 0700u : 0600u) << path;
        EXPECT_TRUE(fs::exists(folder / "TarnDatabase.sqlite"));
    }
}

TEST_F(DataFolderTest, ProcessesOfOneAppGroupShareItsPreferencesAndNothingElse) {
    const std::string shared = "group.com.example.shared";
    auto host = bundle("com.example.host"), widget = bundle("com.example.widget"),
         other = bundle("com.example.other");
    std::string out;
    ASSERT_EQ(runHelper({"store_pending", "-", environment(), host.string(), "1"}, &out), 0);
    auto widgetRun = run(widget, shared);  // first of the group: installs
    auto hostRun = run(host, shared);      // same group: the widget's identity, no install
    auto otherRun = run(other, "group.com.example.other");
    EXPECT_EQ(field(widgetRun, "install"), "first");
    EXPECT_EQ(field(hostRun, "install"), "already");
    EXPECT_EQ(field(otherRun, "install"), "first");
    const auto groupActor = field(widgetRun, "actor");
    EXPECT_EQ(field(hostRun, "actor"), groupActor);
    EXPECT_NE(field(otherRun, "actor"), groupActor);
    EXPECT_EQ(actorsOf("install"),
              (std::vector<std::string>{groupActor, field(otherRun, "actor")}));
    // The host's queue stayed its own: its pending event went out once, from the host.
    EXPECT_EQ(actorsOf("pending-0").size(), 1u);
    EXPECT_EQ(occurrences(hostRun, "name: pending-0, response code : 200;"), 1u) << hostRun;
    auto lasts = actorsOf("last");
    ASSERT_EQ(lasts.size(), 3u);

    auto groupFile = tree() / "groups" / shared / "Preferences.json";
    EXPECT_THAT(readText(groupFile), testing::HasSubstr(groupActor));
    EXPECT_EQ(modeOf(groupFile), 0600u);
    EXPECT_EQ(modeOf(tree() / "groups" / shared), 0700u);
    EXPECT_EQ(modeOf(tree() / "groups"), 0700u);
    // Nothing of the group is in the applications' own stores.
    for (const auto& id : {"com.example.host", "com.example.widget"})
        EXPECT_THAT(readText(tree() / id / "Preferences" / "standard.json"),
                    testing::Not(testing::HasSubstr(groupActor)))
            << id;
}

/// A probe host (`probe` helper command) in homes the test prepares.
class HostileFolderTest : public ::testing::Test {
  protected:
    static constexpr const char* kId = "com.example.probe";
    /// A fresh home; its tree is "<home>/data/TarniOSCommonKit".
    fs::path newHome() {
        auto home = temp_.path() / ("home-" + std::to_string(++homes_));
        fs::create_directories(home / "data");
        return home;
    }
    static fs::path treeOf(const fs::path& home) { return home / "data" / "TarniOSCommonKit"; }
    /// Runs the probe with `environment` (default: the home's data folder); its output.
    std::string probe(const fs::path& home, std::string environment = {},
                      const std::string& id = kId) {
        if (environment.empty())
            environment = "XDG_DATA_HOME=" + (home / "data").string();
        auto bundle = temp_.path() / ("bundle-" + std::to_string(++homes_));
        writeInfoPlist(bundle, id);
        std::string out;
        EXPECT_EQ(runHelper({"probe", "-", environment, bundle.string()}, &out), 0);
        return out;
    }
    static std::string refusedLine(const fs::path& folder, const std::string& reason) {
        return kRefused + folder.string() + " is refused for the library's data: " + reason +
               ". Nothing is saved in it.;";
    }
    /// A folder outside every tree that a planted link points at.
    fs::path elsewhere() {
        auto folder = temp_.path() / ("elsewhere-" + std::to_string(++homes_));
        fs::create_directories(folder);
        return folder;
    }

    TempDir temp_;
    int homes_ = 0;
};

// Each hostile folder of the tree is refused with one line, and the probe then runs as with a
// folder it cannot write: nothing kept, the store's usual failure line, nothing written anywhere.
TEST_F(HostileFolderTest, LinkedForeignAndOpenFoldersAreRefusedAndNothingIsWrittenThroughThem) {
    const std::string storeFailed = "Tarn-CoreDataManager: ❌ Loading of store failed:";
    struct Case {
        std::string name;
        std::function<fs::path(const fs::path& tree, const fs::path& target)> plant;
        std::string reason;
    };
    std::vector<Case> cases = {
        {"application folder linked",
         [](auto& tree, auto& target) {
             fs::create_directories(tree);
             fs::create_directory_symlink(target, tree / kId);
             return tree / kId;
         },
         "it is a symbolic link"},
        {"tree linked",
         [](auto& tree, auto& target) {
             fs::create_directory_symlink(target, tree);
             return tree;
         },
         "it is a symbolic link"},
        {"application folder open to all",
         [](auto& tree, auto&) {
             fs::create_directories(tree / kId);
             ::chmod((tree / kId).c_str(), 0777);
             return tree / kId;
         },
         "other users can write to it (mode 0777)"},
        {"tree writable by its group",
         [](auto& tree, auto&) {
             fs::create_directories(tree);
             ::chmod(tree.c_str(), 0770);
             return tree;
         },
         "other users can write to it (mode 0770)"},
    };
    if (::geteuid() == 0)
        cases.push_back({"application folder of another user",
                         [](auto& tree, auto&) {
                             fs::create_directories(tree / kId);
                             EXPECT_EQ(::chown((tree / kId).c_str(), 65534, 65534), 0);
                             return tree / kId;
                         },
                         "it belongs to another user (uid 65534)"});
    else
        std::printf("not root: a folder of another user cannot be made, that case is left out\n");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto home = newHome();
        auto target = elsewhere();
        auto refused = c.plant(treeOf(home), target);
        auto before = contentsOf(home);
        auto out = probe(home);
        EXPECT_EQ(occurrences(out, refusedLine(refused, c.reason)), 1u) << out;
        EXPECT_EQ(field(out, "pref"), "0");
        EXPECT_EQ(field(out, "event"), "0");
        EXPECT_EQ(occurrences(out, storeFailed), 1u) << out;
        EXPECT_TRUE(contentsOf(target).empty());
        // The groups live beside the applications: a refused application folder leaves them
        // usable, a refused tree does not.
        const bool treeRefused = refused == treeOf(home);
        EXPECT_EQ(field(out, "group-pref"), treeRefused ? "0" : "1");
        auto after = contentsOf(home);
        std::erase_if(after, [&](const auto& entry) {
            return !treeRefused && entry.first.rfind((treeOf(home) / "groups").string(), 0) == 0;
        });
        EXPECT_EQ(after, before) << "written in or beside a refused folder";
    }

    // A linked "groups" folder: the group's store is refused (the standard store is used, as
    // for a group store that cannot be opened); the application's own data is kept.
    auto home = newHome();
    auto target = elsewhere();
    fs::create_directories(treeOf(home));
    fs::create_directory_symlink(target, treeOf(home) / "groups");
    auto out = probe(home);
    EXPECT_EQ(occurrences(out, refusedLine(treeOf(home) / "groups", "it is a symbolic link")), 1u)
        << out;
    EXPECT_EQ(field(out, "pref"), "1");
    EXPECT_EQ(field(out, "group-pref"), "0");
    EXPECT_EQ(field(out, "event"), "1");
    EXPECT_TRUE(contentsOf(target).empty());
}

// A link planted in place of one of the library's files is not followed: its target is neither
// created nor changed.
TEST_F(HostileFolderTest, LinksPlantedInPlaceOfFilesAreNotFollowed) {
    const std::string storeFailed = "Tarn-CoreDataManager: ❌ Loading of store failed:";
    auto prepared = [&](const fs::path& home) {
        auto folder = treeOf(home) / kId;
        fs::create_directories(folder / "Preferences");
        return folder;
    };
    {  // the database file, pointing where nothing is yet
        auto home = newHome();
        auto victim = elsewhere() / "victim.sqlite";
        fs::create_symlink(victim, prepared(home) / "TarnDatabase.sqlite");
        auto out = probe(home);
        EXPECT_EQ(occurrences(out, storeFailed), 1u) << out;
        EXPECT_EQ(field(out, "event"), "0");
        EXPECT_EQ(field(out, "pref"), "1");
        EXPECT_FALSE(fs::exists(victim));
    }
    {  // its write-ahead log, pointing at a file of the user's
        auto home = newHome();
        auto victim = elsewhere() / "notes.txt";
        std::ofstream(victim) << "keep";
        fs::create_symlink(victim, prepared(home) / "TarnDatabase.sqlite-wal");
        auto out = probe(home);
        EXPECT_EQ(occurrences(out, storeFailed + "The store's file " +
                                       (treeOf(home) / kId / "TarnDatabase.sqlite-wal").string() +
                                       " is a symbolic link, which is not followed;"),
                  1u)
            << out;
        EXPECT_EQ(field(out, "event"), "0");
        EXPECT_EQ(readText(victim), "keep");
        EXPECT_EQ(modeOf(victim), 0644u);
    }
    {  // the standard preference file, pointing at another store
        auto home = newHome();
        auto victim = elsewhere() / "other.json";
        std::ofstream(victim) << R"({"probe":"victim"})";
        fs::create_symlink(victim, prepared(home) / "Preferences" / "standard.json");
        auto out = probe(home);
        EXPECT_EQ(field(out, "read"), "-") << "read through the link";
        EXPECT_EQ(occurrences(out, "Tarn-PreferenceStore: The preference file " +
                                       (treeOf(home) / kId / "Preferences" / "standard.json")
                                           .string() +
                                       " is a symbolic link, which is not followed; it is neither "
                                       "read nor written;"),
                  1u)
            << out;
        EXPECT_EQ(field(out, "pref"), "0");
        EXPECT_EQ(field(out, "event"), "1");
        EXPECT_EQ(readText(victim), R"({"probe":"victim"})");
        EXPECT_TRUE(fs::is_symlink(treeOf(home) / kId / "Preferences" / "standard.json"));
    }
    {  // its lock file, pointing where nothing is yet: the value is still kept
        auto home = newHome();
        auto victim = elsewhere() / "lock";
        fs::create_symlink(victim, prepared(home) / "Preferences" / "standard.json.lock");
        auto out = probe(home);
        EXPECT_EQ(field(out, "pref"), "1");
        EXPECT_FALSE(fs::exists(victim));
    }
}

// Without a home the data goes to the runtime folder, else to a fresh private folder of the
// process; ids become one folder name inside the tree.
TEST_F(HostileFolderTest, WithoutAHomeTheFolderIsPrivateAndNeverAPredictableName) {
    auto home = newHome();
    auto runtime = temp_.path() / "runtime";
    fs::create_directories(runtime);
    auto out = probe(home, "XDG_DATA_HOME=;HOME=;XDG_RUNTIME_DIR=" + runtime.string());
    EXPECT_EQ(field(out, "data"), (runtime / "TarniOSCommonKit" / kId).string());
    EXPECT_EQ(field(out, "pref"), "1");

    auto tmp = temp_.path() / "tmp";
    fs::create_directories(tmp);
    const std::string noHome = "XDG_DATA_HOME=;HOME=;XDG_RUNTIME_DIR=;TMPDIR=" + tmp.string();
    fs::path first = field(probe(home, noHome), "data"),
             second = field(probe(home, noHome), "data");
    EXPECT_NE(first.parent_path(), second.parent_path());
    for (const auto& folder : {first, second}) {
        EXPECT_EQ(folder.parent_path().parent_path(), tmp) << folder;
        EXPECT_EQ(folder.parent_path().filename().string().rfind("TarniOSCommonKit-", 0), 0u);
        EXPECT_NE(folder.parent_path().filename(),
                  "TarniOSCommonKit-" + std::to_string(::getuid()));
        EXPECT_EQ(modeOf(folder.parent_path()), 0700u);
        EXPECT_EQ(modeOf(folder), 0700u);
        EXPECT_TRUE(fs::exists(folder / "TarnDatabase.sqlite"));
    }

    // A relative XDG_DATA_HOME is ignored; an id that is no folder name stays one name.
    auto out2 = probe(home, "XDG_DATA_HOME=relative;HOME=" + home.string(), "../groups/a b");
    auto tree = home / ".local" / "share" / "TarniOSCommonKit";
    EXPECT_EQ(field(out2, "app"), "../groups/a b");
    EXPECT_EQ(field(out2, "data"), (tree / "%2E.%2Fgroups%2Fa%20b").string());
    EXPECT_EQ(field(probe(home, "HOME=" + home.string(), "groups"), "data"),
              (tree / "%67roups").string());
    EXPECT_FALSE(fs::exists(home / "relative"));
}

}  // namespace
}  // namespace tarn::test
