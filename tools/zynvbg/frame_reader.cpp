#include "frame_reader.h"

#include <cstring>

#include "tool_error.h"

namespace zynvbg {
namespace {

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

[[noreturn]] void unreadable(const std::string& path, const std::string& why) {
    throw ToolError(kExitUnreadableInput, "cannot read '" + path + "': " + why);
}

}  // namespace

FrameReader::FrameReader(const std::string& path, const RawVideo* raw) : path_(path) {
    const AVInputFormat* inputFormat = nullptr;
    Dictionary options;
    if (raw != nullptr) {
        inputFormat = av_find_input_format("rawvideo");
        options.set("video_size", std::to_string(raw->width) + "x" + std::to_string(raw->height));
        options.set("pixel_format", raw->layout == PixelLayout::kNv12 ? "nv12" : "yuv420p");
        options.set("framerate",
                    std::to_string(raw->frameRate.num) + "/" + std::to_string(raw->frameRate.den));
    }
    AVFormatContext* context = nullptr;
    int rc = avformat_open_input(&context, path.c_str(), inputFormat, options.get());
    if (rc < 0) {
        unreadable(path, AvErrorText(rc));
    }
    format_.reset(context);
    rc = avformat_find_stream_info(context, nullptr);
    if (rc < 0) {
        unreadable(path, AvErrorText(rc));
    }
    const AVCodec* codec = nullptr;
    streamIndex_ = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (streamIndex_ < 0 || codec == nullptr) {
        unreadable(path, "no video or picture in it");
    }
    AVStream* stream = context->streams[streamIndex_];
    decoder_.reset(avcodec_alloc_context3(codec));
    if (!decoder_ || avcodec_parameters_to_context(decoder_.get(), stream->codecpar) < 0) {
        unreadable(path, "cannot set up its decoder");
    }
    decoder_->thread_count = 0;  // let the decoder pick its thread count
    rc = avcodec_open2(decoder_.get(), codec, nullptr);
    if (rc < 0) {
        unreadable(path, AvErrorText(rc));
    }
    if (decoder_->width <= 0 || decoder_->height <= 0) {
        unreadable(path, "its frames have no size");
    }
    packet_.reset(av_packet_alloc());
    decoded_.reset(av_frame_alloc());
    if (!packet_ || !decoded_) {
        unreadable(path, "out of memory");
    }

    // Single pictures come through the "<codec>_pipe" demuxers, or image2 for a plain file name
    // (a name with a %d pattern is a numbered sequence, i.e. a video).
    const std::string demuxer = context->iformat->name;
    picture_ = endsWith(demuxer, "_pipe") ||
               (demuxer == "image2" && std::strchr(path.c_str(), '%') == nullptr);

    if (raw != nullptr) {
        frameRate_ = raw->frameRate;
    } else if (!picture_) {
        const AVRational guessed = av_guess_frame_rate(context, stream, nullptr);
        if (guessed.num > 0 && guessed.den > 0 && av_q2d(guessed) <= 240.0) {
            frameRate_ = guessed;
        }
    }
    if (picture_) {
        frameCountHint_ = 1;
    } else if (stream->nb_frames > 0) {
        frameCountHint_ = stream->nb_frames;
    } else if (context->duration > 0) {
        frameCountHint_ = static_cast<int64_t>(
            static_cast<double>(context->duration) / AV_TIME_BASE * av_q2d(frameRate_) + 0.5);
    }
}

bool FrameReader::decodeNext() {
    for (;;) {
        int rc = avcodec_receive_frame(decoder_.get(), decoded_.get());
        if (rc == 0) {
            return true;
        }
        if (rc == AVERROR_EOF) {
            return false;
        }
        if (rc != AVERROR(EAGAIN)) {
            unreadable(path_, "decoding failed: " + AvErrorText(rc));
        }
        if (draining_) {
            return false;
        }
        rc = av_read_frame(format_.get(), packet_.get());
        if (rc < 0) {
            // End of the file (or a read error, reported the same way by most demuxers): hand
            // the decoder the end of the stream so that it gives out the frames it holds.
            draining_ = true;
            avcodec_send_packet(decoder_.get(), nullptr);
            continue;
        }
        if (packet_->stream_index == streamIndex_) {
            rc = avcodec_send_packet(decoder_.get(), packet_.get());
            // A damaged packet is skipped, as players do; anything else is fatal.
            if (rc < 0 && rc != AVERROR_INVALIDDATA && rc != AVERROR(EAGAIN)) {
                av_packet_unref(packet_.get());
                unreadable(path_, "decoding failed: " + AvErrorText(rc));
            }
        }
        av_packet_unref(packet_.get());
    }
}

bool FrameReader::rewind() {
    AVStream* stream = format_->streams[streamIndex_];
    const int64_t start = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
    if (av_seek_frame(format_.get(), streamIndex_, start, AVSEEK_FLAG_BACKWARD) < 0 &&
        avformat_seek_file(format_.get(), -1, INT64_MIN, 0, INT64_MAX, 0) < 0) {
        return false;
    }
    avcodec_flush_buffers(decoder_.get());
    draining_ = false;
    finished_ = false;
    delivered_ = 0;
    return true;
}

bool FrameReader::read(YuvFrame& out) {
    bool have = false;
    if (picture_ && haveFrame_) {
        // A picture gives one frame, or the same frame for ever when looping.
        have = looping_;
    } else if (!finished_) {
        have = decodeNext();
        if (!have) {
            finished_ = true;
        }
    }
    if (!have && finished_ && looping_ && !picture_ && delivered_ > 0 && rewind()) {
        have = decodeNext();
        finished_ = !have;
    }
    if (!have) {
        return false;
    }
    haveFrame_ = true;
    ++delivered_;
    if (!scaler_.convert(decoded_->data, decoded_->linesize, decoded_->width, decoded_->height,
                         static_cast<AVPixelFormat>(decoded_->format), out.data(), out.linesize(),
                         out.width(), out.height(), AvFormatOf(out.layout()))) {
        unreadable(path_, "cannot convert its frames");
    }
    return true;
}

}  // namespace zynvbg
