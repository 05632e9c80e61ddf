// Frame statistics: stage durations, the first-frame record, the ten-second summary and the
// report text, driven with explicit clock values.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "diag/frame_processing_stats.h"
#include "support/log_capture.h"

using VBG::FrameStats;
using zyn_test::LogCapture;

namespace {

constexpr int64_t kMs = 1000000;

// One frame starting at `start` ms with the given stage lengths in ms.
void frame(FrameStats& stats, int64_t start, int64_t pre, int64_t inf, int64_t post) {
    stats.markAt(FrameStats::FrameStart, start * kMs);
    stats.markAt(FrameStats::PreDone, (start + pre) * kMs);
    stats.markAt(FrameStats::InferenceDone, (start + pre + inf) * kMs);
    stats.markAt(FrameStats::FrameEnd, (start + pre + inf + post) * kMs);
}

std::vector<std::string> messagesFrom(const LogCapture& log, const std::string& function) {
    std::vector<std::string> out;
    for (const auto& r : log.records()) {
        if (r.function == function) {
            out.push_back(r.message);
        }
    }
    return out;
}

}  // namespace

TEST(FrameStats, FirstFrameIsLoggedOnceWithEveryStageAndAgainAfterTheFlagIsCleared) {
    LogCapture log;
    FrameStats stats("V", 10);
    frame(stats, 0, 2, 5, 3);
    frame(stats, 100, 1, 1, 1);
    auto first = messagesFrom(log, "VBG::FrameStats::LogFirstFrameStats");
    ASSERT_EQ(1u, first.size()) << log.dump();
    EXPECT_EQ("[V] Pre:2 Inf:5 Post:3 Total:10", first[0]);

    stats.clearFirstFrameLogged();  // what an update does
    frame(stats, 200, 4, 0, 6);
    first = messagesFrom(log, "VBG::FrameStats::LogFirstFrameStats");
    ASSERT_EQ(2u, first.size());
    EXPECT_EQ("[V] Pre:4 Inf:0 Post:6 Total:10", first[1]);
}

TEST(FrameStats, DurationsTruncateToWholeMilliseconds) {
    FrameStats stats("SS", 10);
    stats.markAt(0, 0);
    stats.markAt(1, 1999999);  // 1.999999 ms
    stats.markAt(2, 2000000);
    stats.markAt(3, 5500000);
    EXPECT_EQ(1u, stats.current(FrameStats::Pre));
    EXPECT_EQ(0u, stats.current(FrameStats::Inf));
    EXPECT_EQ(3u, stats.current(FrameStats::Post));
    EXPECT_EQ(5u, stats.current(FrameStats::Total));
}

TEST(FrameStats, AFrameThatFailsBeforeInferenceHasZeroStagesAndStillCounts) {
    FrameStats stats("V", 10);
    EXPECT_EQ(2147483647, stats.minimum(FrameStats::Pre));
    EXPECT_EQ(2147483647, stats.minimum(FrameStats::Total));
    EXPECT_EQ(0, stats.maximum(FrameStats::Total));

    frame(stats, 0, 3, 4, 5);
    // Start and end only: the model never ran.
    stats.markAt(FrameStats::FrameStart, 50 * kMs);
    stats.markAt(FrameStats::FrameEnd, 57 * kMs);
    EXPECT_EQ(0u, stats.current(FrameStats::Pre));
    EXPECT_EQ(0u, stats.current(FrameStats::Inf));
    EXPECT_EQ(0u, stats.current(FrameStats::Post));
    EXPECT_EQ(7u, stats.current(FrameStats::Total));
    EXPECT_EQ(2, stats.frameCount());
    EXPECT_EQ(0, stats.minimum(FrameStats::Inf));
    EXPECT_EQ(12, stats.maximum(FrameStats::Total));

    // Marks of a failed frame do not leak into the next one: only its own points count.
    stats.markAt(FrameStats::FrameStart, 100 * kMs);
    stats.markAt(FrameStats::PreDone, 101 * kMs);
    stats.markAt(FrameStats::FrameEnd, 103 * kMs);
    EXPECT_EQ(1u, stats.current(FrameStats::Pre));
    EXPECT_EQ(0u, stats.current(FrameStats::Inf));
    EXPECT_EQ(0u, stats.current(FrameStats::Post));
}

TEST(FrameStats, SummaryAfterTheIntervalHasTheFixedFormatAndResetsTheWindow) {
    LogCapture log;
    FrameStats stats("V", 10);
    // Frames end at 10, 1010, ..., 10010 ms: the window opens at the first frame's end and the
    // eleventh frame closes it 10000 ms later.
    for (int i = 0; i < 11; ++i) {
        const int64_t pre = i == 3 ? 6 : 2;
        frame(stats, i * 1000, pre, 5, 3);
    }
    auto summaries = messagesFrom(log, "VBG::FrameStats::LogStats");
    ASSERT_EQ(1u, summaries.size()) << log.dump();
    // 11 frames in 10000 ms; stages listed Total, Post, Inf, Pre; sums are 11 frames' worth.
    EXPECT_EQ(
        "[V] fps: 1.100"
        "[(Total) curr:10 min:10 max:14 avg:10.364]"
        "[(Post) curr:3 min:3 max:3 avg:3.000]"
        "[(Inf) curr:5 min:5 max:5 avg:5.000]"
        "[(Pre) curr:2 min:2 max:6 avg:2.364]",
        summaries[0]);
    EXPECT_EQ(0, stats.frameCount());
    EXPECT_EQ(2147483647, stats.minimum(FrameStats::Pre));
    EXPECT_EQ(0, stats.maximum(FrameStats::Pre));

    // The next window starts at the summary: nine seconds later no summary yet.
    for (int i = 1; i <= 9; ++i) {
        frame(stats, 10000 + i * 1000, 1, 1, 1);
    }
    EXPECT_EQ(1u, messagesFrom(log, "VBG::FrameStats::LogStats").size());
}

TEST(FrameStats, ReportHasTheLastFrameUnderTheFourKeys) {
    FrameStats stats("V", 10);
    EXPECT_STREQ(
        R"({"preProcessedTime":0,"inferenceTime":0,"postProcessedTime":0,"fullFrameTime":0})",
        stats.report());
    frame(stats, 0, 4, 9, 2);
    EXPECT_STREQ(
        R"({"preProcessedTime":4,"inferenceTime":9,"postProcessedTime":2,"fullFrameTime":15})",
        stats.report());
}
