#pragma once

// What the fuzz targets share: a reader over the fuzzer's bytes and the exchange block input.

#include <cstddef>
#include <cstdint>

// Reads the input front to back. Past its end numbers read as zero and byte runs come out short,
// so that every input means something.
class FuzzReader {
  public:
    FuzzReader(const uint8_t* data, size_t size) : data_(data), left_(size) {}
    bool empty() const { return left_ == 0; }
    uint8_t u8() { return left_ == 0 ? 0 : (--left_, *data_++); }
    uint16_t u16() {
        uint16_t low = u8();
        return static_cast<uint16_t>(low | u8() << 8);
    }
    uint32_t u32() {
        uint32_t low = u16();
        return low | static_cast<uint32_t>(u16()) << 16;
    }
    // Up to `*n` bytes; `*n` becomes the count taken.
    const uint8_t* bytes(size_t* n);

  private:
    const uint8_t* data_;
    size_t left_;
};

// One request of the exchange block input: the 40-byte request header, copied to the start of the
// block as it is, then u16 n and n bytes (fewer where the input ends) copied to the start of the
// input area. False, with nothing written, when the header is incomplete. A null `block` consumes
// the request without writing it.
bool read_request(FuzzReader& in, uint8_t* block);

// A memfd of `size` bytes; aborts on failure (nothing can be fuzzed without it).
int make_memfd(size_t size);
