// Bytes through the background video decoder from memory (custom AVIOContext): what open accepts
// plays, a few frames past the end as playback does, each within the limits and converted to ARGB.
#include <vector>

#include "fuzz_library.h"
#include "media/video_decoder.h"

using zyn_fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    (void)zyn_fuzz::Scratch();  // the log off
    av_log_set_level(AV_LOG_QUIET);
    VBG::Media::VideoDecoder decoder;
    if (decoder.open(VBG::Media::MediaSource::Memory(data, size)) != 0) {
        return 0;
    }
    Require(decoder.width() > 0 && decoder.height() > 0 &&
            decoder.width() <= VBG::Media::kMaxSide && decoder.height() <= VBG::Media::kMaxSide &&
            decoder.framePeriod().count() > 0);
    VBG::Media::FramePtr frame(av_frame_alloc());
    VBG::Media::ArgbConverter converter;
    std::vector<uint8_t> argb;
    for (int i = 0; i < 12 && decoder.nextFrame(frame.get()) == 0; ++i) {  // loops a short stream
        const int64_t pixels = static_cast<int64_t>(frame->width) * frame->height;
        Require(frame->width > 0 && frame->height > 0 && pixels <= VBG::Media::kMaxPixels);
        if (pixels <= 1024 * 1024) {  // the conversion is the same at every size
            argb.resize(static_cast<size_t>(pixels) * 4);
            converter.convert(frame.get(), argb.data(), frame->width * 4);
        }
    }
    return 0;
}
