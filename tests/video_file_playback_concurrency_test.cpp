// The video playback thread and its consumer: looping in every container, the crop and the frame
// lock, pausing when idle, start and stop, the auxiliary output, the consumer going away on the
// playback thread itself, and a video that cannot be decoded.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
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
        lastSize =
            frame.size() == static_cast<size_t>(width) * height * 4 ? width * 1000 + height : -1;
        ++frames;
    }
    std::atomic<int> frames{0}, lastSize{0};
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

// What an engine does with a new frame: fetch it, release it, acknowledge it.
void FetchFrame(BackgroundImage& image, int width, int height) {
    EXPECT_NE(image.lockAndGetCropAndScaledArgbBuffer(width, height), nullptr);
    image.unlockVideoFrame();
    image.videoFrameConsumed();
}

TEST(VideoPlayback, ClipsLoopFromTheirFirstFrameAndHeldFramesAreNotReplaced) {
    // Each container and codec a background video comes in, and a video in memory.
    const std::string bytes = zyn_test::MediaBytes("colours.mp4");
    for (const auto& settings : {zyn_test::MediaSettings(VBG::BtVideo, 4, Media("colours.webm")),
                                 zyn_test::MediaSettings(VBG::BtVideo, 4, Media("colours.ogv")),
                                 zyn_test::MediaSettings(VBG::BtVideo, 4, "", &bytes)}) {
        auto image = std::make_shared<BackgroundImage>(settings);
        ASSERT_TRUE(image->initVideoFilePlayback(0, 0));
        EXPECT_EQ(image->playbackState(), 0u);
        ASSERT_TRUE(image->startVideoFilePlayback());
        // The first frame is decoded at once; the size is asked for half a period later.
        std::this_thread::sleep_for(125ms);
        FetchFrame(*image, 64, 48);
        std::string shown;
        const auto start = Clock::now();
        auto last = start;
        Clock::duration longestGap{};
        while (Clock::now() - start < 1600ms) {  // twice the clip's length
            if (image->hasNewFrame()) {
                longestGap = shown.empty() ? longestGap : std::max(longestGap, Clock::now() - last);
                last = Clock::now();
                shown += ColourAt(image->lockAndGetCropAndScaledArgbBuffer(64, 48), 256, 32, 24);
                image->unlockVideoFrame();
                image->videoFrameConsumed();
            }
            std::this_thread::sleep_for(2ms);
        }
        // Red, green, blue, and red again right after blue: no frame lost or repeated. 4:3 out
        // of 8:3 keeps the middle half, without the black quarters.
        EXPECT_EQ(shown.substr(0, 6), "rgbrgb") << shown;
        EXPECT_LT(longestGap, 400ms) << "a frame period is 250 ms";
        EXPECT_EQ(image->playbackState(), 2u);
        EXPECT_GE(image->playback()->framesConsumed(), shown.size());
        // A wider size: grey at first, then frames of the new size with the whole width. The
        // frame held is neither replaced nor announced while a period passes.
        const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(192, 48);
        EXPECT_TRUE(std::all_of(argb, argb + 192 * 48 * 4, [](uint8_t v) { return v == 208; }));
        image->unlockVideoFrame();
        ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 2000ms));
        argb = image->lockAndGetCropAndScaledArgbBuffer(192, 48);
        const std::string held = {ColourAt(argb, 768, 2, 24), ColourAt(argb, 768, 96, 24),
                                  ColourAt(argb, 768, 189, 24)};
        EXPECT_TRUE(held == "krk" || held == "kgk" || held == "kbk") << held;
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(ColourAt(argb, 768, 96, 24), held[1]);
        EXPECT_FALSE(image->hasNewFrame());
        image->unlockVideoFrame();
        ASSERT_TRUE(WaitFor([&] { return image->hasNewFrame(); }, 1000ms));
        EXPECT_NE(ColourAt(image->lockAndGetCropAndScaledArgbBuffer(192, 48), 768, 96, 24),
                  held[1]);
        image->unlockVideoFrame();
    }
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
    EXPECT_TRUE(WaitFor([&] { return playback->framesDelivered() > delivered; }, 1000ms));
    EXPECT_EQ(image->playbackState(), 2u);
    // Paused again, the thread is woken at once to stop.
    ASSERT_TRUE(WaitFor([&] { return log.count(paused) == 2; }, 3000ms)) << log.dump();
    const auto stop = Clock::now();
    image->stopVideoFilePlayback();
    EXPECT_LT(Clock::now() - stop, 300ms);
    EXPECT_EQ(image->playbackState(), 4u);
}

