// The GStreamer elements of gst/, loaded from the build tree like any plugin, on the astronaut
// picture: harnesses, gst-launch-1.0 pipelines decoded again, and a PipeWire camera node.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_paths.h"

namespace {

void RunCommand(const std::string& command) {
    ASSERT_EQ(0, std::system((command + " >/dev/null 2>&1").c_str())) << command;
}

// gst-launch-1.0, with the sanitizer and C++ runtimes preloaded in a sanitizer build.
const std::string kGstLaunch =
#ifdef ZYN_ASAN_RUNTIME
    "env LD_PRELOAD=" ZYN_ASAN_RUNTIME " ASAN_OPTIONS=detect_leaks=0 gst-launch-1.0";
#else
    "gst-launch-1.0";
#endif

// The scratch folder of the program: the library is initialised once with its folders.
std::string Path(const std::string& name) {
    static const zyn_test::TempDir dir{"gst"};
    return (dir / name).string();
}
std::string Props() {
    return "processing-mode=8 models=" + zyn_test::RealModelsDir().string() +
           " cache=" + Path("cache") + " log=" + Path("log");
}
// A flat-coloured picture (an ffmpeg colour name).
std::string ColourFile(const std::string& colour, int w, int h) {
    const std::string size = std::to_string(w) + "x" + std::to_string(h);
    RunCommand("ffmpeg -y -v error -f lavfi -i color=c=" + colour + ":s=" + size + " -frames:v 1 " +
               Path(colour + size + ".png"));
    return Path(colour + size + ".png");
}
// The astronaut scaled to 180 rows on a flat grey wall (luma 128) 320 wide, as a file: the strips
// left and right are background, the face is the person.
std::string AstronautFile(const std::string& name, const std::string& input = "",
                          const std::string& output = "") {
    RunCommand(
        "ffmpeg -y -v error " + input + " -i " + zyn_test::SampleImage("astronaut.png").string() +
        " -vf 'scale=-2:180,pad=320:180:(ow-iw)/2:0:color=0x808080' " + output + " " + Path(name));
    return Path(name);
}

struct Box {  // in fractions of a picture's sides
    double x0, y0, x1, y1;
};
// The face and the wall in the astronaut frame (the picture spans x 0.219 to 0.781).
constexpr Box kFace{0.44, 0.14, 0.51, 0.30}, kLeftWall{0.02, 0.1, 0.18, 0.9};

constexpr int kW = 320, kH = 180;

struct Picture {  // packed I420
    int w = 0, h = 0;
    std::vector<uint8_t> i420;
    uint8_t at(int c, int x, int y) const {
        return c == 0 ? i420[y * w + x]
                      : i420[w * h + (c - 1) * (w / 2) * (h / 2) + (y / 2) * (w / 2) + x / 2];
    }
    // The mean of plane c (0 Y, 1 U, 2 V) or, with `other`, the mean difference of all three.
    double mean(int c, const Box& b, const Picture* other = nullptr) const {
        double sum = 0;
        int n = 0;
        for (int y = static_cast<int>(b.y0 * h); y < static_cast<int>(b.y1 * h); ++y) {
            for (int x = static_cast<int>(b.x0 * w); x < static_cast<int>(b.x1 * w); ++x, ++n) {
                for (int p = other ? 0 : c; p <= (other ? 2 : c); ++p) {
                    sum += other ? std::abs(at(p, x, y) - other->at(p, x, y)) : at(p, x, y);
                }
            }
        }
        return n ? sum / n : 0;
    }
    double difference(const Picture& o, const Box& b) const { return mean(0, b, &o); }
    GstBuffer* buffer() const { return gst_buffer_new_memdup(i420.data(), i420.size()); }
};

// The last of `frames` frames of w x h in a raw I420 file.
Picture LastFrame(const std::string& file, int frames, int w, int h) {
    const std::string bytes = zyn_test::ReadFile(file);
    const size_t frame = static_cast<size_t>(w) * h * 3 / 2;
    EXPECT_EQ(frames * frame, bytes.size());
    return {w, h, std::vector<uint8_t>(bytes.end() - std::min(frame, bytes.size()), bytes.end())};
}

const Picture& Astronaut() {
    static const Picture p =
        LastFrame(AstronautFile("astronaut.yuv", "", "-pix_fmt yuv420p -f rawvideo"), 1, kW, kH);
    return p;
}

std::string CapsFor(const std::string& format, int w, int h) {
    return "video/x-raw,format=" + format + ",width=" + std::to_string(w) +
           ",height=" + std::to_string(h) + ",framerate=15/1";
}

// An element in a harness fed and read in I420: zynvbg between conversions to and from `format`,
// or zynvbgpresenter with a second harness feeding presentation frames (640x360) in `format`.
struct Element {
    GstElement* element;
    GstHarness* h;
    GstHarness* slides = nullptr;
    GstBus* bus = gst_bus_new();
    Element(const std::string& factory, const std::string& props, const std::string& format) {
        if (factory == "zynvbg") {
            h = gst_harness_new_parse(("videoconvert ! capsfilter caps=video/x-raw,format=" +
                                       format + " ! zynvbg name=e " + Props() + " " + props +
                                       " ! videoconvert ! capsfilter caps=video/x-raw,format=I420")
                                          .c_str());
            element = gst_bin_get_by_name(GST_BIN(h->element), "e");
        } else {
            element = gst_parse_launch((factory + " " + Props() + " " + props).c_str(), nullptr);
            h = gst_harness_new_with_element(element, "camera", "src");
            slides = gst_harness_new_with_element(element, "presentation", nullptr);
            gst_harness_set_src_caps_str(slides, CapsFor(format, 640, 360).c_str());
        }
        gst_element_set_bus(h->element, bus);
        gst_harness_set_src_caps_str(h, CapsFor("I420", kW, kH).c_str());
    }
    ~Element() {
        if (slides != nullptr) {
            gst_harness_teardown(slides);
        }
        gst_harness_teardown(h);
        gst_object_unref(element);
        gst_object_unref(bus);
    }
    // Pushes the astronaut `n` times and returns the last output; every push gives one frame.
    Picture run(int n) {
        GstBuffer* out = nullptr;
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(GST_FLOW_OK, gst_harness_push(h, Astronaut().buffer()));
            gst_clear_buffer(&out);
            out = gst_harness_pull(h);
        }
        g_autoptr(GstCaps) caps = gst_pad_get_current_caps(h->sinkpad);
        GstVideoInfo info;
        EXPECT_TRUE(gst_video_info_from_caps(&info, caps));
        Picture p{info.width, info.height, std::vector<uint8_t>(gst_buffer_get_size(out))};
        gst_buffer_extract(out, 0, p.i420.data(), p.i420.size());
        gst_buffer_unref(out);
        return p;
    }
    std::string warning() {  // the text of the next warning posted, "" when none
        g_autoptr(GstMessage) m = gst_bus_pop_filtered(bus, GST_MESSAGE_WARNING);
        g_autoptr(GError) error = nullptr;
        if (m != nullptr) {
            gst_message_parse_warning(m, &error, nullptr);
        }
        return error != nullptr ? error->message : "";
    }
    std::string config() {
        g_autofree gchar* text = nullptr;
        g_object_get(element, "config", &text, nullptr);
        return text;
    }
};

