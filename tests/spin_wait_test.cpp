// The rules that keep spinning bounded and rare where it does not pay: counted in calls of the
// readiness test, so that no figure depends on the machine's speed.

#include <gtest/gtest.h>

#include "base/spin_wait.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

// Spins once; returns how often ready() was asked. ready() answers true at call `ready_at`
// (0: never).
int spin_calls(SpinWait& wait, int ready_at = 0, bool* result = nullptr) {
    int calls = 0;
    bool done = wait.spin([&] { return ++calls == ready_at; });
    if (result != nullptr) {
        *result = done;
    }
    return calls;
}

// The bound is long enough that a spin never runs out between two asks of ready(), however
// loaded the machine: a spin that asks twice spun, one that asks once was skipped.
constexpr milliseconds kBound(50);

TEST(SpinWait, SpinsUntilReadyOrTheBound) {
    SpinWait wait(kBound);
    bool done = false;
    EXPECT_EQ(spin_calls(wait, 5, &done), 5);
    EXPECT_TRUE(done);

    const auto start = SpinWait::Clock::now();
    EXPECT_GT(spin_calls(wait, 0, &done), 1);
    EXPECT_FALSE(done);
    EXPECT_GE(SpinWait::Clock::now() - start, kBound);
}

TEST(SpinWait, SpinsThatRunOutAreSkippedForLongerAndLonger) {
    SpinWait wait(kBound);
    // Each run-out skips twice as many of the following spins as the one before.
    for (int skipped : {1, 2, 4}) {
        EXPECT_GT(spin_calls(wait), 1);
        for (int i = 0; i < skipped; ++i) {
            EXPECT_EQ(spin_calls(wait, 2), 1) << "after a run-out skipping " << skipped;
        }
    }
    // A spin that sees its event resets the backoff.
    EXPECT_EQ(spin_calls(wait, 2), 2);
    EXPECT_GT(spin_calls(wait), 1);
    EXPECT_EQ(spin_calls(wait, 2), 1);
    EXPECT_EQ(spin_calls(wait, 2), 2);
}

TEST(SpinWait, OnlyWhileTheWaitsAreShort) {
    SpinWait wait(kBound);
    wait.waited(std::chrono::seconds(1));  // a player keeping to its frame rate
    EXPECT_EQ(spin_calls(wait, 2), 1);
    EXPECT_EQ(spin_calls(wait, 2), 1);
    wait.waited(microseconds(20));  // back to back again
    EXPECT_EQ(spin_calls(wait, 2), 2);
}

}  // namespace
