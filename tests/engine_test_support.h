// What the engine suites share: the library initialised with the real segmentation model, camera
// frames made from the astronaut sample picture with the ffmpeg program, background files
// generated the same way, frame records over owned planes, and instance handles.
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
// folders in a scratch folder that lives as long as the program.
class Library {
  public:
    static Library& Get() {
        static Library library;
        return library;
    }
    // Background and presenter files are named relative to this folder in the configurations.
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
        // Initialisation starts the processing-type evaluation on a thread of its own. No
        // evaluator program sits beside the test programs, so it ends at once; waiting for it keeps
        // it from still logging while a short test program exits.
        VBG::ProcessingTypeEvaluator::WaitForEvaluationToComplete();
    }
    zyn_test::TempDir dir_;
    fs::path cache_;
};

// Initialises the library before the first test of a program, so that every test, run alone or
// with the others, starts with the library's logger in place (a log capture made later sees
// every record).
class LibraryEnvironment : public testing::Environment {
  public:
    void SetUp() override { Library::Get(); }
};
inline testing::Environment* const kLibraryEnvironment =
    testing::AddGlobalTestEnvironment(new LibraryEnvironment);

// A flat colour in I420.
struct Yuv {
    uint8_t y, u, v;
};

// The I420 value the engine's picture conversion gives a flat colour (B, G, R bytes).
inline Yuv YuvOf(uint8_t b, uint8_t g, uint8_t r) {
    uint8_t argb[16];
    for (int i = 0; i < 4; ++i) {
        argb[i * 4] = b;
        argb[i * 4 + 1] = g;
        argb[i * 4 + 2] = r;
        argb[i * 4 + 3] = 255;
    }
    uint8_t y[4], u[1], v[1];
    libyuv::ARGBToI420(argb, 8, y, 2, u, 1, v, 1, 2, 2);
    return Yuv{y[0], u[0], v[0]};
}

// A frame in host memory: NV12 or I420, with row padding so that strides matter.
class Frame {
  public:
    Frame(uint32_t width, uint32_t height, uint32_t format, uint32_t pad = 16)
        : width_(width), height_(height), format_(format) {
        const uint32_t cw = (width + 1) / 2;
        const uint32_t ch = (height + 1) / 2;
        strideY_ = width + pad;
        y_.assign(static_cast<size_t>(strideY_) * height, 0);
        if (format == ZYN_FORMAT_NV12) {
            strideUV_ = 2 * cw + pad;
            uv_.assign(static_cast<size_t>(strideUV_) * ch, 128);
        } else {
            strideUV_ = cw + pad;
            u_.assign(static_cast<size_t>(strideUV_) * ch, 128);
            v_.assign(static_cast<size_t>(strideUV_) * ch, 128);
        }
    }

    ZynNativeInputFrame record() {
        ZynNativeInputFrame r{};
        r.width = width_;
        r.height = height_;
        r.format = format_;
        r.plane0 = y_.data();
        r.stride0 = strideY_;
        if (format_ == ZYN_FORMAT_NV12) {
            r.plane1 = uv_.data();
            r.stride1 = strideUV_;
        } else {
            r.plane1 = u_.data();
            r.stride1 = strideUV_;
            r.plane2 = v_.data();
            r.stride2 = strideUV_;
        }
        return r;
    }

    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }
    uint32_t format() const { return format_; }
    uint8_t lumaAt(uint32_t x, uint32_t y) const { return y_[y * strideY_ + x]; }
    uint8_t uAt(uint32_t x, uint32_t y) const {
        return format_ == ZYN_FORMAT_NV12 ? uv_[(y / 2) * strideUV_ + (x / 2) * 2]
                                          : u_[(y / 2) * strideUV_ + x / 2];
    }
    uint8_t vAt(uint32_t x, uint32_t y) const {
        return format_ == ZYN_FORMAT_NV12 ? uv_[(y / 2) * strideUV_ + (x / 2) * 2 + 1]
                                          : v_[(y / 2) * strideUV_ + x / 2];
    }

    // The picture as packed I420 (Y, then U, then V, no padding), whatever the format.
    std::vector<uint8_t> packedI420() const {
        const uint32_t cw = (width_ + 1) / 2, ch = (height_ + 1) / 2;
        std::vector<uint8_t> out(static_cast<size_t>(width_) * height_ + 2 * cw * ch);
        uint8_t* y = out.data();
        uint8_t* u = y + static_cast<size_t>(width_) * height_;
        uint8_t* v = u + static_cast<size_t>(cw) * ch;
        if (format_ == ZYN_FORMAT_NV12) {
            libyuv::NV12ToI420(y_.data(), strideY_, uv_.data(), strideUV_, y, width_, u, cw, v, cw,
                               width_, height_);
        } else {
            libyuv::I420Copy(y_.data(), strideY_, u_.data(), strideUV_, v_.data(), strideUV_, y,
                             width_, u, cw, v, cw, width_, height_);
        }
        return out;
    }
    // Fills the frame from packed I420.
    void setPackedI420(const std::vector<uint8_t>& packed) {
        const uint32_t cw = (width_ + 1) / 2, ch = (height_ + 1) / 2;
        const uint8_t* y = packed.data();
        const uint8_t* u = y + static_cast<size_t>(width_) * height_;
        const uint8_t* v = u + static_cast<size_t>(cw) * ch;
        if (format_ == ZYN_FORMAT_NV12) {
            libyuv::I420ToNV12(y, width_, u, cw, v, cw, y_.data(), strideY_, uv_.data(), strideUV_,
                               width_, height_);
        } else {
            libyuv::I420Copy(y, width_, u, cw, v, cw, y_.data(), strideY_, u_.data(), strideUV_,
                             v_.data(), strideUV_, width_, height_);
        }
    }
    void fill(uint8_t y, uint8_t u, uint8_t v) {
        const uint32_t cw = (width_ + 1) / 2, ch = (height_ + 1) / 2;
        std::vector<uint8_t> packed(static_cast<size_t>(width_) * height_, y);
        packed.resize(packed.size() + static_cast<size_t>(cw) * ch, u);
        packed.resize(packed.size() + static_cast<size_t>(cw) * ch, v);
        setPackedI420(packed);
    }
    // Bytes of the padding after each row stay as they were made (0 for luma).
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
    uint32_t width_, height_, format_;
    uint32_t strideY_ = 0, strideUV_ = 0;
    std::vector<uint8_t> y_, u_, v_, uv_;
};

