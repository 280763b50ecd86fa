#define LOG_MODULE "media decoder"
#define LOG_FILE "media_decoder"

#include "service/worker_main.h"

#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/eintr.h"
#include "base/log.h"
#include "base/system_log.h"
#include "decoder/media_decoder.h"
#include "decoder/memory_budget.h"
#include "server/decoder_worker.h"
#include "server/worker_launch.h"
#include "service/confinement.h"

using namespace worker_launch;

// Sanitizers reserve terabytes of shadow memory, which a memory limit would count.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SVC_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SVC_SANITIZED 1
#endif
#endif
#ifndef SVC_SANITIZED
#define SVC_SANITIZED 0
#endif

namespace {

constexpr rlim_t kMaxDescriptors = 128;
#if !SVC_SANITIZED
constexpr rlim_t kProgramMemory = rlim_t{512} << 20;
#endif

// The worker's memory comes from the accepting process: a grant is asked for, and waited for, on
// the control connection.
bool ask_for_memory(int64_t wanted, MemoryGrant* answer) {
    if (retry_on_eintr([&] { return send(kControlFd, &wanted, sizeof(wanted), MSG_NOSIGNAL); }) !=
        static_cast<ssize_t>(sizeof(wanted))) {
        return false;
    }
    return retry_on_eintr([&] { return recv(kControlFd, answer, sizeof(*answer), 0); }) ==
           static_cast<ssize_t>(sizeof(*answer));
}

// Ceilings the kernel enforces whatever code runs here: descriptors (a client needs its
// connection, its block, the control connection and what its devices open), and, outside the
// sanitizers' builds (whose shadow memory counts too), private memory: the most the service's
// budget can grant one worker, plus what its program, libraries and thread stacks take.
void set_limits(int64_t budget) {
    const rlimit files{kMaxDescriptors, kMaxDescriptors};
    if (setrlimit(RLIMIT_NOFILE, &files) != 0) {
        LOGW("no descriptor limit: [%d] %s", errno, strerror(errno));
    }
#if !SVC_SANITIZED
    const rlim_t bytes = static_cast<rlim_t>(budget) + kProgramMemory;
    const rlimit data{bytes, bytes};
    if (budget > 0 && setrlimit(RLIMIT_DATA, &data) != 0) {
        LOGW("no memory limit: [%d] %s", errno, strerror(errno));
    }
#else
    (void)budget;
#endif
}

// The client's block, the limits and the confinement, then its requests until the worker ends.
void serve(int client, bool is_ashmem) {
    std::unique_ptr<MediaDecoder> decoder(new MediaDecoder(kBlockFd, is_ashmem, client));
    if (!decoder->valid()) {
        LOGE("decoder instance create failed");
        return;
    }
    set_limits(MemoryBudget::service().limit());
    confinement::confine(confinement::Stage::kWorkerDevices);
    DecoderWorker worker(UniqueFd(kClientFd), UniqueFd(kControlFd), std::move(decoder),
                         [] { confinement::confine(confinement::Stage::kWorkerDecoding); });
    worker.run();
}

}  // namespace

int run_decoder_worker(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    close(kProgramFd);
    const int client = atoi(argv[2]);
    SvcLogSetClient(client);
    SvcSystemLogRelay(kControlFd);
    // As in the service: large buffers get pages of their own, given back when freed.
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    MemoryBudget::service().set_limit(strtoll(argv[4], nullptr, 10));
    MemoryBudget::service().set_upstream(ask_for_memory);
    serve(client, strcmp(argv[3], "ashmem") == 0);
    // The log's switch back to standard output at exit is the service's, not each worker's.
    SvcLogOff();
    return 0;
}
