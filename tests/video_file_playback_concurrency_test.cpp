// The video playback thread and its consumer: continuous looping, the frame lock, pausing when
// idle, start and stop, and the consumer going away on the playback thread itself.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "media/background_image.h"
#include "media/video_file_playback.h"
#include "media_fixtures.h"
#include "support/log_capture.h"
#include "util/log.h"

namespace {

using namespace std::chrono_literals;
using VBG::BackgroundImage;
using VBG::PlaybackState;
using VBG::VideoFilePlayback;
using VBG::Media::MediaSource;
using zyn_test::ColourAt;
using zyn_test::Media;
using zyn_test::WaitFor;
using Clock = std::chrono::steady_clock;

// Counts the frames a playback hands over, without taking them.
struct CountingSink : VBG::VideoFrameSink {
    void deliverVideoFrame(std::vector<uint8_t>& frame, int width, int height) override {
        lastBytes = frame.size();
        lastSize = width * 1000 + height;
        ++frames;
    }
    std::atomic<int> frames{0}, lastSize{0};
    std::atomic<size_t> lastBytes{0};
};

std::shared_ptr<BackgroundImage> StartedVideo(const std::string& name,
                                              std::chrono::milliseconds pauseAfter = 11s) {
    auto image = std::make_shared<BackgroundImage>(
        zyn_test::MediaSettings(VBG::BtVideo, 4, Media(name)), pauseAfter);
    EXPECT_TRUE(image->initVideoFilePlayback(0, 0));
    EXPECT_EQ(image->playbackState(), 0u);
    EXPECT_TRUE(image->startVideoFilePlayback());
    return image;
}

// What an engine does with a new frame: fetch it, read it, release it, acknowledge it.
uint64_t FetchFrame(BackgroundImage& image, int width, int height) {
    const uint8_t* argb = image.lockAndGetCropAndScaledArgbBuffer(width, height);
    EXPECT_NE(argb, nullptr);
    const uint64_t hash = argb ? zyn_test::Fnv1a(argb, static_cast<size_t>(width) * height * 4) : 0;
    image.unlockVideoFrame();
    image.videoFrameConsumed();
    return hash;
}

TEST(VideoPlayback, ShortClipLoopsContinuouslyWithoutAGap) {
    auto image = StartedVideo("short.mp4");
    FetchFrame(*image, 160, 120);  // asks for the size; grey until the first frame
    std::set<uint64_t> pictures;
    int frames = 0;
    const auto start = Clock::now();
    auto last = start;
    Clock::duration longestGap{};
    while (Clock::now() - start < 1500ms) {  // three times the clip's length
        if (image->hasNewFrame()) {
            longestGap = frames++ > 0 ? std::max(longestGap, Clock::now() - last) : longestGap;
            last = Clock::now();
            pictures.insert(FetchFrame(*image, 160, 120));
        }
        std::this_thread::sleep_for(2ms);
    }
    EXPECT_GE(frames, 10);
    EXPECT_EQ(pictures.size(), 5u);  // the clip's five pictures, over and over
    EXPECT_LT(longestGap, 300ms) << "a frame period is 100 ms";
    EXPECT_GT(last - start, 1200ms);
    EXPECT_EQ(image->playbackState(), 2u);
    EXPECT_GE(image->playback()->framesConsumed(), static_cast<uint64_t>(frames));

    // The same clip from memory.
    const std::string bytes = zyn_test::MediaBytes("short.mp4");
    image = std::make_shared<BackgroundImage>(zyn_test::MediaSettings(VBG::BtVideo, 4, "", &bytes));
    ASSERT_TRUE(image->initVideoFilePlayback(160, 120));
    ASSERT_TRUE(image->startVideoFilePlayback());
    FetchFrame(*image, 160, 120);
    pictures.clear();
    EXPECT_TRUE(WaitFor(
        [&] {
            if (image->hasNewFrame()) {
                pictures.insert(FetchFrame(*image, 160, 120));
            }
            return pictures.size() >= 3;
        },
        3000ms));
    image.reset();  // stops and joins the playback
}

TEST(VideoPlayback, FirstFrameIsShownAtStartAndAfterEachLoop) {
    auto image = StartedVideo("colours.mp4");
    // The playback decodes its first frame at once; the size is asked for half a period later.
    std::this_thread::sleep_for(125ms);
    image->lockAndGetCropAndScaledArgbBuffer(64, 48);
    image->unlockVideoFrame();
    std::string shown;
    ASSERT_TRUE(WaitFor(
        [&] {
            if (image->hasNewFrame()) {
                shown += ColourAt(image->lockAndGetCropAndScaledArgbBuffer(64, 48), 256, 32, 24);
                image->unlockVideoFrame();
                image->videoFrameConsumed();
            }
            return shown.find("br") != std::string::npos;
        },
        3000ms))
        << shown;
    EXPECT_EQ(shown.front(), 'r') << shown;
}

TEST(VideoPlayback, FramesAreCroppedToTheSizeAskedFor) {
    auto image = StartedVideo("bands.mp4");
    FetchFrame(*image, 160, 120);
    ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 2000ms));
    const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(160, 120);
    // 4:3 out of 8:3 keeps the middle half: the red and blue bands are cut off.
    EXPECT_EQ(std::string({ColourAt(argb, 640, 0, 60), ColourAt(argb, 640, 159, 60)}), "gg");
    image->unlockVideoFrame();
    // A wider size: grey at first, then frames of the new size with the whole width.
    argb = image->lockAndGetCropAndScaledArgbBuffer(480, 120);
    EXPECT_TRUE(std::all_of(argb, argb + 480 * 120 * 4, [](uint8_t v) { return v == 208; }));
    image->unlockVideoFrame();
    ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 2000ms));
    argb = image->lockAndGetCropAndScaledArgbBuffer(480, 120);
    EXPECT_EQ(std::string({ColourAt(argb, 1920, 2, 60), ColourAt(argb, 1920, 240, 60),
                           ColourAt(argb, 1920, 477, 60)}),
              "rgb");
    image->unlockVideoFrame();
}

