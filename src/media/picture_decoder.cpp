#include "media/picture_decoder.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "util/file_access.h"
#include "util/log.h"

namespace VBG::Media {

namespace {

bool Exceeds(int64_t width, int64_t height, const PictureLimits& limits) {
    return width > limits.maxSide || height > limits.maxSide || width * height > limits.maxPixels;
}

bool WithinLimits(int width, int height, const PictureLimits& limits) {
    return width > 0 && height > 0 && !Exceeds(width, height, limits);
}

uint32_t BigEndian16(const uint8_t* p) {
    return static_cast<uint32_t>(p[0] << 8 | p[1]);
}
uint32_t BigEndian32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

enum class PictureFormat { Unknown, Png, Gif, Jpeg };

// What the first bytes of a picture say: its format (by signature, whatever the file's name) and,
// when found, the size it declares, so that an absurd size is refused before anything is decoded
// or allocated for it.
struct PictureHeader {
    PictureFormat format = PictureFormat::Unknown;
    bool sized = false;
    int64_t width = 0;
    int64_t height = 0;
};

// The demuxer for each format; naming it skips probing, which could pick a demuxer by the file's
// extension.
const char* DemuxerName(PictureFormat format) {
    switch (format) {
        case PictureFormat::Png:
            return "png_pipe";
        case PictureFormat::Gif:
            return "gif";
        case PictureFormat::Jpeg:
            return "jpeg_pipe";
        default:
            return nullptr;
    }
}

// JPEG: walks the marker segments up to the frame header (SOFn).
bool JpegDimensions(const uint8_t* head, size_t size, int64_t& width, int64_t& height) {
    size_t at = 2;
    while (at + 4 <= size && head[at] == 0xFF) {
        const uint8_t marker = head[at + 1];
        if (marker == 0xFF) {
            ++at;  // fill byte
            continue;
        }
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8)) {
            at += 2;  // markers without a segment
            continue;
        }
        const bool frameHeader =
            marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
        if (frameHeader) {
            if (at + 9 > size) {
                return false;
            }
            height = BigEndian16(head + at + 5);
            width = BigEndian16(head + at + 7);
            return true;
        }
        if (marker == 0xDA || marker == 0xD9) {
            return false;  // scan or end before any frame header
        }
        at += 2 + BigEndian16(head + at + 2);
    }
    return false;
}

