// Effect, presenter and feedback updates from a control thread while frames flow on a frame
// thread, as a host drives an instance. Every frame and every update must succeed, and the last
// update must be what the next frames show. (This suite also runs under ThreadSanitizer.)
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "engine_test_support.h"

using namespace engine_test;

namespace {

constexpr int kSettle = 6;

std::string OverlayConfig(const std::string& alpha) {
    return R"({"processingMode": 2, "effects": [{"name": "weatherman", "mode": "overlay", )"
           R"("weathermanAlpha": ")" +
           alpha +
           R"(", "weathermanSize": "0.5", "weathermanOffsetX": "0.1", )"
           R"("weathermanOffsetY": "0"}]})";
}
std::string UnderlayConfig(int variant) {
    return R"({"processingMode": 2, "effects": [{"name": "weatherman", "mode": "underlay", )"
           R"("weathermanSize": "0.4", "weathermanOffsetX": "0", "weathermanOffsetY": "0.1", )"
           R"("weathermanUnderlayMode": ")" +
           std::to_string(variant) + R"("}]})";
}

// Holds the control thread until the frame thread has done `count` frames (or gives up after a
// while), so that updates and frames interleave at any speed, sanitizers included.
void WaitForFrames(const std::atomic<int>& frames, int count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (frames.load() < count && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

}  // namespace

TEST(EngineConcurrency, EffectUpdatesWhileFramesFlow) {
    Library::Get();
    WritePicture("conc_green.png", 160, 90, "green");
    WritePicture("conc_red.png", 200, 100, "red");
    Instance instance(BlurConfig());
    ASSERT_EQ(0u, instance.status());
    auto in = AstronautFrame(320, 180, ZYN_FORMAT_NV12);
    Frame out(320, 180, ZYN_FORMAT_NV12);

    const std::vector<std::string> configs = {
        BackgroundConfig("conc_green.png"),
        BlurAndTouchUpConfig("0.05"),
        BlurAndTouchUpConfig("0.2"),
        TouchUpConfig("0.1"),
        BlurConfig(),
        BackgroundConfig("conc_red.png"),
    };
    std::atomic<bool> done{false};
    std::atomic<int> frames{0};
    std::thread control([&] {
        for (int round = 0; round < 60; ++round) {
            WaitForFrames(frames, round / 2);
            EXPECT_EQ(0u, instance.update(configs[round % configs.size()])) << round;
            // Sometimes two updates land between two frames, sometimes none.
            std::this_thread::sleep_for(std::chrono::microseconds(round % 3 == 0 ? 0 : 1500));
            if (round % 10 == 9) {
                const std::string id = "conc" + std::to_string(round);
                EXPECT_EQ(0u, instance.update(R"({"feedback": true, "id": ")" + id + "\"}"));
                // The next request only once this one has recorded its frame.
                const auto index = Library::Get().cache() / (id + ".json");
                const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
                while (!fs::exists(index) && std::chrono::steady_clock::now() < deadline) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
                EXPECT_TRUE(fs::exists(index)) << id;
            }
        }
        done = true;
    });
    while (!done) {
        if (instance.process(*in, out) != 0u) {
            ADD_FAILURE() << "frame " << frames << " failed";
            break;
        }
        ++frames;
    }
    control.join();
    EXPECT_GE(frames.load(), 29);

    // The last update was the red picture; a new one now leaves no doubt what was applied last.
    ASSERT_EQ(0u, instance.update(BackgroundConfig("conc_green.png")));
    for (int i = 0; i < kSettle; ++i) {
        ASSERT_EQ(0u, instance.process(*in, out));
    }
    const auto [u, v] = MeanChroma(out, LeftWallBox(320, 180));
    EXPECT_LT(u, 100.0);  // green: low U and V
    EXPECT_LT(v, 100.0);
    EXPECT_LT(MeanDifference(*in, out, FaceBox(320, 180)), 4.0);
}

TEST(EngineConcurrency, PresenterUpdatesWhilePresentationFramesFlow) {
    Library::Get();
    Instance instance(OverlayConfig("1.0"));
    ASSERT_EQ(0u, instance.status());
    auto camera = AstronautFrame(320, 180, ZYN_FORMAT_I420);
    Frame slide(640, 360, ZYN_FORMAT_NV12);
    slide.fill(235, 128, 128);
    Frame out(640, 360, ZYN_FORMAT_I420);
    const std::vector<std::string> configs = {OverlayConfig("0.5"), UnderlayConfig(0),
                                              UnderlayConfig(1), OverlayConfig("1.0")};
    std::atomic<bool> done{false};
    std::atomic<int> frames{0};
    std::thread control([&] {
        for (int round = 0; round < 40; ++round) {
            WaitForFrames(frames, round / 2);
            EXPECT_EQ(0u, instance.update(configs[round % configs.size()]));
            uint32_t w = 0, h = 0;
            // Layered layouts have no size of their own.
            EXPECT_FALSE(ZynNativeVideoProcessingGetOutputFrameSize(instance.handle(), &w, &h));
            std::this_thread::sleep_for(std::chrono::microseconds(round % 2 == 0 ? 0 : 2000));
        }
        done = true;
    });
    while (!done) {
        ZynNativeInputFrame records[2] = {camera->record(), slide.record()};
        ZynNativeInputFrame o = out.record();
        if (ZynNativeVideoProcessingProcessPresentationFrame(instance.handle(), records, &o) !=
            0u) {
            ADD_FAILURE() << "presentation frame " << frames << " failed";
            break;
        }
        // Statistics are read on the frame thread between frames.
        EXPECT_NE(nullptr, ZynNativeVideoProcessingGetFrameProcessingStats(
                               instance.handle(), nullptr, nullptr, nullptr));
        ++frames;
    }
    control.join();
    EXPECT_GE(frames.load(), 19);
}
