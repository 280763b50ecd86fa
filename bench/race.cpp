#include "bench/race.h"

#include <algorithm>
#include <utility>

#include "bench/bench.h"

namespace mediabench {

void race(std::vector<Contender*> contenders, size_t total, size_t slice, int runs) {
    // Warm-up, not counted: page faults of the areas, conversion tables, code.
    for (Contender* c : contenders) {
        c->reset();
        c->run(0, std::min(total, slice));
    }
    size_t turn = 0;
    for (int run = 0; run < runs; ++run) {
        for (Contender* c : contenders) {
            c->reset();
        }
        for (size_t from = 0; from < total; from += slice, ++turn) {
            const size_t to = std::min(total, from + slice);
            for (size_t j = 0; j < contenders.size(); ++j) {
                Contender* c = contenders[(j + turn) % contenders.size()];
                const double cpu0 = c->cpu();
                const auto t0 = Clock::now();
                c->outputs += c->run(from, to);
                c->secs += seconds_since(t0);
                c->cpu_secs += c->cpu() - cpu0;
                c->packets += to - from;
            }
        }
    }
}

Team::Team(int members, std::function<long(int member, size_t from, size_t to)> work)
    : work_(std::move(work)) {
    for (int i = 0; i < members; ++i) {
        threads_.emplace_back(&Team::loop, this, i);
    }
}

Team::~Team() {
    {
        std::lock_guard<std::mutex> lock(m_);
        quit_ = true;
    }
    cv_.notify_all();
    for (auto& t : threads_) {
        t.join();
    }
}

long Team::run(size_t from, size_t to) {
    std::unique_lock<std::mutex> lock(m_);
    from_ = from;
    to_ = to;
    done_ = 0;
    outputs_ = 0;
    ++generation_;
    cv_.notify_all();
    done_cv_.wait(lock, [this] { return done_ == static_cast<int>(threads_.size()); });
    return outputs_;
}

void Team::loop(int member) {
    int seen = 0;
    for (;;) {
        size_t from, to;
        {
            std::unique_lock<std::mutex> lock(m_);
            cv_.wait(lock, [&] { return quit_ || generation_ != seen; });
            if (quit_) {
                return;
            }
            seen = generation_;
            from = from_;
            to = to_;
        }
        long n = work_(member, from, to);
        std::lock_guard<std::mutex> lock(m_);
        outputs_ += n;
        if (++done_ == static_cast<int>(threads_.size())) {
            done_cv_.notify_one();
        }
    }
}

}  // namespace mediabench
