#include <malloc.h>
#include <unistd.h>

#include <cstring>

#include "base/system_log.h"
#include "server/worker_launch.h"
#include "service/runtime.h"
#include "service/worker_main.h"

int main(int argc, char** argv) {
    // A decoder client's worker, started by the service itself.
    if (argc > 1 && strcmp(argv[1], worker_launch::kWorkerArgument) == 0) {
        return run_decoder_worker(argc, argv);
    }
    // Keeps the working directory; standard streams go to /dev/null. A failure leaves the service
    // running in the foreground.
    int daemonized = daemon(1, 0);
    (void)daemonized;
    // Warnings and errors reach the journal; opened by the daemon itself, before anything runs.
    SvcSystemLogOpen();
    // Pictures and other large buffers get pages of their own, given back to the system when
    // they are freed, instead of staying in the allocator's heaps (glibc raises this threshold
    // on its own after large frees, which would keep a departed client's pictures resident).
    mallopt(M_MMAP_THRESHOLD, 1 << 20);

    Runtime runtime;
    runtime.run();
    return 0;
}
