#include <gtest/gtest.h>

#include <sys/utsname.h>

#include <cstdlib>
#include <iterator>
#include <sstream>
#include <thread>
#include <vector>

#include "support/TestSupport.h"
#include "tarn/device/DeviceModel.h"

using namespace tarn;

namespace {

// Every hardware identifier the model table must know, in table order.
std::vector<std::string> identifiers() {
    std::istringstream text(
        "iPod5,1 iPod7,1 iPod9,1 iPhone3,1 iPhone3,2 iPhone3,3 iPhone4,1 iPhone5,1 iPhone5,2 "
        "iPhone5,3 iPhone5,4 iPhone6,1 iPhone6,2 iPhone7,2 iPhone7,1 iPhone8,1 iPhone8,2 "
        "iPhone9,1 iPhone9,3 iPhone9,2 iPhone9,4 iPhone10,1 iPhone10,4 iPhone10,2 iPhone10,5 "
        "iPhone10,3 iPhone10,6 iPhone11,2 iPhone11,4 iPhone11,6 iPhone11,8 iPhone12,1 iPhone12,3 "
        "iPhone12,5 iPhone13,1 iPhone13,2 iPhone13,3 iPhone13,4 iPhone14,4 iPhone14,5 iPhone14,2 "
        "iPhone14,3 iPhone14,7 iPhone14,8 iPhone15,2 iPhone15,3 iPhone8,4 iPhone12,8 iPhone14,6 "
        "iPad2,1 iPad2,2 iPad2,3 iPad2,4 iPad3,1 iPad3,2 iPad3,3 iPad3,4 iPad3,5 iPad3,6 "
        "iPad6,11 iPad6,12 iPad7,5 iPad7,6 iPad7,11 iPad7,12 iPad11,6 iPad11,7 iPad12,1 iPad12,2 "
        "iPad13,18 iPad13,19 iPad4,1 iPad4,2 iPad4,3 iPad5,3 iPad5,4 iPad11,3 iPad11,4 iPad13,1 "
        "iPad13,2 iPad13,16 iPad13,17 iPad2,5 iPad2,6 iPad2,7 iPad4,4 iPad4,5 iPad4,6 iPad4,7 "
        "iPad4,8 iPad4,9 iPad5,1 iPad5,2 iPad11,1 iPad11,2 iPad14,1 iPad14,2 iPad6,3 iPad6,4 "
        "iPad7,3 iPad7,4 iPad8,1 iPad8,2 iPad8,3 iPad8,4 iPad8,9 iPad8,10 iPad13,4 iPad13,5 "
        "iPad13,6 iPad13,7 iPad14,3 iPad14,4 iPad6,7 iPad6,8 iPad7,1 iPad7,2 iPad8,5 iPad8,6 "
        "iPad8,7 iPad8,8 iPad8,11 iPad8,12 iPad13,8 iPad13,9 iPad13,10 iPad13,11 iPad14,5 "
        "iPad14,6 AppleTV5,3 AppleTV6,2 AudioAccessory1,1 AudioAccessory5,1");
    return {std::istream_iterator<std::string>(text), std::istream_iterator<std::string>()};
}

}  // namespace

TEST(DeviceModel, TableListsEveryIdentifierInOrderWithMarketingNames) {
    std::vector<std::string> inTable;
    for (const auto& row : deviceModelTable()) {
        inTable.insert(inTable.end(), row.identifiers.begin(), row.identifiers.end());
    }
    EXPECT_EQ(inTable, identifiers());

    for (const auto& id : inTable) {
        auto name = modelNameForIdentifier(id, std::nullopt);
        EXPECT_TRUE(name != id && name.find(',') == std::string::npos) << id << " -> " << name;
    }

    // The rows whose names tell: several identifiers to one name, look-alike neighbours.
    for (auto [id, name] : std::vector<std::pair<std::string, std::string>>{
             {"iPod9,1", "iPod touch (7th generation)"},
             {"iPhone3,1", "iPhone 4"},
             {"iPhone3,3", "iPhone 4"},
             {"iPhone5,1", "iPhone 5"},
             {"iPhone14,6", "iPhone SE (3rd generation)"},
             {"AppleTV6,2", "Apple TV 4K"},
             {"iPad14,6", "iPad Pro (12.9-inch) (6th generation)"},
             {"AudioAccessory5,1", "HomePod mini"}}) {
        EXPECT_EQ(modelNameForIdentifier(id, std::nullopt), name) << id;
    }
}

TEST(DeviceModel, SimulatorAndUnknownIdentifiers) {
    EXPECT_EQ(modelNameForIdentifier("x86_64", std::string("iPod9,1")),
              "Simulator iPod touch (7th generation)");
    EXPECT_EQ(modelNameForIdentifier("arm64", std::nullopt), "Simulator iOS");
    EXPECT_EQ(modelNameForIdentifier("x86_64", std::string("iPhone99,1")), "Simulator iPhone99,1");
    EXPECT_EQ(modelNameForIdentifier("iPhone99,1", std::string("iPod9,1")), "iPhone99,1");
    EXPECT_EQ(modelNameForIdentifier("aarch64", std::nullopt), "aarch64");
}

// The process's own values: the uname machine field through the table, read by a second process
// with and without the simulator variable; in this process, computed once under concurrent use.
TEST(DeviceModel, ProcessValuesComeFromUnameOnceAcrossThreads) {
    utsname names{};
    ASSERT_EQ(::uname(&names), 0);
    std::string machine = names.machine;
    auto expected = [&](std::optional<std::string> variable) {
        return modelNameForIdentifier(machine, variable) + "\n" + names.release + "\n";
    };
    ::unsetenv("SIMULATOR_MODEL_IDENTIFIER");
    std::string output;
    ASSERT_EQ(test::runHelper({"device_model"}, &output), 0);
    EXPECT_EQ(output, expected(std::nullopt));
    ASSERT_EQ(test::runHelper({"device_model"}, &output, {"SIMULATOR_MODEL_IDENTIFIER=iPod9,1"}),
              0);
    EXPECT_EQ(output, expected("iPod9,1"));

    ::setenv("SIMULATOR_MODEL_IDENTIFIER", "iPad14,1", 1);
    std::vector<const std::string*> models(8);
    std::vector<std::thread> threads;
    for (auto& model : models) {
        threads.emplace_back([&model] { model = &modelName(); });
    }
    for (auto& t : threads)
        t.join();
    for (auto* model : models) {
        EXPECT_EQ(model, models[0]);
    }
    EXPECT_EQ(*models[0], modelNameForIdentifier(machine, std::string("iPad14,1")));
    EXPECT_EQ(osVersion(), names.release);
    // Cached: a later change of the environment does not move the value.
    ::setenv("SIMULATOR_MODEL_IDENTIFIER", "iPod5,1", 1);
    EXPECT_EQ(&modelName(), models[0]);
    ::unsetenv("SIMULATOR_MODEL_IDENTIFIER");
}