class GstElements : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        g_setenv("GST_PLUGIN_PATH", ZYN_GST_PLUGIN_DIR, TRUE);
        g_setenv("GST_REGISTRY_1_0", Path("registry.bin").c_str(), TRUE);
        // Plugins scanned in this process: a sanitizer build's cannot load in the helper program.
        g_setenv("GST_REGISTRY_FORK", "no", TRUE);
        g_setenv("XDG_CACHE_HOME", Path("xdg").c_str(), TRUE);
        gst_init(nullptr, nullptr);
        ASSERT_NE(nullptr, gst_element_factory_find("zynvbg"));
    }
};

}  // namespace

// Defaults as the class declares them and as a new element holds them (enums by their nick).
TEST_F(GstElements, PropertiesStartAtTheirDefaults) {
    const std::string folders =
        " cache=" + Path("xdg/zynvbg/cache") + " log=" + Path("xdg/zynvbg/logs");
    for (const auto& [factory, defaults] :
         {std::pair<std::string, std::string>{"zynvbg",
                                              "effect=blur background= touchup-sigma=0.03 "
                                              "config= processing-mode=3" +
                                                  folders},
          {"zynvbgpresenter",
           "mode=overlay room-background= size=0 offset-x=0.3 offset-y=0.3 "
           "opacity=1 processing-mode=3" +
               folders}}) {
        GstElement* e = gst_element_factory_make(factory.c_str(), nullptr);
        std::istringstream properties(defaults);
        for (std::string token; properties >> token;) {
            const std::string property = token.substr(0, token.find('='));
            const std::string expected = token.substr(token.find('=') + 1);
            SCOPED_TRACE(factory + " " + property);
            GParamSpec* pspec =
                g_object_class_find_property(G_OBJECT_GET_CLASS(e), property.c_str());
            ASSERT_NE(nullptr, pspec);
            g_auto(GValue) held = G_VALUE_INIT;
            g_auto(GValue) wanted = G_VALUE_INIT;
            g_value_init(&held, pspec->value_type);
            g_value_init(&wanted, pspec->value_type);
            g_object_get_property(G_OBJECT(e), property.c_str(), &held);
            if (G_VALUE_HOLDS_STRING(&wanted)) {
                g_value_set_string(&wanted, expected.c_str());
            } else {
                ASSERT_TRUE(gst_value_deserialize(&wanted, expected.c_str()));
            }
            EXPECT_EQ(0, g_param_values_cmp(pspec, &wanted, g_param_spec_get_default_value(pspec)));
            EXPECT_EQ(0, g_param_values_cmp(pspec, &wanted, &held))
                << "a new element holds another";
        }
        gst_object_unref(e);
    }
}

