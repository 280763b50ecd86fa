// The file system policy, with Landlock: what the service and the libraries it loads may open
// once it serves. Everything else, the user's home, /tmp and /var among it, cannot be opened,
// created or changed. Landlock also keeps ptrace from reaching any process outside the policy.

#include <dirent.h>
#include <dlfcn.h>
#include <sys/auxv.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "base/unique_fd.h"
#include "service/confinement.h"

namespace {

// Landlock's interface, written out here: Debian 11's kernel headers predate it and Debian 12's
// know only its first versions. The values are the kernel's, the same on every architecture.
constexpr long kCreateRuleset = 444, kAddRule = 445, kRestrictSelf = 446;
constexpr uint32_t kCreateRulesetVersion = 1;
constexpr int kRulePathBeneath = 1;

constexpr uint64_t kExecute = 1ULL << 0, kReadFile = 1ULL << 2, kWriteFile = 1ULL << 1;
constexpr uint64_t kReadDir = 1ULL << 3;
constexpr uint64_t kFirstFsRights = (1ULL << 13) - 1;  // version 1: execute to make_sym
constexpr uint64_t kRefer = 1ULL << 13, kTruncate = 1ULL << 14, kIoctlDev = 1ULL << 15;
constexpr uint64_t kFileRights = kExecute | kWriteFile | kReadFile | kTruncate | kIoctlDev;
constexpr uint64_t kTcp = 1ULL << 0 | 1ULL << 1;                      // bind, connect (version 4)
constexpr uint64_t kScopes = 1ULL << 0 | 1ULL << 1;                   // abstract sockets, signals
constexpr int kNetVersion = 4, kIoctlVersion = 5, kScopeVersion = 6;  // first versions with them

struct RulesetAttr {
    uint64_t handled_access_fs;
    uint64_t handled_access_net;
    uint64_t scoped;
};

struct __attribute__((packed)) PathBeneath {
    uint64_t allowed_access;
    int32_t parent_fd;
};

constexpr uint64_t kRead = kReadFile | kReadDir;
constexpr uint64_t kDevice = kRead | kWriteFile | kIoctlDev;

// What the service opens after it serves: the clients' POSIX shared memory, the session
// process's command line, and what hardware decoding reads: driver libraries and their
// configuration, sysfs and procfs entries, the devices. Missing paths are left out.
struct PathRule {
    const char* path;
    uint64_t access;
};
const PathRule kPaths[] = {
    {"/dev/shm", kReadFile | kWriteFile},
    {"/proc", kRead},
    {"/sys", kRead},
    {"/usr", kRead},
    {"/lib", kRead},
    {"/lib64", kRead},
    {"/lib32", kRead},
    {"/opt", kRead},
    {"/etc", kRead},
    {"/dev/dri", kDevice},
    {"/dev/null", kReadFile | kWriteFile},
    {"/dev/zero", kReadFile},
    {"/dev/urandom", kReadFile},
};
// Device nodes in /dev of the NVIDIA drivers, found by these prefixes (nvidia0, nvidiactl,
// nvidia-uvm, nvhost-*, nvmap).
const char* const kDevicePrefixes[] = {"nvidia", "nvhost", "nvmap"};

uint64_t fs_rights(int version) {
    return kFirstFsRights | (version >= 2 ? kRefer : 0) | (version >= 3 ? kTruncate : 0) |
           (version >= kIoctlVersion ? kIoctlDev : 0);
}

// Allows `access` beneath `path` (or on the file `path`); false only on an error of the rule
// itself, not when the path does not exist.
bool allow(int ruleset, const std::string& path, uint64_t access, uint64_t handled) {
    UniqueFd fd(open(path.c_str(), O_PATH | O_CLOEXEC));
    struct stat st;
    if (!fd.valid() || fstat(fd.get(), &st) != 0) {
        return true;
    }
    PathBeneath rule{access & handled & (S_ISDIR(st.st_mode) ? ~0ULL : kFileRights), fd.get()};
    return rule.allowed_access == 0 || syscall(kAddRule, ruleset, kRulePathBeneath, &rule, 0) == 0;
}

bool allow_all(int ruleset, uint64_t handled) {
    bool ok = true;
    for (const PathRule& rule : kPaths) {
        ok = allow(ruleset, rule.path, rule.access, handled) && ok;
    }
    DIR* dev = opendir("/dev");
    for (dirent* e = dev != nullptr ? readdir(dev) : nullptr; e != nullptr; e = readdir(dev)) {
        for (const char* prefix : kDevicePrefixes) {
            if (strncmp(e->d_name, prefix, strlen(prefix)) == 0) {
                ok = allow(ruleset, std::string("/dev/") + e->d_name, kDevice, handled) && ok;
            }
        }
    }
    if (dev != nullptr) {
        closedir(dev);
    }
    // The program's own file, which every worker runs (with the program interpreter the kernel
    // loads for it), and which a sanitizer's report reads to name its functions; the libraries
    // preloaded into the service (the test hooks), which every worker loads too.
    char self[PATH_MAX] = {};
    if (readlink("/proc/self/exe", self, sizeof(self) - 1) > 0) {
        ok = allow(ruleset, self, kReadFile | kExecute, handled) && ok;
    }
    Dl_info interpreter{};
    if (dladdr(reinterpret_cast<void*>(getauxval(AT_BASE)), &interpreter) != 0 &&
        interpreter.dli_fname != nullptr) {
        ok = allow(ruleset, interpreter.dli_fname, kReadFile | kExecute, handled) && ok;
    }
    const char* preload = getenv("LD_PRELOAD");
    std::string libraries = preload != nullptr ? preload : "";
    for (size_t start = 0, end; start < libraries.size(); start = end + 1) {
        end = std::min(libraries.find_first_of(": ", start), libraries.size());
        if (end > start) {
            ok = allow(ruleset, libraries.substr(start, end - start), kReadFile, handled) && ok;
        }
    }
#ifdef SVC_COVERAGE_DIR
    // A coverage build writes its counts beside its objects at exit: read, write, make files and
    // folders.
    constexpr uint64_t kCounts = kRead | kWriteFile | 1ULL << 8 | 1ULL << 7;
    ok = allow(ruleset, SVC_COVERAGE_DIR, kCounts, handled) && ok;
#endif
    return ok;
}

std::string failed(const char* what) {
    return std::string("no file system policy: ") + what + ": " + strerror(errno);
}

}  // namespace

