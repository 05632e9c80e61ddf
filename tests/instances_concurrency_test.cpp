// Instances used from several threads at once. Two instances processing frames at the same moment
// on two threads, as a host with two cameras does: they share the one inference backend, and each
// must still get the mask of its own frame. Lifetimes: an instance ended on the control thread
// while its frames flow, handle values that outlived their instance, the shared backend shut down
// under a live instance and made by two creates at once. (This suite also runs under
// ThreadSanitizer; under AddressSanitizer any use of a freed engine or backend fails it.)
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "engine_test_support.h"
#include "support/log_capture.h"

using zyn_test::LogCapture;

using namespace engine_test;

namespace {

constexpr int kFrames = 40;
constexpr uint32_t kW = 320, kH = 180;

struct Result {
    int failedFrames = 0;
    double face = 0.0;       // mean difference from the camera frame over the face
    double fromAlone = 0.0;  // largest difference from what the wall instance shows alone
};

}  // namespace

TEST(InstancesConcurrency, EachInstanceGetsTheMaskOfItsOwnFrame) {
    Library::Get();
    WritePicture("two_green.png", 160, 90, "green");
    Instance person(BackgroundConfig("two_green.png"));
    Instance wall(BackgroundConfig("two_green.png"));
    ASSERT_TRUE(person.valid());
    ASSERT_TRUE(wall.valid());
    auto personIn = AstronautFrame(kW, kH, ZYN_FORMAT_NV12);
    Frame wallIn(kW, kH, ZYN_FORMAT_I420);
    wallIn.fill(128, 128, 128);
    Frame personOut(kW, kH, ZYN_FORMAT_NV12);
    Frame wallOut(kW, kH, ZYN_FORMAT_I420);
    // What the wall instance shows when it runs alone: the picture everywhere.
    for (int frame = 0; frame < 6; ++frame) {
        ASSERT_EQ(0u, wall.process(wallIn, wallOut));
    }
    const Frame alone = wallOut;
    ASSERT_GT(MeanDifference(wallIn, alone, Box{0, 0, 1, 1}), 50.0) << "the wall was not replaced";

    Result personResult, wallResult;
    std::atomic<int> ready{0};
    auto run = [&ready, &alone](Instance& instance, Frame& in, Frame& out, Result& result,
                                bool isWall) {
        ready.fetch_add(1);
        while (ready.load() < 2) {
            std::this_thread::yield();
        }
        for (int frame = 0; frame < kFrames; ++frame) {
            if (instance.process(in, out) != 0) {
                ++result.failedFrames;
                continue;
            }
            if (frame < 6) {
                continue;  // the mask settles over the first frames
            }
            if (isWall) {
                result.fromAlone =
                    std::max(result.fromAlone, MeanDifference(alone, out, Box{0, 0, 1, 1}));
            } else {
                result.face = std::max(result.face, MeanDifference(in, out, FaceBox(kW, kH)));
            }
        }
    };
    std::thread a(run, std::ref(person), std::ref(*personIn), std::ref(personOut),
                  std::ref(personResult), false);
    std::thread b(run, std::ref(wall), std::ref(wallIn), std::ref(wallOut), std::ref(wallResult),
                  true);
    a.join();
    b.join();

    EXPECT_EQ(0, personResult.failedFrames);
    EXPECT_EQ(0, wallResult.failedFrames);
    // The person's face stays in every frame of the first instance; the second instance never
    // shows anything of the grey wall where the first one's person is.
    EXPECT_LT(personResult.face, 6.0);
    EXPECT_LT(wallResult.fromAlone, 0.5);
}

// ---- Lifetimes ---------------------------------------------------------------------------------

// Frames flow on a thread of their own while the control thread ends the instance the way a host
// can without meaning to: an update that is rejected, or a feedback request made while the
// previous one still waits for its frame (refused with 2, which also destroys). Every frame
// returns 0 until the end and 2 from then on.
TEST(InstanceLifetime, InstanceEndedByAFailedUpdateWhileFramesFlow) {
    Library::Get();
    const std::string feedback = R"({"feedback": true, "id": "lifetime"})";
    const struct {
        const char* name;
        std::string update;
        uint32_t refusal;
    } cases[] = {{"rejected update", "{not json", 3u}, {"feedback requests", feedback, 2u}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Instance instance(BlurConfig());
        ASSERT_TRUE(instance.valid());
        auto in = AstronautFrame(kW, kH, ZYN_FORMAT_NV12);
        Frame out(kW, kH, ZYN_FORMAT_NV12);
        std::atomic<bool> stop{false};
        std::atomic<int> succeeded{0}, refused{0}, unexpected{0};
        std::thread frames([&] {
            while (!stop.load()) {
                const uint32_t status = instance.process(*in, out);
                if (status == 0 && refused.load() == 0) {
                    succeeded.fetch_add(1);
                } else if (status == 2) {
                    refused.fetch_add(1);
                } else {
                    unexpected.fetch_add(1);
                }
            }
        });
        while (succeeded.load() < 3) {
            std::this_thread::yield();
        }
        // Accepted feedback requests are taken by the next frame; the first one that comes
        // before it is refused.
        uint32_t status = 0;
        for (int i = 0; i < 200 && status == 0; ++i) {
            status = instance.update(c.update);
        }
        EXPECT_EQ(c.refusal, status);
        EXPECT_FALSE(instance.valid());
        while (refused.load() < 3) {
            std::this_thread::yield();
        }
        stop.store(true);
        frames.join();
        EXPECT_EQ(0, unexpected.load());
    }
}

