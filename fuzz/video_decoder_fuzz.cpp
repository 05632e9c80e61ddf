// Feeds arbitrary bytes to the background video decoder from memory (the demuxers a background
// video may use, through a custom AVIOContext): open, then decode a few frames, going on past the
// end of the stream as playback does, and convert each frame to ARGB at its own size. Frames
// must be consistent with what the decoder reports.
#include <spdlog/spdlog.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "media/video_decoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] {
        spdlog::set_level(spdlog::level::off);
        av_log_set_level(AV_LOG_QUIET);
        return true;
    }();
    (void)quiet;

    VBG::Media::VideoDecoder decoder;
    if (decoder.open(VBG::Media::MediaSource::Memory(data, size)) != 0) {
        return 0;
    }
    if (decoder.width() <= 0 || decoder.height() <= 0 || decoder.width() > VBG::Media::kMaxSide ||
        decoder.height() > VBG::Media::kMaxSide || decoder.framePeriod().count() <= 0) {
        __builtin_trap();  // open refuses what it cannot play
    }
    VBG::Media::FramePtr frame(av_frame_alloc());
    VBG::Media::ArgbConverter converter;
    std::vector<uint8_t> argb;
    // Enough frames to cross the end of a short stream and loop at least once.
    for (int i = 0; i < 12; ++i) {
        if (decoder.nextFrame(frame.get()) != 0) {
            break;
        }
        if (frame->width <= 0 || frame->height <= 0 ||
            static_cast<int64_t>(frame->width) * frame->height > VBG::Media::kMaxPixels) {
            __builtin_trap();  // the decoder refuses frames above the limit
        }
        // Large frames are decoded but not converted: the conversion is the same at every size.
        if (static_cast<int64_t>(frame->width) * frame->height > 1024 * 1024) {
            continue;
        }
        argb.resize(static_cast<size_t>(frame->width) * frame->height * 4);
        converter.convert(frame.get(), argb.data(), frame->width * 4);
    }
    return 0;
}
