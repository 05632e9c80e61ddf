// The zynvbg tool as a user runs it: the built binary, on generated media, with the real library.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_paths.h"

namespace fs = std::filesystem;
using Args = std::vector<std::string>;

namespace {

struct RunResult {
    int code = -1;
    std::string out, err;
};

std::ostream& operator<<(std::ostream& os, const RunResult& r) {
    return os << "exit " << r.code << "\n--- stdout\n" << r.out << "--- stderr\n" << r.err;
}

// Runs a program with stdin on /dev/null and its output streams captured through files in `dir`.
RunResult Shell(const Args& args, const fs::path& dir) {
    std::string command;
    for (const std::string& arg : args) {
        command += " '";
        for (char c : arg) {
            command += c == '\'' ? std::string("'\\''") : std::string(1, c);
        }
        command += "'";
    }
    const fs::path out = dir / "stdout", err = dir / "stderr";
    const int status =
        std::system((command + " </dev/null >" + out.string() + " 2>" + err.string()).c_str());
    return {WEXITSTATUS(status), zyn_test::ReadFile(out), zyn_test::ReadFile(err)};
}

using Box = std::array<int, 4>;  // x, y, width, height

// A decoded RGB frame: a box's mean colour and its green's standard deviation (for detail).
struct Rgb {
    int width;
    std::string pixels;
    std::array<double, 4> stats(const Box& b) const {
        std::array<double, 4> s{};
        const double n = b[2] * b[3];
        for (int y = b[1]; y < b[1] + b[3]; ++y) {
            for (int x = b[0]; x < b[0] + b[2]; ++x) {
                for (int c = 0; c < 3; ++c) {
                    s[c] += static_cast<uint8_t>(pixels[(y * width + x) * 3 + c]) / n;
                }
                s[3] += std::pow(static_cast<uint8_t>(pixels[(y * width + x) * 3 + 1]), 2) / n;
            }
        }
        s[3] = std::sqrt(s[3] - s[1] * s[1]);
        return s;
    }
};

double Distance(const std::array<double, 4>& a, const std::array<double, 4>& b) {
    return std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]);
}

// Regions of the 640x360 astronaut clip: her face, the wall top right, the flag top left.
constexpr Box kFace = {250, 95, 60, 60}, kWall = {580, 5, 50, 40}, kFlag = {5, 5, 60, 120};
const std::array<double, 4> kMagenta = {255, 0, 255};
// The mask is smoothed over time from an empty start: the person has faded in by the third frame.
constexpr size_t kFadeInFrames = 2;

// Each test in its own work folder, with a stored selection as where the evaluator program has
// run (else every run would start it, still running when the tool exits).
class Zynvbg : public testing::Test {
  protected:
    Zynvbg() {
        fs::create_directories(dir_ / "work" / "cache");
        zyn_test::WriteFile(dir_ / "work" / "cache" / "PT_CONFIG.json",
                            R"({"selected_processing_type": "OnnxRuntimeCpu", )"
                            R"("selected_processing_time": ")" +
                                std::to_string(time(nullptr)) + "\"}");
    }
    RunResult zynvbg(Args args) {
        args.insert(args.begin(), ZYNVBG_BINARY);
        args.insert(args.end(), {"--work-dir", (dir_ / "work").string()});
        return Shell(args, dir_.path());
    }
    std::string path(const std::string& name) const { return (dir_ / name).string(); }
    void ffmpeg(Args args) {
        args.insert(args.begin(), {"ffmpeg", "-v", "error", "-y"});
        const RunResult r = Shell(args, dir_.path());
        ASSERT_EQ(r.code, 0) << r;
    }
    // The astronaut picture (a person before a flag, a wall and a model rocket) as 640x360 frames.
    std::string clip(int frames, const std::string& name = "clip.y4m") {
        ffmpeg({"-loop", "1", "-i", zyn_test::SampleImage("astronaut.png").string(), "-vf",
                "crop=512:288:0:0,scale=640:360,format=yuv420p", "-frames:v",
                std::to_string(frames), path(name)});
        return path(name);
    }
    std::string picture(const std::string& colour, const std::string& size) {
        ffmpeg({"-f", "lavfi", "-i", "color=c=" + colour + ":s=" + size, "-frames:v", "1",
                path(colour + ".png")});
        return path(colour + ".png");
    }
    std::vector<Rgb> decode(const std::string& video, int width, int height) {
        ffmpeg({"-i", video, "-f", "rawvideo", "-pix_fmt", "rgb24", path("decoded.rgb")});
        const std::string bytes = zyn_test::ReadFile(path("decoded.rgb"));
        const size_t frame = static_cast<size_t>(width) * height * 3;
        std::vector<Rgb> frames;
        for (size_t at = 0; at + frame <= bytes.size(); at += frame) {
            frames.push_back({width, bytes.substr(at, frame)});
        }
        return frames;
    }
    zyn_test::TempDir dir_{"zynvbg-test"};
};

}  // namespace

