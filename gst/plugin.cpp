// The zynvbg GStreamer plugin: the library's effects as a video filter (zynvbg) and its presenter
// layouts as a two-input element (zynvbgpresenter).
#include <gst/gst.h>
#include <gst/video/gstvideofilter.h>

#include "gstzynvbg_elements.h"

static gboolean plugin_init(GstPlugin* plugin) {
    return gst_element_register(plugin, "zynvbg", GST_RANK_NONE, GST_TYPE_ZYN_VBG) &&
           gst_element_register(plugin, "zynvbgpresenter", GST_RANK_NONE,
                                GST_TYPE_ZYN_VBG_PRESENTER);
}

#define PACKAGE "ZYNNativeVBG"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, zynvbg,
                  "Background effects and presenter layouts of the ZYNNativeVBG library",
                  plugin_init, ZYN_GST_VERSION, "unknown", "ZYNNativeVBG", "ZYNNativeVBG")
