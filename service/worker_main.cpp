#define LOG_MODULE "media decoder"
#define LOG_FILE "media_decoder"

#include "service/worker_main.h"

#include <malloc.h>
#include <sys/socket.h>

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

namespace {

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

}  // namespace

int run_decoder_worker(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    const int client = atoi(argv[2]);
    const bool is_ashmem = strcmp(argv[3], "ashmem") == 0;
    SvcLogSetClient(client);
    SvcSystemLogOpen("media-service");
    // As in the service: large buffers get pages of their own, given back when freed.
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    MemoryBudget::service().set_limit(strtoll(argv[4], nullptr, 10));
    MemoryBudget::service().set_upstream(ask_for_memory);

    std::unique_ptr<MediaDecoder> decoder(new MediaDecoder(kBlockFd, is_ashmem, client));
    if (!decoder->valid()) {
        LOGE("decoder instance create failed");
        return 0;
    }
    DecoderWorker worker(UniqueFd(kClientFd), UniqueFd(kControlFd), std::move(decoder));
    worker.run();
    return 0;
}
