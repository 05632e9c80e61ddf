// What the ONNX Runtime backend costs on top of the inference itself: runModel on the real
// segmentation model (input fill, run, smoothing into the mask state) against a bare session Run
// on the same input with the same session options. Both run in one program: alternating call by
// call in one loop, and as separate benchmarks repeated in turn; the ratio of the separate runs'
// medians is printed after the table.
#include <benchmark/benchmark.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
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
// filled once, one Run per call.
class BareSession {
  public:
    BareSession() {
        VBG::InitOrtApi();
        env_ = std::make_unique<Ort::Env>(ORT_LOGGING_LEVEL_WARNING, "");
        session_ = std::make_unique<Ort::Session>(*env_, g_model.c_str(),
                                                  VBG::OnnxRuntimeProcessing::CpuSessionOptions());
        const std::vector<int64_t> in =
            session_->GetInputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
        const std::vector<int64_t> out =
            session_->GetOutputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
        const auto width = static_cast<uint32_t>(in[3]);
        const auto height = static_cast<uint32_t>(in[2]);
        const int32_t n = static_cast<int32_t>(width * height);
        const std::vector<uint8_t> image = ModelSizedPicture(width, height);
        if (image.empty()) {
            return;
        }
        input_.resize(static_cast<size_t>(n) * 4);
        const std::vector<float> previous(n, 0.0f);
        VBG::OnnxRuntimeProcessing::FillPlanarInput(image.data(), previous.data(), n,
                                                    input_.data());
        output_.resize(static_cast<size_t>(n) * static_cast<size_t>(out[1]));
        const std::array<int64_t, 4> inShape{1, in[1], in[2], in[3]};
        const std::array<int64_t, 4> outShape{1, out[1], in[2], in[3]};
        const auto memory = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeCPU);
        inputValue_ = Ort::Value::CreateTensor<float>(memory, input_.data(), input_.size(),
                                                      inShape.data(), inShape.size());
        outputValue_ = Ort::Value::CreateTensor<float>(memory, output_.data(), output_.size(),
                                                       outShape.data(), outShape.size());
    }
    bool ready() const { return static_cast<bool>(inputValue_); }
    void run() {
        static const char* const inputNames[] = {"input"};
        static const char* const outputNames[] = {"output"};
        session_->Run(Ort::RunOptions{nullptr}, inputNames, &inputValue_, 1, outputNames,
                      &outputValue_, 1);
        benchmark::DoNotOptimize(output_.data());
    }

  private:
    std::unique_ptr<Ort::Env> env_;
    std::unique_ptr<Ort::Session> session_;
    std::vector<float> input_;
    std::vector<float> output_;
    Ort::Value inputValue_{nullptr};
    Ort::Value outputValue_{nullptr};
};

void BM_BareRun(benchmark::State& state) {
    BareSession bare;
    if (!bare.ready()) {
        state.SkipWithError("picture decoding failed");
        return;
    }
    for (auto _ : state) {
        bare.run();
    }
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2.0;
}

// Both in one loop, one call of each per iteration, each timed on its own: a busy stretch of the
// machine then weighs on both alike. The counters are the medians of the single calls.
void BM_Alternating(benchmark::State& state) {
    VBG::OnnxRuntimeProcessing backend(2);
    BareSession bare;
    if (!backend.loadBindModel(g_model) || !bare.ready()) {
        state.SkipWithError("model load or picture decoding failed");
        return;
    }
    const std::vector<uint8_t> image = ModelSizedPicture(backend.modelWidth, backend.modelHeight);
    auto mask = backend.createState();
    std::vector<double> wrapper;
    std::vector<double> plain;
    using Clock = std::chrono::steady_clock;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        if (!backend.runModel(image.data(), backend.modelWidth, backend.modelHeight, mask.get())) {
            state.SkipWithError("runModel failed");
            return;
        }
        const auto t1 = Clock::now();
        bare.run();
        const auto t2 = Clock::now();
        wrapper.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
        plain.push_back(std::chrono::duration<double, std::milli>(t2 - t1).count());
    }
    const double w = Median(wrapper);
    const double b = Median(plain);
    state.counters["runModel_ms"] = w;
    state.counters["bareRun_ms"] = b;
    state.counters["ratio"] = w / b;
}

// The backend's own per-frame work without the inference: the input fill and the smoothing at the
// landscape model's size. This is what runModel adds to a bare Run, measured on its own so that
// it shows even when the machine is too busy for the inference timings to be steady.
void BM_FillAndSmooth(benchmark::State& state) {
    VBG::OnnxRuntimeProcessing tablesReady(2);
    constexpr int32_t n = 256 * 144;
    const std::vector<uint8_t> image = ModelSizedPicture(256, 144);
    if (image.empty()) {
        state.SkipWithError("picture decoding failed");
        return;
    }
    std::vector<float> planes(static_cast<size_t>(n) * 4);
    std::vector<float> person(n, 0.75f);
    std::vector<float> previous(n, 0.0f);
    std::vector<uint8_t> mask(n);
    for (auto _ : state) {
        VBG::OnnxRuntimeProcessing::FillPlanarInput(image.data(), previous.data(), n,
                                                    planes.data());
        VBG::OnnxRuntimeProcessing::SmoothMask(person.data(), previous.data(), mask.data(), n);
        benchmark::DoNotOptimize(planes.data());
        benchmark::DoNotOptimize(mask.data());
    }
}
BENCHMARK(BM_FillAndSmooth)->Unit(benchmark::kMicrosecond);

// Each is measured five times; the two are registered alternately so that a slow stretch of the
// machine falls on both rather than on one.
constexpr int kRounds = 5;

void RegisterAll() {
    benchmark::RegisterBenchmark("BM_Alternating", BM_Alternating)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MinTime(5.0);
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
    RegisterAll();
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
