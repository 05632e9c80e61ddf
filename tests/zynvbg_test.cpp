// The zynvbg command-line tool, run as a user runs it: the built binary, started as a child
// process, with generated media and the real library beside it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_paths.h"

extern char** environ;

namespace fs = std::filesystem;
using zyn_test::TempDir;

namespace {

#ifdef ZYNVBG_BINARY
const char* const kTool = ZYNVBG_BINARY;
#else
const char* const kTool = ZYN_BINARY_DIR "/zynvbg";
#endif

struct RunResult {
    int code = -1;
    std::string out;
    std::string err;
};

// Runs a program (looked up on PATH unless it has a slash) with stdin on /dev/null and both
// output streams captured through files in `scratch`.
RunResult Run(const std::vector<std::string>& args, const fs::path& scratch) {
    static std::atomic<int> counter{0};
    const int id = counter++;
    const fs::path outPath = scratch / ("stdout-" + std::to_string(id));
    const fs::path errPath = scratch / ("stderr-" + std::to_string(id));
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    pid_t pid = 0;
    RunResult result;
    const int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        result.err = "cannot start " + args[0];
        return result;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = zyn_test::ReadFile(outPath);
    result.err = zyn_test::ReadFile(errPath);
    return result;
}

std::string Describe(const RunResult& r) {
    return "exit " + std::to_string(r.code) + "\n--- stdout\n" + r.out + "--- stderr\n" + r.err;
}

// One zynvbg run with its own work folder (library configuration, log and cache).
class ToolRun {
  public:
    // The work folder starts with a stored processing-type selection, as on a machine where the
    // evaluator program has already run: otherwise every run would start the evaluator in the
    // background at initialisation, which these tests are not about and which would still be
    // running when the tool exits.
    ToolRun() : work_("zynvbg-test") {
        fs::create_directories(work_ / "work" / "cache");
        zyn_test::WriteFile(work_ / "work" / "cache" / "PT_CONFIG.json",
                            R"({"selected_processing_type": "OnnxRuntimeCpu", )"
                            R"("selected_processing_time": ")" +
                                std::to_string(time(nullptr)) + "\"}");
    }
    RunResult operator()(std::vector<std::string> args) {
        args.insert(args.begin(), kTool);
        if (std::find(args.begin(), args.end(), "--work-dir") == args.end()) {
            args.push_back("--work-dir");
            args.push_back((work_ / "work").string());
        }
        return Run(args, work_.path());
    }
    fs::path operator/(const std::string& name) const { return work_ / name; }
    const fs::path& dir() const { return work_.path(); }

  private:
    TempDir work_;
};

void Ffmpeg(const std::vector<std::string>& args, const fs::path& scratch) {
    std::vector<std::string> full = {"ffmpeg", "-v", "error", "-y"};
    full.insert(full.end(), args.begin(), args.end());
    const RunResult r = Run(full, scratch);
    ASSERT_EQ(r.code, 0) << Describe(r);
}

// 640x360 frames of the astronaut picture (a person before a flag, a wall and a model rocket).
void MakePersonClip(const fs::path& path, int frames, const fs::path& scratch) {
    Ffmpeg({"-loop", "1", "-i", zyn_test::SampleImage("astronaut.png").string(), "-vf",
            "crop=512:288:0:0,scale=640:360,format=yuv420p", "-frames:v", std::to_string(frames),
            "-r", "30", path.string()},
           scratch);
}

void MakeColourPicture(const fs::path& path, const std::string& colour, const std::string& size,
                       const fs::path& scratch) {
    Ffmpeg(
        {"-f", "lavfi", "-i", "color=c=" + colour + ":s=" + size, "-frames:v", "1", path.string()},
        scratch);
}

struct Probe {
    int width = 0;
    int height = 0;
    int frames = 0;
};

Probe ProbeVideo(const fs::path& path, const fs::path& scratch) {
    const RunResult r =
        Run({"ffprobe", "-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
             "stream=width,height,nb_read_frames", "-of", "csv=p=0", path.string()},
            scratch);
    Probe probe;
    char comma = 0;
    std::istringstream line(r.out);
    line >> probe.width >> comma >> probe.height >> comma >> probe.frames;
    return probe;
}

// A decoded frame in RGB.
struct Rgb {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels;

