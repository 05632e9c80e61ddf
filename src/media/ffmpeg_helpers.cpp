#include "media/ffmpeg_helpers.h"

extern "C" {
#include <libavutil/avstring.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
}

#include <libyuv/convert_argb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

#include "util/log.h"

namespace VBG::Media {

namespace {

constexpr int kIoBufferSize = 32 * 1024;

// Only these demuxers may read background data.
constexpr const char* kPictureFormats = "png_pipe,jpeg_pipe,gif";
constexpr const char* kPictureCodecs = "png,mjpeg,gif";
constexpr const char* kVideoFormats = "mov,matroska,ogg";
// The decoders of the codecs background videos are made with. Every other decoder stays away from
// background data, also while the streams are probed.
constexpr const char* kVideoCodecs =
    "h264,hevc,vp8,vp9,libvpx,libvpx-vp9,av1,libdav1d,libaom-av1,mpeg4,mpeg1video,mpeg2video,h263,"
    "theora,mjpeg";

// FFmpeg writes its own diagnostics to stderr, which belongs to the host; a damaged background
// video would repeat them on every loop. The library reports every failure in its own records
// instead, so FFmpeg is kept quiet short of a fatal error.
void QuietFfmpegLog() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_FATAL); });
}

int ReadMemory(void* opaque, uint8_t* buffer, int bufferSize) {
    auto* cursor = static_cast<MediaInput::MemoryCursor*>(opaque);
    const int64_t left = cursor->size - cursor->position;
    if (left <= 0) {
        return AVERROR_EOF;
    }
    const int count = static_cast<int>(std::min<int64_t>(left, bufferSize));
    std::memcpy(buffer, cursor->data + cursor->position, static_cast<size_t>(count));
    cursor->position += count;
    return count;
}

int ReadFileDescriptor(void* opaque, uint8_t* buffer, int bufferSize) {
    const int fd = static_cast<Files::UniqueFd*>(opaque)->get();
    for (;;) {
        const ssize_t n = ::read(fd, buffer, static_cast<size_t>(bufferSize));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return AVERROR(errno);
        }
        return n == 0 ? AVERROR_EOF : static_cast<int>(n);
    }
}

int64_t SeekFileDescriptor(void* opaque, int64_t offset, int whence) {
    const int fd = static_cast<Files::UniqueFd*>(opaque)->get();
    whence &= ~AVSEEK_FORCE;
    if (whence == AVSEEK_SIZE) {
        struct stat st {};
        return ::fstat(fd, &st) == 0 ? static_cast<int64_t>(st.st_size) : AVERROR(errno);
    }
    const off_t at = ::lseek(fd, static_cast<off_t>(offset), whence);
    return at < 0 ? AVERROR(errno) : static_cast<int64_t>(at);
}

int64_t SeekMemory(void* opaque, int64_t offset, int whence) {
    auto* cursor = static_cast<MediaInput::MemoryCursor*>(opaque);
    int64_t base = 0;
    switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE:
            return cursor->size;
        case SEEK_SET:
            base = 0;
            break;
        case SEEK_CUR:
            base = cursor->position;
            break;
        case SEEK_END:
            base = cursor->size;
            break;
        default:
            return AVERROR(EINVAL);
    }
    if ((offset > 0 && base > cursor->size - offset) || base + offset < 0) {
        return AVERROR(EINVAL);
    }
    cursor->position = base + offset;
    return cursor->position;
}

// Maps the deprecated full-range ("J") YUV formats to their plain twins; the range then goes to
// the scaler explicitly, which is what it expects.
AVPixelFormat PlainFormat(AVPixelFormat format, bool& fullRange) {
    switch (format) {
        case AV_PIX_FMT_YUVJ420P:
            fullRange = true;
            return AV_PIX_FMT_YUV420P;
        case AV_PIX_FMT_YUVJ422P:
            fullRange = true;
            return AV_PIX_FMT_YUV422P;
        case AV_PIX_FMT_YUVJ444P:
            fullRange = true;
            return AV_PIX_FMT_YUV444P;
        case AV_PIX_FMT_YUVJ440P:
            fullRange = true;
            return AV_PIX_FMT_YUV440P;
        case AV_PIX_FMT_YUVJ411P:
            fullRange = true;
            return AV_PIX_FMT_YUV411P;
        default:
            return format;
    }
}

}  // namespace

std::string AvErrorText(int errorCode) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    if (av_strerror(errorCode, text, sizeof(text)) < 0) {
        return "error " + std::to_string(errorCode);
    }
    return text;
}

MediaSource MediaSource::File(std::string filePath) {
    MediaSource source;
    source.path = std::move(filePath);
    return source;
}

MediaSource MediaSource::Memory(const uint8_t* bytes, size_t byteCount) {
    MediaSource source;
    source.data = bytes;
    source.size = byteCount;
    source.inMemory = true;
    return source;
}

std::string MediaSource::describe() const {
    if (inMemory && path.empty()) {
        return fmt::format("memory data of {} bytes", size);
    }
    return fmt::format("file '{}'", path);
}

