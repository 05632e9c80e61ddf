// Long-running use of the library through the exported functions, as a host would: two instances
// (NV12 and I420) on two threads, each updated every few frames through blur, a picture, an
// animated GIF, a video, touch-up and a presenter layout while the camera frame size changes under
// them; beside them a third instance made and ended over and over while a frame thread of its own
// keeps using it. Checked: no failed frame or update, the person kept and the background replaced,
// resident memory flat after warm-up, and no thread left once every instance is destroyed and the
// library shut down.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iostream>
#include <mutex>
#include <set>
#include <thread>

#include "engine_test_support.h"

namespace soak {

using namespace engine_test;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

struct Options {
    int framesPerInstance = 300;
    int framesPerStep = 5;   // an update every this many frames
    int framesPerSize = 35;  // a new camera size every this many frames
    int warmUpFrames = 210;
    size_t memoryTolerance = size_t{24} << 20;
};

inline size_t ResidentBytes() {  // second field of statm, in pages
    std::ifstream statm("/proc/self/statm");
    size_t size = 0, resident = 0;
    statm >> size >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

inline std::set<std::string> ThreadIds() {
    std::set<std::string> ids;
    for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
        ids.insert(entry.path().filename().string());
    }
    return ids;
}

const char* const kStepNames[] = {"blur", "picture", "gif", "video", "touchUp", "presenter"};
constexpr int kPresenter = 5, kTouchUp = 4;
const uint32_t kSizes[][2] = {{640, 360}, {320, 180}, {481, 271}};

// One instance's frame loop on its own thread; every unexpected status or picture is a failure.
inline void RunInstance(ZynNativeHandle* handle, const std::vector<std::unique_ptr<Frame>>& in,
                        const Options& options, std::vector<std::string>& failures,
                        std::vector<size_t>& resident, std::mutex& mutex) {
    const std::string updates[] = {
        BlurConfig(),
        BackgroundConfig("soak_green.png"),
        BackgroundConfig("soak_anim.gif"),
        BackgroundConfig("soak_clip.mp4"),
        TouchUpConfig("0.3"),
        R"({"effects": [{"name": "weatherman", "mode": "overlay", "weathermanAlpha": "0.9", )"
        R"("weathermanSize": "0.5", "weathermanOffsetX": "0.25", "weathermanOffsetY": "0"}]})"};
    const uint32_t format = in[0]->format();
    std::vector<std::unique_ptr<Frame>> out;
    for (const auto& size : kSizes) {
        out.push_back(std::make_unique<Frame>(size[0], size[1], format));
    }
    const uint32_t slideFormat = format == ZYN_FORMAT_NV12 ? ZYN_FORMAT_I420 : ZYN_FORMAT_NV12;
    Frame slide(640, 360, slideFormat), composed(640, 360, slideFormat);
    slide.fill(200, 128, 128);
    int step = 0;
    for (int frame = 0; frame < options.framesPerInstance; ++frame) {
        if (frame > 0 && frame % options.framesPerStep == 0) {
            step = (step + 1) % 6;
            const uint32_t status =
                ZynNativeVideoProcessingUpdateInstance(handle, updates[step].c_str());
            if (status != ZYN_STATUS_SUCCESS || *handle == nullptr) {
                failures.push_back("update to " + std::string(kStepNames[step]) + " at frame " +
                                   std::to_string(frame) + ": status " + std::to_string(status));
                return;  // a failed update destroys the instance
            }
        }
        const size_t s = (frame / options.framesPerSize) % 3;
        const uint32_t w = kSizes[s][0], h = kSizes[s][1];
        const std::string where = std::string(kStepNames[step]) + " frame " +
                                  std::to_string(frame) + " at " + std::to_string(w) + "x" +
                                  std::to_string(h);
        ZynNativeInputFrame frames[2] = {in[s]->record(), slide.record()};
        ZynNativeInputFrame o = step == kPresenter ? composed.record() : out[s]->record();
        const uint32_t status =
            step == kPresenter
                ? ZynNativeVideoProcessingProcessPresentationFrame(handle, frames, &o)
                : ZynNativeVideoProcessingProcessFrame(handle, frames, &o);
        if (status != ZYN_STATUS_SUCCESS || o.processingTime < 0.0f) {
            failures.push_back(where + ": status " + std::to_string(status));
            continue;
        }
        // The last frame of a step keeps the person, and a background file replaces the wall.
        if ((frame + 1) % options.framesPerStep == 0 && step != kPresenter && step != kTouchUp) {
            const double face = MeanDifference(*in[s], *out[s], FaceBox(w, h));
            const double wall = MeanDifference(*in[s], *out[s], UpperWallBox(w, h));
            if (face > 8.0 || (step != 0 && wall < 10.0)) {
                failures.push_back(where + ": face changed by " + std::to_string(face) +
                                   ", wall by " + std::to_string(wall));
            }
        }
        if (frame + 1 >= options.warmUpFrames && (frame + 1) % (3 * options.framesPerSize) == 0) {
            std::lock_guard<std::mutex> lock(mutex);
            resident.push_back(ResidentBytes());
        }
    }
}

// The third instance: each round it is made, asked for a feedback dump, and ended the way a host
// can without meaning to: by a rejected update, or by a feedback request made while the previous
// one still waits for its frame (refused, which also destroys). Its frames return 0 while it
// lives and 2 while it does not, never anything else.
inline int RunChurn(const std::atomic<bool>& running, Frame& in,
                    std::vector<std::string>& failures) {
    Frame out(in.width(), in.height(), in.format());
    ZynNativeHandle handle = nullptr;
    std::atomic<bool> stop{false};
    std::atomic<int> frames{0}, unexpected{0};
    std::thread frameThread([&] {
        while (!stop.load()) {
            ZynNativeInputFrame i = in.record(), o = out.record();
            const uint32_t status = ZynNativeVideoProcessingProcessFrame(&handle, &i, &o);
            frames += status == ZYN_STATUS_SUCCESS;
            unexpected += status != ZYN_STATUS_SUCCESS && status != ZYN_STATUS_FRAME_FAILED;
            if (status != ZYN_STATUS_SUCCESS) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    });
    const auto framesGo = [&](int count) {
        for (const int target = frames + count; running && frames < target;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    const std::string feedback = R"({"feedback": true, "id": "churn"})";
    int round = 0;
    for (; running; ++round) {
        const std::string where = "churn round " + std::to_string(round);
        if (ZynNativeVideoProcessingCreateInstance(BlurConfig().c_str(), &handle) != 0) {
            failures.push_back(where + ": create failed");
            break;
        }
        framesGo(3);
        if (ZynNativeVideoProcessingUpdateInstance(&handle, feedback.c_str()) != 0) {
            failures.push_back(where + ": feedback request failed");
        }
        framesGo(2);
        const bool reject = round % 2 == 0;
        uint32_t status = 0;
        for (int i = 0; i < 200 && status == 0; ++i) {
            status = ZynNativeVideoProcessingUpdateInstance(
                &handle, reject ? "{\"effects\": 1" : feedback.c_str());
        }
        if (status != (reject ? 3u : 2u) || handle != nullptr) {
            failures.push_back(where + ": ending update returned " + std::to_string(status));
        }
        ZynNativeVideoProcessingDestroyInstance(&handle);
    }
    stop = true;
    frameThread.join();
    ZynNativeVideoProcessingDestroyInstance(&handle);
    EXPECT_GT(frames.load(), 0);
    EXPECT_EQ(0, unexpected.load()) << "churn frames returned neither 0 nor 2";
    return round;
}

inline void RunSoak(const Options& options) {
    Library::Get();
    WritePicture("soak_green.png", 320, 180, "green");
    WriteAnimatedGif("soak_anim.gif");
    WriteVideo("soak_clip.mp4");
    // Threads that last as long as the process are there before the count: the logger's, and the
    // one ONNX Runtime starts with its first environment and keeps (a first instance, made and
    // destroyed and the library shut down, brings it about).
    ZynNativeHandle handles[2] = {nullptr, nullptr};
    ASSERT_EQ(0u, ZynNativeVideoProcessingCreateInstance(BlurConfig().c_str(), &handles[0]));
    ZynNativeVideoProcessingDestroyInstance(&handles[0]);
    ZynNativeVideoProcessingShutdownInstance();
    VBG::ProcessingTypeEvaluator::WaitForEvaluationToComplete();
    const std::set<std::string> threadsBefore = ThreadIds();

    for (ZynNativeHandle& handle : handles) {
        ASSERT_EQ(0u, ZynNativeVideoProcessingCreateInstance(BlurConfig().c_str(), &handle));
    }
    // The camera frames of each size and format, made once by the ffmpeg program.
    std::vector<std::unique_ptr<Frame>> camera[2];
    for (int i = 0; i < 2; ++i) {
        for (const auto& size : kSizes) {
            camera[i].push_back(
                AstronautFrame(size[0], size[1], i == 0 ? ZYN_FORMAT_NV12 : ZYN_FORMAT_I420));
        }
    }
    std::vector<std::string> failures[3];
    std::vector<size_t> resident;
    std::mutex mutex;
    std::atomic<bool> running{true};
    size_t threadsPeak = 0;
    int rounds = 0;
    std::thread churn([&] { rounds = RunChurn(running, *camera[0][1], failures[2]); });
    std::thread watcher([&] {
        for (; running; std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
            threadsPeak = std::max(threadsPeak, ThreadIds().size());
        }
    });
    std::thread threads[2];
    for (int i = 0; i < 2; ++i) {
        threads[i] = std::thread(
            [&, i] { RunInstance(&handles[i], camera[i], options, failures[i], resident, mutex); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    running = false;
    watcher.join();
    churn.join();
    for (const auto& f : failures) {
        EXPECT_TRUE(f.empty()) << f.size() << " failures, first: " << f.front();
    }
    EXPECT_GT(rounds, 0);
    for (ZynNativeHandle& handle : handles) {
        ZynNativeVideoProcessingDestroyInstance(&handle);
    }
    ZynNativeVideoProcessingShutdownInstance();

    // Threads that were there before may have ended; none may have been added.
    std::set<std::string> after = ThreadIds();
    for (int i = 0; i < 200 && !std::includes(threadsBefore.begin(), threadsBefore.end(),
                                              after.begin(), after.end());
         ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        after = ThreadIds();
    }
    EXPECT_TRUE(
        std::includes(threadsBefore.begin(), threadsBefore.end(), after.begin(), after.end()))
        << after.size() << " threads after shutdown, " << threadsBefore.size() << " before";
    // Besides the four frame threads, the churn's control thread and the watcher the library ran
    // threads of its own (the inference runtime's, the video playback's), or the count above would
    // prove nothing.
    EXPECT_GT(threadsPeak, threadsBefore.size() + 5) << "no library thread was seen";
    // Memory flat after warm-up: no sample above the first by more than the tolerance.
    ASSERT_GE(resident.size(), 2u);
    const size_t first = std::max(resident[0], resident[1]);
    const size_t peak = *std::max_element(resident.begin(), resident.end());
    if (!kSanitized) {
        EXPECT_LE(peak, first + options.memoryTolerance) << "resident memory grew";
    }
    std::cout << "soak: churn " << rounds << " instances; resident " << (first >> 20)
              << " MiB after warm-up, " << (peak >> 20) << " MiB at most; threads "
              << threadsBefore.size() << " before, " << threadsPeak << " at peak" << std::endl;
}

}  // namespace soak