    std::array<double, 3> mean(int x0, int y0, int w, int h) const {
        std::array<double, 3> sum = {0, 0, 0};
        for (int y = y0; y < y0 + h; ++y) {
            for (int x = x0; x < x0 + w; ++x) {
                for (int c = 0; c < 3; ++c) {
                    sum[static_cast<size_t>(c)] +=
                        pixels[static_cast<size_t>((y * width + x) * 3 + c)];
                }
            }
        }
        for (double& s : sum) {
            s /= static_cast<double>(w * h);
        }
        return sum;
    }
    // Standard deviation of the green channel, a stand-in for luma detail.
    double detail(int x0, int y0, int w, int h) const {
        const double m = mean(x0, y0, w, h)[1];
        double sq = 0;
        for (int y = y0; y < y0 + h; ++y) {
            for (int x = x0; x < x0 + w; ++x) {
                const double d = pixels[static_cast<size_t>((y * width + x) * 3 + 1)] - m;
                sq += d * d;
            }
        }
        return std::sqrt(sq / static_cast<double>(w * h));
    }
};

std::vector<Rgb> DecodeRgb(const fs::path& video, int width, int height, const fs::path& scratch) {
    const fs::path raw = scratch / (video.filename().string() + ".rgb");
    Ffmpeg({"-i", video.string(), "-f", "rawvideo", "-pix_fmt", "rgb24", raw.string()}, scratch);
    const std::string bytes = zyn_test::ReadFile(raw);
    const size_t frameBytes = static_cast<size_t>(width) * height * 3;
    std::vector<Rgb> frames;
    for (size_t at = 0; at + frameBytes <= bytes.size(); at += frameBytes) {
        Rgb frame{width, height,
                  std::vector<uint8_t>(bytes.begin() + static_cast<long>(at),
                                       bytes.begin() + static_cast<long>(at + frameBytes))};
        frames.push_back(std::move(frame));
    }
    return frames;
}

double Distance(const std::array<double, 3>& a, const std::array<double, 3>& b) {
    return std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
                     (a[2] - b[2]) * (a[2] - b[2]));
}

// Regions of the 640x360 person clip.
constexpr int kFaceX = 250, kFaceY = 95, kFaceW = 60, kFaceH = 60;  // her face
constexpr int kWallX = 580, kWallY = 5, kWallW = 50, kWallH = 40;   // wall, top right
constexpr int kFlagX = 5, kFlagY = 5, kFlagW = 60, kFlagH = 120;    // flag, top left
const std::array<double, 3> kMagenta = {255, 0, 255};
constexpr size_t kFadeInFrames = 2;

bool OneLineError(const RunResult& r) {
    return r.err.rfind("zynvbg: ", 0) == 0 && std::count(r.err.begin(), r.err.end(), '\n') == 1;
}

}  // namespace

TEST(ZynvbgArguments, HelpExitsZeroAndDocumentsEveryOptionAndExitCode) {
    ToolRun zynvbg;
    for (const char* flag : {"--help", "-h"}) {
        const RunResult r = zynvbg({flag});
        ASSERT_EQ(r.code, 0) << Describe(r);
        for (const char* option : {"--input",
                                   "--output",
                                   "--raw-size",
                                   "--raw-format",
                                   "--raw-fps",
                                   "--frames",
                                   "--format",
                                   "--size",
                                   "--blur",
                                   "--background",
                                   "--touchup",
                                   "--weatherman",
                                   "--presentation",
                                   "--weatherman-background",
                                   "--weatherman-size",
                                   "--weatherman-offset",
                                   "--weatherman-alpha",
                                   "--config-json",
                                   "--config",
                                   "--processing-mode",
                                   "--switch-at",
                                   "--timings",
                                   "--quiet",
                                   "--library",
                                   "--models",
                                   "--work-dir",
                                   "--version",
                                   "--help"}) {
            EXPECT_NE(r.out.find(option), std::string::npos) << option << " is not in --help";
        }
        for (const char* code : {"  0  ", "  2  ", "  3  ", "  4  ", "  5  "}) {
            EXPECT_NE(r.out.find(code), std::string::npos) << "exit code '" << code << "'";
        }
        EXPECT_NE(r.out.find("Examples"), std::string::npos);
    }
}

