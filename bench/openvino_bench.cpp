// The OpenVINO backend against the ONNX Runtime backend on the real segmentation model: time per
// frame of runModel, and the model load with a cold model cache against one that finds the
// compiled model in the cache. Prints both ratios after the table.
#include <benchmark/benchmark.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ml/vbg_ml_processing.h"
#include "ml/vbg_onnxruntime_processing.h"
#include "ml/vbg_openvino_processing.h"

namespace fs = std::filesystem;

namespace {

// The segmentation model made by scripts/setup.sh in the source tree's .deps/models; another
// model file can be given as the program's argument.
std::string g_model =
    (fs::path(__FILE__).parent_path().parent_path() / ".deps" / "models" / "model.winml").string();
const char* kPicture = "/usr/lib/python3/dist-packages/skimage/data/astronaut.png";

// A scratch folder for the run, removed at the end.
struct ScratchDir {
    fs::path path = fs::temp_directory_path() / ("zyn-ov-bench-" + std::to_string(::getpid()));
    ScratchDir() { fs::create_directories(path); }
    ~ScratchDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
};

ScratchDir& Scratch() {
    static ScratchDir dir;
    return dir;
}

// The picture of a person at model size, B, G, R, A bytes, decoded by the ffmpeg program.
std::vector<uint8_t> ModelSizedPicture(uint32_t width, uint32_t height) {
    const fs::path raw = Scratch().path / "picture.bgra";
    const std::string command =
        std::string("ffmpeg -v error -y -i '") + kPicture + "' -vf scale=" + std::to_string(width) +
        ":" + std::to_string(height) + " -pix_fmt bgra -f rawvideo '" + raw.string() + "'";
    if (std::system(command.c_str()) != 0) {
        return {};
    }
    std::ifstream in(raw, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
}

template <class Backend>
void RunModel(benchmark::State& state, uint32_t processingType) {
    Backend backend(processingType);
    if (!backend.loadBindModel(g_model)) {
        state.SkipWithError("model load failed");
        return;
    }
    const std::vector<uint8_t> image = ModelSizedPicture(backend.modelWidth, backend.modelHeight);
    if (image.size() != static_cast<size_t>(backend.modelPixelCount) * 4) {
        state.SkipWithError("picture decoding failed");
        return;
    }
    auto mask = backend.createState();
    for (auto _ : state) {
        if (!backend.runModel(image.data(), backend.modelWidth, backend.modelHeight, mask.get())) {
            state.SkipWithError("runModel failed");
            return;
        }
        benchmark::DoNotOptimize(mask->mask.get());
    }
}

void BM_RunModel_OnnxRuntimeCpu(benchmark::State& state) {
    RunModel<VBG::OnnxRuntimeProcessing>(state, 2);
}
void BM_RunModel_OpenVinoCpu(benchmark::State& state) {
    RunModel<VBG::OpenVinoProcessing>(state, 3);
}

// A type-3 load with the cache folder `cacheRoot`; `cold` empties it first (untimed).
void LoadModel(benchmark::State& state, bool cold) {
    const fs::path cacheRoot = Scratch().path / (cold ? "cold-cache" : "warm-cache");
    if (!cold) {
        VBG::OpenVinoProcessing warmUp(3);
        warmUp.setCachePath(cacheRoot.string());
        if (!warmUp.loadModel(g_model)) {
            state.SkipWithError("model load failed");
            return;
        }
    }
    for (auto _ : state) {
        if (cold) {
            state.PauseTiming();
            fs::remove_all(cacheRoot);
            state.ResumeTiming();
        }
        VBG::OpenVinoProcessing backend(3);
        backend.setCachePath(cacheRoot.string());
        if (!backend.loadModel(g_model)) {
            state.SkipWithError("model load failed");
            return;
        }
    }
}

void BM_LoadModel_OpenVinoColdCache(benchmark::State& state) {
    LoadModel(state, true);
}
void BM_LoadModel_OpenVinoCacheHit(benchmark::State& state) {
    LoadModel(state, false);
}

BENCHMARK(BM_RunModel_OnnxRuntimeCpu)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_RunModel_OpenVinoCpu)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_LoadModel_OpenVinoColdCache)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(10);
BENCHMARK(BM_LoadModel_OpenVinoCacheHit)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(10);

// The console table, plus the seconds per iteration of every run for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (!run.error_occurred && run.run_type == Run::RT_Iteration && run.iterations > 0) {
                seconds[run.run_name.function_name] =
                    run.real_accumulated_time / static_cast<double>(run.iterations);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> seconds;
};

void PrintRatio(const RatioReporter& reporter, const char* what, const std::string& numerator,
                const std::string& denominator) {
    const auto n = reporter.seconds.find(numerator);
    const auto d = reporter.seconds.find(denominator);
    if (n == reporter.seconds.end() || d == reporter.seconds.end() || d->second <= 0.0) {
        return;
    }
    std::printf("%s: %.3f (%s %.3f ms / %s %.3f ms)\n", what, n->second / d->second,
                numerator.c_str(), n->second * 1e3, denominator.c_str(), d->second * 1e3);
}

}  // namespace

int main(int argc, char** argv) {
    // The backends log every load; the table is what this program is for.
    spdlog::set_level(spdlog::level::off);
    benchmark::Initialize(&argc, argv);
    if (argc == 2 && argv[1][0] != '-') {
        g_model = argv[1];
    } else if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    PrintRatio(reporter, "OpenVINO / ONNX Runtime, time per frame", "BM_RunModel_OpenVinoCpu",
               "BM_RunModel_OnnxRuntimeCpu");
    PrintRatio(reporter, "Cache hit / cold cache, model load time", "BM_LoadModel_OpenVinoCacheHit",
               "BM_LoadModel_OpenVinoColdCache");
    benchmark::Shutdown();
    return 0;
}
