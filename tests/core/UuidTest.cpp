#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "tarn/core/Types.h"

// Identifiers come from a per-thread pool of random bytes: they must stay version 4 UUIDs, never
// repeat, and a forked child must not hand out the bytes its parent will use next.
TEST(UuidTest, IdentifiersAreUniqueVersionFourAndNotSharedWithAForkedChild) {
    auto versionFour = [](const std::string& id) {  // XXXXXXXX-XXXX-4XXX-[89AB]XXX-XXXXXXXXXXXX
        for (std::size_t i = 0; i < id.size(); ++i) {
            bool dash = i == 8 || i == 13 || i == 18 || i == 23;
            if (dash ? id[i] != '-'
                     : !std::isxdigit(static_cast<unsigned char>(id[i])) ||
                           std::islower(static_cast<unsigned char>(id[i]))) {
                return false;
            }
        }
        return id.size() == 36 && id[14] == '4' &&
               std::string("89AB").find(id[19]) != std::string::npos;
    };
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {  // crosses several refills of the pool
        auto id = tarn::makeUuidString();
        EXPECT_TRUE(versionFour(id)) << id;
        EXPECT_TRUE(seen.insert(id).second) << id;
    }
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        auto id = tarn::makeUuidString();
        auto written = ::write(pipeFds[1], id.data(), id.size());
        ::_exit(written == static_cast<ssize_t>(id.size()) ? 0 : 1);
    }
    ::close(pipeFds[1]);
    auto parentNext = tarn::makeUuidString();
    char buffer[64] = {};
    auto got = ::read(pipeFds[0], buffer, sizeof buffer);
    ::close(pipeFds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_EQ(got, 36);
    EXPECT_NE(std::string(buffer, 36), parentNext);
}
