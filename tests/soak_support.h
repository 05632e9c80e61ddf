// Long-running use of the library through the exported functions, as a host would: two instances
// on two threads at once, each updated every few frames through blur, a picture, an animated GIF,
// a video, touch-up and a presenter layout, with the camera frame size changing under them. Beside
// them a third instance is made and ended over and over on a control thread while a frame thread
// of its own keeps using it (see RunChurn). What a run measures: failed frames (none of the two
// instances may fail: every configuration used here processes every frame), resident memory after
// warm-up, and the threads left once every instance is destroyed and the library is shut down.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "engine_test_support.h"
#include "selection/processing_type_evaluator.h"
#include "zyn_native_vbg.h"

namespace soak {

using namespace engine_test;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Resident memory of this process in bytes (second field of /proc/self/statm, in pages).
inline size_t ResidentBytes() {
    std::ifstream statm("/proc/self/statm");
    size_t size = 0, resident = 0;
    statm >> size >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Ids of the threads of this process right now.
inline std::set<long> ThreadIds() {
    std::set<long> ids;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (const dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') {
                ids.insert(std::stol(entry->d_name));
            }
        }
        closedir(dir);
    }
    return ids;
}

// Names of the threads in `after` that are not in `before`.
inline std::string NewThreadNames(const std::set<long>& before, const std::set<long>& after) {
    std::string names;
    for (const long id : after) {
        if (before.count(id) == 0) {
            std::ifstream comm("/proc/self/task/" + std::to_string(id) + "/comm");
            std::string name;
            std::getline(comm, name);
            names += (names.empty() ? "" : ", ") + std::to_string(id) + " (" + name + ")";
        }
    }
    return names;
}

inline double Megabytes(size_t bytes) {
    return static_cast<double>(bytes) / (1024.0 * 1024.0);
}

// The effects one instance goes through, in this order, one step per update.
enum Step { StepBlur, StepPicture, StepGif, StepVideo, StepTouchUp, StepPresenter, StepCount };

inline const char* StepName(int step) {
    static const char* const names[] = {"blur", "picture", "gif", "video", "touchUp", "presenter"};
    return names[step];
}

struct Size {
    uint32_t width, height;
};

struct Options {
    int framesPerInstance = 300;
    int framesPerStep = 5;   // an update every this many frames
    int framesPerSize = 35;  // the camera size changes every this many frames
    int warmUpFrames = 210;  // every step met at every size twice
    size_t memoryTolerance = size_t{24} << 20;
};

// What one instance's thread saw.
struct Outcome {
    int frames = 0;
    int updates = 0;
    std::vector<std::string> failures;  // every unexpected status, with the step and size
    std::vector<size_t> resident;       // resident bytes after each size cycle past warm-up
};

inline const std::vector<Size>& CameraSizes() {
    static const std::vector<Size> sizes = {{640, 360}, {320, 180}, {481, 271}};
    return sizes;
}

inline std::string OverlayConfig() {
    return R"({"effects": [{"name": "weatherman", "mode": "overlay", "weathermanAlpha": "0.9", )"
           R"("weathermanSize": "0.5", "weathermanOffsetX": "0.25", "weathermanOffsetY": "0"}]})";
}

inline std::string UpdateFor(int step) {
    switch (step) {
        case StepBlur:
            return BlurConfig();
        case StepPicture:
            return BackgroundConfig("soak_green.png");
        case StepGif:
            return BackgroundConfig("soak_anim.gif");
        case StepVideo:
            return BackgroundConfig("soak_clip.mp4");
        case StepTouchUp:
            return TouchUpConfig("0.3");
        default:
            return OverlayConfig();
    }
}

// Camera frames of every size in one format, with an output frame for each.
class CameraFrames {
  public:
    explicit CameraFrames(uint32_t format) {
        for (const Size& s : CameraSizes()) {
            frames_.push_back(AstronautFrame(s.width, s.height, format));
            outputs_.push_back(std::make_unique<Frame>(s.width, s.height, format));
        }
    }
    Frame& in(size_t i) { return *frames_[i]; }
    Frame& out(size_t i) { return *outputs_[i]; }

  private:
    std::vector<std::unique_ptr<Frame>> frames_;
    std::vector<std::unique_ptr<Frame>> outputs_;
};

