#include <gtest/gtest.h>

#include <sys/utsname.h>

#include <cstdlib>
#include <set>
#include <thread>
#include <vector>

#include "support/TestSupport.h"
#include "tarn/device/DeviceModel.h"

using namespace tarn;

namespace {

// Every hardware identifier the model table must know, in table order.
const std::vector<std::string> kIdentifiers = {
    "iPod5,1",    "iPod7,1",           "iPod9,1",           "iPhone3,1",  "iPhone3,2",
    "iPhone3,3",  "iPhone4,1",         "iPhone5,1",         "iPhone5,2",  "iPhone5,3",
    "iPhone5,4",  "iPhone6,1",         "iPhone6,2",         "iPhone7,2",  "iPhone7,1",
    "iPhone8,1",  "iPhone8,2",         "iPhone9,1",         "iPhone9,3",  "iPhone9,2",
    "iPhone9,4",  "iPhone10,1",        "iPhone10,4",        "iPhone10,2", "iPhone10,5",
    "iPhone10,3", "iPhone10,6",        "iPhone11,2",        "iPhone11,4", "iPhone11,6",
    "iPhone11,8", "iPhone12,1",        "iPhone12,3",        "iPhone12,5", "iPhone13,1",
    "iPhone13,2", "iPhone13,3",        "iPhone13,4",        "iPhone14,4", "iPhone14,5",
    "iPhone14,2", "iPhone14,3",        "iPhone14,7",        "iPhone14,8", "iPhone15,2",
    "iPhone15,3", "iPhone8,4",         "iPhone12,8",        "iPhone14,6", "iPad2,1",
    "iPad2,2",    "iPad2,3",           "iPad2,4",           "iPad3,1",    "iPad3,2",
    "iPad3,3",    "iPad3,4",           "iPad3,5",           "iPad3,6",    "iPad6,11",
    "iPad6,12",   "iPad7,5",           "iPad7,6",           "iPad7,11",   "iPad7,12",
    "iPad11,6",   "iPad11,7",          "iPad12,1",          "iPad12,2",   "iPad13,18",
    "iPad13,19",  "iPad4,1",           "iPad4,2",           "iPad4,3",    "iPad5,3",
    "iPad5,4",    "iPad11,3",          "iPad11,4",          "iPad13,1",   "iPad13,2",
    "iPad13,16",  "iPad13,17",         "iPad2,5",           "iPad2,6",    "iPad2,7",
    "iPad4,4",    "iPad4,5",           "iPad4,6",           "iPad4,7",    "iPad4,8",
    "iPad4,9",    "iPad5,1",           "iPad5,2",           "iPad11,1",   "iPad11,2",
    "iPad14,1",   "iPad14,2",          "iPad6,3",           "iPad6,4",    "iPad7,3",
    "iPad7,4",    "iPad8,1",           "iPad8,2",           "iPad8,3",    "iPad8,4",
    "iPad8,9",    "iPad8,10",          "iPad13,4",          "iPad13,5",   "iPad13,6",
    "iPad13,7",   "iPad14,3",          "iPad14,4",          "iPad6,7",    "iPad6,8",
    "iPad7,1",    "iPad7,2",           "iPad8,5",           "iPad8,6",    "iPad8,7",
    "iPad8,8",    "iPad8,11",          "iPad8,12",          "iPad13,8",   "iPad13,9",
    "iPad13,10",  "iPad13,11",         "iPad14,5",          "iPad14,6",   "AppleTV5,3",
    "AppleTV6,2", "AudioAccessory1,1", "AudioAccessory5,1",
};

std::string expectedPrefix(const std::string& identifier) {
    if (identifier.rfind("iPod", 0) == 0)
        return "iPod touch";
    if (identifier.rfind("iPhone", 0) == 0)
        return "iPhone";
    if (identifier.rfind("iPad", 0) == 0)
        return "iPad";
    if (identifier.rfind("AppleTV", 0) == 0)
        return "Apple TV";
    if (identifier.rfind("AudioAccessory", 0) == 0)
        return "HomePod";
    return "?";
}

}  // namespace

