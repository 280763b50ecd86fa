// The worker's side of a decoder client's channel: doorbell, request, sync msg.

#include "server/decoder_worker.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/eintr.h"
#include "protocol/media_protocol.h"
#include "server/server_internal.h"

using namespace mediaclient::protocol;

using server_detail::CLIENT_READ_SIZE;

DecoderWorker::DecoderWorker(UniqueFd client, UniqueFd control,
                             std::unique_ptr<MediaDecoder> decoder,
                             std::function<void()> before_decoding)
    : client_(std::move(client)),
      control_(std::move(control)),
      decoder_(std::move(decoder)),
      before_decoding_(std::move(before_decoding)) {}

DecoderWorker::~DecoderWorker() {
    decoder_.reset();
}

void DecoderWorker::run() {
    for (;;) {
        if (wait(false) != Event::kDoorbell) {
            break;
        }
        const Doorbell doorbell = read_doorbell();
        if (doorbell == Doorbell::kGone) {
            break;
        }
        if (doorbell == Doorbell::kNone || !serving_) {
            continue;  // a decoder that a request ended answers nothing more
        }
        if (before_decoding_ && decoder_->pending_request() != REQUEST_INIT_CODEC) {
            before_decoding_();
            before_decoding_ = nullptr;
        }
        serving_ = decoder_->serve_request();
        LOGD("decoder notify event");
        // A client whose shared memory shrank under the mapping has lost its block: no result
        // will ever be valid, so it is dropped instead of synced.
        if (decoder_->block_lost()) {
            break;
        }
        if (!send_sync()) {
            break;
        }
    }
    LOGD("cleaning disconnected and/or error decoder clients");
}

DecoderWorker::Event DecoderWorker::wait(bool writable) {
    if (!writable) {
        const SpinWait::Clock::time_point idle_since = SpinWait::Clock::now();
        const bool rung = doorbell_spin_.spin([this] {
            char byte;
            return recv(client_.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno != EAGAIN;
        });
        if (rung) {
            doorbell_spin_.waited(SpinWait::Clock::now() - idle_since);
            return Event::kDoorbell;
        }
    }
    pollfd fds[2] = {{client_.get(), static_cast<short>(writable ? POLLOUT : POLLIN), 0},
                     {control_.get(), POLLIN, 0}};
    const SpinWait::Clock::time_point asleep_since = SpinWait::Clock::now();
    if (retry_on_eintr([&] { return poll(fds, 2, -1); }) < 0) {
        LOGE("decoder io event error");
        return Event::kEnd;
    }
    doorbell_spin_.waited(SpinWait::Clock::now() - asleep_since);
    // The service ends: the request that was answered was the last.
    if (fds[1].revents != 0) {
        return Event::kEnd;
    }
    if (writable) {
        return Event::kWritable;
    }
    return Event::kDoorbell;
}

DecoderWorker::Doorbell DecoderWorker::read_doorbell() {
    char buffer[CLIENT_READ_SIZE] = {};
    const ssize_t n =
        retry_on_eintr([&] { return recv(client_.get(), buffer, sizeof(buffer), MSG_DONTWAIT); });
    if (n < 0 && errno == EAGAIN) {
        return Doorbell::kNone;
    }
    if (n < 0) {
        LOGE("read decoder client msg failed: [%d] %s", errno, strerror(errno));
        return Doorbell::kGone;
    }
    if (n == 0) {
        LOGD("decoder client disconnected");
        return Doorbell::kGone;
    }
    return Doorbell::kRung;
}

bool DecoderWorker::send_sync() {
    const uint8_t sync = SYNC_MSG_BYTE;
    for (;;) {
        // MSG_NOSIGNAL: a client that shut down its reading side ends itself, not the worker.
        const ssize_t n = retry_on_eintr(
            [&] { return send(client_.get(), &sync, 1, MSG_NOSIGNAL | MSG_DONTWAIT); });
        if (n == 1) {
            return true;
        }
        // A client that has closed its connection reads as gone, as a hang-up does.
        if (n < 0 && (errno == EPIPE || errno == ECONNRESET)) {
            LOGD("decoder client disconnected");
            return false;
        }
        if (n < 0 && errno != EAGAIN) {
            LOGE("send sync msg to decoder client failed: [%d] %s", errno, strerror(errno));
            return false;
        }
        if (wait(true) != Event::kWritable) {
            return false;
        }
    }
}
