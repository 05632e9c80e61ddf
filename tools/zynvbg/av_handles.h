// Owning handles for the FFmpeg objects of the tool's readers and writers.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <string>

namespace zynvbg {

struct InputContextDeleter {
    void operator()(AVFormatContext* context) const noexcept { avformat_close_input(&context); }
};
// An output context owns its file only once avio_open succeeded; pb is closed here when set.
struct OutputContextDeleter {
    void operator()(AVFormatContext* context) const noexcept {
        if (context == nullptr) {
            return;
        }
        if (context->pb != nullptr && !(context->oformat->flags & AVFMT_NOFILE)) {
            avio_closep(&context->pb);
        }
        avformat_free_context(context);
    }
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

using InputContextPtr = std::unique_ptr<AVFormatContext, InputContextDeleter>;
using OutputContextPtr = std::unique_ptr<AVFormatContext, OutputContextDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using SwsContextPtr = std::unique_ptr<SwsContext, SwsContextDeleter>;

// An AVDictionary that is freed when it goes out of scope (FFmpeg consumes the entries it uses
// and leaves the rest, which are then freed here).
class Dictionary {
  public:
    Dictionary() = default;
    ~Dictionary() { av_dict_free(&dict_); }
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;
    void set(const char* key, const std::string& value) {
        av_dict_set(&dict_, key, value.c_str(), 0);
    }
    AVDictionary** get() { return &dict_; }

  private:
    AVDictionary* dict_ = nullptr;
};

inline std::string AvErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof(text));
    return text;
}

// A converter whose context is remade only when the source or destination geometry changes.
class Scaler {
  public:
    // Converts `src` (any size and pixel format FFmpeg knows) into dst planes of dstWidth x
    // dstHeight in dstFormat. Returns false when FFmpeg cannot make the conversion.
    bool convert(const uint8_t* const srcData[], const int srcLinesize[], int srcWidth,
                 int srcHeight, AVPixelFormat srcFormat, uint8_t* const dstData[],
                 const int dstLinesize[], int dstWidth, int dstHeight, AVPixelFormat dstFormat) {
        if (srcWidth == dstWidth && srcHeight == dstHeight && srcFormat == dstFormat) {
            // A plain copy; libswscale 6 also leaves the chroma of an unscaled NV12 to NV12
            // conversion unwritten.
            av_image_copy(const_cast<uint8_t**>(dstData), const_cast<int*>(dstLinesize),
                          const_cast<const uint8_t**>(srcData), srcLinesize, dstFormat, dstWidth,
                          dstHeight);
            return true;
        }
        SwsContext* context = sws_getCachedContext(
            context_.release(), srcWidth, srcHeight, srcFormat, dstWidth, dstHeight, dstFormat,
            SWS_BICUBIC | SWS_ACCURATE_RND, nullptr, nullptr, nullptr);
        context_.reset(context);
        if (context == nullptr) {
            return false;
        }
        return sws_scale(context, srcData, srcLinesize, 0, srcHeight, dstData, dstLinesize) ==
               dstHeight;
    }

  private:
    SwsContextPtr context_;
};

}  // namespace zynvbg
