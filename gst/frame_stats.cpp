#include "frame_stats.h"

#include <rapidjson/document.h>
#include <time.h>

namespace zyngst {
namespace {

int64_t clockNs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace

int64_t MonotonicNs() {
    return clockNs(CLOCK_MONOTONIC);
}

void FrameStats::reset() {
    *this = FrameStats();
    windowStartNs_ = MonotonicNs();
    windowStartCpuNs_ = clockNs(CLOCK_PROCESS_CPUTIME_ID);
}

void FrameStats::frame(int64_t libraryNs, bool failed) {
    ++frames_;
    ++windowFrames_;
    failed_ += failed ? 1 : 0;
    libraryNs_ += libraryNs;
    windowLibraryNs_ += libraryNs;
}

bool FrameStats::messageDue() {
    const int64_t now = MonotonicNs();
    const int64_t elapsed = now - windowStartNs_;
    if (elapsed < 1000000000) {
        return false;
    }
    const int64_t cpu = clockNs(CLOCK_PROCESS_CPUTIME_ID);
    fps_ = static_cast<double>(windowFrames_) * 1e9 / static_cast<double>(elapsed);
    cpuLoad_ = static_cast<double>(cpu - windowStartCpuNs_) / static_cast<double>(elapsed);
    windowLibraryMs_ = windowFrames_ == 0 ? 0.0
                                          : static_cast<double>(windowLibraryNs_) / 1e6 /
                                                static_cast<double>(windowFrames_);
    windowStartNs_ = now;
    windowStartCpuNs_ = cpu;
    windowFrames_ = 0;
    windowLibraryNs_ = 0;
    return true;
}

GstStructure* FrameStats::propertyValue(const GstStructure* last) const {
    GstStructure* s =
        last != nullptr ? gst_structure_copy(last) : gst_structure_new_empty("zynvbg");
    counts(s);
    return s;
}

void FrameStats::counts(GstStructure* s) const {
    gst_structure_set(s, "frames", G_TYPE_UINT64, static_cast<guint64>(frames_), "failed-frames",
                      G_TYPE_UINT64, static_cast<guint64>(failed_), "library-time-total-ms",
                      G_TYPE_DOUBLE, static_cast<double>(libraryNs_) / 1e6, nullptr);
}

GstStructure* FrameStats::snapshot(EffectInstance& instance) const {
    GstStructure* s = gst_structure_new_empty("zynvbg");
    counts(s);
    gst_structure_set(s, "library-time-ms", G_TYPE_DOUBLE, windowLibraryMs_, "fps", G_TYPE_DOUBLE,
                      fps_, "cpu-load", G_TYPE_DOUBLE, cpuLoad_, nullptr);
    if (!instance.alive()) {
        return s;
    }
    uint32_t width = 0, height = 0, type = 0;
    const char* text =
        instance.library().GetFrameProcessingStats(instance.handle(), &width, &height, &type);
    gst_structure_set(s, "width", G_TYPE_UINT, width, "height", G_TYPE_UINT, height,
                      "processing-type", G_TYPE_UINT, type, nullptr);
    rapidjson::Document doc;
    if (text != nullptr && !doc.Parse(text).HasParseError() && doc.IsObject()) {
        // The library's stage times of its last complete frame, whole milliseconds.
        static const char* const kStages[][2] = {{"preProcessedTime", "pre-processed-time"},
                                                 {"inferenceTime", "inference-time"},
                                                 {"postProcessedTime", "post-processed-time"},
                                                 {"fullFrameTime", "full-frame-time"}};
        for (const auto& stage : kStages) {
            auto it = doc.FindMember(stage[0]);
            if (it != doc.MemberEnd() && it->value.IsNumber()) {
                gst_structure_set(s, stage[1], G_TYPE_DOUBLE, it->value.GetDouble(), nullptr);
            }
        }
    }
    return s;
}

void PublishStats(GstElement* element, FrameStats& stats, EffectInstance& instance,
                  std::mutex& mutex, GstStructure*& last, bool post) {
    GstStructure* s = stats.snapshot(instance);
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (last != nullptr) {
            gst_structure_free(last);
        }
        last = gst_structure_copy(s);
    }
    if (post) {
        gst_element_post_message(element, gst_message_new_element(GST_OBJECT(element), s));
    } else {
        gst_structure_free(s);
    }
}

ZynNativeInputFrame RecordOf(const GstVideoFrame* frame) {
    ZynNativeInputFrame r{};
    r.width = GST_VIDEO_FRAME_WIDTH(frame);
    r.height = GST_VIDEO_FRAME_HEIGHT(frame);
    r.format =
        GST_VIDEO_FRAME_FORMAT(frame) == GST_VIDEO_FORMAT_NV12 ? ZYN_FORMAT_NV12 : ZYN_FORMAT_I420;
    // The record is packed: its pointer fields are written directly, never through a pointer to
    // them (they may sit at addresses a uint8_t** must not point at).
    const guint n = GST_VIDEO_FRAME_N_PLANES(frame);
    auto plane = [frame, n](guint k) {
        return k < n ? static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame, k)) : nullptr;
    };
    auto stride = [frame, n](guint k) {
        return k < n ? static_cast<uint32_t>(GST_VIDEO_FRAME_PLANE_STRIDE(frame, k)) : 0u;
    };
    r.plane0 = plane(0);
    r.stride0 = stride(0);
    r.plane1 = plane(1);
    r.stride1 = stride(1);
    r.plane2 = plane(2);
    r.stride2 = stride(2);
    return r;
}

}  // namespace zyngst
