#pragma once

#include <cstddef>
#include <string>

// One Android shared memory region: its descriptor, size and mapping. Reports problems on the
// standard error stream rather than the service log.
class AshMemory {
  public:
    // Takes ownership of an existing region's descriptor; does not map.
    explicit AshMemory(int fd);
    // Describes a region still to be created by opening the ashmem device `name`.
    AshMemory(size_t size, const char* name);
    AshMemory(const AshMemory&) = delete;
    AshMemory& operator=(const AshMemory&) = delete;
    ~AshMemory();

    static size_t _getInitSize(int fd);
    void* MapMemory();
    void _destroy();

    // The region's descriptor (-1 without one) and size.
    int fd() const { return fd_; }
    size_t size() const { return size_; }

  private:
    int fd_;
    size_t size_;
    void* memory_;
    std::string device_name_;
};
