// The GStreamer elements of gst/, loaded from the build tree as GStreamer loads any plugin, on the
// astronaut sample picture: caps, the person kept and the background changed, changes while
// playing with no frame lost, refused changes and errors at start, a pipeline run by
// gst-launch-1.0 to EOS whose output is decoded again, and the presenter layouts.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/test_paths.h"

namespace fs = std::filesystem;

namespace {

void RunCommand(const std::string& command) {
    ASSERT_EQ(0, std::system((command + " >/dev/null 2>&1").c_str())) << command;
}

// gst-launch-1.0, with the sanitizer runtime preloaded in a sanitizer build (GStreamer's own
// allocations at exit are not this project's leaks).
std::string GstLaunch() {
#ifdef ZYN_ASAN_RUNTIME
    return "env LD_PRELOAD=" ZYN_ASAN_RUNTIME " ASAN_OPTIONS=detect_leaks=0 gst-launch-1.0";
#else
    return "gst-launch-1.0";
#endif
}

// Scratch folders shared by the whole program: the library is initialised once with them.
struct Scratch {
    zyn_test::TempDir dir{"gst"};
    std::string props() const {
        return "processing-mode=8 models=" + zyn_test::RealModelsDir().string() +
               " cache=" + (dir / "cache").string() + " log=" + (dir / "log").string();
    }
    void configure(GstElement* e) const {
        g_object_set(e, "processing-mode", 8, "models", zyn_test::RealModelsDir().c_str(), "cache",
                     (dir / "cache").c_str(), "log", (dir / "log").c_str(), nullptr);
    }
    // A flat-coloured picture (ffmpeg colour name).
    std::string picture(const std::string& colour, int w, int h) const {
        const fs::path path = dir / (colour + std::to_string(w) + "x" + std::to_string(h) + ".png");
        if (!fs::exists(path)) {
            RunCommand("ffmpeg -y -v error -f lavfi -i color=c=" + colour +
                       ":s=" + std::to_string(w) + "x" + std::to_string(h) + " -frames:v 1 '" +
                       path.string() + "'");
        }
        return path.string();
    }
};

Scratch& scratch() {
    static Scratch s;
    return s;
}

// A picture as packed I420 with its measurements. Boxes are fractions of the picture.
struct Picture {
    int w = 0, h = 0;
    std::vector<uint8_t> i420;
    const uint8_t* plane(int c) const {
        return i420.data() + (c == 0 ? 0 : w * h + (c - 1) * (w / 2) * (h / 2));
    }
    uint8_t at(int c, int x, int y) const {
        return c == 0 ? plane(0)[y * w + x] : plane(c)[(y / 2) * (w / 2) + x / 2];
    }
    double mean(int c, double x0, double y0, double x1, double y1) const {
        double sum = 0;
        int n = 0;
        for (int y = static_cast<int>(y0 * h); y < static_cast<int>(y1 * h); ++y) {
            for (int x = static_cast<int>(x0 * w); x < static_cast<int>(x1 * w); ++x, ++n) {
                sum += at(c, x, y);
            }
        }
        return n ? sum / n : 0;
    }
    double difference(const Picture& o, double x0, double y0, double x1, double y1) const {
        double sum = 0;
        int n = 0;
        for (int y = static_cast<int>(y0 * h); y < static_cast<int>(y1 * h); ++y) {
            for (int x = static_cast<int>(x0 * w); x < static_cast<int>(x1 * w); ++x, ++n) {
                for (int c = 0; c < 3; ++c) {
                    sum += std::abs(at(c, x, y) - o.at(c, x, y));
                }
            }
        }
        return n ? sum / n : 0;
    }
};

// The astronaut scaled to the frame height on a flat grey wall (luma 128), as the engine suites
// make it: the strips left and right of the picture are background, the face is the person.
constexpr int kW = 320, kH = 180;
const Picture& Astronaut() {
    static Picture p = [] {
        const fs::path raw = scratch().dir / "astronaut.yuv";
        RunCommand("ffmpeg -y -v error -i '" + zyn_test::SampleImage("astronaut.png").string() +
                   "' -vf 'scale=-2:" + std::to_string(kH) + ",pad=" + std::to_string(kW) + ":" +
                   std::to_string(kH) +
                   ":(ow-iw)/2:0:color=0x808080' -pix_fmt yuv420p -f rawvideo '" + raw.string() +
                   "'");
        const std::string bytes = zyn_test::ReadFile(raw);
        return Picture{kW, kH, std::vector<uint8_t>(bytes.begin(), bytes.end())};
    }();
    return p;
}
// The face and the wall in the astronaut frame (the picture spans x 0.219 to 0.781).
struct Box {
    double x0, y0, x1, y1;
};
constexpr Box kFace{0.44, 0.14, 0.51, 0.30};
constexpr Box kLeftWall{0.02, 0.1, 0.18, 0.9};

GstBuffer* ToBuffer(const Picture& p, GstVideoFormat format) {
    GstVideoInfo info;
    gst_video_info_set_format(&info, format, p.w, p.h);
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, info.size, nullptr);
    GstVideoFrame f;
    gst_video_frame_map(&f, &info, buffer, GST_MAP_WRITE);
    for (int y = 0; y < p.h; ++y) {
        memcpy(static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&f, 0)) +
                   y * GST_VIDEO_FRAME_PLANE_STRIDE(&f, 0),
               p.plane(0) + y * p.w, p.w);
    }
    for (int y = 0; y < p.h / 2; ++y) {
        for (int x = 0; x < p.w / 2; ++x) {
            const uint8_t u = p.plane(1)[y * (p.w / 2) + x], v = p.plane(2)[y * (p.w / 2) + x];
            if (format == GST_VIDEO_FORMAT_NV12) {
                uint8_t* row = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&f, 1)) +
                               y * GST_VIDEO_FRAME_PLANE_STRIDE(&f, 1);
                row[2 * x] = u;
                row[2 * x + 1] = v;
            } else {
                for (int c = 1; c < 3; ++c) {
                    static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(
                        &f, c))[y * GST_VIDEO_FRAME_PLANE_STRIDE(&f, c) + x] = c == 1 ? u : v;
                }
            }
        }
    }
    gst_video_frame_unmap(&f);
    return buffer;
}

