#pragma once

// The memory the host gives the service, and the part of it that clients' decoders may hold.

#include <cstdint>
#include <string>

struct MemoryLimit {
    int64_t bytes = 0;
    std::string source;  // "cgroup v2 /a/b", "cgroup v1 /a/b" or "physical memory"
};

// The smaller of the memory limit of the process's own cgroup (cgroup v2 memory.max, else cgroup
// v1 memory.limit_in_bytes; the smallest along the path up to the hierarchy's root, since each
// level bounds the ones below) and `physical` bytes. The cgroup files are read under `root`
// ("" on a real system: /proc/self/cgroup and /sys/fs/cgroup).
MemoryLimit memory_limit(const std::string& root, int64_t physical);

// The host's physical memory in bytes.
int64_t physical_memory();

// What clients' decoders may hold of a limit: all but a quarter (at least 64 MiB), which is kept
// for what is not counted per client: the service's own code and libraries, its thread stacks and
// allocator slack, and the pages of the page cache that the memory controller charges to it.
int64_t decoding_budget(int64_t limit);
