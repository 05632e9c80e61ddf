// A plain owned byte array: made zero-filled at the size the current frame needs, reused while
// that size holds and freed whole when the size or the settings change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace VBG {

class ByteBuffer {
  public:
    // The array of `bytes` bytes; made (zero-filled) when missing or of another size, else the
    // existing one with its contents.
    uint8_t* ensure(size_t bytes) {
        if (!data_ || size_ != bytes) {
            data_.reset(new uint8_t[bytes]());
            size_ = bytes;
        }
        return data_.get();
    }
    void reset() {
        data_.reset();
        size_ = 0;
    }
    uint8_t* get() const { return data_.get(); }
    size_t size() const { return size_; }
    explicit operator bool() const { return data_ != nullptr; }

  private:
    std::unique_ptr<uint8_t[]> data_;
    size_t size_ = 0;
};

}  // namespace VBG
