// zynvbgpresenter: the library's presenter layouts. The camera drives the output: every camera
// frame is composed with the newest presentation frame, so a presentation that has not started
// yet (a black one stands in) or that stops (its last frame stays) never holds the camera up.
// The presentation thread waits for its frame to be used before it hands over the next one, at
// most 100 ms, which paces a source that would otherwise spin (a still slide) without stalling a
// live one. The output has the size the library gives the layout: the room picture's in the room
// modes, the presentation's in the others.
#include <gst/gst.h>
#include <gst/video/video.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "effect_config.h"
#include "frame_stats.h"
#include "gstzynvbg_elements.h"
#include "vbg_host.h"

GST_DEBUG_CATEGORY_STATIC(zynvbg_presenter_debug);
#define GST_CAT_DEFAULT zynvbg_presenter_debug

namespace {

struct Settings {
    int mode = 1;  // 1 overlay, 2 underlay, 3 newsroom, 4 conferenceroom
    std::string room;
    double size = 0.0;  // 0: the layout's default
    double offsetX = 0.3;
    double offsetY = 0.3;
    double opacity = 1.0;
    int processingMode = 3;
    zyngst::Folders folders;

    bool roomMode() const { return mode == 3 || mode == 4; }
    std::string json() const {
        auto number = [](double v) {
            char text[G_ASCII_DTOSTR_BUF_SIZE];
            return std::string(g_ascii_formatd(text, sizeof text, "%.6g", v));
        };
        zynvbg::Options o;
        o.weathermanMode = zyngst::PresenterModeName(mode);
        o.weathermanBackground = room;
        if (size > 0.0) {
            o.weathermanSize = number(size);
        }
        o.weathermanOffset = number(offsetX) + "," + number(offsetY);
        o.weathermanAlpha = number(opacity);
        return zynvbg::ShortOptionsJson(o);
    }
};

struct Private {
    std::mutex mutex;  // guards everything up to `stopping`
    std::condition_variable presentationUsed;
    Settings wanted;
    uint64_t generation = 0;
    GstBuffer* presentation = nullptr;
    GstVideoInfo presentationInfo;
    bool presentationFresh = false;  // not yet composed
    bool stopping = false;
    GstStructure* lastStats = nullptr;

    // Camera streaming thread.
    Settings applied;
    uint64_t appliedGeneration = 0;
    GstVideoInfo cameraInfo;
    bool haveCamera = false;
    GstVideoInfo outputInfo;
    bool haveOutput = false;
    GstBuffer* blank = nullptr;     // black presentation while none has come
    GstBufferPool* pool = nullptr;  // output frames
    zyngst::EffectInstance instance;
    zyngst::FrameStats stats;
    bool warnedFrameFailure = false;
};

}  // namespace

struct _GstZynVbgPresenter {
    GstElement parent;
    GstPad* camera;
    GstPad* presentation;
    GstPad* src;
    Private* priv;
};

G_DEFINE_TYPE(GstZynVbgPresenter, gst_zyn_vbg_presenter, GST_TYPE_ELEMENT)

enum {
    PROP_0,
    PROP_MODE,
    PROP_ROOM,
    PROP_SIZE,
    PROP_OFFSET_X,
    PROP_OFFSET_Y,
    PROP_OPACITY,
    PROP_PROCESSING_MODE,
    PROP_MODELS,
    PROP_CACHE,
    PROP_LOG,
    PROP_STATS,
};
static_assert(PROP_CACHE == PROP_MODELS + zyngst::kPropCache &&
                  PROP_LOG == PROP_MODELS + zyngst::kPropLog &&
                  PROP_STATS == PROP_MODELS + zyngst::kPropStats,
              "the shared properties keep their order");

#define ZYN_VIDEO_CAPS GST_VIDEO_CAPS_MAKE("{ NV12, I420 }")
static GstStaticPadTemplate camera_template = GST_STATIC_PAD_TEMPLATE(
    "camera", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(ZYN_VIDEO_CAPS));
