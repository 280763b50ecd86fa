// The decoder client: its shared memory block, its registration, and its requests.
#include "client/client_internal.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace mediaclient {

using namespace protocol;
using internal::is_disconnect_errno;
using internal::kSignalBufferSize;

namespace {

std::atomic<unsigned> shm_counter{0};

const std::string kBlockSize = std::to_string(SHM_BLOCK_SIZE) + " bytes";

}  // namespace

DecoderClient::~DecoderClient() {
    close();
}

void DecoderClient::close() {
    fd_.reset();
    if (block_ != nullptr) {
        ::munmap(block_, SHM_BLOCK_SIZE);
        block_ = nullptr;
    }
    shm_fd_.reset();
    if (own_shm_name_) {
        ::shm_unlink(shm_name_.c_str());
        own_shm_name_ = false;
    }
    shm_name_.clear();
    decoder_ended_ = false;
    has_decoder_ = false;
    error_text_.clear();
    video_output_ = VideoOutput{};
    audio_output_ = AudioOutput{};
}

ClientError DecoderClient::fail(ClientError error, const std::string& doing) {
    error_text_ = internal::error_text_of(error, doing, errno_);
    return error;
}

ClientError DecoderClient::refuse(const std::string& refusal) {
    if (refusal.empty()) {
        return ClientError::kOk;
    }
    return fail(ClientError::kInvalidArgument, refusal);
}

ClientError DecoderClient::map_block(int fd) {
    void* mapped = ::mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) {
        errno_ = errno;
        return fail(ClientError::kSystem, "map the exchange block of " + kBlockSize);
    }
    block_ = static_cast<uint8_t*>(mapped);
    return ClientError::kOk;
}

// Maps the block of `shm_fd_` and registers it with the service as a client of `client_type`.
ClientError DecoderClient::attach(int shm_fd, uint8_t client_type, const std::string& socket_path) {
    ClientError mapped = map_block(shm_fd);
    if (mapped != ClientError::kOk) {
        close();
        return mapped;
    }
    const std::string path = socket_path.empty() ? default_socket_path() : socket_path;
    fd_.reset(connect_service(path));
    if (!fd_) {
        errno_ = errno;
        close();
        return fail(ClientError::kSystem, "connect to " + path);
    }
    if (send_client_type_msg(fd_.get(), client_type, shm_name_, shm_fd) < 0) {
        errno_ = errno;
        close();
        return fail(ClientError::kSystem, "register as a decoder client at " + path);
    }
    return ClientError::kOk;
}

