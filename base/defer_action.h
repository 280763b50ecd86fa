#pragma once

#include <functional>
#include <utility>

class DoNotCopyOrMove {
  public:
    DoNotCopyOrMove() = default;
    DoNotCopyOrMove(const DoNotCopyOrMove&) = delete;
    DoNotCopyOrMove& operator=(const DoNotCopyOrMove&) = delete;
    DoNotCopyOrMove(DoNotCopyOrMove&&) = delete;
    DoNotCopyOrMove& operator=(DoNotCopyOrMove&&) = delete;

  protected:
    ~DoNotCopyOrMove() = default;
};

// Runs its action when it goes out of scope, unless cancelled. The destructor is noexcept, so an
// exception escaping the action ends the process.
class DeferAction : private DoNotCopyOrMove {
  public:
    explicit DeferAction(std::function<void()> action) : action_(std::move(action)) {}
    ~DeferAction() {
        if (action_) {
            action_();
        }
    }
    void cancel() { action_ = nullptr; }

  private:
    std::function<void()> action_;
};