static GstStaticPadTemplate presentation_template = GST_STATIC_PAD_TEMPLATE(
    "presentation", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(ZYN_VIDEO_CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(ZYN_VIDEO_CAPS));

static GType gst_zyn_vbg_presenter_mode_get_type() {
    static GType type = 0;
    static const GEnumValue values[] = {
        {1, "The camera over the presentation", "overlay"},
        {2, "The person cut out over the presentation", "underlay"},
        {3, "Presenter beside the presentation in a room picture", "newsroom"},
        {4, "Presenter and presentation in a conference room picture", "conferenceroom"},
        {0, nullptr, nullptr}};
    if (g_once_init_enter(&type)) {
        g_once_init_leave(&type, g_enum_register_static("GstZynVbgPresenterMode", values));
    }
    return type;
}

static void gst_zyn_vbg_presenter_set_property(GObject* object, guint id, const GValue* value,
                                               GParamSpec* pspec) {
    GstZynVbgPresenter* self = GST_ZYN_VBG_PRESENTER(object);
    Private* p = self->priv;
    const std::string refusal = zyngst::RefusedValue(
        false, id == PROP_MODELS || id == PROP_CACHE || id == PROP_LOG, pspec, value);
    if (!refusal.empty()) {
        GST_ELEMENT_WARNING(self, LIBRARY, SETTINGS, ("%s", refusal.c_str()), (nullptr));
        return;
    }
    std::lock_guard<std::mutex> lock(p->mutex);
    Settings& s = p->wanted;
    switch (id) {
        case PROP_MODE:
            s.mode = g_value_get_enum(value);
            break;
        case PROP_ROOM:
            s.room = g_value_get_string(value) != nullptr ? g_value_get_string(value) : "";
            break;
        case PROP_SIZE:
            s.size = g_value_get_double(value);
            break;
        case PROP_OFFSET_X:
            s.offsetX = g_value_get_double(value);
            break;
        case PROP_OFFSET_Y:
            s.offsetY = g_value_get_double(value);
            break;
        case PROP_OPACITY:
            s.opacity = g_value_get_double(value);
            break;
        case PROP_PROCESSING_MODE:
            s.processingMode = g_value_get_int(value);
            break;
        case PROP_MODELS:
        case PROP_CACHE:
        case PROP_LOG:
            zyngst::FolderOf(s.folders, id - PROP_MODELS) = g_value_get_string(value);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
            return;
    }
    ++p->generation;
}

static void gst_zyn_vbg_presenter_get_property(GObject* object, guint id, GValue* value,
                                               GParamSpec* pspec) {
    Private* p = GST_ZYN_VBG_PRESENTER(object)->priv;
    std::lock_guard<std::mutex> lock(p->mutex);
    const Settings& s = p->wanted;
    switch (id) {
        case PROP_MODE:
            g_value_set_enum(value, s.mode);
            break;
        case PROP_ROOM:
            g_value_set_string(value, s.room.c_str());
            break;
        case PROP_SIZE:
            g_value_set_double(value, s.size);
            break;
        case PROP_OFFSET_X:
            g_value_set_double(value, s.offsetX);
            break;
        case PROP_OFFSET_Y:
            g_value_set_double(value, s.offsetY);
            break;
        case PROP_OPACITY:
            g_value_set_double(value, s.opacity);
            break;
        case PROP_PROCESSING_MODE:
            g_value_set_int(value, s.processingMode);
            break;
        case PROP_MODELS:
        case PROP_CACHE:
        case PROP_LOG:
            g_value_set_string(value, zyngst::FolderOf(s.folders, id - PROP_MODELS).c_str());
            break;
        case PROP_STATS:
            g_value_take_boxed(value, p->stats.propertyValue(p->lastStats));
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
}

// As the filter does: an error at start, a warning (and the previous settings) later.
static bool gst_zyn_vbg_presenter_apply(GstZynVbgPresenter* self, bool starting) {
    Private* p = self->priv;
    Settings want;
    uint64_t generation;
    {
        std::lock_guard<std::mutex> lock(p->mutex);
        if (!starting && p->generation == p->appliedGeneration) {
            return true;
        }
        want = p->wanted;
        generation = p->generation;
    }
    std::string error;
    uint32_t status = ZYN_STATUS_SUCCESS;
    bool opened = true;
    if (want.roomMode() && want.room.empty()) {
        error = std::string("the ") + zyngst::PresenterModeName(want.mode) +
                " layout needs a room picture (the room-background property)";
        status = ZYN_STATUS_CONFIG_FAILED;
    } else if (!(opened = p->instance.open(want.folders, error))) {
        status = ZYN_STATUS_CONFIG_FAILED;
    } else if (starting || !p->instance.alive() ||
               want.processingMode != p->applied.processingMode ||
               want.folders != p->applied.folders) {
        status = p->instance.create(want.json(), want.processingMode, error);
    } else {
        status = p->instance.update(want.json(), want.processingMode, error);
    }
    if (status == ZYN_STATUS_SUCCESS) {
        p->applied = want;
        p->appliedGeneration = generation;
        return true;
    }
    if (starting) {
        if (!opened) {
            GST_ELEMENT_ERROR(self, LIBRARY, INIT, ("cannot use the library: %s", error.c_str()),
                              (nullptr));
        } else {
            GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS,
                              ("cannot start the presenter layout (status %s): %s",
                               zyngst::StatusText(status).c_str(), error.c_str()),
                              (nullptr));
        }
        return false;
    }
    GST_ELEMENT_WARNING(self, LIBRARY, SETTINGS,
                        ("change refused (status %s): %s; carrying on with the previous layout",
                         zyngst::StatusText(status).c_str(), error.c_str()),
                        (nullptr));
    std::lock_guard<std::mutex> lock(p->mutex);
    if (p->generation == generation) {
        p->wanted = p->applied;
        ++p->generation;
    }
    p->appliedGeneration = p->generation;
    return true;
}

// Drops the output pool and the black stand-in, made for the previous output size.
static void gst_zyn_vbg_presenter_release_buffers(Private* p) {
    if (p->pool != nullptr) {
        gst_buffer_pool_set_active(p->pool, FALSE);
        gst_object_unref(p->pool);
        p->pool = nullptr;
    }
    if (p->blank != nullptr) {
        gst_buffer_unref(p->blank);
        p->blank = nullptr;
    }
}

// The output size of the layout: the room picture's, else the presentation's (the camera's while
// no presentation has come). Pushes new caps when it changed. Camera thread.
static bool gst_zyn_vbg_presenter_negotiate(GstZynVbgPresenter* self) {
    Private* p = self->priv;
    if (!p->haveCamera) {
        return false;
    }
    guint width = GST_VIDEO_INFO_WIDTH(&p->cameraInfo);
    guint height = GST_VIDEO_INFO_HEIGHT(&p->cameraInfo);
    {
        std::lock_guard<std::mutex> lock(p->mutex);
        if (p->presentation != nullptr) {
            width = GST_VIDEO_INFO_WIDTH(&p->presentationInfo);
            height = GST_VIDEO_INFO_HEIGHT(&p->presentationInfo);
        }
    }
    uint32_t roomWidth = 0, roomHeight = 0;
    if (p->applied.roomMode() && p->instance.alive() &&
        p->instance.library().GetOutputFrameSize(p->instance.handle(), &roomWidth, &roomHeight) &&
        roomWidth > 0 && roomHeight > 0) {
        width = roomWidth;
        height = roomHeight;
    }
    if (p->haveOutput && GST_VIDEO_INFO_WIDTH(&p->outputInfo) == static_cast<gint>(width) &&
        GST_VIDEO_INFO_HEIGHT(&p->outputInfo) == static_cast<gint>(height)) {
        return true;
    }
    GstVideoInfo info;
    gst_video_info_set_format(&info, GST_VIDEO_INFO_FORMAT(&p->cameraInfo), width, height);
    info.fps_n = p->cameraInfo.fps_n;
    info.fps_d = p->cameraInfo.fps_d;
    GstCaps* caps = gst_video_info_to_caps(&info);
    GST_INFO_OBJECT(self, "output caps %" GST_PTR_FORMAT, caps);
    const bool pushed = gst_pad_push_event(self->src, gst_event_new_caps(caps));
    if (pushed) {
        p->outputInfo = info;
        p->haveOutput = true;
        gst_zyn_vbg_presenter_release_buffers(p);
        p->pool = gst_video_buffer_pool_new();
        GstStructure* config = gst_buffer_pool_get_config(p->pool);
        gst_buffer_pool_config_set_params(config, caps, static_cast<guint>(info.size), 2, 0);
        if (!gst_buffer_pool_set_config(p->pool, config) ||
            !gst_buffer_pool_set_active(p->pool, TRUE)) {
            gst_object_unref(p->pool);
            p->pool = nullptr;
        }
    }
    gst_caps_unref(caps);
    return pushed && p->pool != nullptr;
}

static void gst_zyn_vbg_presenter_fill_black(GstVideoFrame* frame) {
    for (guint k = 0; k < GST_VIDEO_FRAME_N_PLANES(frame); ++k) {
        const guint rows = GST_VIDEO_FRAME_COMP_HEIGHT(frame, k);
        const guint stride = GST_VIDEO_FRAME_PLANE_STRIDE(frame, k);
        memset(GST_VIDEO_FRAME_PLANE_DATA(frame, k), k == 0 ? 16 : 128,
               static_cast<size_t>(rows) * stride);
    }
}

static void gst_zyn_vbg_presenter_publish_stats(GstZynVbgPresenter* self, bool post) {
    Private* p = self->priv;
    zyngst::PublishStats(GST_ELEMENT(self), p->stats, p->instance, p->mutex, p->lastStats, post);
}

static GstFlowReturn gst_zyn_vbg_presenter_camera_chain(GstPad*, GstObject* parent,
                                                        GstBuffer* camera) {
    GstZynVbgPresenter* self = GST_ZYN_VBG_PRESENTER(parent);
    Private* p = self->priv;
    gst_zyn_vbg_presenter_apply(self, false);
    if (!gst_zyn_vbg_presenter_negotiate(self)) {
        gst_buffer_unref(camera);
        return GST_FLOW_NOT_NEGOTIATED;
    }
    GstBuffer* presentation = nullptr;
    GstVideoInfo presentationInfo;
    {
        std::lock_guard<std::mutex> lock(p->mutex);
        if (p->presentation != nullptr) {
            presentation = gst_buffer_ref(p->presentation);
            presentationInfo = p->presentationInfo;
        }
        p->presentationFresh = false;
    }
    p->presentationUsed.notify_all();
    if (presentation == nullptr) {
        if (p->blank == nullptr) {
            GstVideoInfo info;
            gst_video_info_set_format(&info, GST_VIDEO_FORMAT_I420,
                                      GST_VIDEO_INFO_WIDTH(&p->outputInfo),
                                      GST_VIDEO_INFO_HEIGHT(&p->outputInfo));
            p->blank = gst_buffer_new_allocate(nullptr, info.size, nullptr);
            GstVideoFrame frame;
            gst_video_frame_map(&frame, &info, p->blank, GST_MAP_WRITE);
            gst_zyn_vbg_presenter_fill_black(&frame);
            gst_video_frame_unmap(&frame);
        }
        presentation = gst_buffer_ref(p->blank);
        gst_video_info_set_format(&presentationInfo, GST_VIDEO_FORMAT_I420,
                                  GST_VIDEO_INFO_WIDTH(&p->outputInfo),
                                  GST_VIDEO_INFO_HEIGHT(&p->outputInfo));
    }
    GstBuffer* out = nullptr;
    if (gst_buffer_pool_acquire_buffer(p->pool, &out, nullptr) != GST_FLOW_OK) {
        gst_buffer_unref(presentation);
        gst_buffer_unref(camera);
        return GST_FLOW_FLUSHING;
    }
    gst_buffer_copy_into(
        out, camera,
        static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS), 0, -1);
    GstVideoFrame frames[3];
    const bool mapped = gst_video_frame_map(&frames[0], &p->cameraInfo, camera, GST_MAP_READ);
    const bool mappedP =
        gst_video_frame_map(&frames[1], &presentationInfo, presentation, GST_MAP_READ);
    const bool mappedO = gst_video_frame_map(&frames[2], &p->outputInfo, out, GST_MAP_WRITE);
    int64_t libraryNs = 0;
    bool failed = true;
    if (mapped && mappedP && mappedO && p->instance.alive()) {
        const ZynNativeInputFrame inputs[2] = {zyngst::RecordOf(&frames[0]),
                                               zyngst::RecordOf(&frames[1])};
        ZynNativeInputFrame output = zyngst::RecordOf(&frames[2]);
        const int64_t begin = zyngst::MonotonicNs();
        const uint32_t status =
            p->instance.library().ProcessPresentationFrame(p->instance.handle(), inputs, &output);
        libraryNs = zyngst::MonotonicNs() - begin;
        failed = status != ZYN_STATUS_SUCCESS;
        if (failed && !p->warnedFrameFailure) {
            p->warnedFrameFailure = true;
            GST_ELEMENT_WARNING(self, LIBRARY, FAILED,
                                ("the library failed a presenter frame (status %s); such frames "
                                 "are black",
                                 zyngst::StatusText(status).c_str()),
                                (nullptr));
        }
    }
    if (failed && mappedO) {
        gst_zyn_vbg_presenter_fill_black(&frames[2]);
    }
    if (mapped) {
        gst_video_frame_unmap(&frames[0]);
    }
    if (mappedP) {
        gst_video_frame_unmap(&frames[1]);
    }
    if (mappedO) {
        gst_video_frame_unmap(&frames[2]);
    }
    gst_buffer_unref(presentation);
    gst_buffer_unref(camera);
    {
        std::lock_guard<std::mutex> lock(p->mutex);
        p->stats.frame(libraryNs, failed);
    }
    if (p->stats.messageDue()) {
        gst_zyn_vbg_presenter_publish_stats(self, true);
    }
    return gst_pad_push(self->src, out);
}

