// The library through its exports as a host uses it for long: two instances (NV12, I420) on two
// threads, updated every 5 frames through blur, picture, GIF, video, touch-up and a presenter
// layout while the camera size changes every 35, and a third made and ended over and over. Checked:
// no failed frame or update, the person kept and the background replaced, resident memory flat
// after warm-up, no thread left once every instance is destroyed and the library shut down.
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

inline size_t ResidentBytes() {  // second field of statm, in pages
    size_t size = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

inline std::set<std::string> ThreadIds() {
    std::set<std::string> ids;
    for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
        ids.insert(entry.path().filename().string());
    }
    return ids;
}

const uint32_t kSizes[][2] = {{640, 360}, {320, 180}, {481, 271}};

// One instance's frame loop on its own thread: blur, picture, GIF, video, touch-up, presenter.
inline void RunInstance(ZynNativeHandle* handle, const std::vector<std::unique_ptr<Frame>>& in,
                        int frames, int warmUp, std::vector<size_t>& resident, std::mutex& mutex) {
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
    for (const auto& [w, h] : kSizes) {
        out.push_back(std::make_unique<Frame>(w, h, format));
    }
    const uint32_t slideFormat = format == ZYN_FORMAT_NV12 ? ZYN_FORMAT_I420 : ZYN_FORMAT_NV12;
    Frame slide(640, 360, slideFormat), composed(640, 360, slideFormat);
    slide.fill(200, 128, 128);
    for (int frame = 0, step = 0; frame < frames; ++frame) {
        const size_t s = (frame / 35) % 3;
        const uint32_t w = kSizes[s][0], h = kSizes[s][1];
        SCOPED_TRACE("step " + std::to_string(step) + ", frame " + std::to_string(frame) + " at " +
                     std::to_string(w) + "x" + std::to_string(h));
        if (frame > 0 && frame % 5 == 0) {
            step = (step + 1) % 6;
            const uint32_t status =
                ZynNativeVideoProcessingUpdateInstance(handle, updates[step].c_str());
            ASSERT_TRUE(status == ZYN_STATUS_SUCCESS && *handle != nullptr) << "update " << status;
        }
        ZynNativeInputFrame records[2] = {in[s]->record(), slide.record()};
        ZynNativeInputFrame o = step == 5 ? composed.record() : out[s]->record();
        EXPECT_EQ(0u, step == 5
                          ? ZynNativeVideoProcessingProcessPresentationFrame(handle, records, &o)
                          : ZynNativeVideoProcessingProcessFrame(handle, records, &o));
        EXPECT_GE(o.processingTime, 0.0f);
        // The last frame of a step keeps the person, and a background file replaces the wall.
        if ((frame + 1) % 5 == 0 && step < 4) {
            EXPECT_LE(MeanDifference(*in[s], *out[s], FaceBox(w, h)), 8.0);
            EXPECT_TRUE(step == 0 || MeanDifference(*in[s], *out[s], UpperWallBox(w, h)) >= 10.0);
        }
        if (frame + 1 >= warmUp && (frame + 1) % (3 * 35) == 0) {
            std::lock_guard<std::mutex> lock(mutex);
            resident.push_back(ResidentBytes());
        }
    }
}

// A third instance made and ended over and over: by a rejected update (3), or by a feedback
// request while the last one waits for its frame (2); its next frame is refused (2).
inline void RunChurn(const std::atomic<bool>& running, Frame& in, int& round) {
    Frame out(in.width(), in.height(), in.format());
    const std::string feedback = R"({"feedback": true, "id": "churn"})";
    for (round = 0; running; ++round) {
        SCOPED_TRACE("churn round " + std::to_string(round));
        ZynNativeHandle handle = nullptr;
        ZynNativeInputFrame i = in.record(), o = out.record();
        ASSERT_EQ(0u, ZynNativeVideoProcessingCreateInstance(BlurConfig().c_str(), &handle));
        EXPECT_EQ(0u, ZynNativeVideoProcessingUpdateInstance(&handle, feedback.c_str()));
        EXPECT_EQ(0u, ZynNativeVideoProcessingProcessFrame(&handle, &i, &o));  // writes the dump
        EXPECT_EQ(0u, ZynNativeVideoProcessingUpdateInstance(&handle, feedback.c_str()));
        EXPECT_EQ(round % 2 ? 2u : 3u,
                  ZynNativeVideoProcessingUpdateInstance(
                      &handle, round % 2 ? feedback.c_str() : "{\"effects\": 1"));
        EXPECT_EQ(nullptr, handle);
        EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(&handle, &i, &o));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the frame threads go first
    }
}

