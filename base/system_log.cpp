#include "base/system_log.h"

#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>

#include "base/log.h"

namespace {

using Clock = std::chrono::steady_clock;

// Token buckets: a burst, then a steady rate. One client: 5 lines, then one every 10 seconds; all
// clients together: 50 lines, then one a second.
struct Rate {
    double burst;
    double per_second;
};
constexpr Rate kClientRate{5, 0.1};
constexpr Rate kTotalRate{50, 1};
// Clients share buckets by their number modulo this; two clients in one slot share its lines.
constexpr int kSlots = 64;

struct Bucket {
    double tokens = -1;  // -1: not used yet, full at the first line
    Clock::time_point refilled;
    unsigned held_back = 0;

    // Adds what the time since the last refill has earned; whether a line may go out.
    bool refill(const Rate& rate, Clock::time_point now) {
        if (tokens < 0) {
            tokens = rate.burst;
        } else {
            const double elapsed = std::chrono::duration<double>(now - refilled).count();
            tokens = std::min(rate.burst, tokens + elapsed * rate.per_second);
        }
        refilled = now;
        return tokens >= 1;
    }
};

std::atomic<bool> system_log_open{false};
std::mutex limiter_mutex;  // guards the buckets
Bucket client_buckets[kSlots];
Bucket total_bucket;

thread_local int log_client = -1;

// Whether a line of `client` may go out now; how many of its lines were held back before it.
bool admit(int client, unsigned* held_back) {
    std::lock_guard<std::mutex> lock(limiter_mutex);
    const Clock::time_point now = Clock::now();
    Bucket& own = client_buckets[static_cast<unsigned>(client) % kSlots];
    const bool own_ok = own.refill(kClientRate, now);
    if (!total_bucket.refill(kTotalRate, now) || !own_ok) {
        ++own.held_back;
        return false;
    }
    own.tokens -= 1;
    total_bucket.tokens -= 1;
    *held_back = own.held_back;
    own.held_back = 0;
    return true;
}

}  // namespace

void SvcSystemLogOpen(const char* ident) {
    openlog(ident, LOG_PID | LOG_NDELAY, LOG_DAEMON);
    system_log_open.store(true);
}

void SvcSystemLogWrite(int level, const char* module, const char* message) {
    if (!system_log_open.load(std::memory_order_relaxed) || level < SVC_LOG_WARN) {
        return;
    }
    unsigned held_back = 0;
    if (!admit(log_client, &held_back)) {
        return;
    }
    char client[32] = "";
    if (log_client >= 0) {
        snprintf(client, sizeof(client), "client %d: ", log_client);
    }
    char note[64] = "";
    if (held_back > 0) {
        snprintf(note, sizeof(note), " (%u earlier lines held back)", held_back);
    }
    syslog(level == SVC_LOG_WARN ? LOG_WARNING : LOG_ERR, "[%s] %s%s%s", module, client, message,
           note);
}

void SvcLogSetClient(int client) {
    log_client = client;
}

int SvcLogClient() {
    return log_client;
}
