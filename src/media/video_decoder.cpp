#include "media/video_decoder.h"

#include "util/log.h"

namespace VBG::Media {

namespace {

// Damaged packets in a row that are skipped before the video counts as undecodable.
constexpr int kMaxSkippedPackets = 100;
// Frame rates outside this range are container artefacts, not the rate of the pictures.
constexpr double kMinFrameRate = 1.0;
constexpr double kMaxFrameRate = 120.0;

}  // namespace

int VideoDecoder::open(const MediaSource& source) {
    description_ = source.describe();
    int rc = input_.open(source, ContainerKind::Video);
    if (rc < 0) {
        return rc;
    }
    AVFormatContext* format = input_.format();
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVStream* candidate = format->streams[i];
        // Cover art is stored as a one-picture video stream; it is not the video.
        if (candidate->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
            (candidate->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0) {
            stream_ = candidate;
            break;
        }
    }
    if (stream_ == nullptr) {
        ZLOG_ERROR("VBG::Media::VideoDecoder::open", "No video stream in {}", description_);
        return AVERROR_STREAM_NOT_FOUND;
    }
    const AVCodecParameters* parameters = stream_->codecpar;
    const AVCodec* codec = avcodec_find_decoder(parameters->codec_id);
    if (codec != nullptr && !VideoDecoderAccepted(codec)) {
        ZLOG_ERROR("VBG::Media::VideoDecoder::open", "Video codec '{}' of {} is not accepted",
                   avcodec_get_name(parameters->codec_id), description_);
        return AVERROR_DECODER_NOT_FOUND;
    }
    if (!DimensionsAccepted(parameters->width, parameters->height)) {
        ZLOG_ERROR("VBG::Media::VideoDecoder::open",
                   "Video of {}x{} in {} refused: the limits are {} pixels per side and {} "
                   "pixels in all",
                   parameters->width, parameters->height, description_, kMaxSide, kMaxPixels);
        return AVERROR(E2BIG);
    }
    rc = OpenDecoder(stream_, decoder_);
    if (rc < 0) {
        return rc;
    }
    packet_.reset(av_packet_alloc());
    if (!packet_) {
        return AVERROR(ENOMEM);
    }
    const AVRational guessed = av_guess_frame_rate(format, const_cast<AVStream*>(stream_), nullptr);
    if (guessed.num > 0 && guessed.den > 0 && av_q2d(guessed) >= kMinFrameRate &&
        av_q2d(guessed) <= kMaxFrameRate) {
        frameRate_ = guessed;
    }
    return 0;
}

std::chrono::nanoseconds VideoDecoder::framePeriod() const {
    return std::chrono::nanoseconds(av_rescale(1000000000LL, frameRate_.den, frameRate_.num));
}

int VideoDecoder::width() const {
    return stream_ != nullptr ? stream_->codecpar->width : 0;
}
int VideoDecoder::height() const {
    return stream_ != nullptr ? stream_->codecpar->height : 0;
}

int VideoDecoder::nextFrame(AVFrame* frame) {
    if (!decoder_) {
        return AVERROR(EINVAL);
    }
    av_frame_unref(frame);
    AVFormatContext* format = input_.format();
    for (;;) {
        int rc = avcodec_receive_frame(decoder_.get(), frame);
        if (rc == 0) {
            ++framesThisPass_;
            return 0;
        }
        if (rc == AVERROR_EOF) {
            // The decoder gave out everything it had: start over.
            if (framesThisPass_ == 0) {
                ZLOG_ERROR("VBG::Media::VideoDecoder::nextFrame",
                           "No video frame could be decoded from {}", description_);
                return AVERROR_INVALIDDATA;
            }
            rc = rewind();
            if (rc < 0) {
                return rc;
            }
            continue;
        }
        if (rc != AVERROR(EAGAIN)) {
            ZLOG_ERROR("VBG::Media::VideoDecoder::nextFrame", "Decoding {} failed: {}",
                       description_, AvErrorText(rc));
            return rc;
        }

        rc = av_read_frame(format, packet_.get());
        if (rc < 0) {
            // End of the data, or data cut short: the frames decoded so far still loop.
            if (rc != AVERROR_EOF && !readErrorLogged_) {
                ZLOG_WARN("VBG::Media::VideoDecoder::nextFrame",
                          "Reading {} stopped early: {}; playback goes on from the start",
                          description_, AvErrorText(rc));
                readErrorLogged_ = true;
            }
            rc = avcodec_send_packet(decoder_.get(), nullptr);
            if (rc < 0 && rc != AVERROR_EOF) {
                ZLOG_ERROR("VBG::Media::VideoDecoder::nextFrame",
                           "Finishing the decoding of {} failed: {}", description_,
                           AvErrorText(rc));
                return rc;
            }
            continue;
        }
        if (packet_->stream_index != stream_->index) {
            av_packet_unref(packet_.get());
            continue;
        }
        rc = avcodec_send_packet(decoder_.get(), packet_.get());
        av_packet_unref(packet_.get());
        if (rc < 0) {
            if (rc == AVERROR_INVALIDDATA && ++skippedPackets_ <= kMaxSkippedPackets) {
                continue;
            }
            ZLOG_ERROR("VBG::Media::VideoDecoder::nextFrame", "Decoding {} failed: {}",
                       description_, AvErrorText(rc));
            return rc;
        }
        skippedPackets_ = 0;
    }
}

int VideoDecoder::rewind() {
    AVFormatContext* format = input_.format();
    const int64_t start = stream_->start_time != AV_NOPTS_VALUE ? stream_->start_time : 0;
    int rc = av_seek_frame(format, stream_->index, start, AVSEEK_FLAG_BACKWARD);
    if (rc < 0) {
        // Some demuxers only seek by byte position.
        rc = av_seek_frame(format, stream_->index, 0, AVSEEK_FLAG_BYTE);
    }
    if (rc < 0) {
        ZLOG_ERROR("VBG::Media::VideoDecoder::rewind", "Seeking {} back to its start failed: {}",
                   description_, AvErrorText(rc));
        return rc;
    }
    avcodec_flush_buffers(decoder_.get());
    framesThisPass_ = 0;
    ++loops_;
    return 0;
}

}  // namespace VBG::Media
