// zynvbg: runs a video or a picture through libZYNNativeVBG.so, the way a conferencing host
// drives it (library configuration file, JSON effect configuration, NV12 or I420 frames in and
// out), and writes the result as a video or as pictures.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "cpu_meter.h"
#include "effect_config.h"
#include "frame_reader.h"
#include "frame_writer.h"
#include "options.h"
#include "progress.h"
#include "tool_error.h"
#include "vbg_library.h"
#include "yuv_frame.h"
#include "zyn_install_layout.h"

#ifndef ZYNVBG_DEFAULT_MODELS_DIR
#define ZYNVBG_DEFAULT_MODELS_DIR ""
#endif
#ifndef ZYNVBG_VERSION
#define ZYNVBG_VERSION "0"
#endif

namespace zynvbg {
namespace fs = std::filesystem;
namespace {

constexpr int kDefaultProcessingMode = 8;  // ONNX Runtime on the CPU
constexpr int64_t kPictureSettleFrames = 4;

fs::path toolFolder() {
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::current_path() : self.parent_path();
}

std::string statusText(uint32_t status) {
    switch (status) {
        case ZYN_STATUS_SUCCESS:
            return "0, success";
        case ZYN_STATUS_FEEDBACK_ONLY:
            return "1, only a feedback section";
        case ZYN_STATUS_FRAME_FAILED:
            return "2, frame failed";
        case ZYN_STATUS_CONFIG_FAILED:
            return "3, configuration or engine creation failed";
        case ZYN_STATUS_UPDATE_REJECTED:
            return "4, rejected by the engine";
        case ZYN_STATUS_NOT_SUPPORTED:
            return "5, not supported on this hardware";
        default:
            return std::to_string(status);
    }
}

const char* processingTypeName(uint32_t type) {
    static const char* const kNames[] = {"CPU",
                                         "GPU",
                                         "OnnxRuntimeCpu",
                                         "OpenVinoCpu",
                                         "OpenVinoCpuPPGPU",
                                         "OpenVinoGpuPPCPU",
                                         "OpenVinoGpuPPGPU",
                                         "Unknown",
                                         "OnnxRuntimeDMLPPGPU",
                                         "Auto"};
    return type < 10 ? kNames[type] : "Unknown";
}

// The folder holding the library configuration file, the library's log and its file cache.
class WorkFolder {
  public:
    explicit WorkFolder(const std::string& requested) {
        if (!requested.empty()) {
            root_ = requested;
        } else if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg != nullptr && *xdg) {
            root_ = fs::path(xdg) / "zynvbg";
        } else if (const char* home = std::getenv("HOME"); home != nullptr && *home) {
            root_ = fs::path(home) / ".cache" / "zynvbg";
        } else {
            root_ = fs::temp_directory_path() / ("zynvbg-" + std::to_string(getuid()));
        }
        std::error_code ec;
        root_ = fs::absolute(root_, ec);
        fs::create_directories(logs(), ec);
        fs::create_directories(cache(), ec);
        if (!fs::is_directory(logs()) || !fs::is_directory(cache())) {
            throw ToolError(kExitOutputFailure,
                            "cannot make the work folder '" + root_.string() + "'");
        }
        config_ = root_ / ("library-" + std::to_string(getpid()) + ".json");
    }
    ~WorkFolder() {
        std::error_code ec;
        fs::remove(config_, ec);
    }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;

    fs::path logs() const { return root_ / "logs"; }
    fs::path cache() const { return root_ / "cache"; }
    const fs::path& configFile() const { return config_; }
    fs::path logFile() const { return logs() / "ZYNNativeVBG.log"; }

