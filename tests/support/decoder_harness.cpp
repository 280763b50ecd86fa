#include "support/decoder_harness.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "base/log.h"

DecoderHarness::DecoderHarness() : loop_(EVFLAG_AUTO) {
    fd_ = memfd_create("decoder-harness", MFD_CLOEXEC);
    if (fd_ < 0 || ftruncate(fd_, SHM_BLOCK_SIZE) != 0) {
        abort();
    }
    void* mapped = mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (mapped == MAP_FAILED) {
        abort();
    }
    block_ = static_cast<uint8_t*>(mapped);
    notify_ = std::make_shared<ev::async>(loop_);
    notify_->set<DecoderHarness, &DecoderHarness::on_notify>(this);
    notify_->start();
    // The decoder owns the descriptor it is given; keep ours for the harness mapping.
    decoder_.reset(new MediaDecoder(notify_, dup(fd_), false));
    if (!decoder_->valid) {
        abort();
    }
    decoder_->run();
}

DecoderHarness::~DecoderHarness() {
    signal_quit();
    decoder_.reset();
    notify_->stop();
    notify_.reset();
    munmap(block_, SHM_BLOCK_SIZE);
    close(fd_);
}

void DecoderHarness::write_init(int32_t media_type, uint32_t codec_index,
                                const std::array<int32_t, 7>& params, const void* extradata,
                                size_t extradata_size) {
    ExchangeInitRequest request{};
    request.request_type = REQUEST_INIT_CODEC;
    request.media_type = static_cast<uint32_t>(media_type);
    request.codec_index = codec_index;
    for (size_t i = 0; i < params.size(); ++i) {
        request.param[i] = params[i];
    }
    memcpy(block_, &request, sizeof(request));
    if (extradata != nullptr && extradata_size > 0) {
        memcpy(input(), extradata, extradata_size);
    }
}

void DecoderHarness::write_decode(const void* data, int32_t size, int64_t pts) {
    ExchangeDataRequest request{};
    request.request_type = REQUEST_DECODE_FRAME;
    request.data_size = size;
    request.pts = pts;
    memcpy(block_, &request, sizeof(request));
    if (data != nullptr && size > 0) {
        memcpy(input(), data, static_cast<size_t>(size));
    }
}

void DecoderHarness::write_codec_config(const void* data, int32_t size) {
    ExchangeDataRequest request{};
    request.request_type = REQUEST_CODEC_CONFIG;
    request.data_size = size;
    memcpy(block_, &request, sizeof(request));
    if (data != nullptr && size > 0) {
        memcpy(input(), data, static_cast<size_t>(size));
    }
}

void DecoderHarness::write_reset(int32_t a, int32_t b, int32_t c) {
    ExchangeVideoReset request{REQUEST_RESET_CONTEXT, 0, a, b, c};
    memcpy(block_, &request, sizeof(request));
}

void DecoderHarness::write_request_type(uint32_t type) {
    memcpy(block_, &type, sizeof(type));
}

void DecoderHarness::signal_request() {
    decoder_->signal_request();
}

void DecoderHarness::signal_quit() {
    decoder_->signal_quit();
}

bool DecoderHarness::request(int timeout_ms) {
    signal_request();
    return wait_completions(1, timeout_ms);
}

bool DecoderHarness::wait_completions(int count, int timeout_ms) {
    wanted_ = completions_ + count;
    timed_out_ = false;
    ev::timer timer(loop_);
    timer.set<DecoderHarness, &DecoderHarness::on_timeout>(this);
    timer.start(timeout_ms / 1000.0, 0.0);
    while (completions_ < wanted_ && !timed_out_) {
        loop_.run(EVRUN_ONCE);
    }
    timer.stop();
    return completions_ >= wanted_;
}

void DecoderHarness::on_notify(ev::async&, int) {
    decoder_->requests_done.load(std::memory_order_acquire);
    ++completions_;
}

void DecoderHarness::on_timeout(ev::timer&, int) {
    timed_out_ = true;
}

ExchangeResult DecoderHarness::result() const {
    ExchangeResult r;
    memcpy(&r, block_ + SHM_RESULT_OFFSET, sizeof(r));
    return r;
}

void DecoderHarness::set_result(const ExchangeResult& r) {
    memcpy(block_ + SHM_RESULT_OFFSET, &r, sizeof(r));
}

LogCapture::LogCapture() {
    char path[] = "/tmp/svc-log-XXXXXX";
    int fd = mkstemp(path);
    if (fd >= 0) {
        close(fd);
    }
    path_ = path;
    SvcLogFile(path_.c_str());
}

LogCapture::~LogCapture() {
    SvcLogFile(nullptr);
    unlink(path_.c_str());
}

std::string LogCapture::text() const {
    std::ifstream in(path_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool LogCapture::contains(const std::string& needle) const {
    return text().find(needle) != std::string::npos;
}

size_t LogCapture::count(const std::string& needle) const {
    std::string all = text();
    size_t n = 0;
    for (size_t pos = all.find(needle); pos != std::string::npos;
         pos = all.find(needle, pos + needle.size())) {
        ++n;
    }
    return n;
}
