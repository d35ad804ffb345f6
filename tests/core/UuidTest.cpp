#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "tarn/core/Types.h"

// Identifiers come from a per-thread pool of random bytes: they must stay version 4 UUIDs, never
// repeat, and a forked child must not hand out the bytes its parent will use next.
TEST(UuidTest, IdentifiersAreUniqueVersionFourAndNotSharedWithAForkedChild) {
    const std::regex shape("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {  // crosses several refills of the pool
        auto id = tarn::makeUuidString();
        EXPECT_TRUE(std::regex_match(id, shape)) << id;
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
