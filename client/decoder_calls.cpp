// The decoder client's exchange: the doorbell, the sync msg, and the one-step requests.
#include "client/client_internal.h"

#include <cerrno>
#include <cstring>
#include <memory>

namespace mediaclient {

using namespace protocol;
using internal::is_disconnect_errno;
using internal::kSignalBufferSize;

namespace {

constexpr const char* kInit = "init";

}  // namespace

ClientError DecoderClient::ring(size_t bytes) {
    return ring_for("a request", bytes);
}

ClientError DecoderClient::wait_sync(int timeout_ms) {
    return wait_for("a request", timeout_ms);
}

ClientError DecoderClient::call(int timeout_ms) {
    ClientError rung = ring();
    return rung == ClientError::kOk ? wait_sync(timeout_ms) : rung;
}

ClientError DecoderClient::ring_for(const char* request, size_t bytes) {
    const std::string doing = std::string("ring the doorbell for ") + request;
    error_text_.clear();
    if (!fd_) {
        return fail(ClientError::kNotConnected, doing);
    }
    // The service answers nothing more on this connection: waiting would only cost the timeout.
    if (decoder_ended_ && check_requests_) {
        error_text_ = std::string(request) +
                      ": the service ended this connection's decoder when its init failed "
                      "(close() and connect again)";
        return ClientError::kDisconnected;
    }
    if (bytes == 0) {
        // An empty record reads as end of file on the service side.
        return refuse(doing + ": a doorbell is at least 1 byte");
    }
    uint8_t small[kSignalBufferSize];
    std::unique_ptr<uint8_t[]> large;
    uint8_t* buf = small;
    if (bytes > sizeof(small)) {
        large.reset(new uint8_t[bytes]);
        buf = large.get();
    }
    memset(buf, 'D', bytes);
    if (internal::send_retry(fd_.get(), buf, bytes) < 0) {
        errno_ = errno;
        return fail(is_disconnect_errno(errno_) ? ClientError::kDisconnected : ClientError::kSystem,
                    doing);
    }
    return ClientError::kOk;
}

ClientError DecoderClient::wait_for(const char* request, int timeout_ms) {
    const std::string doing = std::string("wait for the answer to ") + request;
    if (!fd_) {
        return fail(ClientError::kNotConnected, doing);
    }
    ClientError ready = wait_readable(fd_.get(), timeout_ms);
    if (ready == ClientError::kTimeout) {
        error_text_ =
            std::string(request) + ": no answer within " + std::to_string(timeout_ms) + " ms";
        return ready;
    }
    if (ready != ClientError::kOk) {
        errno_ = errno;
        return fail(ready, doing);
    }
    uint8_t buf[kSignalBufferSize];
    ssize_t n = internal::read_retry(fd_.get(), buf, sizeof(buf));
    if (n < 0) {
        errno_ = errno;
        return fail(is_disconnect_errno(errno_) ? ClientError::kDisconnected : ClientError::kSystem,
                    doing);
    }
    if (n == 0) {
        return fail(ClientError::kDisconnected, doing);
    }
    note_answer();
    return ClientError::kOk;
}

// What an answered request did to the connection's decoder, read from the block as the request
// and its answer left it (also for requests written step by step).
void DecoderClient::note_answer() {
    uint32_t request_type = 0;
    memcpy(&request_type, block_ + SHM_REQUEST_OFFSET + REQ_TYPE_OFFSET, sizeof(request_type));
    if (request_type == REQUEST_INIT_CODEC) {
        const int32_t status = result().status;
        has_decoder_ = status == STATUS_OK;
        decoder_ended_ = status == STATUS_FAILED;
    } else if (request_type == REQUEST_DESTROY_CONTEXT) {
        has_decoder_ = false;
    }
}

// Requests that only an open decoder can answer; without one the service answers all zero, which
// reads as "no output yet".
ClientError DecoderClient::need_decoder(ClientError written, const char* request) {
    if (written != ClientError::kOk || has_decoder_ || !check_requests_) {
        return written;
    }
    return refuse(std::string(request) +
                  ": no decoder on this connection (init_video() or init_audio() first)");
}

ClientError DecoderClient::finish(ClientError written, const char* request, ExchangeResult* result,
                                  int timeout_ms) {
    if (written != ClientError::kOk) {
        return written;
    }
    ClientError done = ring_for(request, 1);
    done = done == ClientError::kOk ? wait_for(request, timeout_ms) : done;
    if (done == ClientError::kOk && result != nullptr) {
        *result = this->result();
    }
    return done;
}

ClientError DecoderClient::init_video(VideoCodec codec, const VideoInitParams& params,
                                      const void* config, size_t config_size,
                                      ExchangeResult* result, int timeout_ms) {
    return init_video(static_cast<uint32_t>(codec), params, config, config_size, result,
                      timeout_ms);
}

ClientError DecoderClient::init_audio(AudioCodec codec, const AudioInitParams& params,
                                      const void* config, size_t config_size,
                                      ExchangeResult* result, int timeout_ms) {
    return init_audio(static_cast<uint32_t>(codec), params, config, config_size, result,
                      timeout_ms);
}

ClientError DecoderClient::init_video(uint32_t codec_index, const VideoInitParams& params,
                                      const void* config, size_t config_size,
                                      ExchangeResult* result, int timeout_ms) {
    return finish(write_init_video(codec_index, params, config, config_size), kInit, result,
                  timeout_ms);
}

ClientError DecoderClient::init_audio(uint32_t codec_index, const AudioInitParams& params,
                                      const void* config, size_t config_size,
                                      ExchangeResult* result, int timeout_ms) {
    return finish(write_init_audio(codec_index, params, config, config_size), kInit, result,
                  timeout_ms);
}

ClientError DecoderClient::decode_frame(const void* data, size_t size, int64_t pts,
                                        ExchangeResult* result, int timeout_ms) {
    const char* request = "decode frame";
    return finish(need_decoder(write_decode_frame(data, size, pts), request), request, result,
                  timeout_ms);
}

ClientError DecoderClient::flush(int timeout_ms) {
    return finish(write_request_type(REQUEST_FLUSH), "flush", nullptr, timeout_ms);
}

ClientError DecoderClient::codec_config(const void* data, size_t size, int timeout_ms) {
    const char* request = "codec config";
    return finish(need_decoder(write_codec_config(data, size), request), request, nullptr,
                  timeout_ms);
}

ClientError DecoderClient::reset_video(int32_t out_width, int32_t out_height,
                                       PixelFormat out_pix_fmt, int timeout_ms) {
    return finish(need_decoder(write_reset_video(out_width, out_height, out_pix_fmt), "reset"),
                  "reset", nullptr, timeout_ms);
}

ClientError DecoderClient::reset_audio(SampleFormat out_sample_fmt, int32_t out_channels,
                                       int32_t out_sample_rate, int timeout_ms) {
    return finish(
        need_decoder(write_reset_audio(out_sample_fmt, out_channels, out_sample_rate), "reset"),
        "reset", nullptr, timeout_ms);
}

ClientError DecoderClient::destroy(int timeout_ms) {
    return finish(write_request_type(REQUEST_DESTROY_CONTEXT), "destroy", nullptr, timeout_ms);
}

}  // namespace mediaclient