static gboolean gst_zyn_vbg_presenter_camera_event(GstPad* pad, GstObject* parent,
                                                   GstEvent* event) {
    GstZynVbgPresenter* self = GST_ZYN_VBG_PRESENTER(parent);
    Private* p = self->priv;
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_CAPS: {
            GstCaps* caps;
            gst_event_parse_caps(event, &caps);
            GstVideoInfo info;
            const bool ok = gst_video_info_from_caps(&info, caps);
            gst_event_unref(event);
            if (!ok) {
                return FALSE;
            }
            p->cameraInfo = info;
            p->haveCamera = true;
            p->haveOutput = false;
            return gst_zyn_vbg_presenter_negotiate(self);
        }
        case GST_EVENT_EOS:
            gst_zyn_vbg_presenter_publish_stats(self, true);
            break;
        default:
            break;
    }
    return gst_pad_event_default(pad, parent, event);
}

static GstFlowReturn gst_zyn_vbg_presenter_presentation_chain(GstPad*, GstObject* parent,
                                                              GstBuffer* buffer) {
    Private* p = GST_ZYN_VBG_PRESENTER(parent)->priv;
    std::unique_lock<std::mutex> lock(p->mutex);
    // Hand the camera one frame at a time; a camera that stops does not hold this thread long.
    p->presentationUsed.wait_for(lock, std::chrono::milliseconds(100),
                                 [p] { return !p->presentationFresh || p->stopping; });
    if (p->stopping) {
        gst_buffer_unref(buffer);
        return GST_FLOW_FLUSHING;
    }
    if (p->presentation != nullptr) {
        gst_buffer_unref(p->presentation);
    }
    p->presentation = buffer;
    p->presentationFresh = true;
    return GST_FLOW_OK;
}

