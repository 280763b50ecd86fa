#define LOG_MODULE "runtime"
#define LOG_FILE "runtime"

#include "service/runtime.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/log.h"
#include "base/memory_limit.h"
#include "decoder/memory_budget.h"
#include "service/confinement.h"
#include "protocol/media_protocol.h"

using namespace mediaclient::protocol;

namespace {

constexpr size_t SOCKET_PATH_SIZE = 4096;

}  // namespace

Runtime::Runtime() {
    // Throws ev::bad_loop when libev cannot set up its default loop (e.g. a bad LIBEV_FLAGS);
    // nothing can run without it, so it is left uncaught.
    loop_.reset(new ev::default_loop(0));

    sigterm_watcher_.reset(new ev::sig(*loop_));
    sigint_watcher_.reset(new ev::sig(*loop_));
    sighup_watcher_.reset(new ev::sig(*loop_));

    sigterm_watcher_->set<Runtime, &Runtime::on_singal_event>(this);
    sigterm_watcher_->start(SIGTERM);
    sigint_watcher_->set<Runtime, &Runtime::on_singal_event>(this);
    sigint_watcher_->start(SIGINT);
    // Caught so that a hangup does not end the service.
    sighup_watcher_->set<Runtime, &Runtime::on_singal_event>(this);
    sighup_watcher_->start(SIGHUP);

    set_memory_budget();

    // Composed in a buffer of its own size: a longer path is cut there.
    char path[SOCKET_PATH_SIZE] = {};
    snprintf(path, sizeof(path), "%s",
             socket_path_for(getenv("XDG_RUNTIME_DIR"), geteuid()).c_str());

    media_server_.reset(new MediaServer(std::string(path)));
    media_server_->on_media_server_stopped([this] {
        LOGD("media server stopped, now quiting...");  // sic: verbatim log text
        ev_break(*loop_, EVBREAK_ONE);
    });
    // A daemon that listens, not yet serving anyone: from here on a taken-over decoder finds
    // nothing else it can do.
    confinement::confine(confinement::Stage::kAccepting);
}

// The server goes first (its workers end meanwhile), then the signal watchers, in reverse order
// of their making. A stop request that arrives once they are gone is moot (the process is ending
// with the orderly stop's status), and must not end it instead: stop requests are held back
// while the watchers go, and ignored afterwards.
Runtime::~Runtime() {
    media_server_.reset();
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGTERM);
    sigaddset(&stops, SIGINT);
    sigprocmask(SIG_BLOCK, &stops, nullptr);
    sighup_watcher_.reset();
    sigint_watcher_.reset();
    sigterm_watcher_.reset();
    signal(SIGTERM, SIG_IGN);
    signal(SIGINT, SIG_IGN);
}

// Clients' decoders may hold what the host gives the service (its cgroup's limit, else the
// physical memory), less a share kept for the service itself.
void Runtime::set_memory_budget() {
    const MemoryLimit limit = memory_limit("", physical_memory());
    const int64_t budget = decoding_budget(limit.bytes);
    MemoryBudget::service().set_limit(budget);
    LOGD("memory budget for decoders: %lld MiB of %lld MiB (%s)",
         static_cast<long long>(budget >> 20), static_cast<long long>(limit.bytes >> 20),
         limit.source.c_str());
}

void Runtime::run() {
    if (!loop_) {
        return;
    }
    LOGD("starting media service...");
    ev_run(*loop_, 0);
    LOGD("stopping media service...");
}

void Runtime::on_singal_event(ev::sig& watcher, int /*revents*/) {
    int signum = watcher.signum;
    if (signum == SIGTERM || signum == SIGINT) {
        if (media_server_) {
            media_server_->stop();
        }
        ev_break(*loop_, EVBREAK_ONE);
    }
}
