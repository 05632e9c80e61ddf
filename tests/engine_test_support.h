// What the engine suites share: the library initialised with the real segmentation model, camera
// frames made from the astronaut sample picture and background files made with the ffmpeg
// program, frame records over owned planes, instances and their effect configurations.
#pragma once

#include <gtest/gtest.h>
#include <libyuv.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "selection/processing_type_evaluator.h"
#include "support/test_paths.h"
#include "zyn_native_vbg.h"

namespace engine_test {

namespace fs = std::filesystem;

constexpr int kSettle = 6;  // frames until the model's temporal smoothing has settled

inline std::vector<uint8_t> ReadBytes(const fs::path& path) {
    const std::string text = zyn_test::ReadFile(path);
    return std::vector<uint8_t>(text.begin(), text.end());
}

// The library, initialised once per program: models from .deps/models, log and cache folders
// (background files are named relative to the cache) in a scratch folder.
class Library {
  public:
    static Library& Get() {
        static Library library;
        return library;
    }
    const fs::path& cache() const { return cache_; }
    const fs::path& scratch() const { return dir_.path(); }

  private:
    Library() : dir_("engine"), cache_(dir_ / "cache") {
        fs::create_directories(cache_);
        fs::create_directories(dir_ / "log");
        const fs::path config = dir_ / "config.json";
        zyn_test::WriteFile(config, "{\"modelsPath\": \"" + zyn_test::RealModelsDir().string() +
                                        "\", \"logPath\": \"" + (dir_ / "log").string() +
                                        "\", \"fileCachePath\": \"" + cache_.string() + "\"}");
        if (!ZynNativeVideoProcessingInit(config.c_str())) {
            throw std::runtime_error("library initialisation failed");
        }
        // Without an evaluator program the evaluation ends at once; waiting for it keeps it from
        // logging while a short program exits.
        VBG::ProcessingTypeEvaluator::WaitForEvaluationToComplete();
    }
    zyn_test::TempDir dir_;
    fs::path cache_;
};

// Initialises the library before the first test, so that its logger is in place before any log
// capture is made.
class LibraryEnvironment : public testing::Environment {
  public:
    void SetUp() override { Library::Get(); }
};
inline testing::Environment* const kLibraryEnvironment =
    testing::AddGlobalTestEnvironment(new LibraryEnvironment);

struct Yuv {
    uint8_t y, u, v;
};

// A frame in host memory: NV12 or I420, with row padding so that strides matter.
class Frame {
  public:
    Frame(uint32_t width, uint32_t height, uint32_t format, uint32_t pad = 16)
        : width_(width), height_(height), format_(format), strideY_(width + pad) {
        const uint32_t cw = (width + 1) / 2, ch = (height + 1) / 2;
        strideUV_ = (nv12() ? 2 * cw : cw) + pad;
        y_.assign(static_cast<size_t>(strideY_) * height, 0);
        uv_.assign(static_cast<size_t>(strideUV_) * ch * (nv12() ? 1 : 2), 128);  // I420: U, V
    }

    ZynNativeInputFrame record() {
        uint8_t* const v = nv12() ? nullptr : uv_.data() + uv_.size() / 2;
        const uint32_t vStride = nv12() ? 0 : strideUV_;
        return {width_,     height_,   format_, y_.data(), strideY_,
                uv_.data(), strideUV_, v,       vStride,   0.0f};
    }
    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }
    uint32_t format() const { return format_; }
    uint8_t lumaAt(uint32_t x, uint32_t y) const { return y_[y * strideY_ + x]; }
    uint8_t uAt(uint32_t x, uint32_t y) const { return uv_[chroma(x / 2, y / 2, 0)]; }
    uint8_t vAt(uint32_t x, uint32_t y) const { return uv_[chroma(x / 2, y / 2, 1)]; }

