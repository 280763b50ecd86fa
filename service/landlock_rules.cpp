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

using confinement::Stage;

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
constexpr uint64_t kTcp = 1ULL << 0 | 1ULL << 1;                        // bind, connect (version 4)
constexpr uint64_t kAbstractSockets = 1ULL << 0, kSignals = 1ULL << 1;  // scopes (version 6)
constexpr int kNetVersion = 4, kIoctlVersion = 5, kScopeVersion = 6;    // first versions with them

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

// What each kind of process opens once it is confined; missing paths are left out.
struct PathRule {
    const char* path;
    uint64_t access;
};
// The accepting process: the clients' POSIX shared memory, the session process's command line,
// and what a starting worker loads (libraries, their configuration) and opens until it confines
// itself.
const PathRule kAccepting[] = {
    {"/dev", kReadDir},       {"/dev/shm", kReadFile | kWriteFile},
    {"/proc", kRead},         {"/sys", kRead},
    {"/usr", kRead},          {"/lib", kRead},
    {"/lib64", kRead},        {"/lib32", kRead},
    {"/opt", kRead},          {"/etc", kRead},
    {"/dev/dri", kDevice},    {"/dev/null", kReadFile | kWriteFile},
    {"/dev/zero", kReadFile}, {"/dev/urandom", kReadFile},
};
// A worker opening its devices: driver libraries and their configuration, sysfs, its own procfs
// entries, the device nodes. Not /dev/shm (its block is mapped already) and no other process.
const PathRule kWorkerDevices[] = {
    {"/dev", kReadDir},
    {"/proc/self", kRead},
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
// A worker decoding: what the C library and a sanitizer read of the process itself.
const PathRule kWorkerDecoding[] = {
    {"/proc/self", kRead},
    {"/sys/devices/system/cpu", kRead},
};
// Device nodes in /dev of the NVIDIA drivers, found by these prefixes (nvidia0, nvidiactl,
// nvidia-uvm, nvhost-*, nvmap).
const char* const kDevicePrefixes[] = {"nvidia", "nvhost", "nvmap"};

// Signals never leave the process's domain. Abstract sockets do until a worker decodes: the X
// server that VDPAU opens listens on one (and the C library's X client gives up, rather than take
// the server's file, when that one is refused); the accepting process's policy stays on the workers
// it starts. From the first packet on, the system call filter refuses every new connection anyway.
uint64_t scopes(Stage stage) {
    return kSignals | (stage == Stage::kWorkerDecoding ? kAbstractSockets : 0);
}

uint64_t fs_rights(int version) {
    return kFirstFsRights | (version >= 2 ? kRefer : 0) | (version >= 3 ? kTruncate : 0) |
           (version >= kIoctlVersion ? kIoctlDev : 0);
}

// Allows `access` beneath `path` (or on the file `path`); false only on an error of the rule
// itself, not when the path does not exist.
bool allow(int ruleset, const std::string& path, uint64_t access, uint64_t handled) {
    // Not O_PATH, which the system call filters refuse: a handle without access could be handed
    // on past the file system policy.
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st;
    if (!fd.valid() || fstat(fd.get(), &st) != 0) {
        return true;
    }
    PathBeneath rule{access & handled & (S_ISDIR(st.st_mode) ? ~0ULL : kFileRights), fd.get()};
    return rule.allowed_access == 0 || syscall(kAddRule, ruleset, kRulePathBeneath, &rule, 0) == 0;
}

template <size_t N>
bool allow_paths(int ruleset, const PathRule (&rules)[N], uint64_t handled) {
    bool ok = true;
    for (const PathRule& rule : rules) {
        ok = allow(ruleset, rule.path, rule.access, handled) && ok;
    }
    return ok;
}

bool allow_nvidia_devices(int ruleset, uint64_t handled) {
    bool ok = true;
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
    return ok;
}

// The program's own file, which every worker runs, with the program interpreter the kernel loads
// for it (only the accepting process executes it), and which a sanitizer's report reads to name
// its functions; the libraries preloaded into the service (the test hooks), which every worker
// loads too.
bool allow_program(int ruleset, uint64_t access, uint64_t handled) {
    bool ok = true;
    char self[PATH_MAX] = {};
    if (readlink("/proc/self/exe", self, sizeof(self) - 1) > 0) {
        ok = allow(ruleset, self, access, handled) && ok;
    }
    Dl_info interpreter{};
    if (dladdr(reinterpret_cast<void*>(getauxval(AT_BASE)), &interpreter) != 0 &&
        interpreter.dli_fname != nullptr) {
        ok = allow(ruleset, interpreter.dli_fname, access, handled) && ok;
    }
    const char* preload = getenv("LD_PRELOAD");
    const std::string libraries = preload != nullptr ? preload : "";
    for (size_t start = 0, end; start < libraries.size(); start = end + 1) {
        end = std::min(libraries.find_first_of(": ", start), libraries.size());
        if (end > start) {
            ok = allow(ruleset, libraries.substr(start, end - start), kReadFile, handled) && ok;
        }
    }
    return ok;
}

// The X server's authority file, which VDPAU's connection to the display reads.
bool allow_display_authority(int ruleset, uint64_t handled) {
    const char* file = getenv("XAUTHORITY");
    const char* home = getenv("HOME");
    const std::string path = file != nullptr   ? file
                             : home != nullptr ? std::string(home) + "/.Xauthority"
                                               : "";
    return path.empty() || allow(ruleset, path, kReadFile, handled);
}

bool allow_stage(int ruleset, Stage stage, uint64_t handled) {
    bool ok = true;
    switch (stage) {
        case Stage::kAccepting:
            ok = allow_paths(ruleset, kAccepting, handled) &&
                 allow_nvidia_devices(ruleset, handled) &&
                 allow_program(ruleset, kReadFile | kExecute, handled) &&
                 allow_display_authority(ruleset, handled);
            break;
        case Stage::kWorkerDevices:
            ok = allow_paths(ruleset, kWorkerDevices, handled) &&
                 allow_nvidia_devices(ruleset, handled) &&
                 allow_program(ruleset, kReadFile, handled) &&
                 allow_display_authority(ruleset, handled);
            break;
        case Stage::kWorkerDecoding:
            ok = allow_paths(ruleset, kWorkerDecoding, handled);
            break;
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

std::string restrict_file_system(Stage stage, std::string* note) {
    const long version = syscall(kCreateRuleset, nullptr, 0, kCreateRulesetVersion);
    if (version < 1) {
        return failed("this kernel has no Landlock");
    }
    const RulesetAttr attr{fs_rights(static_cast<int>(version)), version >= kNetVersion ? kTcp : 0,
                           version >= kScopeVersion ? scopes(stage) : 0};
    // Older kernels take the part of the structure they know.
    const size_t size = version >= kScopeVersion ? sizeof(attr)
                        : version >= kNetVersion ? offsetof(RulesetAttr, scoped)
                                                 : offsetof(RulesetAttr, handled_access_net);
    UniqueFd ruleset(static_cast<int>(syscall(kCreateRuleset, &attr, size, 0)));
    if (!ruleset.valid()) {
        return failed("creating the ruleset");
    }
    if (!allow_stage(ruleset.get(), stage, attr.handled_access_fs)) {
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
