#include <gtest/gtest.h>

#include <sys/utsname.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "support/TestSupport.h"
#include "tarn/device/DeviceModel.h"

using namespace tarn;

// Simulators and unknown identifiers; then the process's own values: the uname machine field
// through the table, read by a second process without the simulator variable, and in this process
// with it, computed once under concurrent use.
TEST(DeviceModel, NamesForSimulatorsAndProcessValuesComeFromUnameOnceAcrossThreads) {
    // {identifier, simulator variable, expected}: simulators and unknown identifiers.
    using Row = std::tuple<std::string, std::optional<std::string>, std::string>;
    for (const auto& [id, variable, name] :
         std::vector<Row>{{"x86_64", "iPod9,1", "Simulator iPod touch (7th generation)"},
                          {"arm64", std::nullopt, "Simulator iOS"},
                          {"x86_64", "iPhone99,1", "Simulator iPhone99,1"},
                          {"iPhone99,1", "iPod9,1", "iPhone99,1"},
                          {"aarch64", std::nullopt, "aarch64"}}) {
        EXPECT_EQ(modelNameForIdentifier(id, variable), name) << id;
    }

    utsname names{};
    ASSERT_EQ(::uname(&names), 0);
    std::string machine = names.machine;
    ::unsetenv("SIMULATOR_MODEL_IDENTIFIER");
    std::string output;
    ASSERT_EQ(test::runHelper({"device_model"}, &output), 0);
    EXPECT_EQ(output, modelNameForIdentifier(machine, std::nullopt) + "\n" + names.release + "\n");

    ::setenv("SIMULATOR_MODEL_IDENTIFIER", "iPad14,1", 1);
    std::vector<const std::string*> models(8);
    std::vector<std::jthread> threads;
    for (auto& model : models)
        threads.emplace_back([&model] { model = &modelName(); });
    threads.clear();  // joins
    for (auto* model : models)
        EXPECT_EQ(model, models[0]);
    EXPECT_EQ(*models[0], modelNameForIdentifier(machine, std::string("iPad14,1")));
    EXPECT_EQ(osVersion(), names.release);
    // Cached: a later change of the environment does not move the value.
    ::setenv("SIMULATOR_MODEL_IDENTIFIER", "iPod5,1", 1);
    EXPECT_EQ(&modelName(), models[0]);
    ::unsetenv("SIMULATOR_MODEL_IDENTIFIER");
}
