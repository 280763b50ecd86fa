#pragma once

// Shared by the fuzz targets and the seed writer: the input formats, a bounds-checked reader over
// the fuzzer's bytes, and the setup every target needs.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "decoder/exchange_block.h"

// Exchange block input: a sequence of requests, each
//   40 bytes  the request header, copied to the start of the block as it is
//   2 bytes   n, little endian
//   n bytes   copied to the start of the input area (fewer when the input ends first)
// The sequence ends at an incomplete header or after kMaxRequests requests.
constexpr size_t kRequestHeaderSize = 40;
constexpr int kMaxRequests = 48;

// Name of the POSIX shared memory object of SHM_BLOCK_SIZE bytes that the server targets create
// for type 3 clients; the seeds name it. fuzz/run-fuzzers removes it at the end.
constexpr const char* kFuzzShmName = "/svc-fuzz-block";

class FuzzReader {
  public:
    FuzzReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    size_t left() const { return size_; }
    bool empty() const { return size_ == 0; }
    // Bytes past the end read as zero.
    uint8_t u8();
    uint16_t u16();
    uint32_t u32();
    // Up to `n` bytes; fewer when the input ends.
    std::vector<uint8_t> bytes(size_t n);

  private:
    const uint8_t* data_;
    size_t size_;
};

// Appends little-endian values to a seed.
void put_u8(std::vector<uint8_t>* out, uint8_t v);
void put_u16(std::vector<uint8_t>* out, uint16_t v);
void put_u32(std::vector<uint8_t>* out, uint32_t v);
void put_bytes(std::vector<uint8_t>* out, const void* data, size_t n);

// Service log to /dev/null, FFmpeg's own log off: per-input output would dominate the run time.
void fuzz_quiet_logs();

// A memfd of `size` bytes; aborts on failure (nothing can be fuzzed without it).
int make_memfd(const char* name, size_t size);

// Creates (or reuses) kFuzzShmName with SHM_BLOCK_SIZE bytes.
void ensure_fuzz_shm();
