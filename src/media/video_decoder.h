// Decoding of the first video stream of a background video, looping at the end of the stream.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "media/ffmpeg_helpers.h"

namespace VBG::Media {

class VideoDecoder {
  public:
    // Opens the source, its first video stream and the stream's decoder. Returns 0 or an FFmpeg
    // error code (logged): unreadable data, no video stream, no decoder or one not accepted for
    // background videos, refused dimensions.
    int open(const MediaSource& source);

    // Decodes the next frame into `frame`. At the end of the stream it seeks back to the start
    // and goes on in the same call, so the frames loop without a gap. Returns 0, or an error
    // code (logged) when the seek fails, a read or decode error cannot be skipped, or a whole
    // pass through the stream yields no frame.
    int nextFrame(AVFrame* frame);

    // Frames per second of the stream: the rate the container gives, else 30.
    AVRational frameRate() const { return frameRate_; }
    std::chrono::nanoseconds framePeriod() const;
    int width() const;
    int height() const;
    // How many times playback went back to the start.
    uint64_t loops() const { return loops_; }
    const std::string& description() const { return description_; }

  private:
    int rewind();

    std::string description_;
    MediaInput input_;
    const AVStream* stream_ = nullptr;
    CodecContextPtr decoder_;
    PacketPtr packet_;
    AVRational frameRate_{30, 1};
    uint64_t framesThisPass_ = 0;
    uint64_t loops_ = 0;
    int skippedPackets_ = 0;
    bool readErrorLogged_ = false;
};

}  // namespace VBG::Media