ClientError DecoderClient::connect_posix(const std::string& socket_path,
                                         const std::string& shm_name) {
    close();
    if (shm_name.size() > SHM_NAME_MAX) {
        return refuse("shared memory object name of " + std::to_string(shm_name.size()) +
                      " bytes: the client type msg holds " + std::to_string(SHM_NAME_MAX));
    }
    std::string name = shm_name;
    // A generated name may collide with an object left behind by a dead process of the same pid.
    for (int attempt = 0; attempt < 16; ++attempt) {
        if (shm_name.empty()) {
            char buf[64];
            snprintf(buf, sizeof(buf), "/mediaclient-%d-%u", static_cast<int>(getpid()),
                     shm_counter.fetch_add(1));
            name = buf;
        }
        shm_fd_.reset(::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (shm_fd_ || errno != EEXIST || !shm_name.empty()) {
            break;
        }
    }
    if (!shm_fd_) {
        errno_ = errno;
        return fail(ClientError::kSystem, "create shared memory object " + name);
    }
    shm_name_ = name;
    own_shm_name_ = true;
    if (::ftruncate(shm_fd_.get(), SHM_BLOCK_SIZE) < 0) {
        errno_ = errno;
        close();
        return fail(ClientError::kSystem,
                    "size shared memory object " + name + " to " + kBlockSize);
    }
    return attach(shm_fd_.get(), CLIENT_TYPE_SHM_DECODER, socket_path);
}

ClientError DecoderClient::connect_descriptor(const std::string& socket_path, int shm_fd) {
    close();
    if (shm_fd < 0) {
        shm_fd_.reset(::memfd_create("mediaclient-block", MFD_CLOEXEC));
        if (!shm_fd_ || ::ftruncate(shm_fd_.get(), SHM_BLOCK_SIZE) < 0) {
            errno_ = errno;
            close();
            return fail(ClientError::kSystem, "create a memfd of " + kBlockSize);
        }
        return attach(shm_fd_.get(), CLIENT_TYPE_ASHMEM_DECODER, socket_path);
    }
    shm_fd_.reset(::fcntl(shm_fd, F_DUPFD_CLOEXEC, 0));
    if (!shm_fd_) {
        errno_ = errno;
        return fail(ClientError::kSystem, "duplicate descriptor " + std::to_string(shm_fd));
    }
    // Touching a mapping beyond the end of a file faults; ashmem regions report no size here.
    struct stat st;
    if (::fstat(shm_fd_.get(), &st) == 0 && S_ISREG(st.st_mode) &&
        st.st_size < static_cast<off_t>(SHM_BLOCK_SIZE)) {
        close();
        return refuse("shared memory of " + std::to_string(st.st_size) +
                      " bytes: the exchange block needs " + kBlockSize);
    }
    return attach(shm_fd_.get(), CLIENT_TYPE_ASHMEM_DECODER, socket_path);
}

ExchangeResult DecoderClient::result() const {
    ExchangeResult result{};
    if (block_ != nullptr) {
        memcpy(&result, block_ + SHM_RESULT_OFFSET, sizeof(result));
    }
    return result;
}

void DecoderClient::set_result(const ExchangeResult& result) {
    if (block_ != nullptr) {
        memcpy(block_ + SHM_RESULT_OFFSET, &result, sizeof(result));
    }
}

ClientError DecoderClient::need_block() {
    error_text_.clear();
    if (block_ == nullptr) {
        return fail(ClientError::kNotConnected,
                    "write a request: no block (connect_posix() or connect_descriptor() first)");
    }
    return ClientError::kOk;
}

ClientError DecoderClient::write_header(const void* header, size_t size) {
    ClientError ready = need_block();
    if (ready == ClientError::kOk) {
        memcpy(block_ + SHM_REQUEST_OFFSET, header, size);
    }
    return ready;
}

// The configuration bytes go to the input area and their count to param4; no bytes, no count.
ClientError DecoderClient::write_config(const void* config, size_t config_size,
                                        int32_t* size_field) {
    if (config == nullptr) {
        return need_block();
    }
    ClientError e = refuse(internal::data_refusal("configuration bytes", config_size, true));
    e = e == ClientError::kOk ? need_block() : e;
    if (e == ClientError::kOk) {
        memmove(input(), config, config_size);
        *size_field = static_cast<int32_t>(config_size);
    }
    return e;
}

ClientError DecoderClient::write_init(uint32_t media_type, uint32_t codec_index,
                                      const std::array<int32_t, 7>& params, const void* config,
                                      size_t config_size) {
    ExchangeInitRequest request{REQUEST_INIT_CODEC, media_type, codec_index, {}};
    std::copy(params.begin(), params.end(), request.param);
    ClientError e = write_config(config, config_size, &request.param[3]);
    return e == ClientError::kOk ? write_header(&request, sizeof(request)) : e;
}

ClientError DecoderClient::write_init_video(uint32_t codec_index, const VideoInitParams& p,
                                            const void* config, size_t config_size) {
    if (check_requests_ &&
        refuse(internal::video_init_refusal(codec_index, p)) != ClientError::kOk) {
        return ClientError::kInvalidArgument;
    }
    // param4, the configuration size, is written with the bytes.
    const ClientError e = write_init(MEDIA_TYPE_VIDEO, codec_index,
                                     {p.coded_width, p.coded_height, p.coded_pix_fmt, 0,
                                      p.out_width, p.out_height, p.out_pix_fmt},
                                     config, config_size);
    if (e == ClientError::kOk) {
        video_output_ = VideoOutput{p.out_width, p.out_height, p.out_pix_fmt};
    }
    return e;
}

ClientError DecoderClient::write_init_audio(uint32_t codec_index, const AudioInitParams& p,
                                            const void* config, size_t config_size) {
    if (check_requests_ &&
        refuse(internal::audio_init_refusal(codec_index, p)) != ClientError::kOk) {
        return ClientError::kInvalidArgument;
    }
    const ClientError e = write_init(MEDIA_TYPE_AUDIO, codec_index,
                                     {p.in_sample_fmt, p.in_channels, p.in_sample_rate, 0,
                                      p.out_sample_fmt, p.out_channels, p.out_sample_rate},
                                     config, config_size);
    if (e == ClientError::kOk) {
        audio_output_ = AudioOutput{p.out_sample_fmt, p.out_channels,
                                    effective_out_sample_rate(p.out_sample_rate)};
    }
    return e;
}

// A decode frame or codec config request with its bytes; `what` names them in a refusal.
ClientError DecoderClient::write_data(uint32_t request_type, const char* what, const void* data,
                                      size_t size, bool empty_allowed, int64_t pts) {
    ClientError e = refuse(internal::data_refusal(what, size, empty_allowed));
    e = e == ClientError::kOk ? need_block() : e;
    if (e != ClientError::kOk) {
        return e;
    }
    if (data != nullptr) {
        memmove(input(), data, size);
    }
    ExchangeDataRequest request{};
    request.request_type = request_type;
    request.data_size = static_cast<int32_t>(size);
    request.pts = pts;
    memcpy(block_ + SHM_REQUEST_OFFSET, &request, sizeof(request));
    return ClientError::kOk;
}

ClientError DecoderClient::write_decode_frame(const void* data, size_t size, int64_t pts) {
    // Bytes beyond the input area are refused whether or not requests are checked.
    return write_data(REQUEST_DECODE_FRAME, "packet", data, size, !check_requests_, pts);
}

ClientError DecoderClient::write_codec_config(const void* data, size_t size) {
    return write_data(REQUEST_CODEC_CONFIG, "configuration bytes", data, size, true, 0);
}

ClientError DecoderClient::write_reset_video(int32_t out_width, int32_t out_height,
                                             PixelFormat out_pix_fmt) {
    if (check_requests_ && refuse(internal::video_output_refusal(
                               out_width, out_height, out_pix_fmt)) != ClientError::kOk) {
        return ClientError::kInvalidArgument;
    }
    ExchangeVideoReset request{REQUEST_RESET_CONTEXT, 0, out_width, out_height, out_pix_fmt};
    ClientError e = write_header(&request, sizeof(request));
    if (e == ClientError::kOk) {
        video_output_ = VideoOutput{out_width, out_height, out_pix_fmt};
    }
    return e;
}

ClientError DecoderClient::write_reset_audio(SampleFormat out_sample_fmt, int32_t out_channels,
                                             int32_t out_sample_rate) {
    if (check_requests_ &&
        refuse(internal::audio_output_refusal(out_sample_fmt, out_channels)) != ClientError::kOk) {
        return ClientError::kInvalidArgument;
    }
    ExchangeAudioReset request{REQUEST_RESET_CONTEXT, 0, out_sample_fmt, out_channels,
                               out_sample_rate};
    ClientError e = write_header(&request, sizeof(request));
    if (e == ClientError::kOk) {
        audio_output_ =
            AudioOutput{out_sample_fmt, out_channels, effective_out_sample_rate(out_sample_rate)};
    }
    return e;
}

ClientError DecoderClient::write_request_type(uint32_t request_type) {
    ClientError ready = need_block();
    if (ready == ClientError::kOk) {
        memcpy(block_ + SHM_REQUEST_OFFSET + REQ_TYPE_OFFSET, &request_type, sizeof(request_type));
    }
    return ready;
}

}  // namespace mediaclient
