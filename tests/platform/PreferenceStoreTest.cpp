#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "support/TestSupport.h"
#include "tarn/platform/PreferenceStore.h"
#include "tarn/platform/PropertyList.h"

using namespace tarn;
namespace fs = std::filesystem;

using PreferenceStoreTest = test::TarnTest;

// Suites apart from the standard store and shared across processes: IdentityTest's app-group case.
// An unreadable file set aside, its bytes kept: HostileInputTest's deep preference files.
// At first the folder's path runs through a regular file, so nothing can be written (even as root):
// the changes are kept and written with the first one that can be.
TEST_F(PreferenceStoreTest, KeepsTypedValuesUnwrittenChangesAndSeesOtherWriters) {
    auto folder = dataDir() / "Preferences";
    std::ofstream(folder) << "not a folder";
    auto store = PreferenceStore::standard();
    EXPECT_FALSE(store->set("s", "text"));
    EXPECT_FALSE(store->set("b", true));
    EXPECT_FALSE(store->set("i", std::int64_t{-7}));
    EXPECT_FALSE(store->set("gone", "x"));
    EXPECT_FALSE(store->remove("gone"));
    EXPECT_FALSE(store->string("gone"));
    EXPECT_EQ(store->string("s"), "text");  // a later write does not drop an earlier unsaved one
    EXPECT_EQ(store->boolean("b"), true);
    EXPECT_EQ(store->integer("i"), -7);
    // Typed reads refuse other types.
    EXPECT_FALSE(store->integer("s"));
    EXPECT_FALSE(store->boolean("i"));
    EXPECT_FALSE(store->string("b"));

    fs::remove(folder);
    EXPECT_TRUE(store->set("c", std::int64_t{3}));
    // A second object on the same file (as in another process) sees the values, and the first
    // notices its changes on disk.
    PreferenceStore other(store->file());
    EXPECT_EQ(other.string("s"), "text");
    EXPECT_EQ(other.boolean("b"), true);
    EXPECT_EQ(other.integer("c"), 3);
    EXPECT_FALSE(other.string("gone"));
    other.set("i", std::int64_t{3});
    EXPECT_EQ(store->integer("i"), 3);
    store->remove("s");
    EXPECT_FALSE(other.string("s"));
    EXPECT_FALSE(PreferenceStore::suite(""));
    EXPECT_FALSE(PreferenceStore::suite("../escape"));
}

TEST_F(PreferenceStoreTest, LeftoverTemporaryFilesAreRemovedWhenTheStoreStarts) {
    auto folder = dataDir() / "Preferences";
    fs::create_directories(folder);
    pid_t gone = ::fork();
    if (gone == 0)
        ::_exit(0);
    ASSERT_GT(gone, 0);
    ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
    const std::string dead = std::to_string(gone), self = std::to_string(::getpid());
    auto make = [&](const fs::path& name, std::chrono::minutes age = {}) {
        std::ofstream(folder / name) << "{}";
        fs::last_write_time(folder / name, fs::file_time_type::clock::now() - age);
        return folder / name;
    };
    auto deadWriter = make("standard.json.tmp." + dead);
    auto oldWriter = make("standard.json.tmp." + self, std::chrono::minutes(2));
    // A group's store is "groups/<group>/Preferences.json" beside the standard store's folder.
    fs::create_directories(dataDir() / "groups" / "group.a");
    auto groupDead = make(fs::path("..") / "groups" / "group.a" / ("Preferences.json.tmp." + dead));
    auto liveWriter =
        make(fs::path("..") / "groups" / "group.a" / ("Preferences.json.tmp." + self));
    auto notOurs = make("standard.json.tmp.notapid", std::chrono::minutes(5));

    PreferenceStore::standard();
    EXPECT_FALSE(fs::exists(deadWriter));
    EXPECT_FALSE(fs::exists(oldWriter));
    EXPECT_TRUE(fs::exists(groupDead));  // that store has not started yet
    PreferenceStore::suite("group.a");
    EXPECT_FALSE(fs::exists(groupDead));
    EXPECT_TRUE(fs::exists(liveWriter));  // a live process, written just now
    EXPECT_TRUE(fs::exists(notOurs));
}

// Refusing unreadable bytes, and the bundle's files: InitializeTest and HostileInputTest.
TEST(PropertyList, XmlAndBinaryFormsKeepEveryValueType) {
    nlohmann::json values = {
        {"DOMAIN", "http://x"}, {"N", 5}, {"F", 1.5}, {"B", true}, {"L", {"a", "b"}}};
    for (bool binary : {false, true})
        EXPECT_EQ(parsePropertyList(writePropertyList(values, binary)), values) << binary;
}
