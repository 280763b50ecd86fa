// A decoder client's channel: doorbells wake its worker, completions become sync msgs, and a
// client that goes is removed in the same loop iteration.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/defer_action.h"
#include "base/eintr.h"
#include "base/system_log.h"
#include "decoder/exchange_block.h"
#include "server/media_server.h"
#include "server/server_internal.h"

using server_detail::CLIENT_READ_SIZE;
using server_detail::set_write_interest;

namespace {

// A doorbell this soon after the client's last sync msg comes from a client in a tight loop.
constexpr std::chrono::microseconds kBackToBack(100);

}  // namespace

MediaServer::decoder_handle_t::~decoder_handle_t() {
    if (io && io->is_active()) {
        io->stop();
    }
    // Stopped here on the loop thread, so that a worker holding the last reference for a moment
    // only ever frees an inactive watcher.
    if (notify && notify->is_active()) {
        notify->stop();
    }
    // The decoder's destructor joins its worker, so the worker is told to end here, whatever led
    // to this destruction: stop() only reaches the decoders registered when it runs, and a
    // registration that libev runs later in the same loop iteration (its client type msg was
    // already pending) would otherwise be joined forever. A second quit signal is harmless.
    if (decoder) {
        decoder->signal_quit();
    }
}

void MediaServer::decoder_handle_t::decoder_gone() {
    if (io) {
        io->stop();
    }
    if (decoder) {
        decoder->signal_quit();
    }
    on_terminate(this);
}

// Wakes the worker, noting when the request started for the loop's completion spin.
void MediaServer::decoder_handle_t::doorbell() {
    if (!decoder) {
        return;
    }
    if (!request_in_flight) {
        request_in_flight = true;
        rung_at = SpinWait::Clock::now();
        back_to_back = rung_at - synced_at <= kBackToBack;
        completions_before = decoder->completed_requests();
    }
    decoder->signal_request();
}

bool MediaServer::decoder_handle_t::awaited(SpinWait::Clock::duration short_request) const {
    return request_in_flight && back_to_back && decoder && !decoder->quitting() &&
           last_request <= short_request;
}

void MediaServer::decoder_handle_t::on_decoder_client_io_event(ev::io& io, int revents) {
    LogClientScope log_client(io.fd);
    DeferAction gone([this] { decoder_gone(); });

    if (revents & EV_READ) {
        char buffer[CLIENT_READ_SIZE] = {};
        const ssize_t n = retry_on_eintr([&] { return read(io.fd, buffer, sizeof(buffer)); });
        if (n < 0) {
            LOGE("read decoder client msg failed: [%d] %s", errno, strerror(errno));
            return;
        }
        if (n == 0) {
            LOGD("decoder client disconnected");
            return;
        }
        doorbell();
        gone.cancel();
        return;
    }

    if (revents & EV_WRITE) {
        const uint8_t sync = SYNC_MSG_BYTE;
        // MSG_NOSIGNAL: a client that shut down its reading side ends itself, not the service.
        const ssize_t n = retry_on_eintr([&] { return send(io.fd, &sync, 1, MSG_NOSIGNAL); });
        if (n < 0) {
            LOGE("send sync msg to decoder client failed: [%d] %s", errno, strerror(errno));
            return;
        }
        if (n == 1) {
            synced_at = SpinWait::Clock::now();
            set_write_interest(io, false);
            io.start();
        }
        gone.cancel();
        return;
    }

    if (revents & EV_ERROR) {
        LOGE("decoder io event error");
        return;
    }
    gone.cancel();
}

void MediaServer::decoder_handle_t::on_decoder_notify_event(ev::async& /*watcher*/,
                                                            int /*revents*/) {
    LOGD("decoder notify event");
    // A client whose shared memory shrank under the mapping has lost its block; its worker has
    // ended and no result will ever be valid, so the client is dropped instead of synced.
    if (decoder && decoder->block_lost()) {
        decoder_gone();
        return;
    }
    if (request_in_flight) {
        request_in_flight = false;
        last_request = SpinWait::Clock::now() - rung_at;
    }
    if (io) {
        set_write_interest(*io, true);
        io->start();
    }
}