// The output buffer with the caps of `pad` as packed I420 (the buffer is consumed).
Picture FromBuffer(GstBuffer* buffer, GstPad* pad) {
    GstCaps* caps = gst_pad_get_current_caps(pad);
    GstVideoInfo info;
    EXPECT_TRUE(caps != nullptr && gst_video_info_from_caps(&info, caps));
    gst_caps_unref(caps);
    Picture p;
    p.w = GST_VIDEO_INFO_WIDTH(&info);
    p.h = GST_VIDEO_INFO_HEIGHT(&info);
    p.i420.resize(p.w * p.h * 3 / 2);
    GstVideoFrame f;
    gst_video_frame_map(&f, &info, buffer, GST_MAP_READ);
    const bool nv12 = GST_VIDEO_INFO_FORMAT(&info) == GST_VIDEO_FORMAT_NV12;
    for (int y = 0; y < p.h; ++y) {
        for (int x = 0; x < p.w; ++x) {
            p.i420[y * p.w + x] = static_cast<const uint8_t*>(
                GST_VIDEO_FRAME_PLANE_DATA(&f, 0))[y * GST_VIDEO_FRAME_PLANE_STRIDE(&f, 0) + x];
            if (y % 2 == 0 && x % 2 == 0) {
                for (int c = 1; c < 3; ++c) {
                    const int plane = nv12 ? 1 : c;
                    const int at = nv12 ? x + c - 1 : x / 2;
                    p.i420[p.w * p.h + (c - 1) * (p.w / 2) * (p.h / 2) + (y / 2) * (p.w / 2) +
                           x / 2] =
                        static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(
                            &f, plane))[(y / 2) * GST_VIDEO_FRAME_PLANE_STRIDE(&f, plane) + at];
                }
            }
        }
    }
    gst_video_frame_unmap(&f);
    gst_buffer_unref(buffer);
    return p;
}

std::string CapsFor(const char* format, int w, int h) {
    return std::string("video/x-raw,format=") + format + ",width=" + std::to_string(w) +
           ",height=" + std::to_string(h) + ",framerate=15/1";
}

