// What the engine suites share: the library initialised with the real segmentation model, camera
// frames made from the astronaut sample picture with the ffmpeg program, background files made
// the same way, frame records over owned planes, instances and their effect configurations.
#pragma once

#include <gtest/gtest.h>
#include <libyuv.h>

#include <cstdio>
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

// Frames until the model's temporal smoothing has settled.
constexpr int kSettle = 6;

inline void RunOrThrow(const std::string& command) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0) {
        throw std::runtime_error("command failed: " + command);
    }
}

inline std::vector<uint8_t> ReadBytes(const fs::path& path) {
    const std::string text = zyn_test::ReadFile(path);
    return std::vector<uint8_t>(text.begin(), text.end());
}

// The library, initialised once per test program: models from .deps/models, log and cache
// folders (background files are named relative to the cache) in a scratch folder.
class Library {
  public:
    static Library& Get() {
        static Library library;
        return library;
    }
    const fs::path& cache() const { return cache_; }
    const fs::path& scratch() const { return dir_.path(); }

  private:
    Library() : dir_("engine") {
        cache_ = dir_ / "cache";
        fs::create_directories(cache_);
        fs::create_directories(dir_ / "log");
        const fs::path config = dir_ / "config.json";
        zyn_test::WriteFile(config, "{\"modelsPath\": \"" + zyn_test::RealModelsDir().string() +
                                        "\", \"logPath\": \"" + (dir_ / "log").string() +
                                        "\", \"fileCachePath\": \"" + cache_.string() + "\"}");
        if (!ZynNativeVideoProcessingInit(config.c_str())) {
            throw std::runtime_error("library initialisation failed");
        }
        // No evaluator program sits beside the test programs, so the evaluation started by the
        // initialisation ends at once; waiting keeps it from logging while a program exits.
        VBG::ProcessingTypeEvaluator::WaitForEvaluationToComplete();
    }
    zyn_test::TempDir dir_;
    fs::path cache_;
};

// Initialises the library before the first test, so that the library's logger is in place
// before any log capture is made.
class LibraryEnvironment : public testing::Environment {
  public:
    void SetUp() override { Library::Get(); }
};
inline testing::Environment* const kLibraryEnvironment =
    testing::AddGlobalTestEnvironment(new LibraryEnvironment);

struct Yuv {
    uint8_t y, u, v;
};

// The I420 value the engine's picture conversion gives a flat colour (B, G, R bytes).
inline Yuv YuvOf(uint8_t b, uint8_t g, uint8_t r) {
    const uint8_t px[4] = {b, g, r, 255};
    uint8_t argb[16];
    for (int i = 0; i < 16; ++i) {
        argb[i] = px[i % 4];
    }
    uint8_t y[4], u[1], v[1];
    libyuv::ARGBToI420(argb, 8, y, 2, u, 1, v, 1, 2, 2);
    return Yuv{y[0], u[0], v[0]};
}

// A frame in host memory: NV12 or I420, with row padding so that strides matter.
class Frame {
  public:
    Frame(uint32_t width, uint32_t height, uint32_t format, uint32_t pad = 16)
        : width_(width), height_(height), format_(format), strideY_(width + pad) {
        const uint32_t cw = (width + 1) / 2, ch = (height + 1) / 2;
        y_.assign(static_cast<size_t>(strideY_) * height, 0);
        strideUV_ = (nv12() ? 2 * cw : cw) + pad;
        uv_.assign(static_cast<size_t>(strideUV_) * ch * (nv12() ? 1 : 2), 128);
    }

