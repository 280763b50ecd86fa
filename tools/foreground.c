/* Preloaded into media-service (LD_PRELOAD) by an operator who wants its whole log: daemon()
 * then keeps the process in the foreground with its standard streams, where the log goes, instead
 * of pointing them at /dev/null. Nothing else changes; the service stops on SIGTERM or SIGINT
 * (Ctrl-C) as usual. */

#include <unistd.h>

int daemon(int nochdir, int noclose) {
    (void)noclose;
    return nochdir != 0 ? 0 : chdir("/");
}
