// Instances driven from several threads, as hosts do (also run under the sanitizers): updates from
// a control thread while frames flow, two instances on the one shared backend at once, an instance
// ended while its frames flow and its stale handle, the backend shut down or made by two creates.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "engine_test_support.h"
#include "support/log_capture.h"

using namespace engine_test;
using zyn_test::LogCapture;

namespace {

constexpr uint32_t kW = 320, kH = 180;

// Holds the calling thread until `frames` reaches `count` (or a while has passed), so that
// updates and frames interleave at any speed, sanitizers included.
void WaitFor(const std::atomic<int>& frames, int count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (frames.load() < count && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

}  // namespace

TEST(EngineConcurrency, EffectPresenterAndFeedbackUpdatesWhileFramesFlow) {
    WritePicture("conc_green.png", 160, 90, "green");
    WritePicture("conc_red.png", 200, 100, "red");
    Instance instance(BlurConfig());
    auto in = AstronautFrame(kW, kH, ZYN_FORMAT_NV12);
    Frame out(kW, kH, ZYN_FORMAT_NV12), slide(640, 360, ZYN_FORMAT_NV12);
    Frame composed(640, 360, ZYN_FORMAT_I420);
    slide.fill(235, 128, 128);
    const std::string opaque = Layered("overlay", R"("weathermanAlpha": "1.0")", "0.5", "0.1");
    ASSERT_EQ(0u, instance.update(opaque));  // effects and presenter, both applied
    const std::string keyed = R"("weathermanUnderlayMode": ")";
    const std::vector<std::string> configs = {BackgroundConfig("conc_green.png"),
                                              Layered("overlay", R"("weathermanAlpha": "0.5")"),
                                              BlurAndTouchUpConfig("0.05"),
                                              Layered("underlay", keyed + "0\"", "0.4"),
                                              BlurAndTouchUpConfig("0.2"),
                                              Layered("underlay", keyed + "1\"", "0.4"),
                                              TouchUpConfig("0.1"),
                                              opaque,
                                              BlurConfig(),
                                              BackgroundConfig("conc_red.png")};
    std::atomic<bool> done{false};
    std::atomic<int> frames{0};
    std::thread control([&] {
        for (int round = 0; round < 60; ++round) {
            WaitFor(frames, round / 2);
            EXPECT_EQ(0u, instance.update(configs[round % configs.size()])) << round;
            // Sometimes two updates land between two frames, sometimes none.
            std::this_thread::sleep_for(std::chrono::microseconds(round % 3 == 0 ? 0 : 1500));
            if (round % 10 == 9) {
                // The next request only once this one has recorded its frame.
                const std::string id = "conc" + std::to_string(round);
                EXPECT_EQ(0u, instance.update(R"({"feedback": true, "id": ")" + id + "\"}"));
                const fs::path index = Library::Get().cache() / (id + ".json");
                for (int i = 0; i < 10000 && !fs::exists(index); ++i) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
                EXPECT_TRUE(fs::exists(index)) << id;
            }
        }
        done = true;
    });
    while (!done) {
        if (instance.process(*in, out) != 0 || instance.present(*in, slide, composed) != 0) {
            ADD_FAILURE() << "frame " << frames << " failed";
            break;
        }
        // Statistics are read on the frame thread between frames.
        EXPECT_NE(nullptr, ZynNativeVideoProcessingGetFrameProcessingStats(
                               instance.handle(), nullptr, nullptr, nullptr));
        ++frames;
    }
    control.join();
    EXPECT_GE(frames.load(), 29);
    // The last update was the red picture; green now leaves no doubt what was applied last.
    ASSERT_EQ(0u, instance.update(BackgroundConfig("conc_green.png")));
    ASSERT_EQ(0u, instance.run(*in, out, kSettle));
    const auto [u, v] = MeanChroma(out, LeftWallBox(kW, kH));
    EXPECT_LT(u, 100.0);  // green: low U and V
    EXPECT_LT(v, 100.0);
    EXPECT_LT(MeanDifference(*in, out, FaceBox(kW, kH)), 4.0);
}

TEST(EngineConcurrency, EachInstanceGetsTheMaskOfItsOwnFrame) {
    WritePicture("two_green.png", 160, 90, "green");
    Instance person(BackgroundConfig("two_green.png")), wall(BackgroundConfig("two_green.png"));
    auto personIn = AstronautFrame(kW, kH, ZYN_FORMAT_NV12);
    Frame wallIn(kW, kH, ZYN_FORMAT_I420), personOut(kW, kH, ZYN_FORMAT_NV12);
    Frame wallOut(kW, kH, ZYN_FORMAT_I420);
    wallIn.fill(128, 128, 128);
    // What the wall instance shows when it runs alone: the picture everywhere.
    ASSERT_EQ(0u, wall.run(wallIn, wallOut, kSettle));
    const Frame alone = wallOut;
    const Box all{0, 0, 1, 1};
    ASSERT_GT(MeanDifference(wallIn, alone, all), 50.0) << "the wall was not replaced";
    std::atomic<int> ready{0};
    double worst[2] = {0, 0};  // the person's face; the wall's difference from `alone`
    auto run = [&](Instance& instance, Frame& in, Frame& out, int k) {
        ready.fetch_add(1);
        WaitFor(ready, 2);
        for (int frame = 0; frame < 40; ++frame) {
            ASSERT_EQ(0u, instance.process(in, out));
            if (frame >= kSettle) {  // the mask settles over the first frames
                worst[k] = std::max(worst[k], k == 0 ? MeanDifference(in, out, FaceBox(kW, kH))
                                                     : MeanDifference(alone, out, all));
            }
        }
    };
    std::thread a(run, std::ref(person), std::ref(*personIn), std::ref(personOut), 0);
    std::thread b(run, std::ref(wall), std::ref(wallIn), std::ref(wallOut), 1);
    a.join();
    b.join();
    // The person's face stays in every frame of the first instance; the second instance never
    // shows anything of the grey wall where the first one's person is.
    EXPECT_LT(worst[0], 6.0);
    EXPECT_LT(worst[1], 0.5);
}

