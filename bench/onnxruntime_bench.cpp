// What the ONNX Runtime backend costs on top of the inference itself: runModel on the real
// segmentation model (input fill, run, smoothing into the mask state) against a bare session Run
// on the same input with the same session options. Both run in one program, repeated and
// alternated, and the ratio of their medians is printed after the table.
#include <benchmark/benchmark.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ml/vbg_onnxruntime_processing.h"

namespace fs = std::filesystem;

namespace {

// The landscape segmentation model made by scripts/setup.sh; another model file can be given as
// the program's argument.
std::string g_model =
    (fs::path(__FILE__).parent_path().parent_path() / ".deps" / "models" / "model.winml").string();
const char* kPicture = "/usr/lib/python3/dist-packages/skimage/data/astronaut.png";

// The portrait at model size as B, G, R, A bytes, decoded by the ffmpeg program.
std::vector<uint8_t> ModelSizedPicture(uint32_t width, uint32_t height) {
    const fs::path raw =
        fs::temp_directory_path() / ("zyn-ort-bench-" + std::to_string(::getpid()) + ".bgra");
    const std::string command =
        std::string("ffmpeg -v error -y -i '") + kPicture + "' -vf scale=" + std::to_string(width) +
        ":" + std::to_string(height) + " -pix_fmt bgra -f rawvideo '" + raw.string() + "'";
    std::vector<uint8_t> pixels;
    if (std::system(command.c_str()) == 0) {
        std::ifstream in(raw, std::ios::binary);
        pixels.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    std::error_code ec;
    fs::remove(raw, ec);
    if (pixels.size() != static_cast<size_t>(width) * height * 4) {
        pixels.clear();
    }
    return pixels;
}

// The backend's whole per-frame work.
void BM_RunModel(benchmark::State& state) {
    VBG::OnnxRuntimeProcessing backend(2);
    if (!backend.loadBindModel(g_model)) {
        state.SkipWithError("model load failed");
        return;
    }
    const std::vector<uint8_t> image = ModelSizedPicture(backend.modelWidth, backend.modelHeight);
    if (image.empty()) {
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

// The same inference with nothing around it: a session with the backend's CPU options, tensors
// filled once before the loop, one Run per iteration.
void BM_BareRun(benchmark::State& state) {
    VBG::InitOrtApi();
    Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "");
    const Ort::SessionOptions options = VBG::OnnxRuntimeProcessing::CpuSessionOptions();
    Ort::Session session(env, g_model.c_str(), options);
    const std::vector<int64_t> in =
        session.GetInputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
    const std::vector<int64_t> out =
        session.GetOutputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
    const auto width = static_cast<uint32_t>(in[3]);
    const auto height = static_cast<uint32_t>(in[2]);
    const int32_t n = static_cast<int32_t>(width * height);

    const std::vector<uint8_t> image = ModelSizedPicture(width, height);
    if (image.empty()) {
        state.SkipWithError("picture decoding failed");
        return;
    }
    std::vector<float> input(static_cast<size_t>(n) * 4);
    const std::vector<float> previous(n, 0.0f);
    VBG::OnnxRuntimeProcessing::FillPlanarInput(image.data(), previous.data(), n, input.data());
    std::vector<float> output(static_cast<size_t>(n) * static_cast<size_t>(out[1]));
    const std::array<int64_t, 4> inShape{1, in[1], in[2], in[3]};
    const std::array<int64_t, 4> outShape{1, out[1], in[2], in[3]};
    const Ort::MemoryInfo memory = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeCPU);
    Ort::Value inputValue = Ort::Value::CreateTensor<float>(memory, input.data(), input.size(),
                                                            inShape.data(), inShape.size());
    Ort::Value outputValue = Ort::Value::CreateTensor<float>(memory, output.data(), output.size(),
                                                             outShape.data(), outShape.size());
    const char* inputNames[] = {"input"};
    const char* outputNames[] = {"output"};
    for (auto _ : state) {
        session.Run(Ort::RunOptions{nullptr}, inputNames, &inputValue, 1, outputNames, &outputValue,
                    1);
        benchmark::DoNotOptimize(output.data());
    }
}

// Each is measured five times; the two are registered alternately so that a slow stretch of the
// machine falls on both rather than on one.
constexpr int kRounds = 5;

void RegisterAlternately() {
    for (int round = 0; round < kRounds; ++round) {
        benchmark::RegisterBenchmark("BM_BareRun", BM_BareRun)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->MinTime(1.0);
        benchmark::RegisterBenchmark("BM_RunModel", BM_RunModel)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->MinTime(1.0);
    }
}

// The console table, plus the seconds per iteration of every run for the ratio.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (!run.error_occurred && run.run_type == Run::RT_Iteration && run.iterations > 0) {
                seconds[run.run_name.function_name].push_back(run.real_accumulated_time /
                                                              static_cast<double>(run.iterations));
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, std::vector<double>> seconds;
};

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2.0;
}

}  // namespace

int main(int argc, char** argv) {
    // The backend logs every load; the table is what this program is for.
    spdlog::set_level(spdlog::level::off);
    benchmark::Initialize(&argc, argv);
    if (argc == 2 && argv[1][0] != '-') {
        g_model = argv[1];
    } else if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RegisterAlternately();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto wrapper = reporter.seconds.find("BM_RunModel");
    const auto bare = reporter.seconds.find("BM_BareRun");
    if (wrapper != reporter.seconds.end() && bare != reporter.seconds.end()) {
        const double w = Median(wrapper->second);
        const double b = Median(bare->second);
        std::printf("runModel / bare Run, median time per frame: %.3f (%.3f ms / %.3f ms)\n", w / b,
                    w * 1e3, b * 1e3);
    }
    benchmark::Shutdown();
    return 0;
}
