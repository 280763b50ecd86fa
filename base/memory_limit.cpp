#include "base/memory_limit.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "base/eintr.h"

namespace {

// cgroup v1 reports "no limit" as the largest page count in bytes (9223372036854771712 on 4 KiB
// pages); anything from here on is no limit either.
constexpr int64_t kNoLimit = int64_t{1} << 60;

// The whole of a small file, "" when it cannot be read.
std::string read_small_file(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return "";
    }
    char buffer[4096];
    std::string text;
    ssize_t n;
    while ((n = retry_on_eintr([&] { return read(fd, buffer, sizeof(buffer)); })) > 0) {
        text.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return text;
}

// A limit file's value; kNoLimit for "max", a missing file or anything unreadable.
int64_t read_limit(const std::string& path) {
    const std::string text = read_small_file(path);
    char* end = nullptr;
    const long long value = strtoll(text.c_str(), &end, 10);
    if (text.empty() || end == text.c_str() || value <= 0 || value >= kNoLimit) {
        return kNoLimit;
    }
    return value;
}

// The smallest limit in `file` from `mount`/`path` up to `mount` itself.
int64_t limit_along(const std::string& mount, std::string path, const char* file) {
    int64_t smallest = kNoLimit;
    for (;;) {
        smallest = std::min(smallest, read_limit(mount + path + "/" + file));
        if (path.empty() || path == "/") {
            return smallest;
        }
        path.erase(path.rfind('/'));
    }
}

}  // namespace

MemoryLimit memory_limit(const std::string& root, int64_t physical) {
    MemoryLimit limit{physical, "physical memory"};
    // Lines "hierarchy:controllers:path": "0::/path" for cgroup v2, "N:...memory...:/path" for
    // the v1 memory controller.
    std::istringstream lines(read_small_file(root + "/proc/self/cgroup"));
    std::string line;
    while (std::getline(lines, line)) {
        const size_t first = line.find(':'), second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos) {
            continue;
        }
        const std::string controllers = line.substr(first + 1, second - first - 1);
        const std::string path = line.substr(second + 1);
        int64_t found = kNoLimit;
        std::string source;
        if (line.compare(0, first, "0") == 0 && controllers.empty()) {
            found = limit_along(root + "/sys/fs/cgroup", path, "memory.max");
            source = "cgroup v2 " + path;
        } else if (("," + controllers + ",").find(",memory,") != std::string::npos) {
            found = limit_along(root + "/sys/fs/cgroup/memory", path, "memory.limit_in_bytes");
            source = "cgroup v1 " + path;
        }
        if (found < limit.bytes) {
            limit = MemoryLimit{found, source};
        }
    }
    return limit;
}

int64_t physical_memory() {
    return static_cast<int64_t>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE);
}

int64_t decoding_budget(int64_t limit) {
    constexpr int64_t kLeastKept = int64_t{64} << 20;
    return std::max<int64_t>(limit - std::max(limit / 4, kLeastKept), 0);
}