// The astronaut sample picture as a width x height camera frame: scaled to the frame height and
// centred on a flat grey wall (luma about 128), so the frame's left and right strips are
// certainly background. Cached per size in the scratch folder.
inline std::vector<uint8_t> AstronautI420(uint32_t width, uint32_t height) {
    // ffmpeg makes even sizes; an odd frame is the top-left part of the next even one.
    const uint32_t ew = (width + 1) & ~1u;
    const uint32_t eh = (height + 1) & ~1u;
    const fs::path raw = Library::Get().scratch() /
                         ("astronaut_" + std::to_string(ew) + "x" + std::to_string(eh) + ".yuv");
    if (!fs::exists(raw)) {
        RunOrThrow("ffmpeg -y -v error -i '" + zyn_test::SampleImage("astronaut.png").string() +
                   "' -vf 'scale=-2:" + std::to_string(eh) + ",pad=" + std::to_string(ew) + ":" +
                   std::to_string(eh) +
                   ":(ow-iw)/2:0:color=0x808080' -pix_fmt yuv420p -f rawvideo '" + raw.string() +
                   "'");
    }
    const std::vector<uint8_t> even = ReadBytes(raw);
    if (even.size() != static_cast<size_t>(ew) * eh * 3 / 2) {
        throw std::runtime_error("unexpected size of " + raw.string());
    }
    const uint32_t cw = (width + 1) / 2, ch = (height + 1) / 2;
    std::vector<uint8_t> out(static_cast<size_t>(width) * height + 2 * cw * ch);
    const uint8_t* ey = even.data();
    const uint8_t* eu = ey + static_cast<size_t>(ew) * eh;
    const uint8_t* ev = eu + static_cast<size_t>(ew / 2) * (eh / 2);
    uint8_t* y = out.data();
    uint8_t* u = y + static_cast<size_t>(width) * height;
    uint8_t* v = u + static_cast<size_t>(cw) * ch;
    libyuv::I420Copy(ey, ew, eu, ew / 2, ev, ew / 2, y, width, u, cw, v, cw, width, height);
    return out;
}

inline std::unique_ptr<Frame> AstronautFrame(uint32_t width, uint32_t height, uint32_t format) {
    auto frame = std::make_unique<Frame>(width, height, format);
    frame->setPackedI420(AstronautI420(width, height));
    return frame;
}

// Where the astronaut is in such a frame, as fractions of the frame: the face and the torso
// (person) and the grey wall beside the picture and above the shuttle model (background). The
// astronaut picture spans x from (W - H) / 2 to (W + H) / 2; inside it the face covers about
// 37-55% across and 12-32% down, the orange suit 15-60% across and 62-90% down.
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
// The grey wall left of the picture (only in landscape frames) and the wall above the shuttle.
inline Box LeftWallBox(uint32_t w, uint32_t h) {
    return Box{0.02, 0.1, (static_cast<double>(w) - h) / 2.0 / w - 0.04, 0.9};
}
inline Box UpperWallBox(uint32_t w, uint32_t h) {
    return PictureBox(w, h, 0.62, 0.02, 0.72, 0.15);
}