static gboolean gst_zyn_vbg_presenter_presentation_event(GstPad*, GstObject* parent,
                                                         GstEvent* event) {
    Private* p = GST_ZYN_VBG_PRESENTER(parent)->priv;
    gboolean result = TRUE;
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_CAPS: {
            GstCaps* caps;
            gst_event_parse_caps(event, &caps);
            GstVideoInfo info;
            result = gst_video_info_from_caps(&info, caps);
            if (result) {
                std::lock_guard<std::mutex> lock(p->mutex);
                // A frame of the old size no longer matches: wait for one of the new size.
                if (p->presentation != nullptr &&
                    (GST_VIDEO_INFO_WIDTH(&info) != GST_VIDEO_INFO_WIDTH(&p->presentationInfo) ||
                     GST_VIDEO_INFO_HEIGHT(&info) != GST_VIDEO_INFO_HEIGHT(&p->presentationInfo) ||
                     GST_VIDEO_INFO_FORMAT(&info) != GST_VIDEO_INFO_FORMAT(&p->presentationInfo))) {
                    gst_buffer_unref(p->presentation);
                    p->presentation = nullptr;
                }
                p->presentationInfo = info;
            }
            break;
        }
        case GST_EVENT_FLUSH_START: {
            std::lock_guard<std::mutex> lock(p->mutex);
            p->stopping = true;
            p->presentationUsed.notify_all();
            break;
        }
        case GST_EVENT_FLUSH_STOP: {
            std::lock_guard<std::mutex> lock(p->mutex);
            p->stopping = false;
            break;
        }
        default:
            // End of the presentation: its last frame stays. Its stream and segment events are
            // the camera's business downstream.
            break;
    }
    gst_event_unref(event);
    return result;
}

