#include "yuv_frame.h"

namespace zynvbg {
namespace {

// Rows start on 32-byte boundaries, as a camera pipeline's buffers usually do; the library is
// handed the strides, never assumes them.
int alignedStride(int bytes) {
    return (bytes + 31) & ~31;
}

}  // namespace

const char* LayoutName(PixelLayout layout) {
    return layout == PixelLayout::kNv12 ? "nv12" : "i420";
}

AVPixelFormat AvFormatOf(PixelLayout layout) {
    return layout == PixelLayout::kNv12 ? AV_PIX_FMT_NV12 : AV_PIX_FMT_YUV420P;
}

uint32_t RecordFormatOf(PixelLayout layout) {
    return layout == PixelLayout::kNv12 ? ZYN_FORMAT_NV12 : ZYN_FORMAT_I420;
}

YuvFrame::YuvFrame(int width, int height, PixelLayout layout) {
    reset(width, height, layout);
}

void YuvFrame::reset(int width, int height, PixelLayout layout) {
    if (width == width_ && height == height_ && layout == layout_ && !storage_.empty()) {
        return;
    }
    width_ = width;
    height_ = height;
    layout_ = layout;
    const int chromaWidth = (width + 1) / 2;
    const int chromaHeight = (height + 1) / 2;
    const size_t lumaStride = static_cast<size_t>(alignedStride(width));
    size_t chromaStride = 0;
    if (layout == PixelLayout::kNv12) {
        chromaStride = static_cast<size_t>(alignedStride(chromaWidth * 2));
    } else {
        chromaStride = static_cast<size_t>(alignedStride(chromaWidth));
    }
    const size_t lumaBytes = lumaStride * static_cast<size_t>(height);
    const size_t chromaBytes = chromaStride * static_cast<size_t>(chromaHeight);
    const int chromaPlanes = layout == PixelLayout::kNv12 ? 1 : 2;
    storage_.assign(lumaBytes + chromaBytes * static_cast<size_t>(chromaPlanes), 0);
    for (int i = 0; i < 4; ++i) {
        data_[i] = nullptr;
        linesize_[i] = 0;
    }
    data_[0] = storage_.data();
    linesize_[0] = static_cast<int>(lumaStride);
    for (int i = 0; i < chromaPlanes; ++i) {
        data_[1 + i] = storage_.data() + lumaBytes + chromaBytes * static_cast<size_t>(i);
        linesize_[1 + i] = static_cast<int>(chromaStride);
    }
}

ZynNativeInputFrame YuvFrame::record() {
    ZynNativeInputFrame frame{};
    frame.width = static_cast<uint32_t>(width_);
    frame.height = static_cast<uint32_t>(height_);
    frame.format = RecordFormatOf(layout_);
    frame.plane0 = data_[0];
    frame.stride0 = static_cast<uint32_t>(linesize_[0]);
    frame.plane1 = data_[1];
    frame.stride1 = static_cast<uint32_t>(linesize_[1]);
    frame.plane2 = data_[2];
    frame.stride2 = static_cast<uint32_t>(linesize_[2]);
    return frame;
}

}  // namespace zynvbg