    // Visits every picture byte in packed I420 order (Y, U, V without padding).
    template <typename Fn>
    void forEachByte(Fn fn) {
        for (int p = 0; p < 3; ++p) {
            const uint32_t w = p ? (width_ + 1) / 2 : width_, h = p ? (height_ + 1) / 2 : height_;
            for (uint32_t y = 0; y < h; ++y) {
                for (uint32_t x = 0; x < w; ++x) {
                    fn(p == 0 ? y_[y * strideY_ + x] : uv_[chroma(x, y, p - 1)]);
                }
            }
        }
    }
    std::vector<uint8_t> packedI420() {
        std::vector<uint8_t> out;
        forEachByte([&out](uint8_t& b) { out.push_back(b); });
        return out;
    }
    void setPackedI420(const std::vector<uint8_t>& packed) {
        size_t i = 0;
        forEachByte([&](uint8_t& b) { b = packed[i++]; });
    }
    void fill(uint8_t y, uint8_t u, uint8_t v) {
        const size_t luma = size_t{width_} * height_, c = ((width_ + 1) / 2) * ((height_ + 1) / 2);
        std::vector<uint8_t> packed(luma + 2 * c, y);
        std::fill_n(packed.begin() + luma, c, u);
        std::fill_n(packed.begin() + luma + c, c, v);
        setPackedI420(packed);
    }
    // The padding after each luma row is still as it was made (0).
    bool lumaPaddingUntouched() const {
        for (size_t i = 0; i < y_.size(); ++i) {
            if (i % strideY_ >= width_ && y_[i] != 0) {
                return false;
            }
        }
        return true;
    }

  private:
    bool nv12() const { return format_ == ZYN_FORMAT_NV12; }
    size_t chroma(uint32_t cx, uint32_t cy, int which) const {
        return nv12() ? cy * strideUV_ + cx * 2 + which
                      : which * uv_.size() / 2 + cy * strideUV_ + cx;
    }

    uint32_t width_, height_, format_, strideY_, strideUV_;
    std::vector<uint8_t> y_, uv_;
};

// Runs the ffmpeg program (quietly); throws when it fails.
inline void RunOrThrow(const std::string& command) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0) {
        throw std::runtime_error("command failed: " + command);
    }
}

// The astronaut sample picture as a camera frame: scaled to the frame height and centred on a flat
// grey wall (luma about 128), so that the frame's left and right strips are certainly background.
// An odd frame is the top-left part of the next even one.
inline std::unique_ptr<Frame> AstronautFrame(uint32_t width, uint32_t height, uint32_t format) {
    const std::string w = std::to_string(width), h = std::to_string(height),
                      eh = std::to_string((height + 1) & ~1u);
    const fs::path raw = Library::Get().scratch() / ("astronaut_" + w + "x" + h + ".yuv");
    if (!fs::exists(raw)) {
        RunOrThrow("ffmpeg -y -v error -i '" + zyn_test::SampleImage("astronaut.png").string() +
                   "' -vf 'scale=-2:" + eh + ",pad=" + std::to_string((width + 1) & ~1u) + ":" +
                   eh + ":(ow-iw)/2:0:color=0x808080,crop=" + w + ":" + h +
                   ":0:0:exact=1' -pix_fmt yuv420p -f rawvideo '" + raw.string() + "'");
    }
    auto frame = std::make_unique<Frame>(width, height, format);
    frame->setPackedI420(ReadBytes(raw));
    return frame;
}

// A box in fractions of a frame. The astronaut picture spans x from (W - H) / 2 to (W + H) / 2;
// inside it the face covers about 37-55% across and 12-32% down, the orange suit 15-60% across
// and 62-90% down; the grey wall lies left of it (landscape frames) and above the shuttle model.
struct Box {
    double x0, y0, x1, y1;
};
inline Box PictureBox(uint32_t width, uint32_t height, double x0, double y0, double x1, double y1) {
    const double left = (static_cast<double>(width) - height) / 2.0 / width;
    const double span = static_cast<double>(height) / width;
    return Box{left + x0 * span, y0, left + x1 * span, y1};
}
inline Box FaceBox(uint32_t w, uint32_t h) {
    return PictureBox(w, h, 0.39, 0.14, 0.53, 0.30);
}
inline Box ShuttleBox(uint32_t w, uint32_t h) {
    return PictureBox(w, h, 0.72, 0.05, 0.90, 0.50);
}
inline Box LeftWallBox(uint32_t w, uint32_t h) {
    return Box{0.02, 0.1, (static_cast<double>(w) - h) / 2.0 / w - 0.04, 0.9};
}
inline Box UpperWallBox(uint32_t w, uint32_t h) {
    return PictureBox(w, h, 0.62, 0.02, 0.72, 0.15);
}

