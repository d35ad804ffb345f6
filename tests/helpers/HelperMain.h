#pragma once
// The helper program that tests start as a second process. Each command registers itself with
// TARN_HELPER_COMMAND and is run as `tarn_test_helper <command> args...`.

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace tarn::test {

using HelperCommand = std::function<int(const std::vector<std::string>& args)>;
std::map<std::string, HelperCommand>& helperCommands();

struct HelperRegistration {
    HelperRegistration(const std::string& name, HelperCommand command) {
        helperCommands()[name] = std::move(command);
    }
};

}  // namespace tarn::test

#define TARN_HELPER_COMMAND(name)                                                             \
    static int helper_##name(const std::vector<std::string>& args);                           \
    static ::tarn::test::HelperRegistration helper_registration_##name(#name, helper_##name); \
    static int helper_##name(const std::vector<std::string>& args)
