#define LOG_MODULE "media decoder"
#define LOG_FILE "memory_budget"

#include "decoder/memory_budget.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <utility>

#include "base/log.h"

namespace {

constexpr int64_t kKiB = 1024;

}  // namespace

MemoryAccount::MemoryAccount(MemoryBudget& budget) : budget_(budget) {}

MemoryAccount::~MemoryAccount() {
    std::lock_guard<std::mutex> lock(budget_.mutex_);
    if (held_ != 0) {
        // A charge outlived its account, and would give itself back to an account that is gone:
        // a fault of the service, which the tests' builds stop at. Elsewhere the budget gets it
        // back all the same, so that the client's end still frees its share.
        LOGE("memory account ends with %lld KiB still charged",
             static_cast<long long>(held_ / kKiB));
#ifdef SVC_STRICT_ACCOUNTS
        abort();
#endif
        budget_.total_ -= held_;
        --budget_.holders_;
        held_ = 0;
    }
}

int64_t MemoryAccount::held() const {
    std::lock_guard<std::mutex> lock(budget_.mutex_);
    return held_;
}

int64_t MemoryAccount::peak() const {
    std::lock_guard<std::mutex> lock(budget_.mutex_);
    return peak_;
}

int64_t MemoryAccount::limit() const {
    return budget_.limit();
}

MemoryCharge::MemoryCharge(MemoryCharge&& other) noexcept
    : account_(std::exchange(other.account_, nullptr)), bytes_(std::exchange(other.bytes_, 0)) {}

MemoryCharge& MemoryCharge::operator=(MemoryCharge&& other) noexcept {
    if (this != &other) {
        set(0, nullptr);
        account_ = std::exchange(other.account_, nullptr);
        bytes_ = std::exchange(other.bytes_, 0);
    }
    return *this;
}

bool MemoryCharge::set(int64_t bytes, const char* what) {
    if (account_ != nullptr && bytes > bytes_) {
        if (!account_->budget_.grow(*account_, bytes - bytes_, what)) {
            return false;
        }
    } else if (account_ != nullptr && bytes < bytes_) {
        account_->budget_.shrink(*account_, bytes_ - bytes);
    }
    bytes_ = bytes;
    return true;
}

MemoryBudget& MemoryBudget::service() {
    static MemoryBudget budget(std::numeric_limits<int64_t>::max());
    return budget;
}

void MemoryBudget::set_limit(int64_t limit) {
    std::lock_guard<std::mutex> lock(mutex_);
    limit_ = limit;
}

void MemoryBudget::set_upstream(Upstream upstream) {
    std::lock_guard<std::mutex> lock(mutex_);
    upstream_ = std::move(upstream);
}

bool MemoryBudget::ask_upstream(int64_t total, MemoryGrant* answer) {
    const int64_t slabs = (std::max<int64_t>(total, 0) + kSlab - 1) / kSlab * kSlab;
    if (!upstream_(slabs, answer)) {
        *answer = MemoryGrant{granted_, -1, -1};
        return false;
    }
    granted_ = answer->granted;
    return granted_ >= total;
}

int64_t MemoryBudget::limit() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return limit_;
}

int64_t MemoryBudget::total() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return total_;
}

bool MemoryBudget::grow(MemoryAccount& account, int64_t bytes, const char* what) {
    std::unique_lock<std::mutex> lock(mutex_);
    const int holders = holders_ + (account.held_ == 0 ? 1 : 0);
    const int64_t after = total_ + bytes;
    const int64_t mine = account.held_ + bytes;
    MemoryGrant answer{0, total_, limit_};
    // Within the budget, and either within the client's share or out of the last quarter; with
    // an upstream, within what it grants.
    const bool granted =
        upstream_ ? after <= granted_ || ask_upstream(after, &answer)
                  : bytes <= limit_ - total_ &&
                        (mine <= limit_ / holders || after <= limit_ - limit_ / kReserveDivisor);
    if (!granted) {
        const int64_t held = account.held_;
        lock.unlock();
        if (what != nullptr) {
            LOGE(
                "memory budget exceeded: %s of %lld KiB refused (this client holds %lld KiB, all "
                "clients %lld of %lld KiB)",
                what, static_cast<long long>(bytes / kKiB), static_cast<long long>(held / kKiB),
                static_cast<long long>(answer.total / kKiB),
                static_cast<long long>(answer.limit / kKiB));
        }
        return false;
    }
    if (account.held_ == 0) {
        ++holders_;
    }
    account.held_ = mine;
    account.peak_ = std::max(account.peak_, mine);
    total_ = after;
    return true;
}

void MemoryBudget::shrink(MemoryAccount& account, int64_t bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    account.held_ -= bytes;
    total_ -= bytes;
    if (account.held_ == 0) {
        --holders_;
    }
    // Two slabs unused go back, so that a client that holds about a slab's edge does not ask and
    // give back with every request.
    MemoryGrant answer;
    if (upstream_ && granted_ - total_ >= 2 * kSlab) {
        ask_upstream(total_, &answer);
    }
}