    ZynNativeInputFrame record() {
        ZynNativeInputFrame r{};
        r.width = width_;
        r.height = height_;
        r.format = format_;
        r.plane0 = y_.data();
        r.stride0 = strideY_;
        r.plane1 = uv_.data();
        r.stride1 = strideUV_;
        if (!nv12()) {
            r.plane2 = vPlane();
            r.stride2 = strideUV_;
        }
        return r;
    }

    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }
    uint32_t format() const { return format_; }
    uint8_t lumaAt(uint32_t x, uint32_t y) const { return y_[y * strideY_ + x]; }
    uint8_t uAt(uint32_t x, uint32_t y) const { return chroma(x, y, 0); }
    uint8_t vAt(uint32_t x, uint32_t y) const { return chroma(x, y, 1); }

    // The picture as packed I420 (Y, then U, then V, no padding), whatever the format.
    std::vector<uint8_t> packedI420() const {
        const uint32_t cw = (width_ + 1) / 2, ch = (height_ + 1) / 2;
        std::vector<uint8_t> out(static_cast<size_t>(width_) * height_ + 2 * cw * ch);
        uint8_t* y = out.data();
        uint8_t* u = y + static_cast<size_t>(width_) * height_;
        uint8_t* v = u + static_cast<size_t>(cw) * ch;
        if (nv12()) {
            libyuv::NV12ToI420(y_.data(), strideY_, uv_.data(), strideUV_, y, width_, u, cw, v, cw,
                               width_, height_);
        } else {
            libyuv::I420Copy(y_.data(), strideY_, uv_.data(), strideUV_, vPlane(), strideUV_, y,
                             width_, u, cw, v, cw, width_, height_);
        }
        return out;
    }
    void setPackedI420(const std::vector<uint8_t>& packed) {
        const uint32_t cw = (width_ + 1) / 2, ch = (height_ + 1) / 2;
        const uint8_t* y = packed.data();
        const uint8_t* u = y + static_cast<size_t>(width_) * height_;
        const uint8_t* v = u + static_cast<size_t>(cw) * ch;
        if (nv12()) {
            libyuv::I420ToNV12(y, width_, u, cw, v, cw, y_.data(), strideY_, uv_.data(), strideUV_,
                               width_, height_);
        } else {
            libyuv::I420Copy(y, width_, u, cw, v, cw, y_.data(), strideY_, uv_.data(), strideUV_,
                             vPlane(), strideUV_, width_, height_);
        }
    }
    void fill(uint8_t y, uint8_t u, uint8_t v) {
        const size_t luma = static_cast<size_t>(width_) * height_;
        const size_t chroma = static_cast<size_t>((width_ + 1) / 2) * ((height_ + 1) / 2);
        std::vector<uint8_t> packed(luma + 2 * chroma, v);
        std::fill(packed.begin(), packed.begin() + luma, y);
        std::fill(packed.begin() + luma, packed.begin() + luma + chroma, u);
        setPackedI420(packed);
    }
    // The padding after each luma row is still as it was made (0).
    bool lumaPaddingUntouched() const {
        for (uint32_t r = 0; r < height_; ++r) {
            for (uint32_t c = width_; c < strideY_; ++c) {
                if (y_[r * strideY_ + c] != 0) {
                    return false;
                }
            }
        }
        return true;
    }

  private:
    bool nv12() const { return format_ == ZYN_FORMAT_NV12; }
    uint8_t* vPlane() { return uv_.data() + uv_.size() / 2; }
    const uint8_t* vPlane() const { return uv_.data() + uv_.size() / 2; }
    uint8_t chroma(uint32_t x, uint32_t y, int which) const {
        return nv12() ? uv_[(y / 2) * strideUV_ + (x / 2) * 2 + which]
                      : uv_[which * uv_.size() / 2 + (y / 2) * strideUV_ + x / 2];
    }

    uint32_t width_, height_, format_, strideY_;
    uint32_t strideUV_ = 0;
    std::vector<uint8_t> y_, uv_;  // I420: U then V in uv_
};

