#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tarn/platform/NotificationCenter.h"

using namespace tarn;

// Delivery by name in order on the posting thread, removal by owner and name, and adding and
// removing while another thread posts.
TEST(NotificationCenter, DeliversByNameInOrderAndAddsAndRemovesSafelyWhileAnotherThreadPosts) {
    NotificationCenter center;
    std::vector<std::string> seen;
    int owner = 0;
    center.addObserver(&owner, "a", [&](const Notification& n) {
        seen.push_back("first:" + std::any_cast<std::string>(n.object));
        EXPECT_EQ(n.userInfo["k"], 1);
    });
    center.addObserver("a", [&](const Notification&) { seen.push_back("second"); });
    center.addObserver(&owner, "b", [&](const Notification&) { seen.push_back("b"); });
    center.post("a", std::string("x"), {{"k", 1}});
    EXPECT_EQ(seen, (std::vector<std::string>{"first:x", "second"}));

    center.removeObserver(&owner, "a");
    seen.clear();
    center.post("a", std::string("y"), {{"k", 1}});
    center.post("b");
    EXPECT_EQ(seen, (std::vector<std::string>{"second", "b"}));
    center.removeObserver(&owner);
    EXPECT_EQ(center.observerCount("b"), 0u);

    std::atomic<int> delivered{0};
    auto count = [&](const Notification&) { ++delivered; };
    std::jthread poster([&](std::stop_token stop) {
        while (!stop.stop_requested())
            center.post("n");
    });
    for (int i = 0; i < 2000; ++i)
        center.removeObserver(center.addObserver("n", count));
    auto token = center.addObserver("n", count);
    while (delivered.load() == 0)
        std::this_thread::yield();
    poster = {};  // stops and joins
    center.removeObserver(token);
    EXPECT_EQ(center.observerCount("n"), 0u);
}
