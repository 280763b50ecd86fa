#pragma once

// Contenders that take turns.
//
// The machine may be shared. Instead of timing each way of decoding in a block of its own, all
// of them advance through the clip together, a slice of packets at a time, in an order that
// rotates with every slice: load that comes and goes then falls on all of them alike.

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace mediabench {

struct Contender {
    std::function<void()> reset;                      // back to the start of the clip
    std::function<long(size_t from, size_t to)> run;  // decodes packets [from, to): outputs
    std::function<double()> cpu;  // CPU seconds spent so far by everything this one uses
    double secs = 0, cpu_secs = 0;
    long outputs = 0;
    size_t packets = 0;

    double per_second() const { return secs > 0 ? outputs / secs : 0; }
    double cpu_per_output_ms() const { return outputs > 0 ? cpu_secs * 1e3 / outputs : 0; }
};

// `runs` passes over packets [0, total), `slice` packets per turn, after one uncounted slice.
void race(std::vector<Contender*> contenders, size_t total, size_t slice, int runs);

// Threads that each decode the same slice of packets at the same time.
class Team {
  public:
    Team(int members, std::function<long(int member, size_t from, size_t to)> work);
    Team(const Team&) = delete;
    Team& operator=(const Team&) = delete;
    ~Team();

    // Every member decodes [from, to); returns when all are done, with their outputs.
    long run(size_t from, size_t to);

  private:
    void loop(int member);

    std::function<long(int, size_t, size_t)> work_;
    std::mutex m_;
    std::condition_variable cv_, done_cv_;
    int generation_ = 0, done_ = 0;
    bool quit_ = false;
    size_t from_ = 0, to_ = 0;
    long outputs_ = 0;
    std::vector<std::thread> threads_;
};

}  // namespace mediabench