TEST(VideoPlayback, HeldFrameIsNotReplacedUntilReleased) {
    auto image = StartedVideo("short.mp4");
    FetchFrame(*image, 160, 120);
    ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 2000ms));
    const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(160, 120);
    const uint64_t held = zyn_test::Fnv1a(argb, 160 * 120 * 4);
    std::this_thread::sleep_for(350ms);  // three frames were due meanwhile
    EXPECT_EQ(zyn_test::Fnv1a(argb, 160 * 120 * 4), held);
    EXPECT_FALSE(image->hasNewFrame());
    image->unlockVideoFrame();
    ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 1000ms));
    EXPECT_NE(FetchFrame(*image, 160, 120), held);
}

TEST(VideoPlayback, PausesWhenIdleAndRestartsOnTheNextRequest) {
    // Without a frame request for 11 s decoding pauses; the test shortens it.
    EXPECT_EQ(VideoFilePlayback::kDefaultPauseAfter, 11s);
    zyn_test::LogCapture log;
    auto image = StartedVideo("short.mp4", 300ms);
    const auto playback = image->playback();
    const auto self = VBG::addr(playback.get());
    const std::string paused = fmt::format("Video Decode Paused! this: 0x{0:X}", self);
    const std::string restarted = fmt::format("Video Decode Restarted! this: 0x{0:X}", self);
    FetchFrame(*image, 160, 120);
    ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 2000ms));
    FetchFrame(*image, 160, 120);
    const auto lastRequest = Clock::now();

    ASSERT_TRUE(WaitFor([&] { return log.count(paused) == 1; }, 3000ms)) << log.dump();
    EXPECT_TRUE(log.hasFrom("VBG::VideoFilePlayback::RunFilePlayback", paused));
    EXPECT_GE(Clock::now() - lastRequest, 300ms);
    EXPECT_EQ(image->playbackState(), 3u);
    const uint64_t delivered = playback->framesDelivered();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(playback->framesDelivered(), delivered);  // no decoding while paused
    EXPECT_EQ(log.count(restarted), 0u);

    image->hasNewFrame();  // the engine's next look counts as a request
    ASSERT_TRUE(WaitFor([&] { return log.count(restarted) == 1; }, 1000ms)) << log.dump();
    EXPECT_TRUE(log.hasFrom("VBG::VideoFilePlayback::RunFilePlayback", restarted));
    EXPECT_TRUE(WaitFor([&] { return playback->framesDelivered() > delivered; }, 1000ms));
    EXPECT_EQ(image->playbackState(), 2u);
    image->stopVideoFilePlayback();
    EXPECT_EQ(image->playbackState(), 4u);
}

