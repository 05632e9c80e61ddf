// Reads a video, a picture, a Y4M file or raw YUV with FFmpeg and delivers its frames converted
// to the layout and size the library is fed with.
#pragma once

extern "C" {
#include <libavutil/rational.h>
}

#include <cstdint>
#include <string>

#include "av_handles.h"
#include "yuv_frame.h"

namespace zynvbg {

// Geometry of a headerless YUV file.
struct RawVideo {
    int width = 0;
    int height = 0;
    PixelLayout layout = PixelLayout::kI420;
    AVRational frameRate{30, 1};
};

class FrameReader {
  public:
    // Opens `path`; `raw` (may be null) says the file is headerless YUV of that geometry.
    // Throws ToolError(kExitUnreadableInput) when the file cannot be opened or has no video.
    FrameReader(const std::string& path, const RawVideo* raw);

    int sourceWidth() const { return decoder_->width; }
    int sourceHeight() const { return decoder_->height; }
    // A still picture (PNG, JPEG, ...) rather than a stream of frames.
    bool isPicture() const { return picture_; }
    AVRational frameRate() const { return frameRate_; }
    // Frames the container announces, or -1 when it does not say.
    int64_t frameCountHint() const { return frameCountHint_; }
    const std::string& path() const { return path_; }

    // With looping on, the end of a video starts it again and a picture is repeated forever.
    void setLooping(bool looping) { looping_ = looping; }

    // Decodes the next frame into `out` (its size and layout are kept). False at the end of the
    // input. Throws ToolError(kExitUnreadableInput) on a decoding failure.
    bool read(YuvFrame& out);

  private:
    bool decodeNext();
    bool rewind();

    std::string path_;
    InputContextPtr format_;
    CodecContextPtr decoder_;
    PacketPtr packet_;
    FramePtr decoded_;
    Scaler scaler_;
    int streamIndex_ = -1;
    bool picture_ = false;
    bool looping_ = false;
    bool draining_ = false;
    bool finished_ = false;
    bool haveFrame_ = false;  // decoded_ holds the last frame (pictures are served again)
    int64_t delivered_ = 0;   // frames delivered since the last rewind
    AVRational frameRate_{30, 1};
    int64_t frameCountHint_ = -1;
};

}  // namespace zynvbg