TEST(ZynvbgArguments, BadCommandLinesExitWithTwoAndOneLine) {
    ToolRun zynvbg;
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"--no-such-option"},
        {"-i", "in.mp4", "-o", "out.mp4"},  // no effect
        {"-i", "in.mp4", "--blur"},         // no output
        {"-o", "out.mp4", "--blur"},        // no input
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--size", "640"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--size", "0x0"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--size", "641x360"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--size", "640x-360"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--size", "99999x360"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--format", "rgb"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--frames", "0"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--background", "b.png"},
        {"-i", "in.mp4", "-o", "out.mp4", "--touchup", "abc"},
        {"-i", "in.mp4", "-o", "out.mp4", "--touchup", "5"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--processing-mode", "12"},
        {"-i", "in.mp4", "-o", "out.mp4", "--config-json", "{\"effects\": [{\"name\": "},
        {"-i", "in.mp4", "-o", "out.mp4", "--config-json", "[1, 2]"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--config-json", "{}"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--switch-at", "5:{nope"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--switch-at", "x:{}"},
        {"-i", "in.mp4", "-o", "out.mp4", "--weatherman", "overlay"},  // no presentation
        {"-i", "in.mp4", "-o", "out.mp4", "--weatherman", "sideways", "--presentation", "p.png"},
        {"-i", "in.mp4", "-o", "out.mp4", "--weatherman", "newsroom", "--presentation", "p.png"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--weatherman-size", "0.5"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--raw-format", "nv12"},
        {"-i", "in.mp4", "-o", "out.txt", "--blur"},
        {"-i", "in.mp4", "-o", "out/frame_%s.png", "--blur"},
        {"-i", "in.mp4", "-o", "out/frame_%d_%d.png", "--blur"},
        {"-i", "in.mp4", "-o", "frames%d/f.png", "--blur"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--models", "/nonexistent/models"},
        {"-i", "camera.yuv", "-o", "out.mp4", "--blur"},  // raw YUV without its size
        {"in.mp4", "other.mp4", "-o", "out.mp4", "--blur"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--quiet=yes"},
        {"-i", "in.mp4", "-o", "out.mp4", "--blur", "--frames"},
    };
    for (const auto& args : cases) {
        std::string shown;
        for (const auto& a : args) {
            shown += " " + a;
        }
        const RunResult r = zynvbg(args);
        EXPECT_EQ(r.code, 2) << "zynvbg" << shown << "\n" << Describe(r);
        EXPECT_TRUE(OneLineError(r)) << "zynvbg" << shown << "\n" << Describe(r);
    }
}

TEST(ZynvbgArguments, UnreadableInputsExitWithThree) {
    ToolRun zynvbg;
    const fs::path clip = zynvbg / "clip.y4m";
    MakePersonClip(clip, 2, zynvbg.dir());
    zyn_test::WriteFile(zynvbg / "notavideo.mp4", "this is text, not a video");
    const fs::path out = zynvbg / "out.mp4";
    const std::vector<std::vector<std::string>> cases = {
        {"-i", (zynvbg / "missing.mp4").string(), "-o", out.string(), "--blur"},
        {"-i", (zynvbg / "notavideo.mp4").string(), "-o", out.string(), "--blur"},
        {"-i", clip.string(), "-o", out.string(), "--background", (zynvbg / "nobg.png").string()},
        {"-i", clip.string(), "-o", out.string(), "--config", (zynvbg / "none.json").string()},
        {"-i", clip.string(), "-o", out.string(), "--config-json",
         R"({"effects":[{"name":"background","backgroundFile":"/nonexistent/beach.png"}]})"},
        {"-i", clip.string(), "-o", out.string(), "--weatherman", "overlay", "--presentation",
         (zynvbg / "noslides.png").string()},
    };
    for (const auto& args : cases) {
        const RunResult r = zynvbg(args);
        EXPECT_EQ(r.code, 3) << args[1] << " " << args.back() << "\n" << Describe(r);
        EXPECT_TRUE(OneLineError(r)) << Describe(r);
    }
    EXPECT_FALSE(fs::exists(out)) << "nothing is written when an input cannot be read";
}

TEST(ZynvbgArguments, LibraryFailuresExitWithFourAndOutputFailuresWithFive) {
    ToolRun zynvbg;
    const fs::path clip = zynvbg / "clip.y4m";
    MakePersonClip(clip, 2, zynvbg.dir());

    RunResult r = zynvbg({"-i", clip.string(), "-o", (zynvbg / "a.mp4").string(), "--blur",
                          "--library", (zynvbg / "libmissing.so").string()});
    EXPECT_EQ(r.code, 4) << Describe(r);
    EXPECT_NE(r.err.find("cannot load the library"), std::string::npos) << Describe(r);

    // Valid JSON the library refuses: an empty effect list.
    r = zynvbg({"-i", clip.string(), "-o", (zynvbg / "b.mp4").string(), "--config-json",
                R"({"effects": []})"});
    EXPECT_EQ(r.code, 4) << Describe(r);
    EXPECT_NE(r.err.find("status 3"), std::string::npos) << Describe(r);
    EXPECT_NE(r.err.find("ZYNNativeVBG.log"), std::string::npos) << "names the library log";

    // An output folder that cannot be made.
    r = zynvbg({"-i", clip.string(), "-o", "/proc/zynvbg-test/out.mp4", "--blur"});
    EXPECT_EQ(r.code, 5) << Describe(r);
    EXPECT_TRUE(OneLineError(r)) << Describe(r);
    // A file where the output folder should be.
    zyn_test::WriteFile(zynvbg / "plainfile", "x");
    r = zynvbg({"-i", clip.string(), "-o", (zynvbg / "plainfile" / "out.mp4").string(), "--blur"});
    EXPECT_EQ(r.code, 5) << Describe(r);
}

// Everything below needs the effect engine and the segmentation model.

TEST(ZynvbgEndToEnd, PictureBackgroundReplacesTheBackgroundAndKeepsThePerson) {
    ToolRun zynvbg;
    const fs::path clip = zynvbg / "clip.y4m";
    const fs::path background = zynvbg / "magenta.png";
    const fs::path out = zynvbg / "out" / "background.mp4";
    MakePersonClip(clip, 10, zynvbg.dir());
    MakeColourPicture(background, "magenta", "640x360", zynvbg.dir());

    const RunResult r =
        zynvbg({"-i", clip.string(), "-o", out.string(), "--background", background.string()});
    ASSERT_EQ(r.code, 0) << Describe(r);
    EXPECT_NE(r.out.find("library statistics: {\"preProcessedTime\":"), std::string::npos)
        << Describe(r);
    EXPECT_NE(r.out.find("fps"), std::string::npos) << Describe(r);
    EXPECT_NE(r.out.find("% of one core at 30 fps; whole process "), std::string::npos)
        << Describe(r);
    EXPECT_EQ(r.err.find('\r'), std::string::npos) << "no progress bar without a terminal";

    const Probe probe = ProbeVideo(out, zynvbg.dir());
    EXPECT_EQ(probe.width, 640);
    EXPECT_EQ(probe.height, 360);
    EXPECT_EQ(probe.frames, 10);

    const std::vector<Rgb> input = DecodeRgb(clip, 640, 360, zynvbg.dir());
    const std::vector<Rgb> output = DecodeRgb(out, 640, 360, zynvbg.dir());
    ASSERT_EQ(input.size(), 10u);
    ASSERT_EQ(output.size(), 10u);
    for (size_t i = 0; i < output.size(); ++i) {
        // The mask is smoothed over time from an empty start, so the person fades in over the
        // first frames; from the third frame on the face must be the camera's.
        const auto faceIn = input[i].mean(kFaceX, kFaceY, kFaceW, kFaceH);
        const auto faceOut = output[i].mean(kFaceX, kFaceY, kFaceW, kFaceH);
        if (i >= kFadeInFrames) {
            EXPECT_LT(Distance(faceIn, faceOut), 12.0) << "frame " << i << ": the face changed";
        }
        for (auto [x, y, w, h] : {std::array<int, 4>{kWallX, kWallY, kWallW, kWallH},
                                  std::array<int, 4>{kFlagX, kFlagY, kFlagW, kFlagH}}) {
            const auto cornerOut = output[i].mean(x, y, w, h);
            EXPECT_LT(Distance(cornerOut, kMagenta), 45.0)
                << "frame " << i << ": background at " << x << "," << y << " is not replaced";
            EXPECT_GT(Distance(input[i].mean(x, y, w, h), cornerOut), 80.0);
        }
    }
}

TEST(ZynvbgEndToEnd, SwitchAtChangesTheEffectFromThatFrameOn) {
    ToolRun zynvbg;
    const fs::path clip = zynvbg / "clip.y4m";
    const fs::path out = zynvbg / "switch.y4m";
    MakePersonClip(clip, 10, zynvbg.dir());
    MakeColourPicture(zynvbg / "magenta.png", "magenta", "640x360", zynvbg.dir());

    // The background file of the switch is named relative to the current folder.
    const std::string switchJson = R"({"effects":[{"name":"background","backgroundFile":")" +
                                   (zynvbg / "magenta.png").string() + R"("}]})";
    const RunResult r = zynvbg({"-i", clip.string(), "-o", out.string(), "--format", "i420",
                                "--blur", "--switch-at", "5:" + switchJson});
    ASSERT_EQ(r.code, 0) << Describe(r);

    const std::vector<Rgb> input = DecodeRgb(clip, 640, 360, zynvbg.dir());
    const std::vector<Rgb> output = DecodeRgb(out, 640, 360, zynvbg.dir());
    ASSERT_EQ(output.size(), 10u);
    for (size_t i = 0; i < output.size(); ++i) {
        const auto faceIn = input[i].mean(kFaceX, kFaceY, kFaceW, kFaceH);
        if (i >= kFadeInFrames) {
            EXPECT_LT(Distance(faceIn, output[i].mean(kFaceX, kFaceY, kFaceW, kFaceH)), 12.0)
                << "frame " << i;
        }
        const double flagDistance =
            Distance(output[i].mean(kFlagX, kFlagY, kFlagW, kFlagH), kMagenta);
        if (i < 5) {
            // Blurred: the stars and stripes lose their detail, the colours stay.
            EXPECT_LT(output[i].detail(kFlagX, kFlagY, kFlagW, kFlagH),
                      0.6 * input[i].detail(kFlagX, kFlagY, kFlagW, kFlagH))
                << "frame " << i << " is not blurred";
            EXPECT_GT(flagDistance, 100.0) << "frame " << i << " has the new background too early";
        } else {
            EXPECT_LT(flagDistance, 45.0) << "frame " << i << " does not have the new background";
        }
    }
}

