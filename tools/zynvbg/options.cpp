#include "options.h"

extern "C" {
#include <libavutil/rational.h>
}

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>

#include "tool_error.h"

namespace zynvbg {
namespace {

[[noreturn]] void bad(const std::string& message) {
    throw ToolError(kExitBadArguments, message);
}

bool parseInteger(const std::string& text, int64_t& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() > 12) {
        return false;
    }
    out = std::stoll(text);
    return true;
}

bool parseDecimal(const std::string& text, double& out) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    out = std::strtod(text.c_str(), &end);
    return errno == 0 && end == text.c_str() + text.size() && std::isfinite(out);
}

// "WxH" with even sides between 2 and 8192: the library's 4:2:0 frames need even sides.
Size parseSize(const std::string& option, const std::string& text) {
    const size_t x = text.find('x');
    int64_t width = 0;
    int64_t height = 0;
    if (x == std::string::npos || !parseInteger(text.substr(0, x), width) ||
        !parseInteger(text.substr(x + 1), height)) {
        bad(option + " wants WIDTHxHEIGHT, e.g. 1280x720, not '" + text + "'");
    }
    if (width < 2 || height < 2 || width > 8192 || height > 8192) {
        bad(option + " " + text + ": sides must be between 2 and 8192");
    }
    if (width % 2 != 0 || height % 2 != 0) {
        bad(option + " " + text + ": sides must be even (4:2:0 frames)");
    }
    return Size{static_cast<int>(width), static_cast<int>(height)};
}

PixelLayout parseLayout(const std::string& option, const std::string& text) {
    if (text == "nv12") {
        return PixelLayout::kNv12;
    }
    if (text == "i420") {
        return PixelLayout::kI420;
    }
    bad(option + " is nv12 or i420, not '" + text + "'");
}

