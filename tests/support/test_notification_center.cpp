#include "support/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

using namespace dravinel;
using namespace std::chrono_literals;

TEST(NotificationCenter, DeliversOnThePostingThreadToThatNameWithTypedValues)
{
    NotificationCenter center;
    std::optional<Notification> seen;
    std::thread::id handlerThread;
    center.observe("FrameIn", [&](const Notification& n) {
        seen = n;
        handlerThread = std::this_thread::get_id();
    });
    center.observe("FrameOut", [&](const Notification&) { ADD_FAILURE() << "other name"; });
    const int sender = 0;
    center.post("FrameIn", &sender, {{"n", std::int64_t{-3}}, {"t", "x"}, {"b", Bytes{1}}});
    ASSERT_TRUE(seen.has_value());
    EXPECT_EQ(handlerThread, std::this_thread::get_id());
    EXPECT_EQ(seen->sender, &sender);
    EXPECT_TRUE(seen->integer("n") == -3 && seen->text("t") == "x" && seen->bytes("b") == Bytes{1});
    // Nothing for a missing key or a value of another kind.
    EXPECT_FALSE(seen->integer("t") || seen->text("b") || seen->bytes("n") || seen->integer("x"));
}

TEST(NotificationCenter, HandlersMayRemoveAndPostWhileTheyRun)
{
    NotificationCenter center;
    std::string calls;
    const auto note = [&calls](char c) { return [&calls, c](const Notification&) { calls += c; }; };
    NotificationCenter::Token later = 0, self = 0;
    center.observe("X", [&](const Notification&) { center.remove(later); });
    later = center.observe("X", note('L'));
    self = center.observe("X", [&](const Notification&) {
        calls += 'S';
        center.remove(self);
    });
    center.post("X", nullptr);
    center.post("X", nullptr);
    EXPECT_EQ(calls, "S");
    EXPECT_EQ(center.observerCount("X"), 1u);
    // Re-entry: an observer posts to another name and to itself.
    calls.clear();
    center.observe("Outer", [&](const Notification&) {
        calls += 'o';
        center.post(calls.size() < 3 ? "Outer" : "Inner", nullptr);
    });
    center.observe("Inner", note('i'));
    center.post("Outer", nullptr);
    EXPECT_EQ(calls, "oooi");
    // removeObserver drops every registration with that tag, and only those.
    calls.clear();
    const int a = 0, b = 0;
    center.observe("T", note('a'), &a);
    center.observe("U", note('a'), &a);
    center.observe("T", note('b'), &b);
    center.observe("T", note('n')); // untagged
    center.removeObserver(&a);
    center.removeObserver(&calls); // an unknown tag
    center.post("T", nullptr);
    center.post("U", nullptr);
    EXPECT_EQ(calls, "bn");
    EXPECT_EQ(center.observerCount("T") + center.observerCount("U"), 2u);
}

TEST(NotificationCenter, RemovalWaitsForAHandlerRunningOnAnotherThread)
{
    NotificationCenter center;
    std::latch entered(1);
    std::atomic<int> calls{0}, finished{0};
    const auto token = center.observe("X", [&](const Notification&) {
        ++calls;
        entered.count_down();
        std::this_thread::sleep_for(50ms);
        ++finished;
    });
    std::thread poster([&] { center.post("X", nullptr); });
    entered.wait();
    center.remove(token);
    EXPECT_EQ(finished, 1); // the removal waited for the running handler
    poster.join();
    center.post("X", nullptr);
    EXPECT_EQ(calls, 1);
}