TEST_F(Zynvbg, HelpDocumentsEveryOptionAndExitCode) {
    for (const char* flag : {"--help", "-h"}) {
        const RunResult r = zynvbg({flag});
        ASSERT_EQ(r.code, 0) << r;
        std::istringstream options(
            "--input --output --raw-size --raw-format --raw-fps --frames --format --size --blur "
            "--background --touchup --weatherman --presentation --weatherman-background "
            "--weatherman-size --weatherman-offset --weatherman-alpha --config-json --config "
            "--processing-mode --switch-at --timings --quiet --library --models --work-dir "
            "--version --help");
        for (std::string option; options >> option;) {
            EXPECT_NE(r.out.find(option), std::string::npos) << option << " is not in --help";
        }
        for (const char* line :
             {"\n  0  done\n", "\n  2  bad arguments (", "\n  3  an input cannot",
              "\n  4  the library failed (", "\n  5  the output cannot be"}) {
            EXPECT_NE(r.out.find(line), std::string::npos) << "exit code line '" << line << "'";
        }
    }
}

// Every failure is one line on stderr starting "zynvbg: " and its exit code: 2 bad arguments, 3
// an unreadable input (nothing written then), 4 a library failure, 5 an output not writable.
TEST_F(Zynvbg, FailuresExitWithTheirCodeAndOneLine) {
    const std::string in = clip(2), out = path("out.mp4");
    zyn_test::WriteFile(path("notavideo.mp4"), "this is text, not a video");
    zyn_test::WriteFile(path("plainfile"), "x");
    const auto io = [&](Args rest) {
        rest.insert(rest.begin(), {"-i", in, "-o", out});
        return rest;
    };
    const struct {
        int code;
        Args args;
        std::string text = "";
    } cases[] = {
        {2, {}},
        {2, {"--no-such-option"}},
        {2, io({})},  // no effect
        {2, {"-i", in, "--blur"}},
        {2, {"-o", out, "--blur"}},
        {2, io({"--blur", "--size", "640"})},
        {2, io({"--blur", "--size", "0x0"})},
        {2, io({"--blur", "--size", "641x360"})},
        {2, io({"--blur", "--size", "640x-360"})},
        {2, io({"--blur", "--size", "99999x360"})},
        {2, io({"--blur", "--format", "rgb"})},
        {2, io({"--blur", "--frames", "0"})},
        {2, io({"--blur", "--background", "b.png"})},
        {2, io({"--touchup", "abc"})},
        {2, io({"--touchup", "5"})},
        {2, io({"--blur", "--processing-mode", "12"})},
        {2, io({"--config-json", "{\"effects\": [{\"name\": "})},
        {2, io({"--config-json", "[1, 2]"})},
        {2, io({"--blur", "--config-json", "{}"})},
        {2, io({"--blur", "--switch-at", "5:{nope"})},
        {2, io({"--blur", "--switch-at", "x:{}"})},
        {2, io({"--weatherman", "overlay"})},  // no presentation
        {2, io({"--weatherman", "sideways", "--presentation", "p.png"})},
        {2, io({"--weatherman", "newsroom", "--presentation", "p.png"})},
        {2, io({"--blur", "--weatherman-size", "0.5"})},
        {2, io({"--blur", "--raw-format", "nv12"})},
        {2, {"-i", in, "-o", "out.txt", "--blur"}},
        {2, {"-i", in, "-o", "out/frame_%s.png", "--blur"}},
        {2, {"-i", in, "-o", "out/frame_%d_%d.png", "--blur"}},
        {2, {"-i", in, "-o", "frames%d/f.png", "--blur"}},
        {2, io({"--blur", "--models", "/nonexistent/models"})},
        {2, {"-i", "camera.yuv", "-o", out, "--blur"}},  // raw frames without their size
        {2, {in, "other.mp4", "-o", out, "--blur"}},
        {2, io({"--blur", "--quiet=yes"})},
        {2, io({"--blur", "--frames"})},
        {3, {"-i", path("missing.mp4"), "-o", out, "--blur"}},
        {3, {"-i", path("notavideo.mp4"), "-o", out, "--blur"}},
        {3, io({"--background", path("nobg.png")})},
        {3, io({"--config", path("none.json")})},
        {3, io({"--config-json",
                R"({"effects":[{"name":"background","backgroundFile":"/no.png"}]})"})},
        {3, io({"--weatherman", "overlay", "--presentation", path("noslides.png")})},
        {5, {"-i", in, "-o", "/proc/zynvbg-test/out.mp4", "--blur"}},
        {5, {"-i", in, "-o", path("plainfile/out.mp4"), "--blur"}},
        {4, io({"--blur", "--library", path("libmissing.so")}), "cannot load the library: "},
        // Valid JSON the library refuses (no effect): its status, and where its log is.
        {4, io({"--config-json", R"({"effects": []})"}),
         "the library refused the effect configuration (status 3, configuration or engine "
         "creation failed) (library log: " +
             path("work/logs/ZYNNativeVBG.log") + ")"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        const RunResult r = zynvbg(c.args);
        EXPECT_EQ(r.code, c.code) << r;
        EXPECT_EQ(r.err.rfind("zynvbg: ", 0), 0u) << r;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r;
        EXPECT_NE(r.err.find(c.text), std::string::npos) << r;
        EXPECT_FALSE(fs::exists(out));
    }
    EXPECT_TRUE(fs::is_regular_file(path("work/logs/ZYNNativeVBG.log")));
}

// Blur, then from frame 5 a picture behind the person, into an MP4 in a folder the tool makes:
// the face is the camera's throughout, the flag loses its detail under the blur and turns magenta.
TEST_F(Zynvbg, SwitchAtChangesTheEffectFromThatFrameOn) {
    const std::string in = clip(10), out = path("out/switch.mp4");
    const std::string background = R"({"effects":[{"name":"background","backgroundFile":")" +
                                   picture("magenta", "640x360") + R"("}]})";
    const RunResult r = zynvbg({"-i", in, "-o", out, "--blur", "--switch-at", "5:" + background,
                                "--timings", path("timings.csv")});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_NE(r.out.find("zynvbg: 10 frames"), std::string::npos) << r;
    EXPECT_NE(r.out.find("library statistics: {\"preProcessedTime\":"), std::string::npos) << r;
    EXPECT_NE(r.out.find("% of one core at 30 fps; whole process "), std::string::npos) << r;
    EXPECT_EQ(r.err.find('\r'), std::string::npos) << "no progress bar without a terminal";
    const std::string timings = zyn_test::ReadFile(path("timings.csv"));
    EXPECT_EQ(timings.rfind("frame,library_us,library_cpu_us\n0,", 0), 0u) << timings;
    EXPECT_EQ(std::count(timings.begin(), timings.end(), '\n'), 11) << timings;

    const std::vector<Rgb> input = decode(in, 640, 360), output = decode(out, 640, 360);
    ASSERT_EQ(output.size(), 10u);
    for (size_t i = 0; i < output.size(); ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        if (i >= kFadeInFrames) {
            EXPECT_LT(Distance(output[i].stats(kFace), input[i].stats(kFace)), 12.0);
        }
        for (const Box& box : {kFlag, kWall}) {
            const double magenta = Distance(output[i].stats(box), kMagenta);
            EXPECT_TRUE(i >= 5 ? magenta < 45.0 : magenta > 100.0) << box[0] << ": " << magenta;
        }
        if (i < 5) {  // blurred: the stars and stripes lose their detail
            EXPECT_LT(output[i].stats(kFlag)[3], 0.6 * input[i].stats(kFlag)[3]);
        }
    }
}