TEST(VideoPlayback, StartTwiceKeepsOneThreadAndCleanupJoinsIt) {
    zyn_test::LogCapture log;
    auto sink = std::make_shared<CountingSink>();
    auto playback = VideoFilePlayback::Create(MediaSource::File(Media("short.mp4")), 0, sink);
    ASSERT_NE(playback, nullptr);
    const std::string self = fmt::format("0x{0:X}", VBG::addr(playback.get()));
    EXPECT_EQ(log.count("File Path: " + Media("short.mp4") + ", this: " + self), 1u);
    const size_t before = zyn_test::ThreadCount();
    ASSERT_TRUE(playback->Start());
    EXPECT_TRUE(playback->Start());
    EXPECT_EQ(log.count("Already Playback Running"), 1u);
    EXPECT_EQ(zyn_test::ThreadCount(), before + 1);

    playback->RequestFrame(80, 60);
    ASSERT_TRUE(WaitFor([&] { return sink->frames >= 2; }, 2000ms));
    EXPECT_EQ(sink->lastSize, 80060);
    EXPECT_EQ(sink->lastBytes, 80u * 60 * 4);

    playback->Cleanup();
    EXPECT_EQ(playback->State(), PlaybackState::Stopped);
    EXPECT_TRUE(WaitFor([&] { return zyn_test::ThreadCount() == before; }, 1000ms));
    const int frames = sink->frames;
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(sink->frames, frames);
    EXPECT_FALSE(playback->Start());  // a stopped playback stays stopped
    EXPECT_EQ(zyn_test::ThreadCount(), before);
    EXPECT_EQ(log.count("Video Playback Started! this: " + self), 1u);
    EXPECT_EQ(log.count("Video Playback Stopped! this: " + self), 1u);
}

TEST(VideoPlayback, CleanupWakesAWaitingThreadAtOnce) {
    auto sink = std::make_shared<CountingSink>();
    // Between two frames a second apart, and paused.
    for (const auto& [name, pauseAfter] :
         {std::pair{"slow.mp4", 11000ms}, std::pair{"short.mp4", 50ms}}) {
        SCOPED_TRACE(name);
        auto playback =
            VideoFilePlayback::Create(MediaSource::File(Media(name)), 0, sink, pauseAfter);
        ASSERT_NE(playback, nullptr);
        playback->RequestFrame(64, 48);
        ASSERT_TRUE(playback->Start());
        ASSERT_TRUE(WaitFor(
            [&] {
                return pauseAfter > 1s ? sink->frames >= 1
                                       : playback->State() == PlaybackState::Paused;
            },
            2000ms));
        EXPECT_DOUBLE_EQ(playback->frameRate(), pauseAfter > 1s ? 1.0 : 10.0);
        const auto start = Clock::now();
        playback->Cleanup();
        EXPECT_LT(Clock::now() - start, 300ms);
        EXPECT_EQ(playback->State(), PlaybackState::Stopped);
    }
}

// A consumer that owns its playback, like BackgroundImage, and stops it when it goes away. The
// first frame it gets is held until the test has dropped its own reference, so the playback
// thread ends up holding the last one.
struct LastOwnerSink : VBG::VideoFrameSink {
    ~LastOwnerSink() override {
        destroyedOnPlaybackThread = std::this_thread::get_id() != testThread;
        playback->Cleanup();
    }
    void deliverVideoFrame(std::vector<uint8_t>&, int, int) override {
        if (!held.exchange(true)) {
            entered.set_value();
            release.wait();
        }
    }
    std::shared_ptr<VideoFilePlayback> playback;
    std::promise<void> entered;
    std::shared_future<void> release;
    std::atomic<bool> held{false};
    std::atomic<bool>& destroyedOnPlaybackThread;
    std::thread::id testThread = std::this_thread::get_id();
    explicit LastOwnerSink(std::atomic<bool>& destroyed) : destroyedOnPlaybackThread(destroyed) {}
};