static gboolean gst_zyn_vbg_presenter_sink_query(GstPad* pad, GstObject* parent, GstQuery* query) {
    switch (GST_QUERY_TYPE(query)) {
        case GST_QUERY_CAPS: {
            GstCaps* filter;
            gst_query_parse_caps(query, &filter);
            GstCaps* caps = gst_pad_get_pad_template_caps(pad);
            if (filter != nullptr) {
                GstCaps* both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
                gst_caps_unref(caps);
                caps = both;
            }
            gst_query_set_caps_result(query, caps);
            gst_caps_unref(caps);
            return TRUE;
        }
        case GST_QUERY_ALLOCATION:
            return FALSE;
        default:
            return gst_pad_query_default(pad, parent, query);
    }
}

static gboolean gst_zyn_vbg_presenter_src_query(GstPad* pad, GstObject* parent, GstQuery* query) {
    GstZynVbgPresenter* self = GST_ZYN_VBG_PRESENTER(parent);
    if (GST_QUERY_TYPE(query) == GST_QUERY_CAPS) {
        GstCaps* caps = gst_pad_get_current_caps(pad);
        if (caps == nullptr) {
            caps = gst_pad_get_pad_template_caps(pad);
        }
        gst_query_set_caps_result(query, caps);
        gst_caps_unref(caps);
        return TRUE;
    }
    // Position, duration, latency and the rest are the camera stream's.
    return gst_pad_peer_query(self->camera, query);
}