int MediaInput::open(const MediaSource& source, ContainerKind kind, int64_t maxPixels,
                     const char* demuxer) {
    QuietFfmpegLog();
    format_.reset();
    io_.reset();
    file_.reset();
    memory_.reset();

    void* cursor = nullptr;
    int (*readPacket)(void*, uint8_t*, int) = nullptr;
    int64_t (*seek)(void*, int64_t, int) = nullptr;
    if (source.inMemory) {
        if (source.data == nullptr || source.size == 0 ||
            source.size > static_cast<size_t>(INT64_MAX)) {
            ZLOG_ERROR("VBG::Media::MediaInput::open", "No data to decode in {}",
                       source.describe());
            return AVERROR_INVALIDDATA;
        }
        memory_ = std::make_unique<MemoryCursor>();
        memory_->data = source.data;
        memory_->size = static_cast<int64_t>(source.size);
        cursor = memory_.get();
        readPacket = &ReadMemory;
        seek = &SeekMemory;
    } else if (source.path.empty()) {
        ZLOG_ERROR("VBG::Media::MediaInput::open", "No file to decode");
        return AVERROR(EINVAL);
    } else {
        // Opened here rather than by FFmpeg: a FIFO or device must not block the caller, and a
        // link must not lead out of the folder the name was checked against.
        std::string why;
        Files::UniqueFd file = Files::OpenForReading(
            source.path, kind == ContainerKind::Picture ? kMaxPictureFileBytes : kMaxVideoFileBytes,
            Files::FinalLink::Refuse, why);
        if (!file) {
            const int error = errno == EFBIG ? E2BIG : errno;
            ZLOG_ERROR("VBG::Media::MediaInput::open", "Cannot open {}: {}", source.describe(),
                       why);
            return AVERROR(error);
        }
        file_ = std::make_unique<Files::UniqueFd>(std::move(file));
        cursor = file_.get();
        readPacket = &ReadFileDescriptor;
        seek = &SeekFileDescriptor;
    }
    auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
    if (buffer == nullptr) {
        return AVERROR(ENOMEM);
    }
    io_.reset(avio_alloc_context(buffer, kIoBufferSize, 0, cursor, readPacket, nullptr, seek));
    if (!io_) {
        av_free(buffer);
        return AVERROR(ENOMEM);
    }

    const AVInputFormat* inputFormat = nullptr;
    if (demuxer != nullptr) {
        inputFormat = av_find_input_format(demuxer);
        if (inputFormat == nullptr) {
            ZLOG_ERROR("VBG::Media::MediaInput::open", "No '{}' demuxer for {}", demuxer,
                       source.describe());
            return AVERROR_DEMUXER_NOT_FOUND;
        }
    }
    AVFormatContext* context = avformat_alloc_context();
    if (context == nullptr) {
        return AVERROR(ENOMEM);
    }
    context->pb = io_.get();
    context->flags |= AVFMT_FLAG_CUSTOM_IO;
    std::unique_ptr<AVDictionary, DictionaryDeleter> options;
    {
        AVDictionary* raw = nullptr;
        // Local files only, read as they are: no network, no numbered-sequence patterns.
        av_dict_set(&raw, "protocol_whitelist", "file", 0);
        if (kind == ContainerKind::Picture) {
            av_dict_set(&raw, "format_whitelist", kPictureFormats, 0);
            av_dict_set(&raw, "codec_whitelist", kPictureCodecs, 0);
        } else {
            av_dict_set(&raw, "format_whitelist", kVideoFormats, 0);
            av_dict_set(&raw, "codec_whitelist", kVideoCodecs, 0);
        }
        options.reset(raw);
    }
    // Both kinds of source are read through the custom I/O context: FFmpeg opens no file itself.
    AVDictionary* rawOptions = options.release();
    int rc = avformat_open_input(&context, nullptr, inputFormat, &rawOptions);
    options.reset(rawOptions);
    if (rc < 0) {
        // avformat_open_input frees the context itself on failure.
        ZLOG_ERROR("VBG::Media::MediaInput::open", "Cannot open {}: {}", source.describe(),
                   AvErrorText(rc));
        return rc;
    }
    format_.reset(context);
    // Reading the stream information decodes a first frame of each stream: the size limit
    // applies there too, before anything large is allocated.
    std::vector<AVDictionary*> streamOptions(context->nb_streams, nullptr);
    for (auto& streamOption : streamOptions) {
        av_dict_set_int(&streamOption, "max_pixels", std::min(maxPixels, kMaxPixels), 0);
    }
    rc = avformat_find_stream_info(context, streamOptions.empty() ? nullptr : streamOptions.data());
    for (auto& streamOption : streamOptions) {
        av_dict_free(&streamOption);
    }
    if (rc < 0) {
        ZLOG_ERROR("VBG::Media::MediaInput::open", "Cannot read the streams of {}: {}",
                   source.describe(), AvErrorText(rc));
        format_.reset();
        return rc;
    }
    return 0;
}

bool VideoDecoderAccepted(const AVCodec* codec) {
    return codec != nullptr && av_match_list(codec->name, kVideoCodecs, ',') > 0;
}

