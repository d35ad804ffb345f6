#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "support/TestSupport.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/PreferenceStore.h"
#include "tarn/platform/PropertyList.h"

using namespace tarn;
using tarn::test::TarnTest;

class PreferenceStoreTest : public TarnTest {};

TEST_F(PreferenceStoreTest, KeepsTypedValuesAcrossInstances) {
    auto store = PreferenceStore::standard();
    store->set("s", "text");
    store->set("b", true);
    store->set("i", std::int64_t{-7});
    EXPECT_EQ(store->string("s"), "text");
    EXPECT_EQ(store->boolean("b"), true);
    EXPECT_EQ(store->integer("i"), -7);
    // Typed reads refuse other types.
    EXPECT_FALSE(store->integer("s"));
    EXPECT_FALSE(store->boolean("i"));
    EXPECT_FALSE(store->string("b"));

    // A second object on the same file (as in another process) sees the values.
    PreferenceStore other(store->file());
    EXPECT_EQ(other.string("s"), "text");
    other.set("i", std::int64_t{3});
    EXPECT_EQ(store->integer("i"), 3);  // the first notices the change on disk
    store->remove("s");
    EXPECT_FALSE(other.string("s"));
}

TEST_F(PreferenceStoreTest, SuitesAreSeparateFilesAndBadNamesCannotOpen) {
    auto group = PreferenceStore::suite("group.com.example");
    ASSERT_TRUE(group);
    group->set("actorId", "A");
    EXPECT_FALSE(PreferenceStore::standard()->string("actorId"));
    EXPECT_EQ(PreferenceStore::suite("group.com.example")->string("actorId"), "A");
    EXPECT_FALSE(PreferenceStore::suite(""));
    EXPECT_FALSE(PreferenceStore::suite("../escape"));
}

TEST_F(PreferenceStoreTest, AnUnreadableFileIsMovedAsideNotOverwritten) {
    auto file = dataDir() / "Preferences" / "standard.json";
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << "{ not json";
    auto store = PreferenceStore::standard();
    EXPECT_FALSE(store->string("x"));
    store->set("x", "y");
    EXPECT_TRUE(std::filesystem::exists(file.string() + ".corrupt"));
    EXPECT_EQ(PreferenceStore(file).string("x"), "y");
}

TEST_F(PreferenceStoreTest, LeftoverTemporaryFilesAreRemovedWhenTheStoreStarts) {
    auto folder = dataDir() / "Preferences";
    std::filesystem::create_directories(folder);
    pid_t gone = ::fork();
    if (gone == 0) {
        ::_exit(0);
    }
    ASSERT_GT(gone, 0);
    ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
    const std::string self = std::to_string(::getpid());
    auto make = [&](const std::string& name, std::chrono::minutes age = {}) {
        std::ofstream(folder / name) << "{}";
        std::filesystem::last_write_time(folder / name,
                                         std::filesystem::file_time_type::clock::now() - age);
        return folder / name;
    };
    auto deadWriter = make("standard.json.tmp." + std::to_string(gone));
    auto oldWriter = make("standard.json.tmp." + self, std::chrono::minutes(2));
    auto groupDead = make("group.a.json.tmp." + std::to_string(gone));
    auto liveWriter = make("group.a.json.tmp." + self);
    auto notOurs = make("standard.json.tmp.notapid", std::chrono::minutes(5));

    PreferenceStore::standard();
    EXPECT_FALSE(std::filesystem::exists(deadWriter));
    EXPECT_FALSE(std::filesystem::exists(oldWriter));
    EXPECT_TRUE(std::filesystem::exists(groupDead));  // that store has not started yet
    PreferenceStore::suite("group.a");
    EXPECT_FALSE(std::filesystem::exists(groupDead));
    EXPECT_TRUE(std::filesystem::exists(liveWriter));  // a live process, written just now
    EXPECT_TRUE(std::filesystem::exists(notOurs));
}

// The folder's path runs through a regular file, so nothing can be written (even as root).
TEST_F(PreferenceStoreTest, ChangesThatCannotBeWrittenAreKeptAndWrittenLater) {
    auto folder = dataDir() / "Preferences";
    std::ofstream(folder) << "not a folder";
    auto store = PreferenceStore::standard();
    EXPECT_FALSE(store->set("a", "1"));
    EXPECT_FALSE(store->set("b", true));
    EXPECT_FALSE(store->set("gone", "x"));
    EXPECT_FALSE(store->remove("gone"));
    EXPECT_FALSE(store->string("gone"));
    EXPECT_EQ(store->string("a"), "1");  // a later write does not drop an earlier unsaved one
    EXPECT_EQ(store->boolean("b"), true);

    std::filesystem::remove(folder);
    EXPECT_TRUE(store->set("c", std::int64_t{3}));
    PreferenceStore reader(store->file());
    EXPECT_EQ(reader.string("a"), "1");
    EXPECT_EQ(reader.boolean("b"), true);
    EXPECT_EQ(reader.integer("c"), 3);
    EXPECT_FALSE(reader.string("gone"));
}

TEST(PropertyList, ReadsXmlAndBinaryAndRefusesGarbage) {
    nlohmann::json values = {
        {"DOMAIN", "http://x"}, {"N", 5}, {"F", 1.5}, {"B", true}, {"L", {"a", "b"}}};
    for (bool binary : {false, true}) {
        auto parsed = parsePropertyList(writePropertyList(values, binary));
        ASSERT_TRUE(parsed);
        EXPECT_EQ(*parsed, values);
    }
    std::string error;
    EXPECT_FALSE(parsePropertyList("hello", &error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(parsePropertyList("<plist><dict><key>a</key>"));
}

TEST_F(PreferenceStoreTest, BundleReadsItsIdentifierAndResources) {
    test::writeInfoPlist(bundleDir(), "com.example.app");
    Bundle bundle(bundleDir());
    EXPECT_EQ(bundle.bundleIdentifier(), "com.example.app");
    EXPECT_TRUE(bundle.pathForResource("Info", "plist"));
    EXPECT_FALSE(bundle.pathForResource("Missing", "plist"));
    EXPECT_EQ(Bundle::main().path(), bundleDir());
    EXPECT_FALSE(Bundle(dataDir()).bundleIdentifier());
}
