// What the zynvbg GStreamer element costs per frame beyond the library's own processing: 1280x720
// NV12 frames of the astronaut through `zynvbg effect=blur` into fakesink, timed from the buffer
// entering the element's sink pad to it leaving the source pad, against the time the element
// measured around the library's frame call for the same frame. Prints the medians and the
// overhead in percent. Usage: zynvbg_gst_overhead [frames] [processing-mode]
#include <gst/gst.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Timing {
    GstElement* element = nullptr;
    gint64 entered = 0;
    double libraryTotalMs = 0.0;
    std::vector<double> elementMs;
    std::vector<double> libraryMs;
};

GstPadProbeReturn onEnter(GstPad*, GstPadProbeInfo*, gpointer data) {
    static_cast<Timing*>(data)->entered = g_get_monotonic_time();
    return GST_PAD_PROBE_OK;
}

GstPadProbeReturn onLeave(GstPad*, GstPadProbeInfo*, gpointer data) {
    const gint64 left = g_get_monotonic_time();
    Timing* t = static_cast<Timing*>(data);
    GstStructure* stats = nullptr;
    g_object_get(t->element, "stats", &stats, nullptr);
    double total = 0.0;
    if (stats != nullptr) {
        gst_structure_get_double(stats, "library-time-total-ms", &total);
        gst_structure_free(stats);
    }
    t->elementMs.push_back(static_cast<double>(left - t->entered) / 1000.0);
    t->libraryMs.push_back(total - t->libraryTotalMs);
    t->libraryTotalMs = total;
    return GST_PAD_PROBE_OK;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    const int frames = argc > 1 ? std::atoi(argv[1]) : 200;
    const int mode = argc > 2 ? std::atoi(argv[2]) : 8;
    g_setenv("GST_PLUGIN_PATH", ZYN_GST_PLUGIN_DIR, FALSE);
    gst_init(&argc, &argv);
    const std::string launch =
        "filesrc location=/usr/lib/python3/dist-packages/skimage/data/astronaut.png ! pngdec ! "
        "videoconvert ! videoscale ! video/x-raw,width=720,height=720 ! videobox left=-280 "
        "right=-280 fill=1 ! videoconvert ! video/x-raw,format=NV12,width=1280,height=720 ! "
        "imagefreeze num-buffers=" +
        std::to_string(frames) +
        " ! zynvbg name=effect effect=blur processing-mode=" + std::to_string(mode) +
        " models=" ZYN_GST_MODELS_DIR " ! fakesink sync=false";
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(launch.c_str(), &error);
    if (pipeline == nullptr) {
        std::fprintf(stderr, "cannot make the pipeline: %s\n", error->message);
        return 1;
    }
    Timing timing;
    timing.element = gst_bin_get_by_name(GST_BIN(pipeline), "effect");
    GstPad* sink = gst_element_get_static_pad(timing.element, "sink");
    GstPad* src = gst_element_get_static_pad(timing.element, "src");
    gst_pad_add_probe(sink, GST_PAD_PROBE_TYPE_BUFFER, onEnter, &timing, nullptr);
    gst_pad_add_probe(src, GST_PAD_PROBE_TYPE_BUFFER, onLeave, &timing, nullptr);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* end = gst_bus_timed_pop_filtered(
        bus, GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    const bool failed = GST_MESSAGE_TYPE(end) == GST_MESSAGE_ERROR;
    gst_message_unref(end);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    if (failed || timing.elementMs.size() < 10) {
        std::fprintf(stderr, "the pipeline failed\n");
        return 1;
    }
    // The first frames make the instance's buffers and settle the mask.
    timing.elementMs.erase(timing.elementMs.begin(), timing.elementMs.begin() + 5);
    timing.libraryMs.erase(timing.libraryMs.begin(), timing.libraryMs.begin() + 5);
    std::vector<double> overhead;
    for (size_t i = 0; i < timing.elementMs.size(); ++i) {
        overhead.push_back(timing.elementMs[i] - timing.libraryMs[i]);
    }
    const double library = median(timing.libraryMs);
    const double extra = median(overhead);
    std::printf(
        "zynvbg element, 1280x720 NV12, blur, processing mode %d, %zu frames: element %.3f ms, "
        "library %.3f ms, overhead %.3f ms per frame (%.2f%%)\n",
        mode, timing.elementMs.size(), median(timing.elementMs), library, extra,
        library > 0 ? 100.0 * extra / library : 0.0);
    gst_object_unref(sink);
    gst_object_unref(src);
    gst_object_unref(timing.element);
    gst_object_unref(bus);
    gst_object_unref(pipeline);
    return 0;
}
