#pragma once

// The owner of every descriptor, in the client library and (base/unique_fd.h) in the service.

#include <unistd.h>

namespace mediaclient {

// Move-only owner of one file descriptor; -1 means none.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    // Virtual only because libmediaclient.so.2 shipped it so: the vtable pointer is part of the
    // layout its clients were compiled against. It goes with the next soname.
    virtual ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }

    // Gives the descriptor up without closing it.
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

    // Closes the held descriptor (errors ignored) and takes `fd`.
    void reset(int fd = -1) {
        if (fd_ >= 0 && fd_ != fd) {
            ::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

}  // namespace mediaclient