// The conference room layout into I420: the room picture's size, the room top left, the
// presentation right of centre at the top.
TEST_F(Zynvbg, ConferenceroomOutputHasTheRoomPictureSize) {
    const std::string out = path("room.y4m");
    const RunResult r =
        zynvbg({"-i", clip(6), "-o", out, "--format", "i420", "--weatherman", "conferenceroom",
                "--weatherman-background", picture("blue", "800x450"), "--presentation",
                picture("green", "640x360")});
    ASSERT_EQ(r.code, 0) << r;
    const RunResult probe = Shell({"ffprobe", "-v", "error", "-count_frames", "-show_entries",
                                   "stream=width,height,nb_read_frames", "-of", "csv=p=0", out},
                                  path("."));
    EXPECT_EQ(probe.out, "800,450,6\n");
    const std::vector<Rgb> output = decode(out, 800, 450);
    ASSERT_EQ(output.size(), 6u);
    EXPECT_LT(Distance(output.back().stats({5, 5, 20, 20}), {0, 0, 255}), 60.0);
    EXPECT_LT(Distance(output.back().stats({600, 40, 60, 40}), {0, 128, 0}), 60.0);
}

TEST_F(Zynvbg, ASinglePictureIsWrittenOnceWithTheMaskSettled) {
    const std::string in = path("portrait.png"), out = path("portrait-out.png");
    ffmpeg({"-i", clip(1), in});
    const RunResult r =
        zynvbg({"-i", in, "-o", out, "--background", picture("magenta", "640x360")});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_NE(r.out.find("zynvbg: 1 frames"), std::string::npos) << r;
    const std::vector<Rgb> input = decode(in, 640, 360), output = decode(out, 640, 360);
    ASSERT_EQ(output.size(), 1u);
    EXPECT_LT(Distance(output[0].stats(kFace), input[0].stats(kFace)), 12.0);
    EXPECT_LT(Distance(output[0].stats(kWall), kMagenta), 45.0);
}
