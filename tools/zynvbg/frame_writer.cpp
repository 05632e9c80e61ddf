#include "frame_writer.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include "av_handles.h"
#include "tool_error.h"

namespace zynvbg {
namespace fs = std::filesystem;
namespace {

std::string lowerExtension(const std::string& path) {
    std::string ext = fs::path(path).extension().string();
    if (!ext.empty()) {
        ext.erase(0, 1);
    }
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

bool isVideoExtension(const std::string& ext) {
    static const char* const kKnown[] = {"mp4", "mkv", "mov", "webm", "avi", "y4m", "yuv"};
    return std::find_if(std::begin(kKnown), std::end(kKnown),
                        [&](const char* known) { return ext == known; }) != std::end(kKnown);
}

// A frame pattern must hold exactly one integer conversion (%d, %5d or %05d); "%%" is a literal
// percent sign. Anything else would make snprintf read arguments that are not there.
bool isFramePattern(const std::string& name) {
    int conversions = 0;
    for (size_t i = 0; i < name.size(); ++i) {
        if (name[i] != '%') {
            continue;
        }
        if (i + 1 < name.size() && name[i + 1] == '%') {
            ++i;
            continue;
        }
        size_t j = i + 1;
        while (j < name.size() && std::isdigit(static_cast<unsigned char>(name[j]))) {
            ++j;
        }
        if (j >= name.size() || name[j] != 'd' || j - i - 1 > 2) {
            return false;
        }
        ++conversions;
        i = j;
    }
    return conversions == 1;
}

[[noreturn]] void outputFailure(const std::string& what) {
    throw ToolError(kExitOutputFailure, what);
}

// Encoders for 4:2:0 want even sizes; an odd frame is scaled by one pixel.
int evenDown(int value) {
    return std::max(2, value & ~1);
}

FramePtr allocFrame(int width, int height, AVPixelFormat format) {
    FramePtr frame(av_frame_alloc());
    if (!frame) {
        outputFailure("out of memory");
    }
    frame->width = width;
    frame->height = height;
    frame->format = format;
    if (av_frame_get_buffer(frame.get(), 0) < 0) {
        outputFailure("out of memory");
    }
    return frame;
}

class NullWriter : public FrameWriter {
  public:
    void write(const YuvFrame&) override { ++count_; }
    void finish() override {}
    int64_t count() const override { return count_; }
    std::string describe() const override { return "nothing (frames discarded)"; }

  private:
    int64_t count_ = 0;
};

class PngWriter : public FrameWriter {
  public:
    PngWriter(const OutputPlan& plan, int width, int height)
        : plan_(plan), width_(width), height_(height) {
        const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
        if (codec == nullptr) {
            outputFailure("this FFmpeg has no PNG encoder");
        }
        encoder_.reset(avcodec_alloc_context3(codec));
        if (!encoder_) {
            outputFailure("out of memory");
        }
        encoder_->width = width;
        encoder_->height = height;
        encoder_->pix_fmt = AV_PIX_FMT_RGB24;
        encoder_->time_base = AVRational{1, 30};
        int rc = avcodec_open2(encoder_.get(), codec, nullptr);
        if (rc < 0) {
            outputFailure("cannot start the PNG encoder: " + AvErrorText(rc));
        }
        rgb_ = allocFrame(width, height, AV_PIX_FMT_RGB24);
        packet_.reset(av_packet_alloc());
        if (!packet_) {
            outputFailure("out of memory");
        }
    }

    void write(const YuvFrame& frame) override {
        if (plan_.kind == OutputKind::kPngSingle && count_ > 0) {
            outputFailure("'" + plan_.path +
                          "' holds one picture; name a pattern such as frame_%05d.png for more");
        }
        if (av_frame_make_writable(rgb_.get()) < 0 ||
            !scaler_.convert(frame.data(), frame.linesize(), frame.width(), frame.height(),
                             AvFormatOf(frame.layout()), rgb_->data, rgb_->linesize, width_,
                             height_, AV_PIX_FMT_RGB24)) {
            outputFailure("cannot convert a frame to RGB");
        }
        rgb_->pts = count_;
        int rc = avcodec_send_frame(encoder_.get(), rgb_.get());
        if (rc < 0) {
            outputFailure("PNG encoding failed: " + AvErrorText(rc));
        }
        rc = avcodec_receive_packet(encoder_.get(), packet_.get());
        if (rc < 0) {
            outputFailure("PNG encoding failed: " + AvErrorText(rc));
        }
        const std::string name = fileName(count_);
        std::ofstream file(name, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(packet_->data), packet_->size);
        file.close();
        av_packet_unref(packet_.get());
        if (!file) {
            outputFailure("cannot write '" + name + "'");
        }
        ++count_;
    }

    void finish() override {}
    int64_t count() const override { return count_; }
    std::string describe() const override {
        return "PNG pictures " + plan_.path + " at " + std::to_string(width_) + "x" +
               std::to_string(height_);
    }

  private:
    std::string fileName(int64_t index) const {
        if (plan_.kind == OutputKind::kPngSingle) {
            return plan_.path;
        }
        std::vector<char> name(plan_.path.size() + 32);
        std::snprintf(name.data(), name.size(), plan_.path.c_str(), static_cast<int>(index));
        return name.data();
    }

    OutputPlan plan_;
    int width_;
    int height_;
    CodecContextPtr encoder_;
    FramePtr rgb_;
    PacketPtr packet_;
    Scaler scaler_;
    int64_t count_ = 0;
};

class VideoWriter : public FrameWriter {
  public:
    VideoWriter(const std::string& path, int width, int height, AVRational rate, PixelLayout layout)
        : path_(path), width_(evenDown(width)), height_(evenDown(height)) {
        const std::string ext = lowerExtension(path);
        const char* muxer = nullptr;
        std::vector<const char*> encoders;
        pixelFormat_ = AV_PIX_FMT_YUV420P;
        if (ext == "y4m") {
            // The Y4M muxer takes decoded frames as they are, wrapped in packets.
            muxer = "yuv4mpegpipe";
            encoders = {"wrapped_avframe"};
        } else if (ext == "yuv") {
            // Headerless frames in the layout the library worked in, as --raw-format reads them.
            muxer = "rawvideo";
            encoders = {"rawvideo"};
            pixelFormat_ = AvFormatOf(layout);
            width_ = width;
            height_ = height;
        } else if (ext == "webm") {
            encoders = {"libvpx-vp9", "libvpx"};
        } else if (ext == "avi") {
            encoders = {"mpeg4"};
        } else {
            encoders = {"libx264", "mpeg4"};
        }

        AVFormatContext* context = nullptr;
        int rc = avformat_alloc_output_context2(&context, nullptr, muxer, path.c_str());
        if (rc < 0 || context == nullptr) {
            outputFailure("cannot write '" + path + "': " + AvErrorText(rc));
        }
        output_.reset(context);

        const AVCodec* codec = nullptr;
        for (const char* name : encoders) {
            codec = avcodec_find_encoder_by_name(name);
            if (codec != nullptr) {
                break;
            }
        }
        if (codec == nullptr) {
            outputFailure("this FFmpeg has no encoder for '" + path + "'");
        }
        codecName_ = codec->name;
        encoder_.reset(avcodec_alloc_context3(codec));
        if (!encoder_) {
            outputFailure("out of memory");
        }
        AVCodecContext* enc = encoder_.get();
        enc->width = width_;
        enc->height = height_;
        enc->pix_fmt = pixelFormat_;
        enc->time_base = av_inv_q(rate);
        enc->framerate = rate;
        enc->gop_size = std::max(1, static_cast<int>(av_q2d(rate) * 2));
        enc->color_range = AVCOL_RANGE_MPEG;
        enc->colorspace = AVCOL_SPC_BT470BG;  // the BT.601 matrix the frames were made with
        if (codecName_ == "libx264") {
            av_opt_set(enc->priv_data, "preset", "veryfast", 0);
            av_opt_set(enc->priv_data, "crf", "18", 0);
        } else if (codecName_ == "libvpx-vp9") {
            av_opt_set(enc->priv_data, "deadline", "realtime", 0);
            av_opt_set(enc->priv_data, "cpu-used", "8", 0);
            av_opt_set(enc->priv_data, "crf", "30", 0);
            av_opt_set(enc->priv_data, "row-mt", "1", 0);
            enc->bit_rate = 0;
        } else if (codecName_ == "libvpx") {
            av_opt_set(enc->priv_data, "deadline", "realtime", 0);
            av_opt_set(enc->priv_data, "cpu-used", "8", 0);
            enc->bit_rate = static_cast<int64_t>(width_) * height_ * 4;
        } else if (codecName_ == "mpeg4") {
            enc->flags |= AV_CODEC_FLAG_QSCALE;
            enc->global_quality = FF_QP2LAMBDA * 3;
        }
        if (context->oformat->flags & AVFMT_GLOBALHEADER) {
            enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        }
        rc = avcodec_open2(enc, codec, nullptr);
        if (rc < 0) {
            outputFailure("cannot start the " + codecName_ + " encoder: " + AvErrorText(rc));
        }
        stream_ = avformat_new_stream(context, nullptr);
        if (stream_ == nullptr || avcodec_parameters_from_context(stream_->codecpar, enc) < 0) {
            outputFailure("cannot add a video stream to '" + path + "'");
        }
        stream_->time_base = enc->time_base;
        stream_->avg_frame_rate = rate;
        if (!(context->oformat->flags & AVFMT_NOFILE)) {
            rc = avio_open(&context->pb, path.c_str(), AVIO_FLAG_WRITE);
            if (rc < 0) {
                outputFailure("cannot write '" + path + "': " + AvErrorText(rc));
            }
        }
        rc = avformat_write_header(context, nullptr);
        if (rc < 0) {
            outputFailure("cannot write '" + path + "': " + AvErrorText(rc));
        }
        frame_ = allocFrame(width_, height_, pixelFormat_);
        packet_.reset(av_packet_alloc());
        if (!packet_) {
            outputFailure("out of memory");
        }
    }

    void write(const YuvFrame& frame) override {
        if (av_frame_make_writable(frame_.get()) < 0 ||
            !scaler_.convert(frame.data(), frame.linesize(), frame.width(), frame.height(),
                             AvFormatOf(frame.layout()), frame_->data, frame_->linesize, width_,
                             height_, pixelFormat_)) {
            outputFailure("cannot convert a frame for '" + path_ + "'");
        }
        frame_->pts = count_;
        send(frame_.get());
        ++count_;
    }

    void finish() override {
        if (finished_) {
            return;
        }
        finished_ = true;
        send(nullptr);
        int rc = av_write_trailer(output_.get());
        if (rc < 0) {
            outputFailure("cannot finish '" + path_ + "': " + AvErrorText(rc));
        }
        if (output_->pb != nullptr && !(output_->oformat->flags & AVFMT_NOFILE)) {
            rc = avio_closep(&output_->pb);
            if (rc < 0) {
                outputFailure("cannot finish '" + path_ + "': " + AvErrorText(rc));
            }
        }
    }

    int64_t count() const override { return count_; }
    std::string describe() const override {
        return codecName_ + " in " + path_ + " at " + std::to_string(width_) + "x" +
               std::to_string(height_);
    }

  private:
    void send(AVFrame* frame) {
        int rc = avcodec_send_frame(encoder_.get(), frame);
        if (rc < 0) {
            outputFailure("encoding '" + path_ + "' failed: " + AvErrorText(rc));
        }
        for (;;) {
            rc = avcodec_receive_packet(encoder_.get(), packet_.get());
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) {
                return;
            }
            if (rc < 0) {
                outputFailure("encoding '" + path_ + "' failed: " + AvErrorText(rc));
            }
            av_packet_rescale_ts(packet_.get(), encoder_->time_base, stream_->time_base);
            packet_->stream_index = stream_->index;
            rc = av_interleaved_write_frame(output_.get(), packet_.get());
            if (rc < 0) {
                outputFailure("cannot write '" + path_ + "': " + AvErrorText(rc));
            }
        }
    }

    std::string path_;
    int width_;
    int height_;
    AVPixelFormat pixelFormat_;
    std::string codecName_;
    OutputContextPtr output_;
    CodecContextPtr encoder_;
    AVStream* stream_ = nullptr;
    FramePtr frame_;
    PacketPtr packet_;
    Scaler scaler_;
    int64_t count_ = 0;
    bool finished_ = false;
};

}  // namespace

const char* VideoExtensions() {
    return ".mp4, .mkv, .mov, .webm, .avi, .y4m, .yuv";
}

OutputPlan PlanOutput(const std::string& path) {
    if (path == "null") {
        return {OutputKind::kNull, path};
    }
    const fs::path p(path);
    const std::string ext = lowerExtension(path);
    if (p.parent_path().string().find('%') != std::string::npos) {
        throw ToolError(kExitBadArguments,
                        "output '" + path + "': a frame pattern belongs in the file name");
    }
    if (ext == "png") {
        if (p.filename().string().find('%') == std::string::npos) {
            return {OutputKind::kPngSingle, path};
        }
        if (!isFramePattern(p.filename().string())) {
            throw ToolError(
                kExitBadArguments,
                "output '" + path + "': a frame pattern needs exactly one %d, %5d or %05d");
        }
        return {OutputKind::kPngFrames, path};
    }
    if (!isVideoExtension(ext)) {
        throw ToolError(kExitBadArguments, "output '" + path + "': use one of " +
                                               std::string(VideoExtensions()) +
                                               ", a .png pattern such as frame_%05d.png, or null");
    }
    if (p.filename().string().find('%') != std::string::npos) {
        throw ToolError(kExitBadArguments,
                        "output '" + path + "': a frame pattern only works with .png");
    }
    return {OutputKind::kVideo, path};
}

void PrepareOutputLocation(const OutputPlan& plan) {
    if (plan.kind == OutputKind::kNull) {
        return;
    }
    fs::path folder = fs::path(plan.path).parent_path();
    if (folder.empty()) {
        folder = ".";
    }
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec || !fs::is_directory(folder)) {
        outputFailure("cannot make the output folder '" + folder.string() + "'");
    }
    if (access(folder.c_str(), W_OK) != 0) {
        outputFailure("cannot write into the output folder '" + folder.string() + "'");
    }
    if (plan.kind != OutputKind::kPngFrames && fs::is_directory(plan.path)) {
        outputFailure("output '" + plan.path + "' is a folder");
    }
}

std::unique_ptr<FrameWriter> OpenWriter(const OutputPlan& plan, int width, int height,
                                        AVRational rate, PixelLayout layout) {
    switch (plan.kind) {
        case OutputKind::kNull:
            return std::make_unique<NullWriter>();
        case OutputKind::kPngSingle:
        case OutputKind::kPngFrames:
            return std::make_unique<PngWriter>(plan, width, height);
        case OutputKind::kVideo:
            break;
    }
    return std::make_unique<VideoWriter>(plan.path, width, height, rate, layout);
}

}  // namespace zynvbg