bool DimensionsAccepted(int width, int height) {
    return width > 0 && height > 0 && width <= kMaxSide && height <= kMaxSide &&
           static_cast<int64_t>(width) * height <= kMaxPixels;
}

int OpenDecoder(const AVStream* stream, CodecContextPtr& decoder, int64_t maxPixels) {
    const AVCodecParameters* parameters = stream->codecpar;
    const AVCodec* codec = avcodec_find_decoder(parameters->codec_id);
    if (codec == nullptr) {
        ZLOG_ERROR("VBG::Media::OpenDecoder", "No decoder for codec '{}'",
                   avcodec_get_name(parameters->codec_id));
        return AVERROR_DECODER_NOT_FOUND;
    }
    decoder.reset(avcodec_alloc_context3(codec));
    if (!decoder) {
        return AVERROR(ENOMEM);
    }
    int rc = avcodec_parameters_to_context(decoder.get(), parameters);
    if (rc < 0) {
        ZLOG_ERROR("VBG::Media::OpenDecoder", "Cannot configure the '{}' decoder: {}", codec->name,
                   AvErrorText(rc));
        return rc;
    }
    // Background decoding runs on one thread of its own; the cores belong to the camera path.
    decoder->thread_count = 1;
    decoder->max_pixels = std::min(maxPixels, kMaxPixels);
    decoder->pkt_timebase = stream->time_base;
    rc = avcodec_open2(decoder.get(), codec, nullptr);
    if (rc < 0) {
        ZLOG_ERROR("VBG::Media::OpenDecoder", "Cannot open the '{}' decoder: {}", codec->name,
                   AvErrorText(rc));
        decoder.reset();
        return rc;
    }
    return 0;
}

int ArgbConverter::convert(const AVFrame* frame, uint8_t* dst, int dstStride) {
    bool fullRange = frame->color_range == AVCOL_RANGE_JPEG;
    const AVPixelFormat format = PlainFormat(static_cast<AVPixelFormat>(frame->format), fullRange);
    const int range = fullRange ? 1 : 0;
    const bool bt2020 =
        frame->colorspace == AVCOL_SPC_BT2020_NCL || frame->colorspace == AVCOL_SPC_BT2020_CL;
    // 4:2:0, what nearly every video and JPEG holds, goes through libyuv's row kernels, several
    // times faster than the general scaler; full-range BT.2020 is left to the scaler.
    if (format == AV_PIX_FMT_YUV420P && !(fullRange && bt2020)) {
        const libyuv::YuvConstants* constants =
            fullRange ? &libyuv::kYuvJPEGConstants : &libyuv::kYuvI601Constants;
        if (frame->colorspace == AVCOL_SPC_BT709) {
            constants = fullRange ? &libyuv::kYuvF709Constants : &libyuv::kYuvH709Constants;
        } else if (bt2020) {
            constants = &libyuv::kYuv2020Constants;
        }
        const int rc = libyuv::I420ToARGBMatrix(
            frame->data[0], frame->linesize[0], frame->data[1], frame->linesize[1], frame->data[2],
            frame->linesize[2], dst, dstStride, constants, frame->width, frame->height);
        return rc == 0 ? 0 : AVERROR(EINVAL);
    }
    if (!scaler_ || frame->width != width_ || frame->height != height_ || format != format_ ||
        frame->colorspace != colorspace_ || range != range_) {
        scaler_.reset(sws_getContext(
            frame->width, frame->height, format, frame->width, frame->height, AV_PIX_FMT_BGRA,
            SWS_BILINEAR | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr));
        if (!scaler_) {
            const char* name = av_get_pix_fmt_name(format);
            ZLOG_ERROR("VBG::Media::ArgbConverter::convert",
                       "No conversion from pixel format '{}' ({}x{}) to ARGB",
                       name != nullptr ? name : "unknown", frame->width, frame->height);
            return AVERROR(ENOSYS);
        }
        const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
        const bool isRgb = descriptor != nullptr && (descriptor->flags & AV_PIX_FMT_FLAG_RGB);
        if (!isRgb) {
            // Coefficients of the frame's own colour space; unknown ones fall back to BT.601.
            const int* coefficients = sws_getCoefficients(frame->colorspace);
            sws_setColorspaceDetails(scaler_.get(), coefficients, range,
                                     sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
        }
        width_ = frame->width;
        height_ = frame->height;
        format_ = format;
        colorspace_ = frame->colorspace;
        range_ = range;
    }
    uint8_t* dstPlanes[4] = {dst, nullptr, nullptr, nullptr};
    int dstStrides[4] = {dstStride, 0, 0, 0};
    const int rows = sws_scale(scaler_.get(), frame->data, frame->linesize, 0, frame->height,
                               dstPlanes, dstStrides);
    if (rows != frame->height) {
        ZLOG_ERROR("VBG::Media::ArgbConverter::convert", "Conversion to ARGB failed: {}",
                   rows < 0 ? AvErrorText(rows) : std::to_string(rows) + " rows");
        return rows < 0 ? rows : AVERROR_UNKNOWN;
    }
    return 0;
}

}  // namespace VBG::Media
