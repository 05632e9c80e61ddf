#include "diag/frame_processing_stats.h"

#include <chrono>
#include <cstdio>
#include <utility>

#include "util/log.h"

namespace VBG {
namespace {

constexpr int64_t kMinReset = 2147483647;
constexpr const char* kStageNames[4] = {"Pre", "Inf", "Post", "Total"};

int64_t steadyNowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

FrameStats::FrameStats(std::string name, uint32_t intervalSeconds)
    : name_(std::move(name)), intervalMs_(intervalSeconds * 1000) {
    mins_.fill(kMinReset);
    report_.reserve(128);
}

void FrameStats::mark(int point) {
    markAt(point, steadyNowNs());
}

void FrameStats::markAt(int point, int64_t nowNs) {
    if (point < FrameStart || point > FrameEnd) {
        return;
    }
    marks_[point] = nowNs;
    marked_[point] = true;
    if (point != FrameEnd) {
        return;
    }
    static constexpr std::pair<int, int> spans[4] = {{0, 1}, {1, 2}, {2, 3}, {0, 3}};
    for (int k = 0; k < 4; ++k) {
        const auto [from, to] = spans[k];
        int64_t ms = 0;
        if (marked_[from] && marked_[to]) {
            ms = (marks_[to] - marks_[from]) / 1000000;
        }
        sums_[k] += ms;
        mins_[k] = std::min(mins_[k], ms);
        maxs_[k] = std::max(maxs_[k], ms);
        current_[k] = static_cast<uint32_t>(ms);
    }
    marked_.fill(false);
    if (!windowStarted_) {
        windowStarted_ = true;
        windowStart_ = nowNs;
    }
    lastFrame_ = nowNs;
    ++frameCount_;
    if (!firstFrameLogged_.exchange(true)) {
        logFirstFrameStats();
    }
    if ((nowNs - windowStart_) / 1000000 >= static_cast<int64_t>(intervalMs_)) {
        logStats(nowNs);
    }
}

void FrameStats::logFirstFrameStats() {
    std::string line = "[" + name_ + "]";
    for (int k = 0; k < 4; ++k) {
        line += " ";
        line += kStageNames[k];
        line += ":" + std::to_string(current_[k]);
    }
    ZLOG_INFO("VBG::FrameStats::LogFirstFrameStats", "{}", line);
}

void FrameStats::logStats(int64_t nowNs) {
    const int64_t elapsedMs = (nowNs - windowStart_) / 1000000;
    const double fps = elapsedMs < 1 ? 0.0 : frameCount_ * 1000.0 / static_cast<double>(elapsedMs);
    std::string line = fmt::format("[{}] fps: {:.3f}", name_, fps);
    for (int k : {Total, Post, Inf, Pre}) {
        const double avg = frameCount_ == 0
                               ? 0.0
                               : static_cast<double>(static_cast<float>(sums_[k]) / frameCount_);
        line += fmt::format("[({}) curr:{} min:{} max:{} avg:{:.3f}]", kStageNames[k], current_[k],
                            mins_[k], maxs_[k], avg);
    }
    windowStart_ = nowNs;
    frameCount_ = 0;
    sums_.fill(0);
    maxs_.fill(0);
    mins_.fill(kMinReset);
    ZLOG_INFO("VBG::FrameStats::LogStats", "{}", line);
}

const char* FrameStats::report() {
    report_.clear();
    fmt::format_to(std::back_inserter(report_),
                   R"({{"preProcessedTime":{},"inferenceTime":{},"postProcessedTime":{},)"
                   R"("fullFrameTime":{}}})",
                   current_[Pre], current_[Inf], current_[Post], current_[Total]);
    return report_.c_str();
}

}  // namespace VBG
