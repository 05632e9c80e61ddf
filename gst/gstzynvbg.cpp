// zynvbg: background blur, background replacement and touch-up on NV12 and I420 frames, through
// the library's exports. Properties may change in any state; while frames flow the change is
// applied before the next frame on the streaming thread (the library's update), and a change the
// library refuses is posted as a warning and undone, the instance carrying on with the last
// configuration it accepted.
#include <gst/gst.h>
#include <gst/video/gstvideofilter.h>
#include <gst/video/video.h>

#include <mutex>
#include <string>

#include "effect_config.h"
#include "frame_stats.h"
#include "gstzynvbg_elements.h"
#include "vbg_host.h"

GST_DEBUG_CATEGORY_STATIC(zynvbg_debug);
#define GST_CAT_DEFAULT zynvbg_debug

namespace {

enum Effect { kEffectNone, kEffectBlur, kEffectBackground, kEffectTouchUp };

struct Settings {
    int effect = kEffectBlur;
    std::string background;
    double sigma = 0.03;
    std::string config;  // a whole effect configuration; overrides the three above when set
    int mode = 3;
    zyngst::Folders folders;

    // The effect configuration for the library; empty for no effect.
    std::string json() const {
        if (!config.empty()) {
            return config;
        }
        zynvbg::Options o;
        switch (effect) {
            case kEffectBlur:
                o.blur = true;
                break;
            case kEffectBackground:
                o.background = background;
                break;
            case kEffectTouchUp: {
                char text[G_ASCII_DTOSTR_BUF_SIZE];
                o.touchUpSigma = g_ascii_formatd(text, sizeof text, "%.6g", sigma);
                break;
            }
            default:
                return std::string();
        }
        return zynvbg::ShortOptionsJson(o);
    }
};

struct Private {
    std::mutex mutex;         // guards wanted, generation
    Settings wanted;          // the properties
    uint64_t generation = 0;  // bumped by every property change
    // Streaming side.
    Settings applied;  // what the frames get
    uint64_t appliedGeneration = 0;
    bool active = false;  // an effect is on (else frames are copied)
    zyngst::EffectInstance instance;
    zyngst::FrameStats stats;
    bool warnedFrameFailure = false;
    GstStructure* lastStats = nullptr;  // guarded by mutex
};

}  // namespace

struct _GstZynVbg {
    GstVideoFilter parent;
    Private* priv;
};

G_DEFINE_TYPE(GstZynVbg, gst_zyn_vbg, GST_TYPE_VIDEO_FILTER)

