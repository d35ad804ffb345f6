#include "helpers/HelperMain.h"

#include "tarn/platform/DataDirectory.h"

namespace tarn::test {

std::map<std::string, std::pair<std::size_t, HelperCommand>>& helperCommands() {
    static std::map<std::string, std::pair<std::size_t, HelperCommand>> commands;
    return commands;
}

}  // namespace tarn::test

int main(int argc, char** argv) {
    auto& commands = tarn::test::helperCommands();
    auto it = argc < 2 ? commands.end() : commands.find(argv[1]);
    std::vector<std::string> args(argv + std::min(argc, 2), argv + argc);
    if (it == commands.end() || args.size() != it->second.first) {
        std::fprintf(stderr, "usage: tarn_test_helper <command> [args]\n");
        return 2;
    }
    if (!args.empty() && args[0] != "-")
        tarn::setDataDirectory(args[0]);
    return it->second.second(args);
}