static gboolean gst_zyn_vbg_presenter_src_event(GstPad*, GstObject* parent, GstEvent* event) {
    GstZynVbgPresenter* self = GST_ZYN_VBG_PRESENTER(parent);
    // Seeks and the like go to the camera; the presentation's source runs on its own.
    return gst_pad_push_event(self->camera, event);
}

static GstStateChangeReturn gst_zyn_vbg_presenter_change_state(GstElement* element,
                                                               GstStateChange transition) {
    GstZynVbgPresenter* self = GST_ZYN_VBG_PRESENTER(element);
    Private* p = self->priv;
    if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) {
        {
            std::lock_guard<std::mutex> lock(p->mutex);
            p->stopping = false;
            p->stats.reset();
        }
        p->warnedFrameFailure = false;
        p->haveCamera = false;
        p->haveOutput = false;
        if (!gst_zyn_vbg_presenter_apply(self, true)) {
            return GST_STATE_CHANGE_FAILURE;
        }
    }
    if (transition == GST_STATE_CHANGE_PAUSED_TO_READY) {
        std::lock_guard<std::mutex> lock(p->mutex);
        p->stopping = true;
        p->presentationUsed.notify_all();
    }
    const GstStateChangeReturn result =
        GST_ELEMENT_CLASS(gst_zyn_vbg_presenter_parent_class)->change_state(element, transition);
    if (transition == GST_STATE_CHANGE_PAUSED_TO_READY) {
        p->instance.close();
        gst_zyn_vbg_presenter_release_buffers(p);
        std::lock_guard<std::mutex> lock(p->mutex);
        if (p->presentation != nullptr) {
            gst_buffer_unref(p->presentation);
            p->presentation = nullptr;
        }
        p->presentationFresh = false;
    }
    return result;
}

static void gst_zyn_vbg_presenter_finalize(GObject* object) {
    Private* p = GST_ZYN_VBG_PRESENTER(object)->priv;
    if (p->lastStats != nullptr) {
        gst_structure_free(p->lastStats);
    }
    if (p->presentation != nullptr) {
        gst_buffer_unref(p->presentation);
    }
    gst_zyn_vbg_presenter_release_buffers(p);
    delete p;
    G_OBJECT_CLASS(gst_zyn_vbg_presenter_parent_class)->finalize(object);
}