TEST(ZynvbgEndToEnd, ConferenceroomOutputHasTheRoomPictureSize) {
    ToolRun zynvbg;
    const fs::path clip = zynvbg / "clip.y4m";
    const fs::path room = zynvbg / "room.png";
    const fs::path slides = zynvbg / "slides.png";
    const fs::path out = zynvbg / "room.mp4";
    MakePersonClip(clip, 6, zynvbg.dir());
    MakeColourPicture(room, "blue", "800x450", zynvbg.dir());
    MakeColourPicture(slides, "green", "640x360", zynvbg.dir());

    const RunResult r =
        zynvbg({"-i", clip.string(), "-o", out.string(), "--weatherman", "conferenceroom",
                "--weatherman-background", room.string(), "--presentation", slides.string()});
    ASSERT_EQ(r.code, 0) << Describe(r);
    const Probe probe = ProbeVideo(out, zynvbg.dir());
    EXPECT_EQ(probe.width, 800);
    EXPECT_EQ(probe.height, 450);
    EXPECT_EQ(probe.frames, 6);

    const std::vector<Rgb> output = DecodeRgb(out, 800, 450, zynvbg.dir());
    ASSERT_EQ(output.size(), 6u);
    // The presentation fills 75% of the room, right of centre at the top; the room shows at the
    // top-left corner.
    const auto roomCorner = output.back().mean(5, 5, 20, 20);
    const auto slide = output.back().mean(600, 40, 60, 40);
    EXPECT_LT(Distance(roomCorner, {0, 0, 255}), 60.0);
    EXPECT_LT(Distance(slide, {0, 128, 0}), 60.0);
}

