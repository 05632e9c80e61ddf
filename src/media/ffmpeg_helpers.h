// Owning handles for the FFmpeg objects the background sources use, the opening of a container
// from a file or from memory, and the conversion of decoded frames to ARGB.
//
// "ARGB" is the byte order libyuv calls ARGB: B, G, R, A in memory (AV_PIX_FMT_BGRA).
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "util/file_access.h"

namespace VBG::Media {

struct FormatContextDeleter {
    void operator()(AVFormatContext* context) const noexcept { avformat_close_input(&context); }
};
struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const noexcept { avcodec_free_context(&context); }
};
struct FrameDeleter {
    void operator()(AVFrame* frame) const noexcept { av_frame_free(&frame); }
};
struct PacketDeleter {
    void operator()(AVPacket* packet) const noexcept { av_packet_free(&packet); }
};
struct SwsContextDeleter {
    void operator()(SwsContext* context) const noexcept { sws_freeContext(context); }
};
struct DictionaryDeleter {
    void operator()(AVDictionary* dictionary) const noexcept { av_dict_free(&dictionary); }
};
// Frees the I/O buffer too: FFmpeg may have replaced the one it was given, so the context's own
// pointer is the one to free.
struct AvioContextDeleter {
    void operator()(AVIOContext* context) const noexcept {
        if (context != nullptr) {
            av_freep(&context->buffer);
        }
        avio_context_free(&context);
    }
};

using FormatContextPtr = std::unique_ptr<AVFormatContext, FormatContextDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using SwsContextPtr = std::unique_ptr<SwsContext, SwsContextDeleter>;
using AvioContextPtr = std::unique_ptr<AVIOContext, AvioContextDeleter>;

// The text of an FFmpeg error code (what av_err2str gives in C).
std::string AvErrorText(int errorCode);

// Largest picture or video frame the background sources accept.
constexpr int kMaxSide = 16384;
constexpr int64_t kMaxPixels = 64LL * 1024 * 1024;
// Largest picture file (read whole) and video file (read as it plays) opened.
constexpr uint64_t kMaxPictureFileBytes = uint64_t{64} * 1024 * 1024;
constexpr uint64_t kMaxVideoFileBytes = uint64_t{4} * 1024 * 1024 * 1024;

// Where a background comes from: a file, or bytes owned by the host that stay valid while the
// source is in use. Bytes read from a file keep its path, for the records.
struct MediaSource {
    std::string path;
    const uint8_t* data = nullptr;
    size_t size = 0;
    bool inMemory = false;

    static MediaSource File(std::string filePath);
    static MediaSource Memory(const uint8_t* bytes, size_t byteCount);
    // "file '<path>'" or "memory data of <n> bytes", for the records.
    std::string describe() const;
};

// Which demuxers may read a source. Restricting them keeps playlist and script formats, which
// open further files or URLs on their own, away from background data.
enum class ContainerKind { Picture, Video };

// An opened container. The members are destroyed in reverse order: the demuxer first, then the
// custom I/O context, then the file or memory cursor it reads through.
class MediaInput {
  public:
    // Opens the source with the named demuxer (found by probing when none is named) and reads its
    // stream information, decoding no frame larger than `maxPixels` while doing so. A file is
    // opened only as a regular file within its kind's size limit, never through a final link.
    // Returns 0 or an FFmpeg error code; every failure is logged with the source and the error
    // text.
    int open(const MediaSource& source, ContainerKind kind, int64_t maxPixels = kMaxPixels,
             const char* demuxer = nullptr);

    AVFormatContext* format() const { return format_.get(); }

    struct MemoryCursor {
        const uint8_t* data = nullptr;
        int64_t size = 0;
        int64_t position = 0;
    };

  private:
    std::unique_ptr<MemoryCursor> memory_;
    std::unique_ptr<Files::UniqueFd> file_;
    AvioContextPtr io_;
    FormatContextPtr format_;
};

// Opens a decoder for `stream` that decodes on the calling thread only (no decoder threads) and
// refuses frames of more than `maxPixels`. Returns 0 or an FFmpeg error code (logged).
int OpenDecoder(const AVStream* stream, CodecContextPtr& decoder, int64_t maxPixels = kMaxPixels);

// Whether `codec` is one of the decoders background videos may use.
bool VideoDecoderAccepted(const AVCodec* codec);

// Whether width x height is within the accepted limits.
bool DimensionsAccepted(int width, int height);

// Converts decoded frames of any pixel format to ARGB at their own size. Keeps its scaler
// between frames of the same format and size.
class ArgbConverter {
  public:
    // Writes frame->width x frame->height pixels at `dst` with `dstStride` bytes per row.
    // Returns 0 or an FFmpeg error code.
    int convert(const AVFrame* frame, uint8_t* dst, int dstStride);

  private:
    SwsContextPtr scaler_;
    int width_ = 0;
    int height_ = 0;
    int format_ = -1;
    int colorspace_ = -1;
    int range_ = -1;
};

}  // namespace VBG::Media
