#include <unistd.h>

#include "service/runtime.h"

int main() {
    // Keeps the working directory; standard streams go to /dev/null. A failure leaves the service
    // running in the foreground.
    int daemonized = daemon(1, 0);
    (void)daemonized;

    Runtime runtime;
    runtime.run();
    return 0;
}