// A decimal text within [low, high], kept as written: the library reads these values as text.
std::string decimalText(const std::string& option, const std::string& text, double low, double high,
                        const char* range) {
    double value = 0;
    if (!parseDecimal(text, value) || value < low || value > high) {
        bad(option + " wants a number from " + range + ", not '" + text + "'");
    }
    return text;
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
    Options o;
    std::string rawSize;
    std::string rawFormat;
    std::string rawFps;

    // Options that take a value, and what to do with it.
    const std::map<std::string, std::function<void(const std::string&, const std::string&)>>
        valued = {
            {"--input", [&](auto&, auto& v) { o.input = v; }},
            {"--output", [&](auto&, auto& v) { o.output = v; }},
            {"--format", [&](auto& n, auto& v) { o.layout = parseLayout(n, v); }},
            {"--size", [&](auto& n, auto& v) { o.size = parseSize(n, v); }},
            {"--raw-size", [&](auto&, auto& v) { rawSize = v; }},
            {"--raw-format", [&](auto&, auto& v) { rawFormat = v; }},
            {"--raw-fps", [&](auto&, auto& v) { rawFps = v; }},
            {"--frames",
             [&](auto& n, auto& v) {
                 if (!parseInteger(v, o.maxFrames) || o.maxFrames < 1) {
                     bad(n + " wants a whole number of at least 1, not '" + v + "'");
                 }
             }},
            {"--config-json", [&](auto&, auto& v) { o.configJson = v; }},
            {"--config", [&](auto&, auto& v) { o.configFile = v; }},
            {"--background", [&](auto&, auto& v) { o.background = v; }},
            {"--touchup",
             [&](auto& n, auto& v) {
                 o.touchUpSigma = decimalText(n, v, 0.001, 1.0, "0.001 to 1");
             }},
            {"--weatherman",
             [&](auto& n, auto& v) {
                 if (v != "overlay" && v != "underlay" && v != "newsroom" &&
                     v != "conferenceroom") {
                     bad(n + " is overlay, underlay, newsroom or conferenceroom, not '" + v + "'");
                 }
                 o.weathermanMode = v;
             }},
            {"--weatherman-background", [&](auto&, auto& v) { o.weathermanBackground = v; }},
            {"--weatherman-size",
             [&](auto& n, auto& v) {
                 o.weathermanSize = decimalText(n, v, 0.05, 4.0, "0.05 to 4");
             }},
            {"--weatherman-alpha",
             [&](auto& n, auto& v) { o.weathermanAlpha = decimalText(n, v, 0.0, 1.0, "0 to 1"); }},
            {"--weatherman-offset",
             [&](auto& n, auto& v) {
                 const size_t comma = v.find(',');
                 double x = 0;
                 double y = 0;
                 if (comma == std::string::npos || !parseDecimal(v.substr(0, comma), x) ||
                     !parseDecimal(v.substr(comma + 1), y) || std::fabs(x) > 1 ||
                     std::fabs(y) > 1) {
                     bad(n + " wants X,Y fractions from -1 to 1, e.g. 0.3,0.3, not '" + v + "'");
                 }
                 o.weathermanOffset = v;
             }},
            {"--presentation", [&](auto&, auto& v) { o.presentation = v; }},
            {"--processing-mode",
             [&](auto& n, auto& v) {
                 int64_t mode = 0;
                 if (!parseInteger(v, mode) || mode < 1 || mode > 9) {
                     bad(n +
                         " is a number from 1 to 9 (8 ONNX Runtime CPU, 7 OpenVINO CPU), "
                         "not '" +
                         v + "'");
                 }
                 o.processingMode = static_cast<int>(mode);
             }},
            {"--switch-at",
             [&](auto& n, auto& v) {
                 const size_t colon = v.find(':');
                 Switch change;
                 if (colon == std::string::npos ||
                     !parseInteger(v.substr(0, colon), change.frame) || colon + 1 >= v.size()) {
                     bad(n + " wants FRAME:JSON, e.g. 30:'{\"effects\":[{\"name\":\"blur\"}]}'");
                 }
                 change.json = v.substr(colon + 1);
                 o.switches.push_back(change);
             }},
            {"--library", [&](auto&, auto& v) { o.library = v; }},
            {"--models", [&](auto&, auto& v) { o.models = v; }},
            {"--work-dir", [&](auto&, auto& v) { o.workDir = v; }},
            {"--timings", [&](auto&, auto& v) { o.timings = v; }},
        };
    const std::map<std::string, std::string> aliases = {
        {"-i", "--input"}, {"-o", "--output"}, {"-h", "--help"}, {"-q", "--quiet"}};

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (auto alias = aliases.find(arg); alias != aliases.end()) {
            arg = alias->second;
        }
        std::string value;
        bool inlineValue = false;
        if (arg.rfind("--", 0) == 0) {
            const size_t eq = arg.find('=');
            if (eq != std::string::npos) {
                value = arg.substr(eq + 1);
                arg = arg.substr(0, eq);
                inlineValue = true;
            }
        }
        if (arg == "--help") {
            o.help = true;
            return o;
        }
        if (arg == "--version" || arg == "--quiet" || arg == "--blur") {
            if (inlineValue) {
                bad(arg + " takes no value");
            }
            (arg == "--version" ? o.version : arg == "--quiet" ? o.quiet : o.blur) = true;
            continue;
        }
        if (auto it = valued.find(arg); it != valued.end()) {
            if (!inlineValue) {
                if (i + 1 >= argc) {
                    bad(arg + " needs a value (see --help)");
                }
                value = argv[++i];
            }
            it->second(arg, value);
            continue;
        }
        if (arg.size() > 1 && arg[0] == '-') {
            bad("unknown option '" + std::string(argv[i]) + "' (see --help)");
        }
        if (!o.input.empty()) {
            bad("more than one input: '" + o.input + "' and '" + arg + "'");
        }
        o.input = arg;
    }

    if (o.version) {
        return o;
    }
    if (o.input.empty()) {
        bad("no input given (zynvbg --help shows how)");
    }
    if (o.output.empty()) {
        bad("no output given: -o FILE.mp4, -o DIR/frame_%05d.png or -o null");
    }

    if (!rawSize.empty()) {
        const Size size = parseSize("--raw-size", rawSize);
        RawVideo raw;
        raw.width = size.width;
        raw.height = size.height;
        raw.layout =
            rawFormat.empty() ? PixelLayout::kI420 : parseLayout("--raw-format", rawFormat);
        if (!rawFps.empty()) {
            double fps = 0;
            if (!parseDecimal(rawFps, fps) || fps <= 0 || fps > 240) {
                bad("--raw-fps wants frames per second from 0 to 240, not '" + rawFps + "'");
            }
            raw.frameRate = av_d2q(fps, 100000);
        }
        o.raw = raw;
    } else if (!rawFormat.empty() || !rawFps.empty()) {
        bad("--raw-format and --raw-fps describe raw YUV input and need --raw-size");
    }

    const int sources = (o.configJson.empty() ? 0 : 1) + (o.configFile.empty() ? 0 : 1) +
                        (o.shortEffects() ? 1 : 0);
    if (sources == 0) {
        bad("no effect given: use --blur, --background FILE, --touchup SIGMA, --weatherman MODE, "
            "--config FILE or --config-json JSON");
    }
    if (sources > 1) {
        bad("give the effects one way only: short options, --config or --config-json");
    }
    if (o.blur && !o.background.empty()) {
        bad("--blur and --background exclude each other");
    }
    const bool presenterDetail = !o.weathermanBackground.empty() || !o.weathermanSize.empty() ||
                                 !o.weathermanOffset.empty() || !o.weathermanAlpha.empty();
    if (presenterDetail && o.weathermanMode.empty()) {
        bad("--weatherman-background, -size, -offset and -alpha go with --weatherman MODE");
    }
    const bool room = o.weathermanMode == "newsroom" || o.weathermanMode == "conferenceroom";
    if (room && o.weathermanBackground.empty()) {
        bad("--weatherman " + o.weathermanMode + " needs --weatherman-background FILE");
    }
    if (!o.weathermanMode.empty() && !room && !o.weathermanBackground.empty()) {
        bad("--weatherman-background is only used by newsroom and conferenceroom");
    }
    if (!o.weathermanMode.empty() && o.presentation.empty()) {
        bad("--weatherman needs --presentation FILE (the shared screen: a picture or a video)");
    }
    return o;
}

