#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "support/TestSupport.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/PreferenceStore.h"
#include "tarn/platform/PropertyList.h"

using namespace tarn;
using tarn::test::TarnTest;

class PreferenceStoreTest : public TarnTest {};

TEST_F(PreferenceStoreTest, KeepsTypedValuesAcrossInstancesWithPrivateMode) {
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

    struct stat st {};
    ASSERT_EQ(::stat(store->file().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
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