// The astronaut sample picture as a width x height camera frame: scaled to the frame height and
// centred on a flat grey wall (luma about 128), so the frame's left and right strips are
// certainly background. Cached per size in the scratch folder; an odd size is the top-left part
// of the next even one.
inline std::unique_ptr<Frame> AstronautFrame(uint32_t width, uint32_t height, uint32_t format) {
    const uint32_t ew = (width + 1) & ~1u, eh = (height + 1) & ~1u;
    const std::string size = std::to_string(ew) + "x" + std::to_string(eh);
    const fs::path raw = Library::Get().scratch() / ("astronaut_" + size + ".yuv");
    if (!fs::exists(raw)) {
        RunOrThrow("ffmpeg -y -v error -i '" + zyn_test::SampleImage("astronaut.png").string() +
                   "' -vf 'scale=-2:" + std::to_string(eh) + ",pad=" + std::to_string(ew) + ":" +
                   std::to_string(eh) + ":(ow-iw)/2:0:color=0x808080' -pix_fmt yuv420p " +
                   "-f rawvideo '" + raw.string() + "'");
    }
    const std::vector<uint8_t> even = ReadBytes(raw);
    if (even.size() != static_cast<size_t>(ew) * eh * 3 / 2) {
        throw std::runtime_error("unexpected size of " + raw.string());
    }
    Frame whole(ew, eh, ZYN_FORMAT_I420, 0);
    whole.setPackedI420(even);
    ZynNativeInputFrame w = whole.record();
    auto frame = std::make_unique<Frame>(width, height, format);
    ZynNativeInputFrame f = frame->record();
    if (format == ZYN_FORMAT_NV12) {
        libyuv::I420ToNV12(w.plane0, w.stride0, w.plane1, w.stride1, w.plane2, w.stride2, f.plane0,
                           f.stride0, f.plane1, f.stride1, width, height);
    } else {
        libyuv::I420Copy(w.plane0, w.stride0, w.plane1, w.stride1, w.plane2, w.stride2, f.plane0,
                         f.stride0, f.plane1, f.stride1, f.plane2, f.stride2, width, height);
    }
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
inline Box TorsoBox(uint32_t w, uint32_t h) {
    return PictureBox(w, h, 0.18, 0.64, 0.58, 0.88);
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
    double sum = 0;
    size_t n = 0;
    for (uint32_t y = static_cast<uint32_t>(box.y0 * f.height());
         y < static_cast<uint32_t>(box.y1 * f.height()); ++y) {
        for (uint32_t x = static_cast<uint32_t>(box.x0 * f.width());
             x < static_cast<uint32_t>(box.x1 * f.width()); ++x, ++n) {
            sum += fn(x, y);
        }
    }
    return n == 0 ? 0.0 : sum / n;
}

// Mean absolute luma and chroma difference of two frames inside a box.
inline double MeanDifference(const Frame& a, const Frame& b, const Box& box) {
    return MeanOver(a, box, [&](uint32_t x, uint32_t y) {
        return std::abs(a.lumaAt(x, y) - b.lumaAt(x, y)) + std::abs(a.uAt(x, y) - b.uAt(x, y)) +
               std::abs(a.vAt(x, y) - b.vAt(x, y));
    });
}
inline double MeanDistanceFrom(const Frame& a, uint8_t y, uint8_t u, uint8_t v, const Box& box) {
    return MeanOver(a, box, [&](uint32_t px, uint32_t py) {
        return std::abs(a.lumaAt(px, py) - y) + std::abs(a.uAt(px, py) - u) +
               std::abs(a.vAt(px, py) - v);
    });
}
inline std::pair<double, double> MeanChroma(const Frame& f, const Box& box) {
    return {MeanOver(f, box, [&](uint32_t x, uint32_t y) { return f.uAt(x, y); }),
            MeanOver(f, box, [&](uint32_t x, uint32_t y) { return f.vAt(x, y); })};
}
// Mean absolute horizontal luma step inside a box: how much detail survives.
inline double Detail(const Frame& f, const Box& box) {
    return MeanOver(f, box, [&](uint32_t x, uint32_t y) {
        return x + 1 < f.width() ? std::abs(f.lumaAt(x + 1, y) - f.lumaAt(x, y)) : 0;
    });
}
// 'r' where red dominates a box, 'b' where blue does, '?' otherwise.
inline char DominantColour(const Frame& f, const Box& box) {
    const auto [u, v] = MeanChroma(f, box);
    return v > 200 && u < 128 ? 'r' : u > 200 && v < 128 ? 'b' : '?';
}

// Background files in the cache folder: a flat picture (PNG or JPEG by the extension), an
// animated GIF (red, then blue, 0.1 s each, looping) and a 0.8 s video (red for 0.4 s, then blue).
inline fs::path WritePicture(const std::string& name, uint32_t width, uint32_t height,
                             const std::string& colour) {
    const fs::path path = Library::Get().cache() / name;
    RunOrThrow("ffmpeg -y -v error -f lavfi -i color=c=" + colour + ":s=" + std::to_string(width) +
               "x" + std::to_string(height) + " -frames:v 1 '" + path.string() + "'");
    return path;
}
inline fs::path WriteAnimatedGif(const std::string& name) {
    const fs::path path = Library::Get().cache() / name;
    RunOrThrow(
        "ffmpeg -y -v error -f lavfi -i color=c=red:s=64x36:r=10:d=0.1 -f lavfi -i "
        "color=c=blue:s=64x36:r=10:d=0.1 -filter_complex '[0][1]concat=n=2:v=1' -loop 0 '" +
        path.string() + "'");
    return path;
}
inline fs::path WriteVideo(const std::string& name) {
    const fs::path path = Library::Get().cache() / name;
    RunOrThrow(
        "ffmpeg -y -v error -f lavfi -i color=c=red:s=160x90:r=25:d=0.4 -f lavfi -i "
        "color=c=blue:s=160x90:r=25:d=0.4 -filter_complex '[0][1]concat=n=2:v=1' "
        "-c:v libx264 -pix_fmt yuv420p '" +
        path.string() + "'");
    return path;
}

// An instance made from a JSON effect configuration; destroyed with its handle.
class Instance {
  public:
    explicit Instance(const std::string& json) {
        Library::Get();
        status_ = ZynNativeVideoProcessingCreateInstance(json.c_str(), &handle_);
    }
    ~Instance() { ZynNativeVideoProcessingDestroyInstance(&handle_); }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    uint32_t status() const { return status_; }
    ZynNativeHandle* handle() { return &handle_; }
    bool valid() const { return handle_ != nullptr; }

    uint32_t process(Frame& in, Frame& out) {
        ZynNativeInputFrame i = in.record();
        ZynNativeInputFrame o = out.record();
        const uint32_t status = ZynNativeVideoProcessingProcessFrame(&handle_, &i, &o);
        lastTime_ = o.processingTime;
        return status;
    }
    // `count` frames; the status of the first that fails, else 0.
    uint32_t run(Frame& in, Frame& out, int count) {
        for (int i = 0; i < count; ++i) {
            if (const uint32_t status = process(in, out)) {
                return status;
            }
        }
        return 0;
    }
    uint32_t present(Frame& camera, Frame& presentation, Frame& out, int count = 1) {
        for (int i = 0; i < count; ++i) {
            ZynNativeInputFrame frames[2] = {camera.record(), presentation.record()};
            ZynNativeInputFrame o = out.record();
            const uint32_t status =
                ZynNativeVideoProcessingProcessPresentationFrame(&handle_, frames, &o);
            lastTime_ = o.processingTime;
            if (status != 0) {
                return status;
            }
        }
        return 0;
    }
    uint32_t update(const std::string& json) {
        return ZynNativeVideoProcessingUpdateInstance(&handle_, json.c_str());
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

}  // namespace engine_test