// blur -> background -> touch-up -> none on one playing element, in NV12 and I420, each effect
// showing on the next frames with the face kept; other formats are refused.
TEST_F(GstElements, FilterChangesEffectWhilePlayingWithoutLosingAFrame) {
    const std::string red = ColourFile("red", 160, 90);
    const Picture& in = Astronaut();
    for (const char* format : {"NV12", "I420"}) {
        SCOPED_TRACE(format);
        Element f("zynvbg", "effect=blur", format);
        // Blur: the face as it was, the shuttle's detail above right of him smoothed.
        Picture out = f.run(5);
        EXPECT_LT(out.difference(in, kFace), 6.0);
        EXPECT_GT(out.difference(in, {0.58, 0.02, 0.62, 0.15}), 4.0);
        // A red picture behind him: the wall turns red (V well above neutral 128).
        g_object_set(f.element, "effect", 2, "background", red.c_str(), nullptr);
        out = f.run(3);
        EXPECT_LT(out.difference(in, kFace), 6.0);
        EXPECT_GT(out.mean(2, kLeftWall), 220.0);
        // Touch-up alone: the wall is the camera's grey again.
        g_object_set(f.element, "effect", 3, "touchup-sigma", 0.1, nullptr);
        EXPECT_LT(f.run(3).difference(in, kLeftWall), 1.0);
        // None: the frame exactly.
        g_object_set(f.element, "effect", 0, nullptr);
        EXPECT_EQ(in.i420, f.run(1).i420);
        EXPECT_EQ("", f.warning());
        g_autoptr(GstStructure) stats = nullptr;
        g_object_get(f.element, "stats", &stats, nullptr);
        g_autofree gchar* text = gst_structure_to_string(stats);
        EXPECT_EQ(
            0u, std::string(text).rfind("zynvbg, frames=(guint64)12, failed-frames=(guint64)0,", 0))
            << text;
    }
    g_autoptr(GstElementFactory) factory = gst_element_factory_find("zynvbg");
    for (const char* format : {"RGBx", "YUY2"}) {
        g_autoptr(GstCaps) caps = gst_caps_from_string(CapsFor(format, kW, kH).c_str());
        EXPECT_FALSE(gst_element_factory_can_sink_any_caps(factory, caps)) << format;
    }
}