// The mean of fn(x, y) over the pixels of a box.
template <typename Fn>
double MeanOver(const Frame& f, const Box& box, Fn fn) {
    const auto x0 = static_cast<uint32_t>(box.x0 * f.width());
    const auto x1 = static_cast<uint32_t>(box.x1 * f.width());
    const auto y1 = static_cast<uint32_t>(box.y1 * f.height());
    double sum = 0;
    size_t n = 0;
    for (auto y = static_cast<uint32_t>(box.y0 * f.height()); y < y1; ++y) {
        for (uint32_t x = x0; x < x1; ++x, ++n) {
            sum += fn(x, y);
        }
    }
    return n == 0 ? 0.0 : sum / n;
}
// Mean absolute luma and chroma difference of two frames over a box of `b`, `a` read at (dx, dy)
// from it; or of a frame from a flat colour.
inline double MeanDifference(const Frame& a, const Frame& b, const Box& box, uint32_t dx = 0,
                             uint32_t dy = 0) {
    return MeanOver(b, box, [&](uint32_t x, uint32_t y) {
        return std::abs(a.lumaAt(x + dx, y + dy) - b.lumaAt(x, y)) +
               std::abs(a.uAt(x + dx, y + dy) - b.uAt(x, y)) +
               std::abs(a.vAt(x + dx, y + dy) - b.vAt(x, y));
    });
}
inline double MeanDistanceFrom(const Frame& a, const Yuv& c, const Box& box) {
    return MeanOver(a, box, [&](uint32_t x, uint32_t y) {
        return std::abs(a.lumaAt(x, y) - c.y) + std::abs(a.uAt(x, y) - c.u) +
               std::abs(a.vAt(x, y) - c.v);
    });
}
inline std::pair<double, double> MeanChroma(const Frame& f, const Box& box) {
    return {MeanOver(f, box, [&](uint32_t x, uint32_t y) { return f.uAt(x, y); }),
            MeanOver(f, box, [&](uint32_t x, uint32_t y) { return f.vAt(x, y); })};
}
// Mean absolute horizontal luma step: how much detail survives.
inline double Detail(const Frame& f, const Box& box) {
    return MeanOver(f, box, [&](uint32_t x, uint32_t y) {
        return x + 1 < f.width() ? std::abs(f.lumaAt(x + 1, y) - f.lumaAt(x, y)) : 0;
    });
}
// Background files in the cache folder: a flat picture (PNG or JPEG by the extension), an
// animated GIF (red, then blue, 0.1 s each, looping) and a 0.8 s video (red for 0.4 s, then blue).
inline fs::path WriteMedia(const std::string& name, const std::string& arguments) {
    const fs::path path = Library::Get().cache() / name;
    RunOrThrow("ffmpeg -y -v error -f lavfi -i " + arguments + " '" + path.string() + "'");
    return path;
}
inline fs::path WritePicture(const std::string& name, uint32_t width, uint32_t height,
                             const std::string& colour) {
    return WriteMedia(name, "color=c=" + colour + ":s=" + std::to_string(width) + "x" +
                                std::to_string(height) + " -frames:v 1");
}
inline fs::path WriteAnimatedGif(const std::string& name) {
    return WriteMedia(name,
                      "color=c=red:s=64x36:r=10:d=0.1 -f lavfi -i color=c=blue:s=64x36:r=10:"
                      "d=0.1 -filter_complex '[0][1]concat=n=2:v=1' -loop 0");
}
inline fs::path WriteVideo(const std::string& name) {
    return WriteMedia(name,
                      "color=c=red:s=160x90:r=25:d=0.4 -f lavfi -i color=c=blue:s=160x90:"
                      "r=25:d=0.4 -filter_complex '[0][1]concat=n=2:v=1' -c:v libx264 "
                      "-pix_fmt yuv420p");
}

