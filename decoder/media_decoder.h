#pragma once

// The service side of one decoder client: the transport around its codec. It maps the client's
// exchange block and serves the requests the client writes there, one at a time, in the client's
// own worker process; the decoding itself is the codec's (MediaCodec).

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>

#include "base/ashmem.h"
#include "base/unique_fd.h"
#include "protocol/media_protocol.h"
#include "decoder/media_codec.h"

// A worker opens each type of hardware device once, at its first setup, before it confines itself
// for decoding (which opens no device); later setups and resets share it, or get its error again.
class OpenedDevices : public MediaCodec::HardwareSeam {
  public:
    OpenedDevices() = default;
    OpenedDevices(const OpenedDevices&) = delete;
    OpenedDevices& operator=(const OpenedDevices&) = delete;
    ~OpenedDevices() override;
    int create_device(AVBufferRef** device, AVHWDeviceType type) const override;

  private:
    struct Opened {
        int result;
        AVBufferRef* device;
    };
    mutable std::map<int, Opened> opened_;  // by AVHWDeviceType
};

class MediaDecoder {
  public:
    // Takes `fd` and maps it as the block (an ashmem region when `is_ashmem`, else a POSIX shared
    // memory object). `client` is the client's number (its connection's descriptor in the
    // accepting process), which names the worker.
    MediaDecoder(int fd, bool is_ashmem, int client);
    MediaDecoder(const MediaDecoder&) = delete;
    MediaDecoder& operator=(const MediaDecoder&) = delete;
    ~MediaDecoder();

    // Whether the block is mapped: only a valid instance serves.
    bool valid() const { return valid_; }

    // Serves the request that waits in the block (after a doorbell). False when the worker must
    // end once it is answered: a failed init, an unknown request, or a block that shrank under
    // the mapping (then it reads zero and no result can reach the client).
    bool serve_request();
    // The request that waits in the block.
    uint32_t pending_request() const {
        return read_request<uint32_t>(mediaclient::protocol::REQ_TYPE_OFFSET);
    }
    // Whether the client's object shrank under the mapping: the client must be dropped, not synced.
    bool block_lost() const { return lost_; }

  private:
    bool dispatch(uint32_t request_type);
    bool init_codec();
    void reset_codec();
    bool check_block_lost();
    void name_worker();
    void clear_output_after(size_t used);
    bool release_pages(size_t offset, size_t length);
    template <typename T>
    T read_request(size_t offset) const {
        T value;
        memcpy(&value, block_ + mediaclient::protocol::SHM_REQUEST_OFFSET + offset, sizeof(T));
        return value;
    }

    bool valid_ = false;
    bool lost_ = false;
    UniqueFd shm_fd_;
    uint8_t* block_ = nullptr;
    std::unique_ptr<AshMemory> ashmem_;
    int guard_slot_ = -1;
    int client_number_ = -1;
    OpenedDevices devices_;  // outlives the codec, whose contexts refer to them
    std::unique_ptr<MediaCodec> codec_;
    char worker_name_[16] = {};  // the name last given to the worker
};