PictureHeader ReadHeader(const uint8_t* head, size_t size) {
    static const uint8_t kPngSignature[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    PictureHeader header;
    if (size >= 8 && std::memcmp(head, kPngSignature, 8) == 0) {
        header.format = PictureFormat::Png;
        if (size >= 24 && std::memcmp(head + 12, "IHDR", 4) == 0) {
            header.sized = true;
            header.width = BigEndian32(head + 16);
            header.height = BigEndian32(head + 20);
        }
    } else if (size >= 6 &&
               (std::memcmp(head, "GIF87a", 6) == 0 || std::memcmp(head, "GIF89a", 6) == 0)) {
        header.format = PictureFormat::Gif;
        if (size >= 10) {
            // The logical screen: the canvas every frame is drawn on.
            header.sized = true;
            header.width = head[6] | head[7] << 8;
            header.height = head[8] | head[9] << 8;
        }
    } else if (size >= 3 && head[0] == 0xFF && head[1] == 0xD8 && head[2] == 0xFF) {
        header.format = PictureFormat::Jpeg;
        header.sized = JpegDimensions(head, size, header.width, header.height);
    }
    return header;
}

void LogRefusedSize(const MediaSource& source, int64_t width, int64_t height,
                    const PictureLimits& limits) {
    ZLOG_ERROR("VBG::Media::DecodePicture",
               "Picture of {}x{} from {} refused: the limits are {} pixels per side and {} "
               "pixels in all",
               width, height, source.describe(), limits.maxSide, limits.maxPixels);
}

// The delay stored in the Graphic Control Extension of a GIF frame's packet, in hundredths of a
// second, or -1 when the packet has none. The demuxer's own packet durations cannot tell a stored
// 0 from a stored 1 (it fills in missing durations), and a stored 0 has a meaning of its own.
// The first packet starts with the file header and the global colour table.
int StoredGifDelay(const uint8_t* data, size_t size) {
    size_t at = 0;
    if (size >= 13 && std::memcmp(data, "GIF8", 4) == 0) {
        at = 13;
        if (data[10] & 0x80) {
            at += size_t{3} << ((data[10] & 0x07) + 1);
        }
    }
    int delay = -1;
    while (at + 1 < size && data[at] == 0x21) {
        const uint8_t label = data[at + 1];
        at += 2;
        if (label == 0xF9 && at + 5 <= size && data[at] == 4) {
            delay = data[at + 2] | (data[at + 3] << 8);
        }
        // Skip the extension's sub-blocks up to their empty terminator.
        while (at < size && data[at] != 0) {
            at += size_t{data[at]} + 1;
        }
        ++at;
    }
    return delay;
}

// Collects the decoded frames of one picture within its limits.
class FrameCollector {
  public:
    FrameCollector(const MediaSource& source, const AVStream* stream, bool allFrames,
                   const PictureLimits& limits, DecodedPicture& picture)
        : source_(source),
          timeBase_(stream->time_base),
          isGif_(stream->codecpar->codec_id == AV_CODEC_ID_GIF),
          allFrames_(allFrames),
          limits_(limits),
          picture_(picture) {}

    // Takes every frame the decoder has ready. Returns 0, or an error code for a frame that
    // cannot be used.
    int drain(AVCodecContext* decoder, AVFrame* frame) {
        for (;;) {
            int rc = avcodec_receive_frame(decoder, frame);
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) {
                return 0;
            }
            if (rc < 0) {
                return rc;
            }
            rc = add(frame);
            av_frame_unref(frame);
            if (rc < 0 || full_) {
                return rc;
            }
        }
    }

    // Notes the stored delay of a GIF packet about to be decoded; the GIF decoder turns each
    // packet into exactly one frame, in order.
    void packetSent(const AVPacket* packet) {
        if (isGif_) {
            gifDelays_.push_back(StoredGifDelay(packet->data, static_cast<size_t>(packet->size)));
        }
    }

    // No more frames wanted: the first one is in (still picture) or a budget is used up.
    bool full() const { return full_; }

  private:
    int add(const AVFrame* frame) {
        if (!WithinLimits(frame->width, frame->height, limits_)) {
            LogRefusedSize(source_, frame->width, frame->height, limits_);
            return AVERROR(E2BIG);
        }
        if (picture_.frames.empty()) {
            picture_.width = frame->width;
            picture_.height = frame->height;
        } else if (frame->width != picture_.width || frame->height != picture_.height) {
            // Animation frames are whole canvases of one size; anything else is damaged data.
            ZLOG_WARN("VBG::Media::DecodePicture",
                      "Frame {} of {} is {}x{} instead of {}x{}; the animation ends before it",
                      picture_.frames.size(), source_.describe(), frame->width, frame->height,
                      picture_.width, picture_.height);
            full_ = true;
            return 0;
        }
        const size_t frameBytes = static_cast<size_t>(frame->width) * frame->height * 4;
        if (picture_.frames.size() >= limits_.maxFrames ||
            totalBytes_ + frameBytes > limits_.maxTotalBytes) {
            ZLOG_WARN("VBG::Media::DecodePicture",
                      "Animation of {} keeps its first {} frames (limits: {} frames, {} bytes)",
                      source_.describe(), picture_.frames.size(), limits_.maxFrames,
                      limits_.maxTotalBytes);
            full_ = true;
            return 0;
        }
        PictureFrame out;
        out.argb.resize(frameBytes);
        const int rc = converter_.convert(frame, out.argb.data(), frame->width * 4);
        if (rc < 0) {
            return rc;
        }
        // A GIF frame's display time is its stored delay; other animations give it as the
        // packet duration in the stream's time base.
        if (isGif_) {
            const int stored = gifDelays_.empty() ? -1 : gifDelays_.front();
            if (!gifDelays_.empty()) {
                gifDelays_.pop_front();
            }
            out.delayCentiseconds = stored > 0 ? static_cast<uint32_t>(stored) : 0;
        } else if (frame->pkt_duration > 0) {
            const int64_t centiseconds =
                av_rescale_q(frame->pkt_duration, timeBase_, AVRational{1, 100});
            out.delayCentiseconds =
                static_cast<uint32_t>(std::min<int64_t>(centiseconds, UINT32_MAX));
        }
        totalBytes_ += frameBytes;
        picture_.frames.push_back(std::move(out));
        full_ = !allFrames_;
        return 0;
    }

    const MediaSource& source_;
    AVRational timeBase_;
    bool isGif_;
    std::deque<int> gifDelays_;
    bool allFrames_;
    const PictureLimits& limits_;
    DecodedPicture& picture_;
    ArgbConverter converter_;
    size_t totalBytes_ = 0;
    bool full_ = false;
};

}  // namespace

