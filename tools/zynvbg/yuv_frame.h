// A frame in the layouts the library takes (NV12 or I420), with planes owned by the tool, and
// the record that hands it to the library.
#pragma once

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <cstdint>
#include <vector>

#include "zyn_native_vbg.h"

namespace zynvbg {

enum class PixelLayout { kNv12, kI420 };

const char* LayoutName(PixelLayout layout);
AVPixelFormat AvFormatOf(PixelLayout layout);
uint32_t RecordFormatOf(PixelLayout layout);

class YuvFrame {
  public:
    YuvFrame() = default;
    YuvFrame(int width, int height, PixelLayout layout);

    // Re-allocates for a new size or layout; keeps the planes when nothing changes.
    void reset(int width, int height, PixelLayout layout);
    bool empty() const { return width_ == 0; }
    int width() const { return width_; }
    int height() const { return height_; }
    PixelLayout layout() const { return layout_; }
    int planeCount() const { return layout_ == PixelLayout::kNv12 ? 2 : 3; }

    // FFmpeg-style plane pointers and line sizes (unused planes are null / 0).
    uint8_t* const* data() { return data_; }
    const uint8_t* const* data() const { return data_; }
    const int* linesize() const { return linesize_; }

    // The record describing this frame; the library reads from or writes into these planes.
    ZynNativeInputFrame record();

    uint8_t* plane(int index) { return data_[index]; }
    const uint8_t* plane(int index) const { return data_[index]; }

  private:
    int width_ = 0;
    int height_ = 0;
    PixelLayout layout_ = PixelLayout::kNv12;
    std::vector<uint8_t> storage_;
    uint8_t* data_[4] = {};
    int linesize_[4] = {};
};

}  // namespace zynvbg