// A rejected update (3) or a feedback request while the previous one waits (2) ends the instance
// while its frames flow: 0 until then, 2 from then on. The stale handle reaches nothing, not even
// an instance made since (which may sit where the old one was).
TEST(EngineConcurrency, InstanceEndedByAFailedUpdateWhileFramesFlowAndItsStaleHandle) {
    auto in = AstronautFrame(kW, kH, ZYN_FORMAT_NV12);
    Frame out(kW, kH, ZYN_FORMAT_NV12);
    for (const auto& [update, refusal] : {std::pair<std::string, uint32_t>{"{not json", 3},
                                          {R"({"feedback": true, "id": "lifetime"})", 2}}) {
        SCOPED_TRACE(update);
        Instance instance(BlurConfig());
        ZynNativeHandle stale = *instance.handle();
        std::atomic<bool> stop{false};
        std::atomic<int> succeeded{0}, refused{0}, unexpected{0};
        std::thread frames([&] {
            while (!stop.load()) {
                const uint32_t status = instance.process(*in, out);
                (status == 0 && refused.load() == 0 ? succeeded
                 : status == 2                      ? refused
                                                    : unexpected)
                    .fetch_add(1);
            }
        });
        WaitFor(succeeded, 3);
        // Accepted feedback requests are taken by the next frame; one that comes before is refused.
        uint32_t status = 0;
        for (int i = 0; i < 200 && status == 0; ++i) {
            status = instance.update(update);
        }
        EXPECT_EQ(refusal, status);
        EXPECT_FALSE(instance.valid());
        WaitFor(refused, 3);
        stop.store(true);
        frames.join();
        EXPECT_EQ(0, unexpected.load());

        Instance other(BlurConfig());
        LogCapture log;
        ZynNativeInputFrame i = in->record(), o = out.record(), both[2] = {i, i};
        EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(&stale, &i, &o));
        EXPECT_EQ(2u, ZynNativeVbgProcessFrame(&stale, &i, &o));
        EXPECT_EQ(2u, ZynNativeVideoProcessingProcessPresentationFrame(&stale, both, &o));
        uint32_t w = 0, h = 0;
        EXPECT_FALSE(ZynNativeVideoProcessingGetOutputFrameSize(&stale, &w, &h));
        EXPECT_STREQ("", ZynNativeVideoProcessingGetFrameProcessingStats(&stale, &w, &h, nullptr));
        EXPECT_EQ(2u, log.countContaining("processVideoFrame called without a live instance"));
        ZynNativeHandle copy = stale;
        EXPECT_EQ(3u, ZynNativeVideoProcessingUpdateInstance(&copy, BlurConfig().c_str()));
        EXPECT_EQ(nullptr, copy);
        ZynNativeVideoProcessingDestroyInstance(&stale);
        EXPECT_EQ(nullptr, stale);
        EXPECT_EQ(0u, other.process(*in, out));
    }
}

// The shutdown export under a live instance leaves it working (the face stays sharp under the
// blur) and the next create makes a new backend; two first creates at once make one backend.
TEST(EngineConcurrency, ShutdownUnderALiveInstanceAndCreatesOnTwoThreads) {
    auto in = AstronautFrame(kW, kH, ZYN_FORMAT_NV12);
    Frame out(kW, kH, ZYN_FORMAT_NV12);
    {
        Instance live(BlurConfig());
        ASSERT_EQ(0u, live.process(*in, out));
        LogCapture log;
        ZynNativeVideoProcessingShutdownInstance();
        ASSERT_EQ(0u, live.run(*in, out, kSettle));
        EXPECT_LT(MeanDifference(*in, out, FaceBox(kW, kH)), 6.0);
        EXPECT_EQ(0u, Instance(BlurConfig()).process(*in, out));
        EXPECT_EQ(1u, log.count("GetVBGMLProcessingInstance destroy"));
        EXPECT_EQ(1u, log.count("GetVBGMLProcessingInstance create")) << log.dump();
    }
    ZynNativeVideoProcessingShutdownInstance();
    LogCapture log;
    ZynNativeHandle handles[2] = {nullptr, nullptr};
    uint32_t statuses[2] = {9, 9};
    std::atomic<int> ready{0};
    auto create = [&](int k) {
        ready.fetch_add(1);
        WaitFor(ready, 2);
        statuses[k] = ZynNativeVideoProcessingCreateInstance(BlurConfig().c_str(), &handles[k]);
    };
    std::thread a(create, 0), b(create, 1);
    a.join();
    b.join();
    EXPECT_EQ((std::vector<uint32_t>{0, 0}), (std::vector<uint32_t>{statuses[0], statuses[1]}));
    EXPECT_EQ(1u, log.count("GetVBGMLProcessingInstance create")) << log.dump();
    for (ZynNativeHandle& handle : handles) {
        EXPECT_NE(nullptr, handle);
        ZynNativeVideoProcessingDestroyInstance(&handle);
    }
}