enum {
    PROP_0,
    PROP_EFFECT,
    PROP_BACKGROUND,
    PROP_TOUCHUP_SIGMA,
    PROP_CONFIG,
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

static GType gst_zyn_vbg_effect_get_type() {
    static GType type = 0;
    static const GEnumValue values[] = {
        {kEffectNone, "No effect: frames pass unchanged", "none"},
        {kEffectBlur, "Background blur", "blur"},
        {kEffectBackground, "Background replaced by the background file", "background"},
        {kEffectTouchUp, "Skin smoothing", "touchup"},
        {0, nullptr, nullptr}};
    if (g_once_init_enter(&type)) {
        g_once_init_leave(&type, g_enum_register_static("GstZynVbgEffect", values));
    }
    return type;
}

#define ZYN_VIDEO_CAPS GST_VIDEO_CAPS_MAKE("{ NV12, I420 }")

static void gst_zyn_vbg_set_property(GObject* object, guint id, const GValue* value,
                                     GParamSpec* pspec) {
    GstZynVbg* self = GST_ZYN_VBG(object);
    Private* p = self->priv;
    // Refusals are posted before the settings are locked: a bus handler may read properties.
    const std::string refusal = zyngst::RefusedValue(
        id == PROP_CONFIG, id == PROP_MODELS || id == PROP_CACHE || id == PROP_LOG, pspec, value);
    if (!refusal.empty()) {
        GST_ELEMENT_WARNING(self, LIBRARY, SETTINGS, ("%s", refusal.c_str()), (nullptr));
        return;
    }
    std::lock_guard<std::mutex> lock(p->mutex);
    Settings& s = p->wanted;
    switch (id) {
        case PROP_EFFECT:
            s.effect = g_value_get_enum(value);
            break;
        case PROP_BACKGROUND:
            s.background = g_value_get_string(value) != nullptr ? g_value_get_string(value) : "";
            break;
        case PROP_TOUCHUP_SIGMA:
            s.sigma = g_value_get_double(value);
            break;
        case PROP_CONFIG: {
            const char* text = g_value_get_string(value);
            std::string json = text != nullptr ? text : "";
            if (!json.empty()) {
                try {
                    zynvbg::CheckJsonObject(json, "config");
                } catch (const std::exception& e) {
                    GST_ELEMENT_WARNING(
                        self, LIBRARY, SETTINGS,
                        ("refused: %s; the configuration stays as it was", e.what()), (nullptr));
                    return;
                }
            }
            s.config = json;
            break;
        }
        case PROP_PROCESSING_MODE:
            s.mode = g_value_get_int(value);
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

static void gst_zyn_vbg_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
    GstZynVbg* self = GST_ZYN_VBG(object);
    Private* p = self->priv;
    std::lock_guard<std::mutex> lock(p->mutex);
    const Settings& s = p->wanted;
    switch (id) {
        case PROP_EFFECT:
            g_value_set_enum(value, s.effect);
            break;
        case PROP_BACKGROUND:
            g_value_set_string(value, s.background.c_str());
            break;
        case PROP_TOUCHUP_SIGMA:
            g_value_set_double(value, s.sigma);
            break;
        case PROP_CONFIG:
            g_value_set_string(value, s.config.c_str());
            break;
        case PROP_PROCESSING_MODE:
            g_value_set_int(value, s.mode);
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

// Brings the frames to the wanted settings. At start a failure is an error; later it is a
// warning, the wanted settings go back to the applied ones and frames carry on. Streaming thread
// (or start, before frames flow).
static gboolean gst_zyn_vbg_apply(GstZynVbg* self, bool starting) {
    Private* p = self->priv;
    Settings want;
    uint64_t generation;
    {
        std::lock_guard<std::mutex> lock(p->mutex);
        if (!starting && p->generation == p->appliedGeneration) {
            return TRUE;
        }
        want = p->wanted;
        generation = p->generation;
    }
    std::string error;
    uint32_t status = ZYN_STATUS_SUCCESS;
    bool opened = true;
    const std::string json = want.json();
    if (want.effect == kEffectBackground && want.config.empty() && want.background.empty()) {
        error = "the background effect needs a background file (the background property)";
        status = ZYN_STATUS_CONFIG_FAILED;
    } else if (!json.empty()) {
        const bool fresh = !p->instance.alive() || starting || want.mode != p->applied.mode ||
                           want.folders != p->instance.folders();
        opened = p->instance.open(want.folders, error);
        if (!opened) {
            status = ZYN_STATUS_CONFIG_FAILED;
        } else if (fresh) {
            status = p->instance.create(json, want.mode, error);
        } else if (json != p->applied.json() || want.mode != p->applied.mode) {
            status = p->instance.update(json, want.mode, error);
        }
    }
    if (status == ZYN_STATUS_SUCCESS) {
        p->applied = want;
        p->appliedGeneration = generation;
        p->active = !json.empty();
        GST_INFO_OBJECT(self, "effect configuration now %s", json.empty() ? "none" : json.c_str());
        return TRUE;
    }
    if (starting) {
        if (!opened) {
            GST_ELEMENT_ERROR(self, LIBRARY, INIT, ("cannot use the library: %s", error.c_str()),
                              (nullptr));
        } else {
            GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS,
                              ("cannot start the effect (status %s): %s",
                               zyngst::StatusText(status).c_str(), error.c_str()),
                              (nullptr));
        }
        return FALSE;
    }
    GST_ELEMENT_WARNING(self, LIBRARY, SETTINGS,
                        ("change refused (status %s): %s; carrying on with the previous effect",
                         zyngst::StatusText(status).c_str(), error.c_str()),
                        (nullptr));
    {
        std::lock_guard<std::mutex> lock(p->mutex);
        if (p->generation == generation) {
            p->wanted = p->applied;
            ++p->generation;
        }
        p->appliedGeneration = p->generation;
    }
    if (p->active && !p->instance.alive()) {
        // Not even the last good configuration could be made again: frames pass unchanged.
        p->active = false;
    }
    return TRUE;
}

static gboolean gst_zyn_vbg_start(GstBaseTransform* trans) {
    GstZynVbg* self = GST_ZYN_VBG(trans);
    {
        std::lock_guard<std::mutex> lock(self->priv->mutex);
        self->priv->stats.reset();
    }
    self->priv->warnedFrameFailure = false;
    return gst_zyn_vbg_apply(self, true);
}

static gboolean gst_zyn_vbg_stop(GstBaseTransform* trans) {
    GstZynVbg* self = GST_ZYN_VBG(trans);
    self->priv->instance.close();
    self->priv->active = false;
    return TRUE;
}

static void gst_zyn_vbg_publish_stats(GstZynVbg* self, bool post) {
    Private* p = self->priv;
    zyngst::PublishStats(GST_ELEMENT(self), p->stats, p->instance, p->mutex, p->lastStats, post);
}

static GstFlowReturn gst_zyn_vbg_transform_frame(GstVideoFilter* filter, GstVideoFrame* in,
                                                 GstVideoFrame* out) {
    GstZynVbg* self = GST_ZYN_VBG(filter);
    Private* p = self->priv;
    gst_zyn_vbg_apply(self, false);
    int64_t libraryNs = 0;
    bool failed = false;
    if (p->active && p->instance.alive()) {
        const ZynNativeInputFrame input = zyngst::RecordOf(in);
        ZynNativeInputFrame output = zyngst::RecordOf(out);
        const int64_t begin = zyngst::MonotonicNs();
        const uint32_t status =
            p->instance.library().ProcessFrame(p->instance.handle(), &input, &output);
        libraryNs = zyngst::MonotonicNs() - begin;
        failed = status != ZYN_STATUS_SUCCESS;
        if (failed && !p->warnedFrameFailure) {
            p->warnedFrameFailure = true;
            GST_ELEMENT_WARNING(self, LIBRARY, FAILED,
                                ("the library failed a frame (status %s); such frames pass "
                                 "unchanged",
                                 zyngst::StatusText(status).c_str()),
                                (nullptr));
        }
    }
    if (!p->active || failed) {
        gst_video_frame_copy(out, in);
    }
    {
        std::lock_guard<std::mutex> lock(p->mutex);
        p->stats.frame(libraryNs, failed);
    }
    if (p->stats.messageDue()) {
        gst_zyn_vbg_publish_stats(self, true);
    }
    return GST_FLOW_OK;
}

// Output buffers come from a downstream pool only when it is a video buffer pool, whose buffers
// always map as frames. Other pools (PipeWire's sink hands out buffers without memory before its
// stream runs) make the base class refuse the frame; the element then uses a pool of its own and
// the sink copies.
static gboolean gst_zyn_vbg_decide_allocation(GstBaseTransform* trans, GstQuery* query) {
    for (guint i = 0; i < gst_query_get_n_allocation_pools(query);) {
        GstBufferPool* pool = nullptr;
        gst_query_parse_nth_allocation_pool(query, i, &pool, nullptr, nullptr, nullptr);
        const bool usable = pool == nullptr || GST_IS_VIDEO_BUFFER_POOL(pool);
        if (pool != nullptr) {
            gst_object_unref(pool);
        }
        if (usable) {
            ++i;
        } else {
            gst_query_remove_nth_allocation_pool(query, i);
        }
    }
    return GST_BASE_TRANSFORM_CLASS(gst_zyn_vbg_parent_class)->decide_allocation(trans, query);
}

static gboolean gst_zyn_vbg_sink_event(GstBaseTransform* trans, GstEvent* event) {
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS) {
        // The last figures of a stream shorter than a second are posted too.
        gst_zyn_vbg_publish_stats(GST_ZYN_VBG(trans), true);
    }
    return GST_BASE_TRANSFORM_CLASS(gst_zyn_vbg_parent_class)->sink_event(trans, event);
}

static void gst_zyn_vbg_finalize(GObject* object) {
    GstZynVbg* self = GST_ZYN_VBG(object);
    if (self->priv->lastStats != nullptr) {
        gst_structure_free(self->priv->lastStats);
    }
    delete self->priv;
    G_OBJECT_CLASS(gst_zyn_vbg_parent_class)->finalize(object);
}

static void gst_zyn_vbg_init(GstZynVbg* self) {
    self->priv = new Private();
    self->priv->wanted.folders = zyngst::DefaultFolders();
}

static void gst_zyn_vbg_class_init(GstZynVbgClass* klass) {
    GObjectClass* object = G_OBJECT_CLASS(klass);
    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* trans = GST_BASE_TRANSFORM_CLASS(klass);
    GstVideoFilterClass* filter = GST_VIDEO_FILTER_CLASS(klass);
    GST_DEBUG_CATEGORY_INIT(zynvbg_debug, "zynvbg", 0, "ZYNNativeVBG video effects");

    object->set_property = gst_zyn_vbg_set_property;
    object->get_property = gst_zyn_vbg_get_property;
    object->finalize = gst_zyn_vbg_finalize;
    const auto rw = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                             GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(
        object, PROP_EFFECT,
        g_param_spec_enum("effect", "Effect", "The effect applied to every frame",
                          gst_zyn_vbg_effect_get_type(), kEffectBlur, rw));
    g_object_class_install_property(
        object, PROP_BACKGROUND,
        g_param_spec_string("background", "Background file",
                            "Picture, animated GIF or video behind the person (effect=background); "
                            "any path, placed in the library's file cache",
                            "", rw));
    g_object_class_install_property(
        object, PROP_TOUCHUP_SIGMA,
        g_param_spec_double("touchup-sigma", "Touch-up sigma",
                            "Strength of the skin smoothing (effect=touchup)", 0.0, 1.0, 0.03, rw));
    g_object_class_install_property(
        object, PROP_CONFIG,
        g_param_spec_string("config", "Effect configuration",
                            "A whole effect configuration as JSON (several effects, options the "
                            "other properties lack); when set it replaces effect, background and "
                            "touchup-sigma. Background file names may be any path",
                            "", rw));
    g_object_class_install_property(
        object, PROP_PROCESSING_MODE,
        g_param_spec_int("processing-mode", "Processing mode",
                         "1 GPU (falls back to the CPU), 2 CPU, 3 automatic, 7 OpenVINO CPU, "
                         "8 ONNX Runtime CPU; used when the configuration names none",
                         1, 9, 3, rw));
    zyngst::InstallSharedProperties(object, PROP_MODELS, rw);

    gst_element_class_set_static_metadata(
        element, "ZYNNativeVBG video effects", "Filter/Effect/Video",
        "Background blur, background replacement and touch-up of the person in camera frames",
        "ZYNNativeVBG");
    GstCaps* caps = gst_caps_from_string(ZYN_VIDEO_CAPS);
    gst_element_class_add_pad_template(
        element, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
    gst_element_class_add_pad_template(
        element, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);

    trans->start = gst_zyn_vbg_start;
    trans->stop = gst_zyn_vbg_stop;
    trans->sink_event = gst_zyn_vbg_sink_event;
    trans->decide_allocation = gst_zyn_vbg_decide_allocation;
    filter->transform_frame = gst_zyn_vbg_transform_frame;
    gst_type_mark_as_plugin_api(gst_zyn_vbg_effect_get_type(), static_cast<GstPluginAPIFlags>(0));
}