// An instance made from a JSON effect configuration; destroyed with its handle.
class Instance {
  public:
    explicit Instance(const std::string& json) {
        status_ = ZynNativeVideoProcessingCreateInstance(json.c_str(), &handle_);
    }
    ~Instance() { ZynNativeVideoProcessingDestroyInstance(&handle_); }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    uint32_t status() const { return status_; }
    ZynNativeHandle* handle() { return &handle_; }
    bool valid() const { return handle_ != nullptr; }
    uint32_t update(const std::string& json) {
        return ZynNativeVideoProcessingUpdateInstance(&handle_, json.c_str());
    }
    // Camera frames, or presentation frames (with `presentation`); the status of the first that
    // fails, else 0.
    uint32_t run(Frame& in, Frame& out, int count = 1, Frame* presentation = nullptr) {
        for (int i = 0; i < count; ++i) {
            ZynNativeInputFrame frames[2] = {in.record(), {}};
            ZynNativeInputFrame o = out.record();
            if (presentation != nullptr) {
                frames[1] = presentation->record();
            }
            const uint32_t status =
                presentation != nullptr
                    ? ZynNativeVideoProcessingProcessPresentationFrame(&handle_, frames, &o)
                    : ZynNativeVideoProcessingProcessFrame(&handle_, frames, &o);
            lastTime_ = o.processingTime;
            if (status != 0) {
                return status;
            }
        }
        return 0;
    }
    uint32_t process(Frame& in, Frame& out) { return run(in, out); }
    uint32_t present(Frame& camera, Frame& slide, Frame& out, int count = 1) {
        return run(camera, out, count, &slide);
    }
    float lastProcessingTime() const { return lastTime_; }

  private:
    ZynNativeHandle handle_ = nullptr;
    uint32_t status_ = 0;
    float lastTime_ = -1.0f;
};

// Effect configurations. processingMode 2 is the CPU processing type 0 (ONNX Runtime).
inline std::string EffectsConfig(const std::string& effects, int mode = 2) {
    return R"({"processingMode": )" + std::to_string(mode) + R"(, "effects": [)" + effects + "]}";
}
inline std::string BlurConfig(int mode = 2) {
    return EffectsConfig(R"({"name": "blur"})", mode);
}
inline std::string BackgroundConfig(const std::string& file, int mode = 2) {
    return EffectsConfig(R"({"name": "background", "backgroundFile": ")" + file + "\"}", mode);
}
inline std::string TouchUpConfig(const std::string& sigma, int mode = 2) {
    return EffectsConfig(R"({"name": "touchUp", "touchUpSigma": ")" + sigma + "\"}", mode);
}
inline std::string BlurAndTouchUpConfig(const std::string& sigma) {
    return EffectsConfig(R"({"name": "blur"}, {"name": "touchUp", "touchUpSigma": ")" + sigma +
                         "\"}");
}
// A presenter layout: `fields` follow the name, e.g. "mode": "overlay".
inline std::string PresenterConfig(const std::string& fields) {
    return EffectsConfig(R"({"name": "weatherman", )" + fields + "}");
}
// A layered layout ("overlay", "underlay") of a size and an x offset, centred vertically.
inline std::string Layered(const std::string& mode, const std::string& fields,
                           const std::string& size = "0.5", const std::string& offsetX = "0") {
    return PresenterConfig(R"("mode": ")" + mode + R"(", "weathermanSize": ")" + size +
                           R"(", "weathermanOffsetX": ")" + offsetX +
                           R"(", "weathermanOffsetY": "0", )" + fields);
}

}  // namespace engine_test