// A zynvbg element in a harness, set up before it starts.
struct Filter {
    GstElement* element;
    GstHarness* h;
    GstBus* bus = gst_bus_new();
    explicit Filter(const std::function<void(GstElement*)>& setup, const char* format = "NV12") {
        element = gst_element_factory_make("zynvbg", nullptr);
        scratch().configure(element);
        setup(element);
        gst_element_set_bus(element, bus);
        h = gst_harness_new_with_element(element, "sink", "src");
        gst_harness_set_src_caps_str(h, CapsFor(format, kW, kH).c_str());
    }
    ~Filter() {
        gst_harness_teardown(h);
        gst_object_unref(element);
        gst_object_unref(bus);
    }
    // Pushes the astronaut `n` times and returns the last output; every push gives one frame.
    Picture run(int n, GstVideoFormat format = GST_VIDEO_FORMAT_NV12) {
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(GST_FLOW_OK, gst_harness_push(h, ToBuffer(Astronaut(), format)));
        }
        for (int i = 0; i + 1 < n; ++i) {
            gst_buffer_unref(gst_harness_pull(h));
        }
        return FromBuffer(gst_harness_pull(h), h->sinkpad);
    }
    // The text of the next warning posted, "" when none.
    std::string warning() {
        GstMessage* m = gst_bus_pop_filtered(bus, GST_MESSAGE_WARNING);
        if (m == nullptr) {
            return "";
        }
        GError* error = nullptr;
        gst_message_parse_warning(m, &error, nullptr);
        std::string text = error->message;
        g_error_free(error);
        gst_message_unref(m);
        return text;
    }
};

class GstElements : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        g_setenv("GST_PLUGIN_PATH", ZYN_GST_PLUGIN_DIR, TRUE);
        g_setenv("GST_REGISTRY_1_0", (scratch().dir / "registry.bin").c_str(), TRUE);
        // Plugins are scanned in this process, not by the helper program (which a sanitizer
        // build's plugin could not be loaded into).
        g_setenv("GST_REGISTRY_FORK", "no", TRUE);
        gst_init(nullptr, nullptr);
        ASSERT_NE(nullptr, gst_element_factory_find("zynvbg"));
    }
};

}  // namespace

TEST_F(GstElements, FilterNegotiatesNv12AndI420AtTheSameSizeAndRefusesOtherFormats) {
    const struct {
        const char* format;
        bool accepted;
    } cases[] = {{"NV12", true}, {"I420", true}, {"RGBx", false}, {"YUY2", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.format);
        Filter f([](GstElement* e) { g_object_set(e, "effect", 0, nullptr); }, c.format);
        GstVideoInfo info;
        GstCaps* caps = gst_caps_from_string(CapsFor(c.format, kW, kH).c_str());
        gst_video_info_from_caps(&info, caps);
        gst_caps_unref(caps);
        const GstFlowReturn flow =
            gst_harness_push(f.h, gst_buffer_new_allocate(nullptr, info.size, nullptr));
        EXPECT_EQ(c.accepted ? GST_FLOW_OK : GST_FLOW_NOT_NEGOTIATED, flow);
        if (c.accepted) {
            gst_buffer_unref(gst_harness_pull(f.h));
            GstCaps* out = gst_pad_get_current_caps(f.h->sinkpad);
            GstVideoInfo outInfo;
            ASSERT_TRUE(gst_video_info_from_caps(&outInfo, out));
            gst_caps_unref(out);
            EXPECT_STREQ(c.format, gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(&outInfo)));
            EXPECT_EQ(kW, GST_VIDEO_INFO_WIDTH(&outInfo));
            EXPECT_EQ(kH, GST_VIDEO_INFO_HEIGHT(&outInfo));
        }
    }
}