// A handle value kept after its instance was destroyed reaches nothing, not even an instance made
// since then (which may sit where the old one was): every call fails with its failure value.
TEST(InstanceLifetime, HandleValueThatOutlivedItsInstanceIsRefused) {
    Library::Get();
    auto in = AstronautFrame(kW, kH, ZYN_FORMAT_NV12);
    Frame out(kW, kH, ZYN_FORMAT_NV12);
    ZynNativeHandle stale = nullptr;
    {
        Instance gone(BlurConfig());
        ASSERT_EQ(0u, gone.process(*in, out));
        stale = *gone.handle();
    }
    Instance other(BlurConfig());
    ASSERT_TRUE(other.valid());
    LogCapture log;
    ZynNativeInputFrame i = in->record(), o = out.record();
    EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(&stale, &i, &o));
    EXPECT_EQ(2u, ZynNativeVbgProcessFrame(&stale, &i, &o));
    ZynNativeInputFrame frames[2] = {i, i};
    EXPECT_EQ(2u, ZynNativeVideoProcessingProcessPresentationFrame(&stale, frames, &o));
    uint32_t w = 0, h = 0;
    EXPECT_FALSE(ZynNativeVideoProcessingGetOutputFrameSize(&stale, &w, &h));
    EXPECT_STREQ("", ZynNativeVideoProcessingGetFrameProcessingStats(&stale, &w, &h, nullptr));
    EXPECT_EQ(2u, log.countContaining("processVideoFrame called without a live instance"))
        << log.dump();
    ZynNativeHandle copy = stale;
    EXPECT_EQ(3u, ZynNativeVideoProcessingUpdateInstance(&copy, BlurConfig().c_str()));
    EXPECT_EQ(nullptr, copy);
    ZynNativeVideoProcessingDestroyInstance(&stale);
    EXPECT_EQ(nullptr, stale);
    EXPECT_EQ(0u, other.process(*in, out));
}

// The shutdown export while an instance lives: the instance keeps working (the face stays sharp
// under the blur) and the next create makes a new backend.
TEST(InstanceLifetime, ShutdownUnderALiveInstanceLeavesItWorking) {
    Library::Get();
    auto in = AstronautFrame(kW, kH, ZYN_FORMAT_NV12);
    Frame out(kW, kH, ZYN_FORMAT_NV12);
    Instance live(BlurConfig());
    ASSERT_EQ(0u, live.process(*in, out));
    LogCapture log;
    ZynNativeVideoProcessingShutdownInstance();
    for (int frame = 0; frame < 6; ++frame) {
        ASSERT_EQ(0u, live.process(*in, out));
    }
    EXPECT_LT(MeanDifference(*in, out, FaceBox(kW, kH)), 6.0);
    Instance next(BlurConfig());
    EXPECT_EQ(0u, next.process(*in, out));
    EXPECT_EQ(1u, log.count("GetVBGMLProcessingInstance destroy"));
    EXPECT_EQ(1u, log.count("GetVBGMLProcessingInstance create")) << log.dump();
}

// Two first creates at the same moment make one backend, which both instances use.
TEST(InstanceLifetime, CreatesOnTwoThreadsMakeOneBackend) {
    Library::Get();
    ZynNativeVideoProcessingShutdownInstance();
    LogCapture log;
    ZynNativeHandle handles[2] = {nullptr, nullptr};
    uint32_t statuses[2] = {9, 9};
    std::atomic<int> ready{0};
    auto create = [&](int k) {
        ready.fetch_add(1);
        while (ready.load() < 2) {
        }
        statuses[k] = ZynNativeVideoProcessingCreateInstance(BlurConfig().c_str(), &handles[k]);
    };
    std::thread a(create, 0), b(create, 1);
    a.join();
    b.join();
    EXPECT_EQ(0u, statuses[0]);
    EXPECT_EQ(0u, statuses[1]);
    EXPECT_EQ(1u, log.count("GetVBGMLProcessingInstance create")) << log.dump();
    for (ZynNativeHandle& handle : handles) {
        EXPECT_NE(nullptr, handle);
        ZynNativeVideoProcessingDestroyInstance(&handle);
    }
}