int DecodePicture(const MediaSource& given, bool allFrames, DecodedPicture& picture,
                  const PictureLimits& limits) {
    picture = DecodedPicture();
    // A file is read whole, once, as a regular file within the size limit and never through a
    // final link, and decoded from memory: FFmpeg opens nothing itself.
    std::string contents;
    MediaSource source = given;
    if (!given.inMemory) {
        std::string why;
        if (!Files::ReadSmallFile(given.path, limits.maxFileBytes, Files::FinalLink::Refuse,
                                  contents, why)) {
            const int error = errno == EFBIG ? E2BIG : errno;
            ZLOG_ERROR("VBG::Media::DecodePicture", "Cannot open {}: {}", given.describe(), why);
            return AVERROR(error);
        }
        source =
            MediaSource::Memory(reinterpret_cast<const uint8_t*>(contents.data()), contents.size());
        source.path = given.path;
    }
    const char* demuxer = nullptr;
    if (source.data != nullptr && source.size > 0) {
        const PictureHeader header = ReadHeader(source.data, source.size);
        demuxer = DemuxerName(header.format);
        if (demuxer == nullptr) {
            ZLOG_ERROR("VBG::Media::DecodePicture", "{} holds no PNG, JPEG or GIF picture",
                       source.describe());
            return AVERROR_INVALIDDATA;
        }
        if (header.sized && Exceeds(header.width, header.height, limits)) {
            LogRefusedSize(source, header.width, header.height, limits);
            return AVERROR(E2BIG);
        }
    }
    MediaInput input;
    int rc = input.open(source, ContainerKind::Picture, limits.maxPixels, demuxer);
    if (rc < 0) {
        return rc;
    }
    AVFormatContext* format = input.format();
    const AVStream* stream = nullptr;
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        if (format->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            stream = format->streams[i];
            break;
        }
    }
    if (stream == nullptr) {
        ZLOG_ERROR("VBG::Media::DecodePicture", "No picture in {}", source.describe());
        return AVERROR_STREAM_NOT_FOUND;
    }
    const AVCodecParameters* parameters = stream->codecpar;
    if ((parameters->width != 0 || parameters->height != 0) &&
        !WithinLimits(parameters->width, parameters->height, limits)) {
        LogRefusedSize(source, parameters->width, parameters->height, limits);
        return AVERROR(E2BIG);
    }
    CodecContextPtr decoder;
    rc = OpenDecoder(stream, decoder, limits.maxPixels);
    if (rc < 0) {
        return rc;
    }
    PacketPtr packet(av_packet_alloc());
    FramePtr frame(av_frame_alloc());
    if (!packet || !frame) {
        return AVERROR(ENOMEM);
    }

    FrameCollector collector(source, stream, allFrames, limits, picture);
    int failure = 0;
    while (!collector.full()) {
        rc = av_read_frame(format, packet.get());
        if (rc < 0) {
            // End of data, or damaged data after the last good frame: keep what was decoded.
            if (rc != AVERROR_EOF) {
                failure = rc;
            }
            break;
        }
        if (packet->stream_index != stream->index) {
            av_packet_unref(packet.get());
            continue;
        }
        collector.packetSent(packet.get());
        rc = avcodec_send_packet(decoder.get(), packet.get());
        av_packet_unref(packet.get());
        if (rc < 0 && rc != AVERROR(EAGAIN)) {
            failure = rc;
            break;
        }
        rc = collector.drain(decoder.get(), frame.get());
        if (rc < 0) {
            failure = rc;
            break;
        }
    }
    if (failure == AVERROR(E2BIG)) {
        picture = DecodedPicture();
        return failure;
    }
    if (!collector.full() && avcodec_send_packet(decoder.get(), nullptr) >= 0) {
        // Frames the decoder still holds at the end of the data.
        rc = collector.drain(decoder.get(), frame.get());
        if (rc == AVERROR(E2BIG)) {
            picture = DecodedPicture();
            return rc;
        }
        if (rc < 0 && failure == 0) {
            failure = rc;
        }
    }
    if (picture.frames.empty()) {
        const int code = failure < 0 ? failure : AVERROR_INVALIDDATA;
        ZLOG_ERROR("VBG::Media::DecodePicture", "No picture decoded from {}: {}", source.describe(),
                   AvErrorText(code));
        return code;
    }
    if (failure < 0) {
        ZLOG_WARN("VBG::Media::DecodePicture", "Decoding of {} stopped after {} frames: {}",
                  source.describe(), picture.frames.size(), AvErrorText(failure));
    }
    return 0;
}

}  // namespace VBG::Media