TEST(VideoPlayback, ConsumerReleasedOnThePlaybackThreadEndsItWithoutAJoin) {
    zyn_test::LogCapture log;
    std::atomic<bool> destroyedOnPlaybackThread{false};
    std::promise<void> release;
    const size_t before = zyn_test::ThreadCount();
    std::weak_ptr<VideoFilePlayback> weakPlayback;
    {
        auto sink = std::make_shared<LastOwnerSink>(destroyedOnPlaybackThread);
        sink->release = release.get_future().share();
        sink->playback = VideoFilePlayback::Create(MediaSource::File(Media("short.mp4")), 0, sink);
        ASSERT_NE(sink->playback, nullptr);
        weakPlayback = sink->playback;
        sink->playback->RequestFrame(32, 24);
        ASSERT_TRUE(sink->playback->Start());
        sink->entered.get_future().wait();
    }
    release.set_value();
    EXPECT_TRUE(WaitFor([&] { return weakPlayback.expired(); }, 2000ms));
    EXPECT_TRUE(destroyedOnPlaybackThread);
    EXPECT_TRUE(WaitFor([&] { return zyn_test::ThreadCount() == before; }, 2000ms));
    EXPECT_EQ(log.countContaining("Video Playback Stopped! this: 0x"), 1u);
}

TEST(VideoPlayback, DecodingFailureEndsTheThreadWithARecord) {
    // long.mp4 with its coded pictures overwritten: it opens, but nothing decodes.
    std::string damaged = zyn_test::MediaBytes("long.mp4");
    const size_t data = damaged.find("mdat");
    ASSERT_NE(data, std::string::npos);
    std::fill(damaged.begin() + static_cast<std::ptrdiff_t>(data + 68), damaged.end(), 'U');
    zyn_test::WriteMedia("damaged.mp4", damaged);
    zyn_test::LogCapture log;
    const size_t before = zyn_test::ThreadCount();
    auto image = StartedVideo("damaged.mp4");
    ASSERT_TRUE(WaitFor([&] { return image->playbackState() == 1u; }, 3000ms)) << log.dump();
    EXPECT_EQ(log.countContaining("No video frame could be decoded from file"), 1u);
    EXPECT_EQ(log.countContaining("Video Playback Stopped! this: 0x"), 1u);
    EXPECT_TRUE(WaitFor([&] { return zyn_test::ThreadCount() == before; }, 1000ms));
    // No frame will come: no buffer, no lock held.
    EXPECT_EQ(image->lockAndGetCropAndScaledArgbBuffer(64, 48), nullptr);
    EXPECT_TRUE(log.has(spdlog::level::err, "Bitmap from imagefile empty, invalid scenario"));
    EXPECT_FALSE(image->hasNewFrame());
    EXPECT_FALSE(image->startVideoFilePlayback());
}

TEST(VideoPlayback, AuxiliaryOutputGetsEveryFrameOnlyWhenItsOptionIsSet) {
    for (uint8_t options : {uint8_t{0}, uint8_t{VBG::kPlaybackAuxiliaryOutput}}) {
        SCOPED_TRACE(int(options));
        auto sink = std::make_shared<CountingSink>();
        auto playback =
            VideoFilePlayback::Create(MediaSource::File(Media("short.mp4")), options, sink);
        ASSERT_NE(playback, nullptr);
        EXPECT_EQ(playback->playbackOptions(), options);
        std::atomic<int> auxiliaryFrames{0};
        std::atomic<bool> nativeSize{true};
        playback->SetAuxiliaryConsumer([&](const uint8_t* argb, int width, int height) {
            nativeSize = nativeSize && argb != nullptr && width == 160 && height == 120;
            ++auxiliaryFrames;
        });
        playback->RequestFrame(40, 30);
        ASSERT_TRUE(playback->Start());
        ASSERT_TRUE(WaitFor([&] { return sink->frames >= 4; }, 2000ms));
        playback->Cleanup();
        EXPECT_EQ(auxiliaryFrames, options ? sink->frames.load() : 0);
        EXPECT_TRUE(nativeSize);
    }
}

}  // namespace
