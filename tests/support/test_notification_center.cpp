#include "support/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <string>
#include <thread>
#include <vector>

using namespace dravinel;
using namespace std::chrono_literals;

TEST(NotificationCenter, DeliversOnThePostingThreadToObserversOfThatNameOnly)
{
    NotificationCenter center;
    std::thread::id handlerThread;
    const void* seenSender = nullptr;
    std::optional<std::int64_t> seenValue;
    int calls = 0;
    int otherCalls = 0;
    center.observe("ComOnIncomingFrame", [&](const Notification& n) {
        handlerThread = std::this_thread::get_id();
        seenSender = n.sender;
        seenValue = n.integer("value");
        ++calls;
    });
    center.observe("ComOnOutcomingFrame", [&](const Notification&) { ++otherCalls; });

    const int sender = 0;
    std::thread::id posterThread;
    std::thread poster([&] {
        posterThread = std::this_thread::get_id();
        center.post("ComOnIncomingFrame", &sender, {{"value", std::int64_t{7}}});
    });
    poster.join();

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(otherCalls, 0);
    EXPECT_EQ(handlerThread, posterThread);
    EXPECT_NE(handlerThread, std::this_thread::get_id());
    EXPECT_EQ(seenSender, &sender);
    EXPECT_EQ(seenValue, 7);

    center.post("NobodyListens", nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(center.observerCount("ComOnIncomingFrame"), 1u);
    EXPECT_EQ(center.observerCount("NobodyListens"), 0u);
}

TEST(NotificationCenter, TypedLookUpsGiveNothingForMissingKeyOrOtherKind)
{
    NotificationCenter center;
    std::optional<Notification> seen;
    center.observe("X", [&](const Notification& n) { seen = n; });
    center.post("X", nullptr,
                {{"count", std::int64_t{-3}},
                 {"text", std::string("2.1")},
                 {"data", Bytes{'b', ',', 0x0A, 0x0D}}});

    ASSERT_TRUE(seen.has_value());
    EXPECT_EQ(seen->integer("count"), -3);
    EXPECT_EQ(seen->text("text"), "2.1");
    EXPECT_EQ(seen->bytes("data"), (Bytes{'b', ',', 0x0A, 0x0D}));

    EXPECT_FALSE(seen->integer("text").has_value());
    EXPECT_FALSE(seen->text("data").has_value());
    EXPECT_FALSE(seen->bytes("count").has_value());
    EXPECT_FALSE(seen->integer("missing").has_value());
}

TEST(NotificationCenter, HandlersMayRemoveObserversDuringAPost)
{
    NotificationCenter center;
    int laterCalls = 0;
    int selfCalls = 0;
    NotificationCenter::Token later = 0;
    NotificationCenter::Token self = 0;

    center.observe("X", [&](const Notification&) { center.remove(later); });
    later = center.observe("X", [&](const Notification&) { ++laterCalls; });
    self = center.observe("X", [&](const Notification&) {
        ++selfCalls;
        center.remove(self);
    });

    center.post("X", nullptr);
    EXPECT_EQ(laterCalls, 0);
    EXPECT_EQ(selfCalls, 1);
    EXPECT_EQ(center.observerCount("X"), 1u);

    center.post("X", nullptr);
    EXPECT_EQ(laterCalls, 0);
    EXPECT_EQ(selfCalls, 1);
}

TEST(NotificationCenter, HandlerMayPostAgainOnTheSameThread)
{
    NotificationCenter center;
    std::vector<std::string> order;
    center.observe("Outer", [&](const Notification&) {
        order.push_back("outer");
        center.post("Inner", nullptr);
        // The same observer entered a second time from within itself.
        if (order.size() < 4)
            center.post("Outer", nullptr);
    });
    center.observe("Inner", [&](const Notification&) { order.push_back("inner"); });

    center.post("Outer", nullptr);
    EXPECT_EQ(order, (std::vector<std::string>{"outer", "inner", "outer", "inner"}));
}

TEST(NotificationCenter, RemoveWaitsForAHandlerRunningOnAnotherThread)
{
    NotificationCenter center;
    std::latch entered(1);
    std::latch release(1);
    std::atomic<bool> handlerDone{false};
    std::atomic<bool> removed{false};
    std::atomic<bool> doneBeforeRemoveReturned{false};
    std::atomic<int> calls{0};

    const auto token = center.observe("X", [&](const Notification&) {
        ++calls;
        entered.count_down();
        release.wait();
        std::this_thread::sleep_for(20ms);
        handlerDone = true;
    });

    std::thread poster([&] { center.post("X", nullptr); });
    entered.wait();
    std::thread remover([&] {
        center.remove(token);
        doneBeforeRemoveReturned = handlerDone.load();
        removed = true;
    });

    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(removed);
    release.count_down();
    remover.join();
    poster.join();

    EXPECT_TRUE(removed);
    EXPECT_TRUE(doneBeforeRemoveReturned);
    center.post("X", nullptr);
    EXPECT_EQ(calls, 1);
}

TEST(NotificationCenter, RemoveObserverDropsEveryRegistrationOfThatTag)
{
    NotificationCenter center;
    int a = 0;
    int b = 0;
    int aCalls = 0;
    int bCalls = 0;
    int untaggedCalls = 0;
    center.observe(
        "X", [&](const Notification&) { ++aCalls; }, &a);
    center.observe(
        "Y", [&](const Notification&) { ++aCalls; }, &a);
    center.observe(
        "X", [&](const Notification&) { ++bCalls; }, &b);
    center.observe("X", [&](const Notification&) { ++untaggedCalls; });

    center.removeObserver(&a);
    center.post("X", nullptr);
    center.post("Y", nullptr);
    EXPECT_EQ(aCalls, 0);
    EXPECT_EQ(bCalls, 1);
    EXPECT_EQ(untaggedCalls, 1);
    EXPECT_EQ(center.observerCount("X"), 2u);
    EXPECT_EQ(center.observerCount("Y"), 0u);

    // Removing an unknown tag changes nothing.
    int unknown = 0;
    center.removeObserver(&unknown);
    EXPECT_EQ(center.observerCount("X"), 2u);
}

TEST(NotificationCenter, DefaultCenterIsOneSharedObject)
{
    EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
}
