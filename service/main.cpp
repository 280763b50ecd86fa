#include <unistd.h>

#include "base/system_log.h"
#include "service/runtime.h"

int main() {
    // Keeps the working directory; standard streams go to /dev/null. A failure leaves the service
    // running in the foreground.
    int daemonized = daemon(1, 0);
    (void)daemonized;
    // Warnings and errors reach the journal; opened by the daemon itself, before anything runs.
    SvcSystemLogOpen("media-service");

    Runtime runtime;
    runtime.run();
    return 0;
}
