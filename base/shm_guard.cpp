#include "base/shm_guard.h"

#include <signal.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <mutex>

namespace {

// Read by the signal handler without locks, so plain atomics in a fixed table.
struct Slot {
    std::atomic<uintptr_t> start{0};
    std::atomic<size_t> size{0};
    std::atomic<int> lost{0};
};

constexpr int kSlots = 1024;
Slot slots[kSlots];
std::mutex table_mutex;  // serialises add/remove; the handler never takes it
std::once_flag install_once;

void on_sigbus(int sig, siginfo_t* info, void*) {
    auto addr = reinterpret_cast<uintptr_t>(info->si_addr);
    for (Slot& slot : slots) {
        uintptr_t start = slot.start.load();
        size_t size = slot.size.load();
        if (start != 0 && addr >= start && addr < start + size) {
            // Private zero pages in place of the vanished object; the access is retried.
            void* mapped = mmap(reinterpret_cast<void*>(start), size, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
            if (mapped != MAP_FAILED) {
                slot.lost.store(1);
                return;
            }
            break;
        }
    }
    // Not ours: die as we would have without the handler.
    signal(sig, SIG_DFL);
    raise(sig);
}

void install() {
    struct sigaction action = {};
    action.sa_sigaction = on_sigbus;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    sigaction(SIGBUS, &action, nullptr);
}

}  // namespace

int ShmGuard::add(void* addr, size_t size) {
    std::call_once(install_once, install);
    std::lock_guard<std::mutex> lock(table_mutex);
    for (int i = 0; i < kSlots; ++i) {
        if (slots[i].start.load() == 0) {
            slots[i].lost.store(0);
            slots[i].size.store(size);
            slots[i].start.store(reinterpret_cast<uintptr_t>(addr));
            return i;
        }
    }
    return -1;
}

void ShmGuard::remove(int slot) {
    if (slot < 0 || slot >= kSlots) {
        return;
    }
    std::lock_guard<std::mutex> lock(table_mutex);
    slots[slot].start.store(0);
    slots[slot].size.store(0);
    slots[slot].lost.store(0);
}

bool ShmGuard::lost(int slot) {
    return slot >= 0 && slot < kSlots && slots[slot].lost.load() != 0;
}