// blur -> background -> touch-up -> none on one playing element, in NV12 and in I420: every frame
// comes out, the face stays, and each effect shows on the next frames.
TEST_F(GstElements, FilterChangesEffectWhilePlayingWithoutLosingAFrame) {
    const std::string red = scratch().picture("red", 160, 90);
    const Picture& in = Astronaut();
    for (GstVideoFormat format : {GST_VIDEO_FORMAT_NV12, GST_VIDEO_FORMAT_I420}) {
        SCOPED_TRACE(gst_video_format_to_string(format));
        Filter f([](GstElement* e) { g_object_set(e, "effect", 1, nullptr); },
                 gst_video_format_to_string(format));
        // Blur: the face as it was, the shuttle's detail above right of him smoothed.
        Picture out = f.run(5, format);
        EXPECT_LT(out.difference(in, kFace.x0, kFace.y0, kFace.x1, kFace.y1), 6.0);
        EXPECT_GT(out.difference(in, 0.58, 0.02, 0.62, 0.15), 4.0);
        // A red picture behind him: the wall turns red (V well above neutral 128).
        g_object_set(f.element, "effect", 2, "background", red.c_str(), nullptr);
        out = f.run(3, format);
        EXPECT_LT(out.difference(in, kFace.x0, kFace.y0, kFace.x1, kFace.y1), 6.0);
        EXPECT_GT(out.mean(2, kLeftWall.x0, kLeftWall.y0, kLeftWall.x1, kLeftWall.y1), 220.0);
        // Touch-up alone: the wall is the camera's grey again.
        g_object_set(f.element, "effect", 3, "touchup-sigma", 0.1, nullptr);
        out = f.run(3, format);
        EXPECT_LT(out.difference(in, kLeftWall.x0, kLeftWall.y0, kLeftWall.x1, kLeftWall.y1), 1.0);
        // None: the frame exactly.
        g_object_set(f.element, "effect", 0, nullptr);
        out = f.run(1, format);
        EXPECT_EQ(in.i420, out.i420);
        EXPECT_EQ(12u, gst_harness_buffers_received(f.h));
        EXPECT_EQ("", f.warning());
        GstStructure* stats = nullptr;
        g_object_get(f.element, "stats", &stats, nullptr);
        guint64 frames = 0;
        if (stats != nullptr) {
            gst_structure_get_uint64(stats, "frames", &frames);
            gst_structure_free(stats);
        }
        EXPECT_EQ(12u, frames);
    }
}

// A configuration the library refuses while playing: a warning naming the status, the property
// back to what it was, and the frames go on with the last good effect. A text that is not a JSON
// object is refused by the property itself.
TEST_F(GstElements, FilterRefusedChangeWarnsAndKeepsTheLastGoodEffect) {
    const std::string red = scratch().picture("red", 160, 90);
    Filter f([&red](GstElement* e) {
        g_object_set(e, "effect", 2, "background", red.c_str(), nullptr);
    });
    f.run(3);
    g_object_set(f.element, "config", R"({"effects": [{"name": "sparkle"}]})", nullptr);
    Picture out = f.run(2);
    EXPECT_NE(std::string::npos, f.warning().find("status 3 (configuration or creation failure)"));
    EXPECT_GT(out.mean(2, kLeftWall.x0, kLeftWall.y0, kLeftWall.x1, kLeftWall.y1), 220.0);
    gchar* config = nullptr;
    g_object_get(f.element, "config", &config, nullptr);
    EXPECT_STREQ("", config);
    g_free(config);

    g_object_set(f.element, "config", R"({"effects": [{"name": "blur"}]})", nullptr);
    g_object_set(f.element, "config", "[1, 2", nullptr);
    EXPECT_NE(std::string::npos, f.warning().find("config is not valid JSON"));
    g_object_get(f.element, "config", &config, nullptr);
    EXPECT_STREQ(R"({"effects": [{"name": "blur"}]})", config);
    g_free(config);
    EXPECT_EQ(5u, gst_harness_buffers_received(f.h));
}