// The frame loop of one instance on its own thread.
inline void RunInstance(ZynNativeHandle* handle, CameraFrames& camera, uint32_t format,
                        const Options& options, Outcome& outcome, std::mutex& memoryMutex) {
    const uint32_t slideFormat = format == ZYN_FORMAT_NV12 ? ZYN_FORMAT_I420 : ZYN_FORMAT_NV12;
    Frame slide(640, 360, slideFormat);
    slide.fill(200, 128, 128);
    Frame composed(640, 360, slideFormat);
    int step = StepBlur;
    const size_t cycleFrames = static_cast<size_t>(options.framesPerSize) * CameraSizes().size();
    for (int frame = 0; frame < options.framesPerInstance; ++frame) {
        if (frame > 0 && frame % options.framesPerStep == 0) {
            step = (step + 1) % StepCount;
            const uint32_t status =
                ZynNativeVideoProcessingUpdateInstance(handle, UpdateFor(step).c_str());
            ++outcome.updates;
            if (status != ZYN_STATUS_SUCCESS || *handle == nullptr) {
                outcome.failures.push_back("update to " + std::string(StepName(step)) +
                                           " at frame " + std::to_string(frame) + ": status " +
                                           std::to_string(status));
                return;  // a failed update destroys the instance
            }
        }
        const size_t sizeIndex = (frame / options.framesPerSize) % CameraSizes().size();
        Frame& in = camera.in(sizeIndex);
        Frame& out = camera.out(sizeIndex);
        ZynNativeInputFrame i = in.record();
        uint32_t status = 0;
        float processingTime = -1.0f;
        if (step == StepPresenter) {
            ZynNativeInputFrame frames[2] = {i, slide.record()};
            ZynNativeInputFrame o = composed.record();
            status = ZynNativeVideoProcessingProcessPresentationFrame(handle, frames, &o);
            processingTime = o.processingTime;
        } else {
            ZynNativeInputFrame o = out.record();
            status = ZynNativeVideoProcessingProcessFrame(handle, &i, &o);
            processingTime = o.processingTime;
        }
        ++outcome.frames;
        const Size size = CameraSizes()[sizeIndex];
        const std::string where = std::string(StepName(step)) + " frame " + std::to_string(frame) +
                                  " at " + std::to_string(size.width) + "x" +
                                  std::to_string(size.height);
        if (status != ZYN_STATUS_SUCCESS || processingTime < 0.0f) {
            outcome.failures.push_back(where + ": status " + std::to_string(status));
            continue;
        }
        // The last frame of each step: the person is kept, and a picture or video background
        // replaces the grey wall behind him.
        const bool lastOfStep = (frame + 1) % options.framesPerStep == 0;
        if (lastOfStep && step != StepPresenter && step != StepTouchUp) {
            const double face = MeanDifference(in, out, FaceBox(size.width, size.height));
            if (face > 8.0) {
                outcome.failures.push_back(where + ": face changed by " + std::to_string(face));
            }
            const double wall = MeanDifference(in, out, UpperWallBox(size.width, size.height));
            if (step != StepBlur && wall < 10.0) {
                outcome.failures.push_back(where + ": background not replaced (" +
                                           std::to_string(wall) + ")");
            }
        }
        if (frame + 1 >= options.warmUpFrames && (frame + 1) % cycleFrames == 0) {
            std::lock_guard<std::mutex> lock(memoryMutex);
            outcome.resident.push_back(ResidentBytes());
        }
    }
}

// A third instance made and ended over and over while frames flow: each round the control thread
// makes it, asks for a feedback dump, and ends it the way a host can without meaning to, by an
// update that is rejected or by a feedback request made while the previous one still waits for its
// frame (refused, which also destroys). Its frame thread never stops: its frames return 0 while the
// instance lives and 2 while it does not, never anything else, and nothing crashes.
struct Churn {
    int rounds = 0;
    int frames = 0;   // processed (0)
    int refused = 0;  // refused (2): no live instance at that moment
    std::vector<std::string> failures;
};

