// Per-stage frame timings: current, minimum, maximum and average per stage, a first-frame record
// and a summary with the frame rate at a fixed interval. Used from the engine's frame thread only;
// the control thread only clears the first-frame flag.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace VBG {

class FrameStats {
  public:
    // Points of a frame: 0 start, 1 pre-processing done, 2 inference done, 3 end.
    enum Point { FrameStart = 0, PreDone = 1, InferenceDone = 2, FrameEnd = 3 };
    // Stages in the order of their arrays.
    enum Stage { Pre = 0, Inf = 1, Post = 2, Total = 3 };

    FrameStats(std::string name, uint32_t intervalSeconds);

    void mark(int point);
    // Marks with an explicit steady-clock time in nanoseconds (tests drive the clock with it).
    void markAt(int point, int64_t nowNs);

    void clearFirstFrameLogged() { firstFrameLogged_.store(false); }

    // Durations of the last complete frame, in whole milliseconds.
    uint32_t current(Stage stage) const { return current_[stage]; }
    int64_t minimum(Stage stage) const { return mins_[stage]; }
    int64_t maximum(Stage stage) const { return maxs_[stage]; }
    int32_t frameCount() const { return frameCount_; }

    // {"preProcessedTime":P,"inferenceTime":I,"postProcessedTime":Q,"fullFrameTime":T}; the text
    // stays valid until the next call.
    const char* report();

  private:
    void logFirstFrameStats();
    void logStats(int64_t nowNs);

    std::array<int64_t, 4> sums_{};
    std::array<int64_t, 4> mins_{};
    std::array<int64_t, 4> maxs_{};
    std::array<int64_t, 4> marks_{};
    std::array<bool, 4> marked_{};
    std::array<uint32_t, 4> current_{};
    int64_t windowStart_ = 0;
    bool windowStarted_ = false;
    int64_t lastFrame_ = 0;
    int32_t frameCount_ = 0;
    std::string name_;
    uint32_t intervalMs_;
    std::atomic<bool> firstFrameLogged_{false};
    std::string report_;
};

}  // namespace VBG
