#pragma once

#include <sched.h>

#include <chrono>

// Bounded, adaptive busy waiting for a thread that expects to be needed again within
// microseconds. A thread that sleeps costs a wake-up when it is needed (tens of microseconds
// across CPUs on a virtual machine, most of a short request's round trip); one that spins costs
// the CPU it burns. So a thread spins
// - never longer than the bound;
// - only while its waits have been short (see waited()): one whose waits are long (an idle
//   client, a 30 fps player) stops spinning after its first long wait and costs no CPU while it
//   waits;
// - less and less often while its spins run out: a spin that runs out means that what it waits
//   for could not run, for instance because the CPUs are taken by others or, on one CPU, by the
//   spinner itself. After a run of n such spins the next 2^n waits (at most 256) do not spin.
// It yields the CPU at every turn, so that a thread that wants the spinner's CPU (the client, or
// the very thread it waits for) runs at once instead of at the next preemption; on an otherwise
// idle CPU the yield returns at once. Spinning keeps the waiting thread's CPU busy, which also
// steers the scheduler to wake the other threads on the other CPUs.
//
// One object per waiting thread; not shared between threads.
class SpinWait {
  public:
    using Clock = std::chrono::steady_clock;

    explicit SpinWait(std::chrono::microseconds bound) : bound_(bound) {}

    std::chrono::microseconds bound() const { return bound_; }

    // Spins until ready() holds or the bound has passed; returns ready()'s last answer. Only asks
    // ready() once while spinning is off or backing off.
    template <typename Ready>
    bool spin(Ready ready) {
        if (!short_waits_) {
            return ready();
        }
        if (spins_to_skip_ > 0) {
            --spins_to_skip_;
            return ready();
        }
        const Clock::time_point deadline = Clock::now() + bound_;
        bool done = ready();
        while (!done && Clock::now() < deadline) {
            sched_yield();
            done = ready();
        }
        if (done) {
            backoff_ = 1;
        } else {
            spins_to_skip_ = backoff_;
            backoff_ = backoff_ < kMaxBackoff ? backoff_ * 2 : kMaxBackoff;
        }
        return done;
    }

    // How long the awaited event took in all, spinning and then sleeping: a wait within the
    // bound means that the next one will likely be short too.
    void waited(Clock::duration total) { short_waits_ = total <= bound_; }

  private:
    static constexpr int kMaxBackoff = 256;

    const std::chrono::microseconds bound_;
    bool short_waits_ = true;
    int spins_to_skip_ = 0;
    int backoff_ = 1;
};
