#pragma once

// The memory clients' decoders may hold, and who gives way when they compete.
//
// Each decoder client has an account; what its decoder takes (pictures, conversion, packets,
// configuration bytes, the contexts themselves) is charged to it before the memory is allocated,
// and given back when it is freed. A charge the budget refuses fails the request that needed it
// (status -1 and an ERROR line); nothing is taken from other clients.
//
// When memory is short, a client that holds more than its share gives way, not a newcomer with a
// small stream: a charge is granted while the total stays within the budget and either the client
// stays within its fair share (the budget divided among the clients that hold memory), or the
// total stays out of the last quarter of the budget, which is kept for clients within their share.
// So clients that grow without bound fill at most three quarters, and a small client coming later
// still finds room. What a client already holds is never taken back: its pictures are its
// decoder's references.
//
// The accepting process keeps the service's budget, with an account per worker; a worker's budget
// has an upstream instead of a limit: what its account holds beyond its last grant is asked of
// the accepting process, in whole slabs, so that a stream's packets and pictures, which come and
// go within a slab, cost no round trip.

#include <cstdint>
#include <functional>
#include <mutex>

class MemoryBudget;

class MemoryAccount {
  public:
    explicit MemoryAccount(MemoryBudget& budget);
    MemoryAccount(const MemoryAccount&) = delete;
    MemoryAccount& operator=(const MemoryAccount&) = delete;
    ~MemoryAccount();  // every charge must be given back by then (see the .cpp)

    int64_t held() const;
    // The most it has held at once.
    int64_t peak() const;
    // The budget this account draws from.
    int64_t limit() const;

  private:
    friend class MemoryCharge;
    friend class MemoryBudget;
    MemoryBudget& budget_;
    int64_t held_ = 0;  // these two guarded by the budget's mutex
    int64_t peak_ = 0;
};

// An amount charged to an account for one purpose, given back when it shrinks or is destroyed.
// Move-only; used on one thread at a time.
class MemoryCharge {
  public:
    MemoryCharge() = default;
    explicit MemoryCharge(MemoryAccount* account) : account_(account) {}
    MemoryCharge(MemoryCharge&& other) noexcept;
    MemoryCharge& operator=(MemoryCharge&& other) noexcept;
    MemoryCharge(const MemoryCharge&) = delete;
    MemoryCharge& operator=(const MemoryCharge&) = delete;
    ~MemoryCharge() { set(0, nullptr); }

    // Makes the charge `bytes`. Growing asks the budget; when it refuses, the charge stays as it
    // was, the refusal is logged naming `what` (unless it is null: the accepting process grants a
    // worker's charges silently, the worker logs), and the result is false. Without an account
    // every charge is granted.
    bool set(int64_t bytes, const char* what);
    // Grows the charge by `bytes` (see set()).
    bool add(int64_t bytes, const char* what) { return set(bytes_ + bytes, what); }
    int64_t bytes() const { return bytes_; }

  private:
    MemoryAccount* account_ = nullptr;
    int64_t bytes_ = 0;
};

// What the accepting process answers a worker that asks to hold `wanted` bytes in all.
struct MemoryGrant {
    int64_t granted;  // what the worker may hold now: `wanted`, or its earlier grant
    int64_t total;    // all clients' holdings, and the budget, for the refusal's line
    int64_t limit;
};

class MemoryBudget {
  public:
    // Asks the accepting process for a new grant; false when it cannot be asked.
    using Upstream = std::function<bool(int64_t wanted, MemoryGrant* answer)>;
    // Grants are asked for in multiples of this.
    static constexpr int64_t kSlab = int64_t{1} << 20;
    // The reserve, limit / kReserveDivisor (the last quarter), is granted only to clients within
    // their share.
    static constexpr int64_t kReserveDivisor = 4;

    // The service's budget, unlimited until set_limit() (the tools decode in-process with it).
    static MemoryBudget& service();

    explicit MemoryBudget(int64_t limit) : limit_(limit) {}
    MemoryBudget(const MemoryBudget&) = delete;
    MemoryBudget& operator=(const MemoryBudget&) = delete;
    ~MemoryBudget() = default;

    void set_limit(int64_t limit);
    // From now on the limit is the upstream's: a worker's budget.
    void set_upstream(Upstream upstream);
    int64_t limit() const;
    int64_t total() const;

  private:
    friend class MemoryAccount;
    friend class MemoryCharge;
    // Grows `account` by `bytes` when the rules above allow it.
    bool grow(MemoryAccount& account, int64_t bytes, const char* what);
    void shrink(MemoryAccount& account, int64_t bytes);
    // Whether the upstream grants `total` in all; updates granted_. Called with the mutex held.
    bool ask_upstream(int64_t total, MemoryGrant* answer);

    mutable std::mutex mutex_;  // guards everything below and every account's held_
    int64_t limit_;
    int64_t total_ = 0;
    int holders_ = 0;  // accounts that hold something
    Upstream upstream_;
    int64_t granted_ = 0;  // with an upstream: what it granted last
};