// The auxiliary output gets every frame at the video's own size, only when its option is set.
TEST(VideoPlayback, StartTwiceKeepsOneThreadCleanupJoinsItAndTheAuxiliaryOutputFollows) {
    for (uint8_t options : {uint8_t{0}, uint8_t{VBG::kPlaybackAuxiliaryOutput}}) {
        SCOPED_TRACE(int(options));
        zyn_test::LogCapture log;
        auto sink = std::make_shared<CountingSink>();
        auto playback =
            VideoFilePlayback::Create(MediaSource::File(Media("short.mp4")), options, sink);
        ASSERT_NE(playback, nullptr);
        const std::string self = fmt::format("0x{0:X}", VBG::addr(playback.get()));
        EXPECT_EQ(log.count("File Path: " + Media("short.mp4") + ", this: " + self), 1u);
        std::atomic<int> auxiliaryFrames{0};
        std::atomic<bool> nativeSize{true};
        playback->SetAuxiliaryConsumer([&](const uint8_t* argb, int width, int height) {
            nativeSize = nativeSize && argb != nullptr && width == 160 && height == 120;
            ++auxiliaryFrames;
        });
        const size_t before = zyn_test::ThreadCount();
        ASSERT_TRUE(playback->Start());
        EXPECT_TRUE(playback->Start());
        EXPECT_EQ(log.count("Already Playback Running"), 1u);
        EXPECT_EQ(zyn_test::ThreadCount(), before + 1);
        playback->RequestFrame(80, 60);
        ASSERT_TRUE(WaitFor([&] { return sink->frames >= 4; }, 2000ms));
        EXPECT_EQ(sink->lastSize, 80060);

        playback->Cleanup();
        EXPECT_EQ(playback->State(), PlaybackState::Stopped);
        EXPECT_TRUE(WaitFor([&] { return zyn_test::ThreadCount() == before; }, 1000ms));
        EXPECT_EQ(auxiliaryFrames, options ? sink->frames.load() : 0);
        EXPECT_TRUE(nativeSize);
        EXPECT_FALSE(playback->Start());  // a stopped playback stays stopped
        EXPECT_EQ(zyn_test::ThreadCount(), before);
        EXPECT_EQ(log.count("Video Playback Started! this: " + self), 1u);
        EXPECT_EQ(log.count("Video Playback Stopped! this: " + self), 1u);
    }
}

// A consumer that owns its playback, like BackgroundImage, and stops it when it goes away. It
// holds its first frame until the test has dropped its own reference, so that the playback
// thread ends up holding the last one.
std::atomic<bool> destroyedOnPlaybackThread{false};
std::promise<void> entered, release;
struct LastOwnerSink : VBG::VideoFrameSink {
    ~LastOwnerSink() override {
        destroyedOnPlaybackThread = std::this_thread::get_id() != testThread;
        playback->Cleanup();
    }
    void deliverVideoFrame(std::vector<uint8_t>&, int, int) override {
        if (!held.exchange(true)) {
            entered.set_value();
            release.get_future().wait();
        }
    }
    std::shared_ptr<VideoFilePlayback> playback;
    std::atomic<bool> held{false};
    std::thread::id testThread = std::this_thread::get_id();
};

TEST(VideoPlayback, ConsumerReleasedOnThePlaybackThreadEndsItWithoutAJoin) {
    zyn_test::LogCapture log;
    const size_t before = zyn_test::ThreadCount();
    std::weak_ptr<VideoFilePlayback> weakPlayback;
    {
        auto sink = std::make_shared<LastOwnerSink>();
        sink->playback = VideoFilePlayback::Create(MediaSource::File(Media("short.mp4")), 0, sink);
        ASSERT_NE(sink->playback, nullptr);
        weakPlayback = sink->playback;
        sink->playback->RequestFrame(32, 24);
        ASSERT_TRUE(sink->playback->Start());
        entered.get_future().wait();
    }
    release.set_value();
    EXPECT_TRUE(WaitFor([&] { return weakPlayback.expired(); }, 2000ms));
    EXPECT_TRUE(destroyedOnPlaybackThread);
    EXPECT_TRUE(WaitFor([&] { return zyn_test::ThreadCount() == before; }, 2000ms));
}

TEST(VideoPlayback, DecodingFailureEndsTheThreadWithARecord) {
    // short.mp4 with its coded pictures overwritten: it opens, but nothing decodes.
    std::string clip = zyn_test::MediaBytes("short.mp4");
    const size_t data = clip.find("mdat"), index = clip.find("moov");
    ASSERT_TRUE(data < index && index != std::string::npos);
    std::fill(clip.begin() + data + 68, clip.begin() + index - 4, 'U');
    zyn_test::WriteMedia("damaged.mp4", clip);
    zyn_test::LogCapture log;
    const size_t before = zyn_test::ThreadCount();
    auto image = StartedVideo("damaged.mp4");
    ASSERT_TRUE(WaitFor([&] { return image->playbackState() == 1u; }, 3000ms)) << log.dump();
    EXPECT_EQ(log.countContaining("No video frame could be decoded from file"), 1u);
    EXPECT_EQ(log.countContaining("Video Playback Stopped! this: 0x"), 1u);
    EXPECT_TRUE(WaitFor([&] { return zyn_test::ThreadCount() == before; }, 1000ms));
    // No frame will come, and nothing starts again.
    EXPECT_EQ(image->lockAndGetCropAndScaledArgbBuffer(64, 48), nullptr);
    EXPECT_FALSE(image->startVideoFilePlayback());
}

}  // namespace
