// Two instances processing frames at the same moment on two threads, as a host with two cameras
// does. They share the one inference backend; each must still get the mask of its own frame: the
// one that sees the person keeps him, the one that sees an empty grey wall shows its picture
// everywhere. (This suite also runs under ThreadSanitizer.)
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "engine_test_support.h"

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