TEST(DeviceModel, TableListsEveryIdentifierInOrderWithMarketingNames) {
    std::vector<std::string> inTable;
    std::set<std::string_view> names;
    for (const auto& row : deviceModelTable()) {
        EXPECT_FALSE(row.identifiers.empty());
        names.insert(row.name);
        for (auto id : row.identifiers)
            inTable.emplace_back(id);
    }
    EXPECT_EQ(inTable, kIdentifiers);
    EXPECT_EQ(names.size(), deviceModelTable().size()) << "every row has its own name";

    for (const auto& id : kIdentifiers) {
        auto name = modelNameForIdentifier(id, std::nullopt);
        EXPECT_NE(name, id);
        EXPECT_EQ(name.rfind(expectedPrefix(id), 0), 0u) << id << " -> " << name;
        EXPECT_EQ(name.find(','), std::string::npos) << id << " -> " << name;
    }

    // The rows whose names are fixed, and the manufacturer's style of the others.
    const std::vector<std::pair<std::string, std::string>> fixed = {
        {"iPod5,1", "iPod touch (5th generation)"},
        {"iPod9,1", "iPod touch (7th generation)"},
        {"iPhone5,1", "iPhone 5"},
        {"iPhone3,1", "iPhone 4"},
        {"iPhone3,2", "iPhone 4"},
        {"iPhone3,3", "iPhone 4"},
        {"iPad14,5", "iPad Pro (12.9-inch) (6th generation)"},
        {"iPad14,6", "iPad Pro (12.9-inch) (6th generation)"},
        {"AppleTV5,3", "Apple TV"},
        {"AppleTV6,2", "Apple TV 4K"},
        {"AudioAccessory1,1", "HomePod"},
        {"AudioAccessory5,1", "HomePod mini"},
        {"iPad13,4", "iPad Pro (11-inch) (3rd generation)"},
        {"iPad14,1", "iPad mini (6th generation)"},
        {"iPhone14,6", "iPhone SE (3rd generation)"},
    };
    for (const auto& [id, name] : fixed)
        EXPECT_EQ(modelNameForIdentifier(id, std::nullopt), name) << id;
    // "iPhone5,1" heads its row, which holds more than one identifier.
    EXPECT_EQ(deviceModelTable()[5].identifiers.front(), "iPhone5,1");
    EXPECT_GT(deviceModelTable()[5].identifiers.size(), 1u);
}

TEST(DeviceModel, SimulatorAndUnknownIdentifiers) {
    EXPECT_EQ(modelNameForIdentifier("x86_64", std::string("iPod9,1")),
              "Simulator iPod touch (7th generation)");
    EXPECT_EQ(modelNameForIdentifier("arm64", std::string("iPhone14,6")),
              "Simulator iPhone SE (3rd generation)");
    EXPECT_EQ(modelNameForIdentifier("i386", std::nullopt), "Simulator iOS");
    EXPECT_EQ(modelNameForIdentifier("arm64", std::nullopt), "Simulator iOS");
    EXPECT_EQ(modelNameForIdentifier("x86_64", std::string("iPhone99,1")), "Simulator iPhone99,1");
    EXPECT_EQ(modelNameForIdentifier("iPhone99,1", std::string("iPod9,1")), "iPhone99,1");
    EXPECT_EQ(modelNameForIdentifier("aarch64", std::nullopt), "aarch64");
    EXPECT_EQ(modelNameForIdentifier("", std::nullopt), "");
}

// The process's own values: the uname machine field through the table, read by a second process
// with and without the simulator variable; in this process, computed once under concurrent first
// use.
TEST(DeviceModel, ProcessValuesComeFromUnameOnceAcrossThreads) {
    utsname names{};
    ASSERT_EQ(::uname(&names), 0);
    std::string machine = names.machine;

    ::unsetenv("SIMULATOR_MODEL_IDENTIFIER");
    std::string output;
    ASSERT_EQ(test::runHelper({"device_model"}, &output), 0);
    EXPECT_EQ(output, modelNameForIdentifier(machine, std::nullopt) + "\n" + names.release + "\n");
    ASSERT_EQ(test::runHelper({"device_model"}, &output, {"SIMULATOR_MODEL_IDENTIFIER=iPod9,1"}),
              0);
    auto withVariable = modelNameForIdentifier(machine, std::string("iPod9,1"));
    EXPECT_EQ(output, withVariable + "\n" + names.release + "\n");
    if (machine == "x86_64") {
        EXPECT_EQ(withVariable, "Simulator iPod touch (7th generation)");
    }

    ::setenv("SIMULATOR_MODEL_IDENTIFIER", "iPad14,1", 1);
    std::vector<const std::string*> models(8), versions(8);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < models.size(); ++i) {
        threads.emplace_back([&, i] {
            models[i] = &modelName();
            versions[i] = &osVersion();
        });
    }
    for (auto& t : threads)
        t.join();
    for (std::size_t i = 0; i < models.size(); ++i) {
        EXPECT_EQ(models[i], models[0]);
        EXPECT_EQ(versions[i], versions[0]);
    }
    EXPECT_EQ(*models[0], modelNameForIdentifier(machine, std::string("iPad14,1")));
    EXPECT_EQ(*versions[0], names.release);
    // Cached: a later change of the environment does not move the value.
    ::setenv("SIMULATOR_MODEL_IDENTIFIER", "iPod5,1", 1);
    EXPECT_EQ(&modelName(), models[0]);
    EXPECT_EQ(modelName(), modelNameForIdentifier(machine, std::string("iPad14,1")));
    ::unsetenv("SIMULATOR_MODEL_IDENTIFIER");
}