inline void RunSoak(int frames, int warmUp, size_t memoryTolerance) {
    Library::Get();
    WritePicture("soak_green.png", 320, 180, "green");
    WriteAnimatedGif("soak_anim.gif");
    WriteVideo("soak_clip.mp4");
    // Threads that last as long as the process (the logger's, the one ONNX Runtime starts with its
    // first environment) are there before the count: a first instance brings them about.
    ZynNativeHandle handles[2] = {nullptr, nullptr};
    ASSERT_EQ(0u, ZynNativeVideoProcessingCreateInstance(BlurConfig().c_str(), &handles[0]));
    ZynNativeVideoProcessingDestroyInstance(&handles[0]);
    ZynNativeVideoProcessingShutdownInstance();
    VBG::ProcessingTypeEvaluator::WaitForEvaluationToComplete();
    const std::set<std::string> threadsBefore = ThreadIds();

    for (ZynNativeHandle& handle : handles) {
        ASSERT_EQ(0u, ZynNativeVideoProcessingCreateInstance(BlurConfig().c_str(), &handle));
    }
    std::vector<std::unique_ptr<Frame>> camera[2];
    for (const auto& [w, h] : kSizes) {
        camera[0].push_back(AstronautFrame(w, h, ZYN_FORMAT_NV12));
        camera[1].push_back(AstronautFrame(w, h, ZYN_FORMAT_I420));
    }
    std::vector<size_t> resident;
    std::mutex mutex;
    std::atomic<bool> running{true};
    size_t threadsPeak = 0;
    int rounds = 0;
    std::thread churn([&] { RunChurn(running, *camera[0][1], rounds); });
    std::thread watcher([&] {
        for (; running; std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
            threadsPeak = std::max(threadsPeak, ThreadIds().size());
        }
    });
    std::thread threads[2];
    for (int i = 0; i < 2; ++i) {
        threads[i] = std::thread(
            [&, i] { RunInstance(&handles[i], camera[i], frames, warmUp, resident, mutex); });
    }
    threads[0].join();
    threads[1].join();
    running = false;
    watcher.join();
    churn.join();
    EXPECT_GT(rounds, 0);
    for (ZynNativeHandle& handle : handles) {
        ZynNativeVideoProcessingDestroyInstance(&handle);
    }
    ZynNativeVideoProcessingShutdownInstance();

    // Threads that were there before may have ended; none may have been added.
    std::set<std::string> after = ThreadIds();
    for (int i = 0; i < 200 && !std::includes(threadsBefore.begin(), threadsBefore.end(),
                                              after.begin(), after.end());
         ++i, after = ThreadIds()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(
        std::includes(threadsBefore.begin(), threadsBefore.end(), after.begin(), after.end()))
        << after.size() << " threads after shutdown, " << threadsBefore.size() << " before";
    // The library ran threads of its own beside the four made here, or the count proves nothing.
    EXPECT_GT(threadsPeak, threadsBefore.size() + 4) << "no library thread was seen";
    // Memory flat after warm-up: no sample above the first by more than the tolerance.
    ASSERT_GE(resident.size(), 2u);
    const size_t first = std::max(resident[0], resident[1]);
    const size_t peak = *std::max_element(resident.begin(), resident.end());
    EXPECT_TRUE(kSanitized || peak <= first + memoryTolerance) << "resident memory grew";
    std::cout << "soak: churn " << rounds << " instances; resident " << (first >> 20)
              << " MiB after warm-up, " << (peak >> 20) << " MiB at most; threads "
              << threadsBefore.size() << " before, " << threadsPeak << " at peak" << std::endl;
}

}  // namespace soak
