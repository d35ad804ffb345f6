#include "helpers/HelperMain.h"

#include <cstdio>

namespace tarn::test {

std::map<std::string, HelperCommand>& helperCommands() {
    static std::map<std::string, HelperCommand> commands;
    return commands;
}

}  // namespace tarn::test

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: tarn_test_helper <command> [args]\n");
        return 2;
    }
    auto& commands = tarn::test::helperCommands();
    auto it = commands.find(argv[1]);
    if (it == commands.end()) {
        std::fprintf(stderr, "unknown helper command %s\n", argv[1]);
        return 2;
    }
    return it->second(std::vector<std::string>(argv + 2, argv + argc));
}