static void gst_zyn_vbg_presenter_init(GstZynVbgPresenter* self) {
    self->priv = new Private();
    self->priv->wanted.folders = zyngst::DefaultFolders();
    gst_video_info_init(&self->priv->presentationInfo);

    self->camera = gst_pad_new_from_static_template(&camera_template, "camera");
    gst_pad_set_chain_function(self->camera, gst_zyn_vbg_presenter_camera_chain);
    gst_pad_set_event_function(self->camera, gst_zyn_vbg_presenter_camera_event);
    gst_pad_set_query_function(self->camera, gst_zyn_vbg_presenter_sink_query);
    gst_element_add_pad(GST_ELEMENT(self), self->camera);

    self->presentation = gst_pad_new_from_static_template(&presentation_template, "presentation");
    gst_pad_set_chain_function(self->presentation, gst_zyn_vbg_presenter_presentation_chain);
    gst_pad_set_event_function(self->presentation, gst_zyn_vbg_presenter_presentation_event);
    gst_pad_set_query_function(self->presentation, gst_zyn_vbg_presenter_sink_query);
    gst_element_add_pad(GST_ELEMENT(self), self->presentation);

    self->src = gst_pad_new_from_static_template(&src_template, "src");
    gst_pad_set_query_function(self->src, gst_zyn_vbg_presenter_src_query);
    gst_pad_set_event_function(self->src, gst_zyn_vbg_presenter_src_event);
    gst_pad_use_fixed_caps(self->src);
    gst_element_add_pad(GST_ELEMENT(self), self->src);
}

static void gst_zyn_vbg_presenter_class_init(GstZynVbgPresenterClass* klass) {
    GObjectClass* object = G_OBJECT_CLASS(klass);
    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    GST_DEBUG_CATEGORY_INIT(zynvbg_presenter_debug, "zynvbgpresenter", 0,
                            "ZYNNativeVBG presenter layouts");
    object->set_property = gst_zyn_vbg_presenter_set_property;
    object->get_property = gst_zyn_vbg_presenter_get_property;
    object->finalize = gst_zyn_vbg_presenter_finalize;
    element->change_state = gst_zyn_vbg_presenter_change_state;

    const auto rw = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                             GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(
        object, PROP_MODE,
        g_param_spec_enum("mode", "Layout", "How the presenter and the presentation are laid out",
                          gst_zyn_vbg_presenter_mode_get_type(), 1, rw));
    g_object_class_install_property(
        object, PROP_ROOM,
        g_param_spec_string("room-background", "Room picture",
                            "The room picture of the newsroom and conferenceroom layouts (any "
                            "path); it sets the output size",
                            "", rw));
    g_object_class_install_property(
        object, PROP_SIZE,
        g_param_spec_double("size", "Presenter size",
                            "Size of the presenter as a fraction; 0 for the layout's default "
                            "(0.3 overlay and underlay, 1.0 in the rooms)",
                            0.0, 1.0, 0.0, rw));
    g_object_class_install_property(
        object, PROP_OFFSET_X,
        g_param_spec_double("offset-x", "Offset X",
                            "Left edge of the presenter as a fraction (overlay, underlay)", 0.0,
                            1.0, 0.3, rw));
    g_object_class_install_property(
        object, PROP_OFFSET_Y,
        g_param_spec_double("offset-y", "Offset Y",
                            "Top edge of the presenter as a fraction (overlay, underlay)", 0.0, 1.0,
                            0.3, rw));
    g_object_class_install_property(
        object, PROP_OPACITY,
        g_param_spec_double("opacity", "Opacity", "Opacity of the camera in the overlay layout",
                            0.0, 1.0, 1.0, rw));
    g_object_class_install_property(
        object, PROP_PROCESSING_MODE,
        g_param_spec_int("processing-mode", "Processing mode",
                         "1 GPU (falls back to the CPU), 2 CPU, 3 automatic, 7 OpenVINO CPU, "
                         "8 ONNX Runtime CPU",
                         1, 9, 3, rw));
    zyngst::InstallSharedProperties(object, PROP_MODELS, rw);

    gst_element_class_set_static_metadata(
        element, "ZYNNativeVBG presenter layouts", "Filter/Editor/Video/Compositor",
        "The person from the camera laid over, under or beside a presentation", "ZYNNativeVBG");
    gst_element_class_add_static_pad_template(element, &camera_template);
    gst_element_class_add_static_pad_template(element, &presentation_template);
    gst_element_class_add_static_pad_template(element, &src_template);
    gst_type_mark_as_plugin_api(gst_zyn_vbg_presenter_mode_get_type(),
                                static_cast<GstPluginAPIFlags>(0));
}