inline void RunChurn(const std::atomic<bool>& running, Frame& in, Churn& churn) {
    ZynNativeHandle handle = nullptr;
    Frame out(in.width(), in.height(), in.format());
    std::atomic<bool> stop{false};
    std::atomic<int> frames{0}, refused{0}, unexpected{0};
    std::thread frameThread([&] {
        while (!stop.load()) {
            ZynNativeInputFrame i = in.record();
            ZynNativeInputFrame o = out.record();
            const uint32_t status = ZynNativeVideoProcessingProcessFrame(&handle, &i, &o);
            if (status == ZYN_STATUS_SUCCESS) {
                frames.fetch_add(1);
            } else if (status == ZYN_STATUS_FRAME_FAILED) {
                refused.fetch_add(1);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            } else {
                unexpected.fetch_add(1);
            }
        }
    });
    const auto framesGo = [&](int count) {
        const int target = frames.load() + count;
        while (running.load() && frames.load() < target) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    const std::string feedback = R"({"feedback": true, "id": "churn"})";
    while (running.load()) {
        const std::string round = "churn round " + std::to_string(churn.rounds);
        const uint32_t created =
            ZynNativeVideoProcessingCreateInstance(BlurConfig().c_str(), &handle);
        if (created != ZYN_STATUS_SUCCESS) {
            churn.failures.push_back(round + ": create returned " + std::to_string(created));
            break;
        }
        framesGo(3);
        const uint32_t dump = ZynNativeVideoProcessingUpdateInstance(&handle, feedback.c_str());
        if (dump != ZYN_STATUS_SUCCESS) {
            churn.failures.push_back(round + ": feedback request returned " + std::to_string(dump));
        }
        framesGo(2);
        uint32_t status = ZYN_STATUS_SUCCESS;
        const bool rejectedUpdate = churn.rounds % 2 == 0;
        for (int i = 0; i < 200 && status == ZYN_STATUS_SUCCESS; ++i) {
            status = ZynNativeVideoProcessingUpdateInstance(
                &handle, rejectedUpdate ? "{\"effects\": 1" : feedback.c_str());
        }
        const uint32_t expected =
            rejectedUpdate ? ZYN_STATUS_CONFIG_FAILED : ZYN_STATUS_FRAME_FAILED;
        if (status != expected || handle != nullptr) {
            churn.failures.push_back(round + ": ending update returned " + std::to_string(status));
        }
        ZynNativeVideoProcessingDestroyInstance(&handle);
        ++churn.rounds;
    }
    stop.store(true);
    frameThread.join();
    ZynNativeVideoProcessingDestroyInstance(&handle);
    churn.frames = frames.load();
    churn.refused = refused.load();
    if (unexpected.load() != 0) {
        churn.failures.push_back(std::to_string(unexpected.load()) +
                                 " churn frames returned neither 0 nor 2");
    }
}

struct Report {
    int frames = 0;
    int updates = 0;
    size_t residentAfterWarmUp = 0;
    size_t residentPeak = 0;
    size_t residentFinal = 0;
    size_t threadsBefore = 0;
    size_t threadsPeak = 0;
    size_t threadsAfter = 0;
};

// Runs two instances (NV12 and I420) on two threads, destroys them and shuts the library down,
// checking everything listed at the top of this file.
inline Report RunSoak(const Options& options) {
    Library::Get();
    WritePicture("soak_green.png", 320, 180, "green");
    WriteAnimatedGif("soak_anim.gif");
    WriteVideo("soak_clip.mp4");

    // Threads that last as long as the process are there before the count is taken: the
    // logger's worker and its flush thread (from initialisation on), and the one thread ONNX
    // Runtime starts with its first environment and keeps after the environment is released (a
    // first instance, made and destroyed and the library shut down, brings it about). The
    // processing-type evaluation has ended by then.
    {
        Instance first(BlurConfig());
        EXPECT_TRUE(first.valid());
    }
    ZynNativeVideoProcessingShutdownInstance();
    for (int i = 0; i < 500 && VBG::ProcessingTypeEvaluator::IsEvaluationRunning(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const std::set<long> threadsBefore = ThreadIds();

    Report report;
    report.threadsBefore = threadsBefore.size();
    ZynNativeHandle handles[2] = {nullptr, nullptr};
    for (ZynNativeHandle& handle : handles) {
        EXPECT_EQ(0u, ZynNativeVideoProcessingCreateInstance(BlurConfig().c_str(), &handle));
        EXPECT_NE(nullptr, handle);
    }
    if (handles[0] == nullptr || handles[1] == nullptr) {
        for (ZynNativeHandle& handle : handles) {
            ZynNativeVideoProcessingDestroyInstance(&handle);
        }
        return report;
    }

    // Made here: the frames of each size are generated once, by the ffmpeg program, into files
    // that the two threads would otherwise both write.
    CameraFrames nv12(ZYN_FORMAT_NV12);
    CameraFrames i420(ZYN_FORMAT_I420);
    Outcome outcomes[2];
    std::mutex memoryMutex;
    std::atomic<bool> running{true};
    Churn churn;
    std::thread churner([&] { RunChurn(running, nv12.in(1), churn); });
    std::thread threads[2] = {
        std::thread([&] {
            RunInstance(&handles[0], nv12, ZYN_FORMAT_NV12, options, outcomes[0], memoryMutex);
        }),
        std::thread([&] {
            RunInstance(&handles[1], i420, ZYN_FORMAT_I420, options, outcomes[1], memoryMutex);
        })};
    std::thread watcher([&] {
        while (running.load()) {
            report.threadsPeak = std::max(report.threadsPeak, ThreadIds().size());
            report.residentPeak = std::max(report.residentPeak, ResidentBytes());
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    running.store(false);
    watcher.join();
    churner.join();
    EXPECT_GT(churn.rounds, 0);
    EXPECT_GT(churn.frames, 0);
    EXPECT_TRUE(churn.failures.empty())
        << churn.failures.size() << " churn failures, first: " << churn.failures.front();

    for (int i = 0; i < 2; ++i) {
        report.frames += outcomes[i].frames;
        report.updates += outcomes[i].updates;
        EXPECT_EQ(options.framesPerInstance, outcomes[i].frames) << "instance " << i;
        EXPECT_TRUE(outcomes[i].failures.empty())
            << "instance " << i << ", " << outcomes[i].failures.size()
            << " failures, first: " << outcomes[i].failures.front();
    }
    // Memory: the samples of both threads, past warm-up, in the order they were taken.
    std::vector<size_t> samples;
    for (const Outcome& o : outcomes) {
        samples.insert(samples.end(), o.resident.begin(), o.resident.end());
    }
    std::sort(samples.begin(), samples.end());
    if (!outcomes[0].resident.empty() && !outcomes[1].resident.empty()) {
        report.residentAfterWarmUp =
            std::max(outcomes[0].resident.front(), outcomes[1].resident.front());
        report.residentFinal = std::max(outcomes[0].resident.back(), outcomes[1].resident.back());
    }

    for (ZynNativeHandle& handle : handles) {
        ZynNativeVideoProcessingDestroyInstance(&handle);
        EXPECT_EQ(nullptr, handle);
    }
    ZynNativeVideoProcessingShutdownInstance();

    // Every thread the instances and the inference backend started is gone; threads that were
    // there before may have ended, none may have been added.
    std::set<long> threadsAfter = ThreadIds();
    for (int i = 0; i < 200; ++i) {
        if (std::includes(threadsBefore.begin(), threadsBefore.end(), threadsAfter.begin(),
                          threadsAfter.end())) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        threadsAfter = ThreadIds();
    }
    report.threadsAfter = threadsAfter.size();
    EXPECT_TRUE(std::includes(threadsBefore.begin(), threadsBefore.end(), threadsAfter.begin(),
                              threadsAfter.end()))
        << threadsAfter.size() << " threads after shutdown, " << threadsBefore.size()
        << " before the instances were made; new: " << NewThreadNames(threadsBefore, threadsAfter);
    // Besides the two frame threads and the watcher, the library ran threads of its own (the
    // inference runtime's, the video playback's): the count above would otherwise prove nothing.
    EXPECT_GT(report.threadsPeak, report.threadsBefore + 3) << "no library thread was seen";

    if (!kSanitized && report.residentAfterWarmUp > 0) {
        // Flat after warm-up: later samples stay within the tolerance of the first one.
        EXPECT_LE(samples.back(), report.residentAfterWarmUp + options.memoryTolerance)
            << "resident memory grew from " << Megabytes(report.residentAfterWarmUp) << " MiB to "
            << Megabytes(samples.back()) << " MiB";
    }
    std::cout << "soak: " << report.frames << " frames, " << report.updates << " updates; churn "
              << churn.rounds << " instances made and ended, " << churn.frames << " frames, "
              << churn.refused << " refused; resident " << Megabytes(report.residentAfterWarmUp)
              << " MiB after warm-up, peak " << Megabytes(report.residentPeak) << " MiB, final "
              << Megabytes(report.residentFinal) << " MiB; threads " << report.threadsBefore
              << " before, " << report.threadsPeak << " at peak, " << report.threadsAfter
              << " after shutdown" << (kSanitized ? " (memory not checked under a sanitizer)" : "")
              << std::endl;
    return report;
}

}  // namespace soak
