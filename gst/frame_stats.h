// What both elements report about their frames: counts, the time spent inside the library, the
// process's CPU time, and the library's own statistics of the instance. Read as the "stats"
// property and posted once a second as a "zynvbg" element message.
#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>

#include <cstdint>
#include <mutex>

#include "vbg_host.h"

namespace zyngst {

class FrameStats {
  public:
    // Starts a new count (element start).
    void reset();
    // One frame: `libraryNs` spent inside the library's frame call, `failed` when it failed.
    void frame(int64_t libraryNs, bool failed);
    // The structure named "zynvbg" with the counts, the last second's rates and the library's
    // statistics of `instance` (when it is alive). Caller owns it.
    GstStructure* snapshot(EffectInstance& instance) const;
    // The stats property's value: the last second's figures (`last`, null before the first
    // message) with the counts as they are now. Caller owns it.
    GstStructure* propertyValue(const GstStructure* last) const;
    // Whether a second has passed since the last message; starts the next window when so.
    bool messageDue();

  private:
    // Sets the running counts (frames, failed frames, total library time) in `s`.
    void counts(GstStructure* s) const;

    uint64_t frames_ = 0;
    uint64_t failed_ = 0;
    int64_t libraryNs_ = 0;
    // The window of the last message.
    int64_t windowStartNs_ = 0;
    int64_t windowStartCpuNs_ = 0;
    uint64_t windowFrames_ = 0;
    int64_t windowLibraryNs_ = 0;
    // The last completed window.
    double fps_ = 0.0;
    double cpuLoad_ = 0.0;
    double windowLibraryMs_ = 0.0;
};

int64_t MonotonicNs();

// Stores a snapshot of `stats` in `last` (under `mutex`, for the stats property) and posts it as
// the element message when `post`.
void PublishStats(GstElement* element, FrameStats& stats, EffectInstance& instance,
                  std::mutex& mutex, GstStructure*& last, bool post);

// The library's frame record over a mapped NV12 or I420 frame.
ZynNativeInputFrame RecordOf(const GstVideoFrame* frame);

}  // namespace zyngst