// Errors at start end the pipeline with an error message that names the cause.
TEST_F(GstElements, FilterStartErrorsNameTheCause) {
    const struct {
        std::string properties;
        std::string expected;
    } cases[] = {
        {"models=" + scratch().dir.str() + " cache=" + (scratch().dir / "cache").string(),
         "status 3 (configuration or creation failure): no segmentation model (model.winml) in "
         "the models folder '" +
             scratch().dir.str() + "'"},
        {"effect=background background=/nonexistent/beach.png",
         "cannot read '/nonexistent/beach.png': no such file"},
        {"config=\"{\\\"effects\\\": [{\\\"name\\\": \\\"sparkle\\\"}]}\"",
         "status 3 (configuration or creation failure)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.properties);
        GError* error = nullptr;
        GstElement* pipeline =
            gst_parse_launch(("videotestsrc num-buffers=2 ! video/x-raw,format=NV12 ! zynvbg " +
                              scratch().props() + " " + c.properties + " ! fakesink")
                                 .c_str(),
                             &error);
        ASSERT_EQ(nullptr, error);
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        GstBus* bus = gst_element_get_bus(pipeline);
        GstMessage* m = gst_bus_timed_pop_filtered(
            bus, 20 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS));
        ASSERT_NE(nullptr, m);
        ASSERT_EQ(GST_MESSAGE_ERROR, GST_MESSAGE_TYPE(m));
        gst_message_parse_error(m, &error, nullptr);
        EXPECT_NE(std::string::npos, std::string(error->message).find(c.expected))
            << error->message;
        g_error_free(error);
        gst_message_unref(m);
        gst_object_unref(bus);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
}

// gst-launch-1.0 on a generated VP8 clip of the astronaut through decodebin and zynvbg into a
// Motion-JPEG file, to EOS, with the element's statistics message; the file decoded again shows
// every frame with the picture behind the person. The same for the presenter with a still slide.
TEST_F(GstElements, GstLaunchRunsAClipToEosThroughEachElement) {
    const fs::path dir = scratch().dir.path();
    const fs::path clip = dir / "clip.webm";
    RunCommand("ffmpeg -y -v error -loop 1 -i '" + zyn_test::SampleImage("astronaut.png").string() +
               "' -vf 'scale=-2:180,pad=320:180:(ow-iw)/2:0:color=0x808080' -t 2 -r 15 -c:v libvpx "
               "-b:v 2M '" +
               clip.string() + "'");
    const std::string camera =
        "filesrc location=" + clip.string() + " ! decodebin ! videoconvert ! ";
    const struct {
        const char* name;
        std::string middle;
        int width, height;
    } cases[] = {
        {"filter",
         "zynvbg effect=background background=" + scratch().picture("red", 160, 90) + " " +
             scratch().props(),
         320, 180},
        {"presenter",
         "zynvbgpresenter name=p mode=conferenceroom room-background=" +
             scratch().picture("green", 480, 270) + " " + scratch().props() +
             " filesrc location=" + scratch().picture("blue", 640, 360) +
             " ! pngdec ! imagefreeze ! videoconvert ! p.presentation p.",
         480, 270},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path out = dir / (std::string(c.name) + ".avi");
        const fs::path log = dir / (std::string(c.name) + ".log");
        const std::string launch =
            GstLaunch() + " -m " + camera + c.middle +
            " ! videoconvert ! jpegenc ! avimux ! filesink location=" + out.string() + " > " +
            log.string() + " 2>&1";
        ASSERT_EQ(0, std::system(launch.c_str())) << zyn_test::ReadFile(log);
        const std::string messages = zyn_test::ReadFile(log);
        EXPECT_NE(std::string::npos, messages.find("Got EOS from element")) << messages;
        EXPECT_NE(std::string::npos, messages.find("zynvbg, frames=(guint64)30")) << messages;
        const fs::path raw = dir / (std::string(c.name) + ".yuv");
        RunCommand("ffmpeg -y -v error -i '" + out.string() + "' -pix_fmt yuv420p -f rawvideo '" +
                   raw.string() + "'");
        const std::string bytes = zyn_test::ReadFile(raw);
        const size_t frame = static_cast<size_t>(c.width) * c.height * 3 / 2;
        ASSERT_EQ(30 * frame, bytes.size());
        Picture last{c.width, c.height,
                     std::vector<uint8_t>(bytes.end() - static_cast<long>(frame), bytes.end())};
        if (std::string(c.name) == "filter") {
            EXPECT_LT(last.difference(Astronaut(), kFace.x0, kFace.y0, kFace.x1, kFace.y1), 20.0);
            EXPECT_GT(last.mean(2, kLeftWall.x0, kLeftWall.y0, kLeftWall.x1, kLeftWall.y1), 200.0);
        } else {
            // The room's green (0, 128, 0) in its top-left corner: U 91 and V 81, both well
            // below the neutral 128 where blue has U 240 and black or grey 128.
            EXPECT_LT(last.mean(1, 0.0, 0.0, 0.05, 0.05), 110.0);
            EXPECT_LT(last.mean(2, 0.0, 0.0, 0.05, 0.05), 110.0);
        }
    }
}

// A zynvbgpresenter with harnesses on both inputs (camera 320x180, presentation 640x360), set up
// before it starts.
struct Presenter {
    GstElement* element = gst_element_factory_make("zynvbgpresenter", nullptr);
    GstHarness* camera;
    GstHarness* slides;
    GstVideoFormat cameraFormat;
    Presenter(const std::function<void(GstElement*)>& setup, GstVideoFormat cameraFormat,
              GstVideoFormat slideFormat)
        : cameraFormat(cameraFormat) {
        scratch().configure(element);
        setup(element);
        camera = gst_harness_new_with_element(element, "camera", "src");
        slides = gst_harness_new_with_element(element, "presentation", nullptr);
        gst_harness_set_src_caps_str(
            camera, CapsFor(gst_video_format_to_string(cameraFormat), kW, kH).c_str());
        gst_harness_set_src_caps_str(
            slides, CapsFor(gst_video_format_to_string(slideFormat), 640, 360).c_str());
    }
    ~Presenter() {
        gst_harness_teardown(slides);
        gst_harness_teardown(camera);
        gst_object_unref(element);
    }
    // One camera frame in, the composed frame out.
    Picture frame() {
        EXPECT_EQ(GST_FLOW_OK, gst_harness_push(camera, ToBuffer(Astronaut(), cameraFormat)));
        return FromBuffer(gst_harness_pull(camera), camera->sinkpad);
    }
};

// The overlay layout: camera frames before any presentation come out at once (the camera's size,
// a black presentation); the first presentation sets the output to its own size with the
// presenter at the configured place; when it stops, its last frame stays.
TEST_F(GstElements, PresenterFollowsTheCameraAndPlacesThePresenter) {
    // 320x180 camera at half size on a 640x360 presentation: 160x90 at x = (640 - 160) / 2 +
    // 0.25 * 640 = 400, y = (360 - 90) / 2 + 0 = 135.
    Presenter p(
        [](GstElement* e) {
            g_object_set(e, "mode", 1, "size", 0.5, "offset-x", 0.25, "offset-y", 0.0, nullptr);
        },
        GST_VIDEO_FORMAT_NV12, GST_VIDEO_FORMAT_I420);
    Picture out;
    for (int i = 0; i < 3; ++i) {
        out = p.frame();
        EXPECT_EQ(kW, out.w);
        EXPECT_EQ(kH, out.h);
    }
    Picture blue{640, 360, std::vector<uint8_t>(640 * 360, 41)};
    blue.i420.resize(640 * 360 + 320 * 180, 240);
    blue.i420.resize(640 * 360 * 3 / 2, 110);
    ASSERT_EQ(GST_FLOW_OK, gst_harness_push(p.slides, ToBuffer(blue, GST_VIDEO_FORMAT_I420)));
    for (int i = 0; i < 6; ++i) {
        out = p.frame();
    }
    ASSERT_EQ(640, out.w);
    ASSERT_EQ(360, out.h);
    // The face (0.44-0.51 across, 0.14-0.30 down the camera frame) inside the viewport: skin, not
    // the presentation's blue (U 240); the same spot without the offset is blue.
    const double fx0 = (400 + 160 * kFace.x0) / 640, fx1 = (400 + 160 * kFace.x1) / 640;
    const double fy0 = (135 + 90 * kFace.y0) / 360, fy1 = (135 + 90 * kFace.y1) / 360;
    EXPECT_LT(out.mean(1, fx0, fy0, fx1, fy1), 140.0);
    EXPECT_GT(out.mean(1, fx0 - 0.25, fy0, fx1 - 0.25, fy1), 230.0);
    EXPECT_GT(out.mean(1, 0.0, 0.0, 0.1, 0.1), 230.0);
}

// The layouts' output sizes: the presentation's for underlay, the room picture's for the two
// rooms, whatever the camera's.
TEST_F(GstElements, PresenterOutputHasTheLayoutSize) {
    const std::string room = scratch().picture("green", 480, 270);
    const struct {
        int mode;
        int width, height;
    } cases[] = {{2, 640, 360}, {3, 480, 270}, {4, 480, 270}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        Presenter p(
            [&](GstElement* e) {
                g_object_set(e, "mode", c.mode, "room-background", room.c_str(), nullptr);
            },
            GST_VIDEO_FORMAT_I420, GST_VIDEO_FORMAT_NV12);
        const Picture grey{640, 360, std::vector<uint8_t>(640 * 360 * 3 / 2, 128)};
        ASSERT_EQ(GST_FLOW_OK, gst_harness_push(p.slides, ToBuffer(grey, GST_VIDEO_FORMAT_NV12)));
        const Picture out = p.frame();
        EXPECT_EQ(c.width, out.w);
        EXPECT_EQ(c.height, out.h);
    }
}

// The filter as a PipeWire camera node: a private PipeWire daemon and session manager on a
// private session bus in a temporary runtime folder, zynvbg into pipewiresink, pipewiresrc reading
// the node back; the frames read back show the person on the red picture.
TEST_F(GstElements, PipeWireCameraNodeRoundTrip) {
    for (const char* program : {"pipewire", "wireplumber", "dbus-run-session"}) {
        if (std::system((std::string("command -v ") + program + " >/dev/null").c_str()) != 0) {
            GTEST_SKIP() << program << " is not installed";
        }
    }
    const fs::path dir = scratch().dir / "pipewire";
    fs::create_directories(dir / "runtime");
    const fs::path still = dir / "astronaut.png";
    RunCommand("ffmpeg -y -v error -i '" + zyn_test::SampleImage("astronaut.png").string() +
               "' -vf 'scale=-2:180,pad=320:180:(ow-iw)/2:0:color=0x808080' '" + still.string() +
               "'");
    const fs::path back = dir / "back.yuv";
    const fs::path script = dir / "round_trip.sh";
    zyn_test::WriteFile(
        script,
        "export XDG_RUNTIME_DIR=" + (dir / "runtime").string() +
            "\nwaitfor() { for i in $(seq 100); do eval \"$1\" && return 0; sleep 0.2; done; "
            "return 1; }\npipewire & PW=$!\nwaitfor 'test -S $XDG_RUNTIME_DIR/pipewire-0'\n"
            "wireplumber & WP=$!\n" +
            GstLaunch() + " filesrc location=" + still.string() +
            " ! pngdec ! videoconvert ! imagefreeze is-live=true num-buffers=900 ! "
            "video/x-raw,framerate=15/1 ! videoconvert ! video/x-raw,format=NV12 ! zynvbg "
            "effect=background background=" +
            scratch().picture("red", 160, 90) + " " + scratch().props() +
            " ! pipewiresink mode=provide client-name=zynvbg-camera "
            "stream-properties='p,media.class=Video/Source,node.name=zynvbg-camera' & SINK=$!\n"
            "waitfor 'pw-cli ls Node | grep -q zynvbg-camera'\ntimeout 30 " +
            GstLaunch() +
            " pipewiresrc target-object=zynvbg-camera "
            "num-buffers=20 ! videoconvert ! video/x-raw,format=I420 ! filesink location=" +
            back.string() + "\nRESULT=$?\nkill $SINK $WP $PW\nwait\nexit $RESULT\n");
    ASSERT_EQ(0, std::system(("timeout 90 dbus-run-session -- bash " + script.string() + " > " +
                              (dir / "log").string() + " 2>&1")
                                 .c_str()))
        << zyn_test::ReadFile(dir / "log");
    const std::string bytes = zyn_test::ReadFile(back);
    const size_t frame = kW * kH * 3 / 2;
    ASSERT_EQ(20 * frame, bytes.size());
    const Picture last{kW, kH, std::vector<uint8_t>(bytes.end() - frame, bytes.end())};
    EXPECT_LT(last.difference(Astronaut(), kFace.x0, kFace.y0, kFace.x1, kFace.y1), 12.0);
    EXPECT_GT(last.mean(2, kLeftWall.x0, kLeftWall.y0, kLeftWall.x1, kLeftWall.y1), 200.0);
}