    // The library configuration file given to ZynNativeVideoProcessingInit.
    void writeLibraryConfig(const fs::path& models) {
        rapidjson::StringBuffer text;
        rapidjson::Writer<rapidjson::StringBuffer> w(text);
        w.StartObject();
        w.Key("modelsPath");
        w.String(models.string().c_str());
        w.Key("logPath");
        w.String(logs().string().c_str());
        w.Key("fileCachePath");
        w.String(cache().string().c_str());
        w.EndObject();
        std::ofstream file(config_, std::ios::trunc);
        file << text.GetString() << '\n';
        file.close();
        if (!file) {
            throw ToolError(kExitOutputFailure, "cannot write '" + config_.string() + "'");
        }
    }

  private:
    fs::path root_;
    fs::path config_;
};

fs::path findModels(const Options& o, const fs::path& tool) {
    std::error_code ec;
    if (!o.models.empty()) {
        if (!fs::is_regular_file(fs::path(o.models) / "model.winml", ec)) {
            throw ToolError(kExitBadArguments, "--models " + o.models + ": no model.winml in it");
        }
        return fs::absolute(o.models, ec);
    }
    for (const fs::path& candidate :
         {tool / "models", tool / ZYN_MODELS_FROM_BINDIR, fs::path(ZYNVBG_DEFAULT_MODELS_DIR)}) {
        if (!candidate.empty() && fs::is_regular_file(candidate / "model.winml", ec)) {
            return fs::absolute(candidate, ec).lexically_normal();
        }
    }
    throw ToolError(kExitLibraryFailure,
                    "no segmentation model found (run scripts/setup.sh, or pass --models DIR)");
}

std::string readConfigFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw ToolError(kExitUnreadableInput, "cannot read --config file '" + path + "'");
    }
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool looksLikeRawYuv(const std::string& path) {
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext == ".yuv" || ext == ".nv12" || ext == ".i420" || ext == ".raw";
}

struct TimedSwitch {
    int64_t frame;
    EffectConfig config;
    std::string option;
};

double percentile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    const size_t index = static_cast<size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
}