TEST(ZynvbgEndToEnd, ASinglePictureIsWrittenOnceWithTheMaskSettled) {
    ToolRun zynvbg;
    const fs::path picture = zynvbg / "portrait.png";
    const fs::path background = zynvbg / "magenta.png";
    const fs::path out = zynvbg / "portrait-out.png";
    Ffmpeg({"-i", zyn_test::SampleImage("astronaut.png").string(), "-vf",
            "crop=512:288:0:0,scale=640:360", picture.string()},
           zynvbg.dir());
    MakeColourPicture(background, "magenta", "640x360", zynvbg.dir());

    const RunResult r =
        zynvbg({"-i", picture.string(), "-o", out.string(), "--background", background.string()});
    ASSERT_EQ(r.code, 0) << Describe(r);
    EXPECT_NE(r.out.find("zynvbg: 1 frames"), std::string::npos) << Describe(r);
    const std::vector<Rgb> input = DecodeRgb(picture, 640, 360, zynvbg.dir());
    const std::vector<Rgb> output = DecodeRgb(out, 640, 360, zynvbg.dir());
    ASSERT_EQ(input.size(), 1u);
    ASSERT_EQ(output.size(), 1u);
    EXPECT_LT(Distance(input[0].mean(kFaceX, kFaceY, kFaceW, kFaceH),
                       output[0].mean(kFaceX, kFaceY, kFaceW, kFaceH)),
              12.0)
        << "the person has not settled in the written picture";
    EXPECT_LT(Distance(output[0].mean(kWallX, kWallY, kWallW, kWallH), kMagenta), 45.0);
}