// A refused configuration: a warning with the status, the property back to what it was, frames
// with the last good effect; a text that is not JSON is refused by the property itself.
TEST_F(GstElements, FilterRefusedChangeWarnsAndKeepsTheLastGoodEffect) {
    Element f("zynvbg", "effect=background background=" + ColourFile("red", 160, 90), "NV12");
    f.run(3);
    g_object_set(f.element, "config", R"({"effects": [{"name": "sparkle"}]})", nullptr);
    EXPECT_GT(f.run(2).mean(2, kLeftWall), 220.0);
    EXPECT_NE(std::string::npos, f.warning().find("status 3 (configuration or creation failure)"));
    EXPECT_EQ("", f.config());
    g_object_set(f.element, "config", R"({"effects": [{"name": "blur"}]})", nullptr);
    g_object_set(f.element, "config", "[1, 2", nullptr);
    EXPECT_NE(std::string::npos, f.warning().find("config is not valid JSON"));
    EXPECT_EQ(R"({"effects": [{"name": "blur"}]})", f.config());
}

TEST_F(GstElements, FilterStartErrorsNameTheCause) {
    const std::array<std::string, 2> cases[] = {
        {"models=" + Path(""),
         "status 3 (configuration or creation failure): no segmentation "
         "model (model.winml) in the models folder '" +
             Path("") + "'"},
        {"effect=background background=/nonexistent/beach.png",
         "cannot read '/nonexistent/beach.png': no such file"},
        {R"('config="{\"effects\": [{\"name\": \"sparkle\"}]}"')",
         "status 3 (configuration or creation failure)"}};
    for (const auto& [properties, expected] : cases) {
        SCOPED_TRACE(properties);
        EXPECT_NE(0, std::system((kGstLaunch + " videotestsrc num-buffers=2 ! zynvbg " + Props() +
                                  " " + properties + " ! fakesink > " + Path("start.log") + " 2>&1")
                                     .c_str()));
        EXPECT_NE(std::string::npos, zyn_test::ReadFile(Path("start.log")).find(expected));
    }
}

// A VP8 clip through decodebin and each element into Motion-JPEG, to EOS with the statistics
// message; decoded again: every frame, the picture behind the person or the presenter's room.
TEST_F(GstElements, GstLaunchRunsAClipToEosThroughEachElement) {
    const std::string camera =
        "filesrc location=" +
        AstronautFile("clip.webm", "-loop 1", "-t 2 -r 15 -c:v libvpx -b:v 2M") +
        " ! decodebin ! videoconvert ! ";
    const struct {
        std::string name, middle;
        int width, height;
    } cases[] = {
        {"filter",
         "zynvbg effect=background background=" + ColourFile("red", 160, 90) + " " + Props(), 320,
         180},
        {"presenter",
         "zynvbgpresenter name=p mode=conferenceroom room-background=" +
             ColourFile("green", 480, 270) + " " + Props() +
             " filesrc location=" + ColourFile("blue", 640, 360) +
             " ! pngdec ! imagefreeze ! videoconvert ! p.presentation p.",
         480, 270},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string log = Path(c.name + ".log");
        RunCommand(
            kGstLaunch + " -m " + camera + c.middle +
            " ! videoconvert ! jpegenc ! avimux ! filesink location=" + Path(c.name + ".avi") +
            " > " + log + " 2>&1 && grep -q 'Got EOS from element' " + log +
            " && grep -q 'zynvbg, frames=(guint64)30' " + log);
        RunCommand("ffmpeg -y -v error -i " + Path(c.name + ".avi") +
                   " -pix_fmt yuv420p -f rawvideo " + Path(c.name + ".yuv"));
        const Picture last = LastFrame(Path(c.name + ".yuv"), 30, c.width, c.height);
        if (c.name == "filter") {
            EXPECT_LT(last.difference(Astronaut(), kFace), 20.0);
            EXPECT_GT(last.mean(2, kLeftWall), 200.0);
        } else {
            // The room's green (0, 128, 0) in its top-left corner: U 91 and V 81, both well below
            // the neutral 128 where blue has U 240 and black or grey 128.
            EXPECT_LT(last.mean(1, {0, 0, 0.05, 0.05}), 110.0);
            EXPECT_LT(last.mean(2, {0, 0, 0.05, 0.05}), 110.0);
        }
    }
}

// The overlay layout: camera frames before any presentation come out at the camera's size, then
// at the presentation's with the presenter at the configured place.
TEST_F(GstElements, PresenterPlacesThePresenterOnThePresentation) {
    // 320x180 camera at half size on 640x360: 160x90 at x = (640 - 160) / 2 + 0.25 * 640 = 400,
    // y = (360 - 90) / 2 + 0 = 135.
    Element p("zynvbgpresenter", "mode=overlay size=0.5 offset-x=0.25 offset-y=0", "I420");
    Picture out = p.run(1);
    EXPECT_EQ(kW, out.w);
    EXPECT_EQ(kH, out.h);
    // A blue presentation: Y 41, U 240, V 110.
    Picture blue{640, 360, std::vector<uint8_t>(640 * 360, 41)};
    blue.i420.resize(640 * 360 + 320 * 180, 240);
    blue.i420.resize(640 * 360 * 3 / 2, 110);
    ASSERT_EQ(GST_FLOW_OK, gst_harness_push(p.slides, blue.buffer()));
    out = p.run(6);
    ASSERT_EQ(640, out.w);
    ASSERT_EQ(360, out.h);
    // The face inside the viewport is skin, not the presentation's blue; without the offset blue.
    const Box face{(400 + 160 * kFace.x0) / 640, (135 + 90 * kFace.y0) / 360,
                   (400 + 160 * kFace.x1) / 640, (135 + 90 * kFace.y1) / 360};
    EXPECT_LT(out.mean(1, face), 140.0);
    EXPECT_GT(out.mean(1, {face.x0 - 0.25, face.y0, face.x1 - 0.25, face.y1}), 230.0);
    EXPECT_GT(out.mean(1, {0, 0, 0.1, 0.1}), 230.0);
}

// zynvbg as a PipeWire camera node (private daemon, session manager and bus), read back by
// pipewiresrc: the person on the red picture.
TEST_F(GstElements, PipeWireCameraNodeRoundTrip) {
    for (const char* program : {"pipewire", "wireplumber", "dbus-run-session"}) {
        if (std::system((std::string("command -v ") + program + " >/dev/null").c_str()) != 0) {
            GTEST_SKIP() << program << " is not installed";
        }
    }
    std::filesystem::create_directories(Path("runtime"));
    zyn_test::WriteFile(
        Path("round_trip.sh"),
        "export XDG_RUNTIME_DIR=" + Path("runtime") +
            "\nwaitfor() { for i in $(seq 100); do eval \"$1\" && return 0; sleep 0.2; done; "
            "return 1; }\npipewire & PW=$!\nwaitfor 'test -S $XDG_RUNTIME_DIR/pipewire-0'\n"
            "wireplumber & WP=$!\n" +
            kGstLaunch + " filesrc location=" + AstronautFile("astronaut.png") +
            " ! pngdec ! videoconvert ! imagefreeze is-live=true num-buffers=900 ! "
            "video/x-raw,framerate=15/1 ! videoconvert ! video/x-raw,format=NV12 ! zynvbg "
            "effect=background background=" +
            ColourFile("red", 160, 90) + " " + Props() +
            " ! pipewiresink mode=provide client-name=zynvbg-camera "
            "stream-properties='p,media.class=Video/Source,node.name=zynvbg-camera' & SINK=$!\n"
            "waitfor 'pw-cli ls Node | grep -q zynvbg-camera'\ntimeout 30 " +
            kGstLaunch +
            " pipewiresrc target-object=zynvbg-camera num-buffers=20 ! videoconvert ! "
            "video/x-raw,format=I420 ! filesink location=" +
            Path("back.yuv") + "\nRESULT=$?\nkill $SINK $WP $PW\nwait\nexit $RESULT\n");
    ASSERT_EQ(0, std::system(("timeout 90 dbus-run-session -- bash " + Path("round_trip.sh") +
                              " > " + Path("pipewire.log") + " 2>&1")
                                 .c_str()))
        << zyn_test::ReadFile(Path("pipewire.log"));
    const Picture last = LastFrame(Path("back.yuv"), 20, kW, kH);
    EXPECT_LT(last.difference(Astronaut(), kFace), 12.0);
    EXPECT_GT(last.mean(2, kLeftWall), 200.0);
}