int run(int argc, char** argv) {
    const Options o = ParseOptions(argc, argv);
    if (o.help) {
        std::cout << UsageText();
        return kExitOk;
    }
    const fs::path tool = toolFolder();
    const std::string libraryPath = o.library.empty() ? FindLibrary(tool.string()) : o.library;
    if (o.version) {
        VbgLibrary library(libraryPath);
        const ZynNativeVersion v = library.GetVersion();
        std::cout << "zynvbg " << ZYNVBG_VERSION << "\nlibrary " << library.path() << " " << v.major
                  << "." << v.minor << "." << v.build << "." << v.revision << "\n";
        return kExitOk;
    }

    // Everything that can be checked without touching a file comes first.
    const OutputPlan plan = PlanOutput(o.output);
    std::string effectText;
    std::string effectWhat;
    fs::path effectBase;
    if (!o.configJson.empty()) {
        effectText = o.configJson;
        effectWhat = "--config-json";
    } else if (!o.configFile.empty()) {
        effectText = readConfigFile(o.configFile);
        effectWhat = "--config " + o.configFile;
        effectBase = fs::path(o.configFile).parent_path();
    } else {
        effectText = ShortOptionsJson(o);
        effectWhat = "the effect options";
    }
    CheckJsonObject(effectText, effectWhat);
    for (const Switch& change : o.switches) {
        CheckJsonObject(change.json, "--switch-at " + std::to_string(change.frame));
    }
    if (!o.raw && looksLikeRawYuv(o.input)) {
        throw ToolError(
            kExitBadArguments,
            "'" + o.input + "' looks like raw YUV: give --raw-size WxH (and --raw-format)");
    }
    const fs::path models = findModels(o, tool);

    FrameReader input(o.input, o.raw ? &*o.raw : nullptr);
    // A single picture is run through the library several times and only the last result is
    // written: the person mask is smoothed from frame to frame starting from an empty mask, so
    // the first results still show the person fading in.
    const int64_t settleFrames = input.isPicture() && o.maxFrames < 0 ? kPictureSettleFrames : 0;
    const int64_t frameLimit = settleFrames > 0 ? settleFrames + 1 : o.maxFrames;
    if (input.isPicture() && frameLimit > 1) {
        input.setLooping(true);  // a still clip of the picture
    }
    const bool singleFrame = o.maxFrames == 1 || (input.isPicture() && o.maxFrames < 0);
    if (plan.kind == OutputKind::kPngSingle && !singleFrame) {
        throw ToolError(kExitBadArguments, "'" + plan.path +
                                               "' holds one picture: name a pattern such as "
                                               "frame_%05d.png, or add --frames 1");
    }
    const int width = o.size ? o.size->width : (input.sourceWidth() & ~1);
    const int height = o.size ? o.size->height : (input.sourceHeight() & ~1);
    if (width < 2 || height < 2) {
        throw ToolError(kExitUnreadableInput, "'" + o.input + "' has frames too small to use");
    }
    PrepareOutputLocation(plan);

    WorkFolder work(o.workDir);
    work.writeLibraryConfig(models);
    FileCache cache(work.cache());
    const EffectConfig created = PrepareConfig(effectText, effectWhat, effectBase, cache,
                                               o.processingMode, kDefaultProcessingMode);
    std::vector<TimedSwitch> switches;
    for (const Switch& change : o.switches) {
        const std::string option = "--switch-at " + std::to_string(change.frame);
        switches.push_back(TimedSwitch{
            change.frame, PrepareConfig(change.json, option, {}, cache, o.processingMode, {}),
            option});
    }
    std::stable_sort(switches.begin(), switches.end(),
                     [](const TimedSwitch& a, const TimedSwitch& b) { return a.frame < b.frame; });
    const bool presenterUsed =
        created.presenter || std::any_of(switches.begin(), switches.end(),
                                         [](const TimedSwitch& s) { return s.config.presenter; });
    if (presenterUsed && o.presentation.empty()) {
        throw ToolError(kExitBadArguments,
                        "a weatherman effect needs --presentation FILE (a picture or a video)");
    }
    if (!presenterUsed && !o.presentation.empty()) {
        throw ToolError(kExitBadArguments, "--presentation is only used by a weatherman effect");
    }
    std::unique_ptr<FrameReader> presentation;
    YuvFrame presentationFrame;
    if (presenterUsed) {
        presentation = std::make_unique<FrameReader>(o.presentation, nullptr);
        presentation->setLooping(true);
        const int pw = presentation->sourceWidth() & ~1;
        const int ph = presentation->sourceHeight() & ~1;
        if (pw < 2 || ph < 2) {
            throw ToolError(kExitUnreadableInput, "'" + o.presentation + "' is too small to use");
        }
        presentationFrame.reset(pw, ph, o.layout);
    }

    const std::string logHint = " (library log: " + work.logFile().string() + ")";
    // Made before the library is loaded: every thread that exists now is the tool's.
    CpuMeter cpuMeter;
    VbgLibrary library(libraryPath);
    if (!library.Init(work.configFile().c_str())) {
        throw ToolError(kExitLibraryFailure, "the library did not accept its configuration " +
                                                 work.configFile().string() + logHint);
    }
    VbgInstance instance(library);
    uint32_t status = instance.create(created.json);
    if (status != ZYN_STATUS_SUCCESS || !instance.alive()) {
        throw ToolError(kExitLibraryFailure,
                        "the library refused the effect configuration (status " +
                            statusText(status) + ")" + logHint);
    }

    bool presenterOn = created.presenter;
    auto outputSize = [&](int& ow, int& oh) {
        ow = width;
        oh = height;
        if (presenterOn) {
            uint32_t w = 0;
            uint32_t h = 0;
            if (library.GetOutputFrameSize(instance.handle(), &w, &h) && w > 0 && h > 0) {
                ow = static_cast<int>(w);
                oh = static_cast<int>(h);
            } else {
                ow = presentationFrame.width();
                oh = presentationFrame.height();
            }
        }
    };

    YuvFrame camera(width, height, o.layout);
    YuvFrame result;
    std::unique_ptr<FrameWriter> writer;
    std::vector<double> latencies;
    std::vector<double> cpuMicros;  // the library's CPU time per frame, all of its threads
    double callingThreadMicros = 0;
    std::ofstream timings;
    if (!o.timings.empty()) {
        timings.open(o.timings, std::ios::trunc);
        if (!timings) {
            throw ToolError(kExitOutputFailure, "cannot write --timings file '" + o.timings + "'");
        }
        timings << "frame,library_us,library_cpu_us\n";
    }
    int64_t expected =
        input.isPicture() ? (o.maxFrames > 0 ? o.maxFrames : 1) : input.frameCountHint();
    if (o.maxFrames > 0 && expected > 0) {
        expected = std::min(expected, o.maxFrames);
    }
    Progress progress(!o.quiet && isatty(STDERR_FILENO) != 0, expected);
    const auto started = std::chrono::steady_clock::now();
    const int64_t processCpuStart = ProcessCpuNanos();
    int64_t libraryThreadsCpu = cpuMeter.libraryThreadsNanos();

    // Frame numbers count the written frames from 0; settling runs of a picture come before
    // frame 0.
    int64_t index = -settleFrames;
    size_t nextSwitch = 0;
    while (frameLimit < 0 || index + settleFrames < frameLimit) {
        if (!input.read(camera)) {
            break;
        }
        while (nextSwitch < switches.size() && switches[nextSwitch].frame <= index) {
            const TimedSwitch& change = switches[nextSwitch++];
            status = instance.update(change.config.json);
            if (status != ZYN_STATUS_SUCCESS) {
                throw ToolError(kExitLibraryFailure,
                                change.option + ": the library refused the update (status " +
                                    statusText(status) + ")" + logHint);
            }
            presenterOn = change.config.presenter;
        }
        int ow = 0;
        int oh = 0;
        outputSize(ow, oh);
        result.reset(ow, oh, o.layout);
        ZynNativeInputFrame out = result.record();
        std::chrono::steady_clock::time_point begin;
        int64_t cpuBegin = 0;
        if (presenterOn) {
            if (!presentation->read(presentationFrame)) {
                throw ToolError(kExitUnreadableInput,
                                "'" + o.presentation + "' gave no frame to present");
            }
            ZynNativeInputFrame frames[2] = {camera.record(), presentationFrame.record()};
            cpuBegin = ThreadCpuNanos();
            begin = std::chrono::steady_clock::now();
            status = library.ProcessPresentationFrame(instance.handle(), frames, &out);
        } else {
            ZynNativeInputFrame in = camera.record();
            cpuBegin = ThreadCpuNanos();
            begin = std::chrono::steady_clock::now();
            status = library.ProcessFrame(instance.handle(), &in, &out);
        }
        const double micros =
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin)
                .count();
        const double callMicros = static_cast<double>(ThreadCpuNanos() - cpuBegin) / 1000.0;
        // The library's own threads since the previous frame count towards this one.
        const int64_t threadsNow = cpuMeter.libraryThreadsNanos();
        const double frameCpuMicros =
            callMicros + static_cast<double>(threadsNow - libraryThreadsCpu) / 1000.0;
        libraryThreadsCpu = threadsNow;
        callingThreadMicros += callMicros;
        if (status != ZYN_STATUS_SUCCESS) {
            throw ToolError(kExitLibraryFailure, "frame " + std::to_string(index) +
                                                     ": the library failed it (status " +
                                                     statusText(status) + ")" + logHint);
        }
        latencies.push_back(micros);
        cpuMicros.push_back(frameCpuMicros);
        if (timings.is_open()) {
            timings << index << ',' << static_cast<int64_t>(micros + 0.5) << ','
                    << static_cast<int64_t>(frameCpuMicros + 0.5) << '\n';
        }
        if (index >= 0) {
            if (!writer) {
                // An encoder may start threads: they are the tool's, not the library's.
                cpuMeter.beforeToolThreads();
                writer = OpenWriter(plan, ow, oh, input.frameRate(), o.layout);
                cpuMeter.afterToolThreads();
            }
            writer->write(result);
        }
        ++index;
        progress.update(std::max<int64_t>(index, 0));
    }
    if (index <= 0) {
        throw ToolError(kExitUnreadableInput, "'" + o.input + "' holds no frames");
    }
    writer->finish();
    progress.finish(index);
    if (timings.is_open()) {
        timings.close();
        if (!timings) {
            throw ToolError(kExitOutputFailure, "cannot write --timings file '" + o.timings + "'");
        }
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const double processCpuMillis = static_cast<double>(ProcessCpuNanos() - processCpuStart) / 1e6;
    for (; nextSwitch < switches.size(); ++nextSwitch) {
        std::cerr << "zynvbg: " << switches[nextSwitch].option << " was not reached (the input has "
                  << index << " frames)\n";
    }

    uint32_t engineWidth = 0;
    uint32_t engineHeight = 0;
    uint32_t processingType = 0;
    const char* stats = library.GetFrameProcessingStats(instance.handle(), &engineWidth,
                                                        &engineHeight, &processingType);
    if (!o.quiet) {
        double sum = 0;
        for (double v : latencies) {
            sum += v;
        }
        const double libraryFps = sum > 0 ? static_cast<double>(latencies.size()) * 1e6 / sum : 0.0;
        char line[512];
        std::cout << "zynvbg: " << index << " frames of " << width << "x" << height << " "
                  << LayoutName(o.layout) << " -> " << writer->describe() << "\n";
        std::snprintf(
            line, sizeof(line),
            "library: processing type %u (%s), engine at %ux%u; per frame median %.2f ms, "
            "p95 %.2f ms, max %.2f ms; %.1f fps inside the library\n",
            processingType, processingTypeName(processingType), engineWidth, engineHeight,
            percentile(latencies, 0.5) / 1000.0, percentile(latencies, 0.95) / 1000.0,
            *std::max_element(latencies.begin(), latencies.end()) / 1000.0, libraryFps);
        std::cout << line;
        std::cout << "library statistics: " << (stats != nullptr ? stats : "") << "\n";
        const double frames = static_cast<double>(cpuMicros.size());
        const double cpuMedian = percentile(cpuMicros, 0.5) / 1000.0;
        double cpuSum = 0;
        for (double v : cpuMicros) {
            cpuSum += v;
        }
        std::snprintf(line, sizeof(line),
                      "cpu: library per frame median %.2f ms, mean %.2f ms (%.2f ms on the calling "
                      "thread, %.2f ms on its own threads); %.1f%% of one core at 30 fps; whole "
                      "process %.2f ms per frame (reading, library, writing)\n",
                      cpuMedian, cpuSum / frames / 1000.0, callingThreadMicros / frames / 1000.0,
                      (cpuSum - callingThreadMicros) / frames / 1000.0, cpuMedian * 30.0 / 10.0,
                      processCpuMillis / frames);
        std::cout << line;
        std::snprintf(line, sizeof(line),
                      "total: %lld frames in %.2f s, %.1f fps (reading, library, writing)\n",
                      static_cast<long long>(index), seconds,
                      seconds > 0 ? static_cast<double>(index) / seconds : 0.0);
        std::cout << line;
    }
    return kExitOk;
}

}  // namespace
}  // namespace zynvbg

int main(int argc, char** argv) {
    // FFmpeg's own messages (encoder banners, probing notes, the details of an error the tool
    // reports itself) would bury the tool's one-line messages.
    av_log_set_level(AV_LOG_FATAL);
    try {
        return zynvbg::run(argc, argv);
    } catch (const zynvbg::ToolError& error) {
        std::fflush(stdout);
        std::cerr << "zynvbg: " << error.what() << "\n";
        return error.code();
    } catch (const std::exception& error) {
        std::cerr << "zynvbg: " << error.what() << "\n";
        return zynvbg::kExitLibraryFailure;
    }
}