// Mean absolute luma and chroma difference of two frames inside a box.
inline double MeanDifference(const Frame& a, const Frame& b, const Box& box) {
    const uint32_t x0 = static_cast<uint32_t>(box.x0 * a.width());
    const uint32_t x1 = static_cast<uint32_t>(box.x1 * a.width());
    const uint32_t y0 = static_cast<uint32_t>(box.y0 * a.height());
    const uint32_t y1 = static_cast<uint32_t>(box.y1 * a.height());
    double sum = 0;
    size_t n = 0;
    for (uint32_t y = y0; y < y1; ++y) {
        for (uint32_t x = x0; x < x1; ++x) {
            sum += std::abs(a.lumaAt(x, y) - b.lumaAt(x, y)) + std::abs(a.uAt(x, y) - b.uAt(x, y)) +
                   std::abs(a.vAt(x, y) - b.vAt(x, y));
            ++n;
        }
    }
    return n == 0 ? 0.0 : sum / n;
}

// Mean U and V inside a box.
inline std::pair<double, double> MeanChroma(const Frame& f, const Box& box) {
    const uint32_t x0 = static_cast<uint32_t>(box.x0 * f.width());
    const uint32_t x1 = static_cast<uint32_t>(box.x1 * f.width());
    const uint32_t y0 = static_cast<uint32_t>(box.y0 * f.height());
    const uint32_t y1 = static_cast<uint32_t>(box.y1 * f.height());
    double u = 0, v = 0;
    size_t n = 0;
    for (uint32_t y = y0; y < y1; ++y) {
        for (uint32_t x = x0; x < x1; ++x) {
            u += f.uAt(x, y);
            v += f.vAt(x, y);
            ++n;
        }
    }
    return n == 0 ? std::pair<double, double>{0, 0} : std::pair<double, double>{u / n, v / n};
}

// 'r' where red dominates a box, 'b' where blue does, '?' otherwise.
inline char DominantColour(const Frame& f, const Box& box) {
    const auto [u, v] = MeanChroma(f, box);
    if (v > 200 && u < 128) {
        return 'r';
    }
    if (u > 200 && v < 128) {
        return 'b';
    }
    return '?';
}

// Mean absolute difference of a frame from a flat colour inside a box.
inline double MeanDistanceFrom(const Frame& a, uint8_t y, uint8_t u, uint8_t v, const Box& box) {
    Frame flat(a.width(), a.height(), a.format());
    flat.fill(y, u, v);
    return MeanDifference(a, flat, box);
}

// A flat-coloured picture file of width x height (PNG or JPEG by the extension).
inline fs::path WritePicture(const std::string& name, uint32_t width, uint32_t height,
                             const std::string& colour) {
    const fs::path path = Library::Get().cache() / name;
    RunOrThrow("ffmpeg -y -v error -f lavfi -i color=c=" + colour + ":s=" + std::to_string(width) +
               "x" + std::to_string(height) + " -frames:v 1 '" + path.string() + "'");
    return path;
}

// An animated GIF of two frames, red then blue, each shown for a tenth of a second, looping.
inline fs::path WriteAnimatedGif(const std::string& name) {
    const fs::path path = Library::Get().cache() / name;
    RunOrThrow(
        "ffmpeg -y -v error -f lavfi -i color=c=red:s=64x36:r=10:d=0.1 -f lavfi -i "
        "color=c=blue:s=64x36:r=10:d=0.1 -filter_complex '[0][1]concat=n=2:v=1' -loop 0 '" +
        path.string() + "'");
    return path;
}

// A video of 0.8 s at 25 fps: red for 0.4 s, then blue.
inline fs::path WriteVideo(const std::string& name) {
    const std::string first = "red", second = "blue";
    const fs::path path = Library::Get().cache() / name;
    RunOrThrow("ffmpeg -y -v error -f lavfi -i color=c=" + first +
               ":s=160x90:r=25:d=0.4 -f lavfi -i color=c=" + second +
               ":s=160x90:r=25:d=0.4 -filter_complex '[0][1]concat=n=2:v=1' -c:v libx264 "
               "-pix_fmt yuv420p '" +
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
inline std::string BlurConfig(int mode = 2) {
    return R"({"processingMode": )" + std::to_string(mode) + R"(, "effects": [{"name": "blur"}]})";
}
inline std::string BackgroundConfig(const std::string& file, int mode = 2) {
    return R"({"processingMode": )" + std::to_string(mode) +
           R"(, "effects": [{"name": "background", "backgroundFile": ")" + file + R"("}]})";
}
inline std::string TouchUpConfig(const std::string& sigma, int mode = 2) {
    return R"({"processingMode": )" + std::to_string(mode) +
           R"(, "effects": [{"name": "touchUp", "touchUpSigma": ")" + sigma + R"("}]})";
}
inline std::string BlurAndTouchUpConfig(const std::string& sigma) {
    return R"({"processingMode": 2, "effects": [{"name": "blur"}, {"name": "touchUp", )"
           R"("touchUpSigma": ")" +
           sigma + R"("}]})";
}

}  // namespace engine_test
