// Background sources, as a 1280x720 engine sees them per camera frame:
//   NoNewFrame/Picture, NoNewFrame/Video: the check an engine makes on every frame when the
//     background has not changed (hasNewFrame answering false);
//   NewVideoFrame: what one new video frame costs the engine: the frame lock, the ARGB to I420
//     conversion of the background, the release and the acknowledgement;
//   PlaybackFrame: what one frame costs the playback thread: decoding and conversion to ARGB
//     of a 1280x720 H.264 frame (at the frame size: no scaling);
//   PictureCropScale: one crop and box scaling of a 1920x1080 picture to 1280x720 (an animated
//     picture pays this once per frame it shows).
// The media are made with the ffmpeg tool into a temporary folder when the program starts.
#include <benchmark/benchmark.h>
#include <libyuv/convert.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "config/vbg_settings.h"
#include "media/background_image.h"
#include "media/video_decoder.h"
#include "util/text.h"

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;

struct Media {
    std::filesystem::path dir;
    std::string video;
    std::string picture;
    bool ready = false;

    Media() {
        dir = std::filesystem::temp_directory_path() /
              ("zyn-media-bench-" + std::to_string(getpid()));
        std::filesystem::create_directories(dir);
        video = (dir / "clip.mp4").string();
        picture = (dir / "picture.png").string();
        const std::string ffmpeg = "ffmpeg -hide_banner -loglevel error -nostdin -y ";
        ready =
            std::system((ffmpeg + "-f lavfi -i testsrc2=s=1280x720:r=30:d=2 -c:v libx264 " +
                         "-pix_fmt yuv420p " + video)
                            .c_str()) == 0 &&
            std::system(
                (ffmpeg + "-f lavfi -i testsrc2=s=1920x1080 -frames:v 1 " + picture).c_str()) == 0;
        spdlog::set_level(spdlog::level::warn);
    }
    ~Media() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
};

const Media& TheMedia() {
    static Media media;
    return media;
}

VBGSettings Settings(uint32_t bt, uint32_t type, const std::string& file) {
    VBGSettings settings = VBG::DefaultVBGSettings();
    settings.bt = bt;
    settings.imageOrVideoType = type;
    settings.imageOrVideoDataSource = 1;
    VBG::Text::CopyToField(settings.backgroundImageFile, ZYN_PATH_CHARS, file, ZYN_PATH_CHARS - 1);
    return settings;
}

void NoNewFramePicture(benchmark::State& state) {
    auto image =
        std::make_shared<VBG::BackgroundImage>(Settings(VBG::BtImage, 1, TheMedia().picture));
    image->lockAndGetCropAndScaledArgbBuffer(kWidth, kHeight);
    for (auto _ : state) {
        benchmark::DoNotOptimize(image->hasNewFrame());
    }
}

// A video whose playback thread is not running: nothing arrives, so hasNewFrame stays false.
void NoNewFrameVideo(benchmark::State& state) {
    auto image =
        std::make_shared<VBG::BackgroundImage>(Settings(VBG::BtVideo, 4, TheMedia().video));
    // A video that cannot be opened still gives a playback, a failed one (state 1).
    if (!image->initVideoFilePlayback(kWidth, kHeight) || image->playbackState() == 1) {
        state.SkipWithError("video not opened");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(image->hasNewFrame());
    }
}

// The playback's hand-off is done here in the loop (a buffer swap under the frame lock), so that
// every iteration has a new frame to take.
void NewVideoFrame(benchmark::State& state) {
    auto image =
        std::make_shared<VBG::BackgroundImage>(Settings(VBG::BtVideo, 4, TheMedia().video));
    // A video that cannot be opened still gives a playback, a failed one (state 1).
    if (!image->initVideoFilePlayback(kWidth, kHeight) || image->playbackState() == 1) {
        state.SkipWithError("video not opened");
        return;
    }
    image->lockAndGetCropAndScaledArgbBuffer(kWidth, kHeight);
    image->unlockVideoFrame();
    std::vector<uint8_t> delivered(static_cast<size_t>(kWidth) * kHeight * 4, 100);
    std::vector<uint8_t> i420(static_cast<size_t>(kWidth) * kHeight * 3 / 2);
    uint8_t* y = i420.data();
    uint8_t* u = y + kWidth * kHeight;
    uint8_t* v = u + kWidth * kHeight / 4;
    for (auto _ : state) {
        state.PauseTiming();
        image->deliverVideoFrame(delivered, kWidth, kHeight);
        state.ResumeTiming();
        if (!image->hasNewFrame()) {
            state.SkipWithError("no frame");
            break;
        }
        const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(kWidth, kHeight);
        libyuv::ARGBToI420(argb, kWidth * 4, y, kWidth, u, kWidth / 2, v, kWidth / 2, kWidth,
                           kHeight);
        image->unlockVideoFrame();
        image->videoFrameConsumed();
        benchmark::DoNotOptimize(i420.data());
    }
}

void PlaybackFrame(benchmark::State& state) {
    VBG::Media::VideoDecoder decoder;
    if (decoder.open(VBG::Media::MediaSource::File(TheMedia().video)) != 0) {
        state.SkipWithError("video not opened");
        return;
    }
    VBG::Media::FramePtr frame(av_frame_alloc());
    VBG::Media::ArgbConverter converter;
    std::vector<uint8_t> argb(static_cast<size_t>(kWidth) * kHeight * 4);
    for (auto _ : state) {
        if (decoder.nextFrame(frame.get()) != 0 ||
            converter.convert(frame.get(), argb.data(), kWidth * 4) != 0) {
            state.SkipWithError("decoding failed");
            break;
        }
        benchmark::DoNotOptimize(argb.data());
    }
}

void PictureCropScale(benchmark::State& state) {
    auto image =
        std::make_shared<VBG::BackgroundImage>(Settings(VBG::BtImage, 1, TheMedia().picture));
    for (auto _ : state) {
        benchmark::DoNotOptimize(image->lockAndGetCropAndScaledArgbBuffer(kWidth, kHeight));
    }
}

BENCHMARK(NoNewFramePicture)->Name("NoNewFrame/Picture");
BENCHMARK(NoNewFrameVideo)->Name("NoNewFrame/Video");
BENCHMARK(NewVideoFrame)->Unit(benchmark::kMicrosecond);
BENCHMARK(PlaybackFrame)->Unit(benchmark::kMicrosecond);
BENCHMARK(PictureCropScale)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