std::string UsageText() {
    return R"(zynvbg: run a video or a picture through the ZYNNativeVBG effects library.

Usage: zynvbg [options] -i INPUT -o OUTPUT

Input
  -i, --input FILE        a video or picture FFmpeg can open (mp4, mkv, webm, mov, avi, png,
                          jpg, gif, ...), a .y4m file, or raw YUV with --raw-size. The input may
                          also be given as the only argument without -i. A single picture is
                          run through the library five times and the last result is written:
                          the person mask is smoothed from frame to frame and settles first.
  --raw-size WxH          the input is headerless YUV frames of this size
  --raw-format i420|nv12  layout of raw YUV input (default i420)
  --raw-fps N             frame rate of raw YUV input (default 30)
  --frames N              process at most N frames; with a picture input, the picture is
                          repeated N times (a still clip)

Frames handed to the library
  --format nv12|i420      frame layout (default nv12, what cameras deliver)
  --size WxH              scale frames to this size first (even sides; default: the input's
                          size, rounded down to even sides)

Effects (choose one way)
  --blur                  blur the background
  --background FILE       replace the background with a picture or video (png, jpg, gif, mp4,
                          mov, ogv, webm; other pictures are converted to PNG)
  --touchup SIGMA         smooth the skin, SIGMA from 0.001 to 1 (0.03 is subtle, 0.08 strong);
                          combines with --blur or --background
  --weatherman MODE       presenter over a shared screen: overlay, underlay, newsroom or
                          conferenceroom; needs --presentation
  --presentation FILE     the shared screen for --weatherman: a picture (repeated) or a video
                          (looped)
  --weatherman-background FILE
                          the room picture of newsroom and conferenceroom; its size is the size
                          of the output frames
  --weatherman-size S     presenter scale (default 0.3 for overlay and underlay, 1.0 otherwise)
  --weatherman-offset X,Y presenter offset from the centre, as fractions of the screen
                          (overlay and underlay; default 0.3,0.3: bottom right)
  --weatherman-alpha A    presenter opacity in overlay mode, 0 to 1 (default 1)
  --config-json JSON      the effect configuration as JSON text, e.g.
                          '{"effects":[{"name":"background","backgroundFile":"beach.png"}]}'
  --config FILE           the effect configuration from a JSON file
                          A "backgroundFile" in JSON names a file relative to the current folder
                          (or to the --config file's folder); zynvbg places it in the library's
                          file cache for you.
  --processing-mode N     8 ONNX Runtime CPU (default), 7 OpenVINO CPU, 2 CPU, 1 GPU (falls
                          back to CPU), 3 automatic (needs the evaluator program). Overrides a
                          "processingMode" in the JSON.
  --switch-at FRAME:JSON  before frame FRAME (counted from 0), change the effects with this
                          JSON (repeatable), e.g. --switch-at '60:{"effects":[{"name":"blur"}]}'

Output
  -o, --output PATH       a video (.mp4 .mkv .mov: H.264, or MPEG-4 Visual without libx264;
                          .webm: VP9; .avi: MPEG-4 Visual; .y4m and .yuv: uncompressed), numbered
                          PNG pictures from a pattern (out/frame_%05d.png, numbered from 0), one
                          .png for a single frame, or null to discard the frames (for timing)
  --timings FILE          write each frame's time and CPU time inside the library as CSV
                          (frame,library_us,library_cpu_us; microseconds)
  -q, --quiet             no progress bar and no summary

Library
  --library FILE          libZYNNativeVBG.so to load (default: beside zynvbg, then the installed
                          library folder (../lib), then the system's library path)
  --models DIR            folder holding model.winml (default: models/ beside zynvbg, then the
                          installed ../share/zynvbg/models, else the models the project's setup
                          script built in .deps/models)
  --work-dir DIR          folder for the library configuration, its log (logs/) and its file
                          cache (cache/) (default: $XDG_CACHE_HOME/zynvbg or ~/.cache/zynvbg)
  --version               print the tool's and the library's versions
  -h, --help              this text

The progress bar (on a terminal only) and the summary go to stderr and stdout; the summary
ends with the library's frame statistics (ZynNativeVideoProcessingGetFrameProcessingStats) and
the frame rates.

Exit codes
  0  done
  2  bad arguments (unknown option, bad size, invalid JSON, missing companion option)
  3  an input cannot be read (video, picture, presentation, background or --config file)
  4  the library failed (cannot be loaded or initialised, refused the configuration or an
     update, or failed a frame)
  5  the output cannot be written

Examples
  zynvbg -i talk.mp4 -o talk-blur.mp4 --blur
  zynvbg -i talk.mp4 -o beach.mp4 --background beach.jpg --touchup 0.05
  zynvbg -i cam.yuv --raw-size 1280x720 --raw-format nv12 -o out/frame_%05d.png --blur
  zynvbg -i talk.mp4 -o room.mp4 --weatherman conferenceroom \
         --weatherman-background room.png --presentation slides.png
  zynvbg -i talk.mp4 -o out.mp4 --config-json '{"effects":[{"name":"blur"}]}' \
         --switch-at '90:{"effects":[{"name":"background","backgroundFile":"beach.png"}]}'
  zynvbg -i talk.mp4 -o null --blur --processing-mode 7 --timings ov.csv
)";
}

}  // namespace zynvbg