namespace confinement {

std::string restrict_file_system(std::string* note) {
    const long version = syscall(kCreateRuleset, nullptr, 0, kCreateRulesetVersion);
    if (version < 1) {
        return failed("this kernel has no Landlock");
    }
    const RulesetAttr attr{fs_rights(static_cast<int>(version)), version >= kNetVersion ? kTcp : 0,
                           version >= kScopeVersion ? kScopes : 0};
    // Older kernels take the part of the structure they know.
    const size_t size = version >= kScopeVersion ? sizeof(attr)
                        : version >= kNetVersion ? offsetof(RulesetAttr, scoped)
                                                 : offsetof(RulesetAttr, handled_access_net);
    UniqueFd ruleset(static_cast<int>(syscall(kCreateRuleset, &attr, size, 0)));
    if (!ruleset.valid()) {
        return failed("creating the ruleset");
    }
    if (!allow_all(ruleset.get(), attr.handled_access_fs)) {
        return failed("adding a rule");
    }
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || syscall(kRestrictSelf, ruleset.get(), 0)) {
        return failed("restricting the process");
    }
    if (version < kScopeVersion) {
        *note = "Landlock " + std::to_string(version) +
                ": signals to other processes and abstract sockets not restricted";
    }
    if (version < kIoctlVersion) {
        *note += std::string(note->empty() ? "Landlock " + std::to_string(version) + ": " : "; ") +
                 "device ioctls not restricted";
    }
    return "";
}

}  // namespace confinement
