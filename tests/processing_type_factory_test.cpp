// The engine factory by processing type: CPU and GPU engines, the GPU engine's refusal on this
// platform, and the automatic path (stored selection, waiting for the evaluation, walk of the
// automatic order).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "config/vbg_settings.h"
#include "engine/virtual_background.h"
#include "engine/virtual_background_impl_cpu_yuv.h"
#include "engine/virtual_background_impl_gpu.h"
#include "ml/vbg_ml_processing.h"
#include "selection/processing_type_evaluator.h"
#include "selection/processing_type_evaluator_limits.h"
#include "support/evaluator_stand_in.h"
#include "support/log_capture.h"
#include "util/text.h"
#include "zyn_native_vbg.h"

using VBG::ProcessingTypeEvaluator;
using VBG::VirtualBackground;
using VBG::VirtualBackgroundImplGPU;
using VBG::VirtualBackgroundImplYuv;
using zyn_test::EvaluationFolders;
using zyn_test::EvaluatorStandIn;
using zyn_test::LogCapture;
using namespace std::chrono_literals;

namespace {

constexpr const char* kAutoFn = "VBG::VirtualBackground::createAutoZynNative";

// An effect configuration with a presenter layout, in the given processing mode.
std::string overlayConfig(int mode) {
    return R"({"processingMode": )" + std::to_string(mode) +
           R"(, "effects": [{"name": "weatherman", "mode": "overlay", "weathermanAlpha": "0.9", )"
           R"("weathermanSize": "0.5", "weathermanOffsetX": "0.25", "weathermanOffsetY": "0"}]})";
}

class FactoryTest : public ::testing::Test {
  protected:
    void SetUp() override { folders().removeSelection(); }
    void TearDown() override {
        waitForEvaluationEnd();
        VBG::ResetEvaluatorLimitsForTesting();
        folders().removeSelection();
        // One inference backend per process, bound to one processing type.
        VBG::DestroyVBGMLProcessingInstance();
    }

    static const EvaluationFolders& folders() { return EvaluationFolders::Get(); }

    static void waitForEvaluationEnd() {
        const auto deadline = std::chrono::steady_clock::now() + 30s;
        while (ProcessingTypeEvaluator::IsEvaluationRunning() &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(5ms);
        }
    }

    static VBGSettings blurSettings(uint32_t pt,
                                    const std::filesystem::path& model = zyn_test::RealModelsDir() /
                                                                         "model.winml") {
        VBGSettings settings = VBG::DefaultVBGSettings();
        settings.pt = pt;
        settings.bt = VBG::BtBlur;
        settings.blurAlgo = 1;
        settings.effects = ZYN_EFFECT_BACKGROUND;
        VBG::Text::CopyToField(settings.modelFilePath, ZYN_PATH_CHARS, model.string(),
                               ZYN_PATH_CHARS - 1);
        VBG::Text::CopyToField(settings.logDirectory, ZYN_PATH_CHARS, folders().logs().string(),
                               ZYN_PATH_CHARS - 1);
        VBG::Text::CopyToField(settings.fileCachePath, ZYN_PATH_CHARS, folders().cache().string(),
                               ZYN_PATH_CHARS - 1);
        return settings;
    }

    static uint32_t typeOf(VirtualBackground* engine) {
        uint32_t type = 99;
        engine->getFrameProcessingStats(nullptr, nullptr, &type);
        return type;
    }

    // Runs an automatic create on a thread of its own while the stand-in evaluator is held open,
    // and lets the evaluator end only once that thread is blocked waiting for the evaluation, so
    // that the end is never signalled before the wait began.
    static VirtualBackground* createDuringEvaluation(const std::filesystem::path& release,
                                                     uint32_t& error) {
        ProcessingTypeEvaluator::StartEvaluation();
        std::atomic<long> tid{0};
        auto creation = std::async(std::launch::async, [&] {
            tid = zyn_test::CurrentThreadId();
            return VirtualBackground::createZynNative(blurSettings(VBG::PtAuto), error, 1280, 720);
        });
        while (tid == 0) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(zyn_test::WaitUntilThreadSleeps(tid, 20s));
        zyn_test::WriteFile(release, "");
        return creation.get();
    }

    static void destroy(VirtualBackground* engine) {
        if (engine != nullptr) {
            engine->shutdown();
            delete engine;
        }
    }
};

// ---- Engines by processing type ---------------------------------------------------------------

TEST_F(FactoryTest, CpuTypesBuildTheCpuEngine) {
    for (const uint32_t pt : {VBG::PtCPU, VBG::PtOnnxRuntimeCpu}) {
        SCOPED_TRACE(pt);
        uint32_t error = 77;
        VirtualBackground* engine =
            VirtualBackground::createZynNative(blurSettings(pt), error, 640, 360);
        ASSERT_NE(engine, nullptr);
        EXPECT_NE(dynamic_cast<VirtualBackgroundImplYuv*>(engine), nullptr);
        EXPECT_EQ(typeOf(engine), pt);
        EXPECT_EQ(error, 77u) << "a successful create must not write the error code";
        destroy(engine);
        VBG::DestroyVBGMLProcessingInstance();
    }
}

TEST_F(FactoryTest, GpuTypesBuildTheGpuEngineWhichReportsNotSupportedHere) {
    for (const uint32_t pt : {VBG::PtGPU, VBG::PtOpenVinoCpuPPGPU, VBG::PtOpenVinoGpuPPGPU,
                              VBG::PtOnnxRuntimeDMLPPGPU}) {
        SCOPED_TRACE(pt);
        LogCapture log;
        uint32_t error = 0;
        EXPECT_EQ(VirtualBackground::createZynNative(blurSettings(pt), error, 640, 360), nullptr);
        EXPECT_EQ(error, static_cast<uint32_t>(ZYN_STATUS_NOT_SUPPORTED));

        const std::string ctor = "VBG::VirtualBackgroundImplGPU::VirtualBackgroundImplGPU";
        EXPECT_EQ(log.hasFrom(ctor, "WinML GPU processing disabled"), pt != VBG::PtGPU);
        EXPECT_TRUE(log.has(spdlog::level::err, "Failed to initialise D3D12OBJ"));
        EXPECT_TRUE(log.hasFrom(ctor, "Constructed. HR:0x80004002"));
        EXPECT_TRUE(log.has(spdlog::level::err, "VBGD3D12 not initialised properly. HR:0x80004002"))
            << log.dump();
        EXPECT_TRUE(log.hasFrom("VBG::VirtualBackgroundImplGPU::~VirtualBackgroundImplGPU",
                                "Destroyed. HR:0x80004002"));
    }
}

TEST_F(FactoryTest, GpuEngineWithoutRendererRefusesInitAndEveryFrame) {
    VirtualBackgroundImplGPU engine(VBG::PtOnnxRuntimeDMLPPGPU);
    EXPECT_EQ(engine.constructionResult(), VirtualBackgroundImplGPU::kResultNoInterface);
    EXPECT_TRUE(engine.isWinmlGpuDisabled());
    EXPECT_EQ(engine.init(blurSettings(VBG::PtOnnxRuntimeDMLPPGPU), 640, 360), 1);

    std::vector<uint8_t> luma(64 * 36, 100), chroma(64 * 18, 128);
    ZynNativeInputFrame frame{};
    frame.width = 64;
    frame.height = 36;
    frame.format = ZYN_FORMAT_NV12;
    frame.plane0 = luma.data();
    frame.stride0 = 64;
    frame.plane1 = chroma.data();
    frame.stride1 = 64;
    ZynNativeInputFrame output = frame;
    EXPECT_FALSE(engine.processVideoFrame(&frame, &output));

    EXPECT_FALSE(VirtualBackgroundImplGPU(VBG::PtGPU).isWinmlGpuDisabled());
}

// ---- The automatic path -----------------------------------------------------------------------

TEST_F(FactoryTest, AutomaticCreateWithoutSelectionOrEvaluationGivesStatusZeroAndNoInstance) {
    ASSERT_FALSE(ProcessingTypeEvaluator::IsEvaluationRunning());
    LogCapture log;
    uint32_t error = 0;
    EXPECT_EQ(VirtualBackground::createZynNative(blurSettings(VBG::PtAuto), error, 640, 360),
              nullptr);
    EXPECT_EQ(error, 0u);
    EXPECT_TRUE(log.hasFrom(kAutoFn,
                            "Process Evaluation is not initialised and not running, possibly no "
                            "processing types are supported"))
        << log.dump();
    EXPECT_TRUE(log.has(spdlog::level::err, "createAutoZynNative failed"));

    // The same through the create export: status 0 and the handle left null, also when a
    // presenter layout would have been set up on the new instance.
    for (const std::string& json :
         {std::string(R"({"processingMode": 3, "effects": [{"name": "blur"}]})"),
          overlayConfig(3)}) {
        SCOPED_TRACE(json);
        ZynNativeHandle handle = reinterpret_cast<ZynNativeHandle>(0x1);
        EXPECT_EQ(ZynNativeVideoProcessingCreateInstance(json.c_str(), &handle),
                  static_cast<uint32_t>(ZYN_STATUS_SUCCESS));
        EXPECT_EQ(handle, nullptr);
    }
}

// Engines whose init or presenter set-up throws; every destruction is counted.
std::atomic<int> throwingEnginesDestroyed{0};
std::atomic<bool> throwInInit{false};

class ThrowingEngine : public VirtualBackgroundImplYuv {
  public:
    using VirtualBackgroundImplYuv::VirtualBackgroundImplYuv;
    ~ThrowingEngine() override { throwingEnginesDestroyed.fetch_add(1); }
    int init(const VBGSettings&, uint32_t, uint32_t) override {
        if (throwInInit.load()) {
            throw std::runtime_error("init threw");
        }
        return 0;
    }
    bool updateWeatherman(const ZynNativeWeathermanSettings&) override {
        throw std::runtime_error("presenter set-up threw");
    }
};

TEST_F(FactoryTest, CreateThatThrowsLeavesTheHandleNullAndFreesTheEngine) {
    VirtualBackground::SetEngineMakerForTesting(
        [](uint32_t pt) -> VirtualBackground* { return new ThrowingEngine(pt); });
    const struct {
        bool inInit;
        std::string json;
        const char* message;
    } cases[] = {{true, R"({"processingMode": 2, "effects": [{"name": "blur"}]})", "init threw"},
                 {false, overlayConfig(2), "presenter set-up threw"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        throwInInit = c.inInit;
        throwingEnginesDestroyed = 0;
        LogCapture log;
        ZynNativeHandle handle = nullptr;
        EXPECT_EQ(ZynNativeVideoProcessingCreateInstance(c.json.c_str(), &handle),
                  static_cast<uint32_t>(ZYN_STATUS_CONFIG_FAILED));
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(throwingEnginesDestroyed.load(), 1);
        EXPECT_TRUE(log.has(spdlog::level::err, c.message)) << log.dump();
        ZynNativeVideoProcessingDestroyInstance(&handle);
    }
    VirtualBackground::SetEngineMakerForTesting(nullptr);
}

TEST_F(FactoryTest, AutomaticCreateWaitsForTheEvaluationAndUsesItsSelection) {
    // The stand-in evaluator stores OnnxRuntimeCpu as the working type.
    zyn_test::TempDir control("zyn-control");
    const std::filesystem::path release = control.path() / "release";
    EvaluatorStandIn standIn(zyn_test::HeldOpenUntil(
        release,
        "printf '{\"selected_processing_type\": \"OnnxRuntimeCpu\", "
        "\"selected_processing_time\": \"%s\"}' \"$(date +%s)\" > \"$4/PT_CONFIG.json\"\nexit 0"));
    VBG::EvaluatorLimits limits;
    limits.programPath = standIn.program();
    VBG::SetEvaluatorLimitsForTesting(limits);

    LogCapture log;
    uint32_t error = 0;
    VirtualBackground* engine = createDuringEvaluation(release, error);
    ASSERT_NE(engine, nullptr) << log.dump();
    EXPECT_EQ(typeOf(engine), static_cast<uint32_t>(VBG::PtOnnxRuntimeCpu));
    EXPECT_TRUE(log.hasFrom(
        kAutoFn, "Evaluation process is now complete, now proceed to creation of VBG object"));
    EXPECT_TRUE(log.hasFrom(kAutoFn, "Selected processing type: OnnxRuntimeCpu"));
    EXPECT_EQ(standIn.calls(), std::vector<std::string>{"OpenVinoGpuPPGPU"});
    destroy(engine);
}

TEST_F(FactoryTest, AutomaticCreateGivesUpWhenTheEvaluationTakesTooLong) {
    zyn_test::TempDir control("zyn-control");
    const std::filesystem::path release = control.path() / "release";
    EvaluatorStandIn standIn(zyn_test::HeldOpenUntil(release, "exit 1"));
    VBG::EvaluatorLimits limits;
    limits.programPath = standIn.program();
    limits.completionWait = 300ms;
    VBG::SetEvaluatorLimitsForTesting(limits);

    LogCapture log;
    ProcessingTypeEvaluator::StartEvaluation();
    uint32_t error = 0;
    EXPECT_EQ(VirtualBackground::createZynNative(blurSettings(VBG::PtAuto), error, 640, 360),
              nullptr);
    EXPECT_EQ(error, 0u);
    EXPECT_TRUE(log.hasFrom(kAutoFn, "Evaluation process is taking too much time to complete"))
        << log.dump();
    EXPECT_TRUE(log.has(spdlog::level::err, "Evaluation thread timeout occured"));
    // The evaluation still logs until it ends: let it end while the capture is alive.
    zyn_test::WriteFile(release, "");
    waitForEvaluationEnd();
}

TEST_F(FactoryTest, FailingStoredTypeFallsBackToTheWalkOnlyForAuto) {
    folders().storeSelectionAged("OpenVinoGpuPPGPU", 1h);
    {
        LogCapture log;
        uint32_t error = 0;
        VirtualBackground* engine =
            VirtualBackground::createAutoZynNative(blurSettings(VBG::PtAuto), error, 640, 360);
        ASSERT_NE(engine, nullptr) << log.dump();
        EXPECT_TRUE(log.has(spdlog::level::warn,
                            "Selected processing type: OpenVinoGpuPPGPU failed for some reason, "
                            "fallback to auto logic"));
        // 6, 8 and 4 need the GPU; 3 is the first type of the order that works here.
        EXPECT_EQ(typeOf(engine), static_cast<uint32_t>(VBG::PtOpenVinoCpu));
        EXPECT_TRUE(log.hasFrom(kAutoFn, "Selected processing type: OpenVinoCpu"));
        destroy(engine);
        VBG::DestroyVBGMLProcessingInstance();
    }
    {
        LogCapture log;
        uint32_t error = 0;
        EXPECT_EQ(VirtualBackground::createAutoZynNative(blurSettings(VBG::PtOpenVinoCpu), error,
                                                         640, 360),
                  nullptr);
        EXPECT_EQ(error, static_cast<uint32_t>(ZYN_STATUS_NOT_SUPPORTED));
        EXPECT_TRUE(log.hasFrom(kAutoFn, "Processing type is not auto!")) << log.dump();
        EXPECT_EQ(log.countContaining("Selected processing type: OpenVinoCpu"), 0u);
    }
}

TEST_F(FactoryTest, WalkThatFindsNoWorkingTypeNeedsInvestigation) {
    folders().storeSelectionAged("OnnxRuntimeCpu", 1h);
    zyn_test::TempDir empty("zyn-no-model");
    LogCapture log;
    uint32_t error = 0;
    EXPECT_EQ(VirtualBackground::createAutoZynNative(
                  blurSettings(VBG::PtAuto, empty.path() / "model.winml"), error, 640, 360),
              nullptr);
    EXPECT_EQ(error, static_cast<uint32_t>(ZYN_STATUS_CONFIG_FAILED));
    EXPECT_TRUE(log.has(spdlog::level::warn,
                        "Selected processing type: OnnxRuntimeCpu failed for some reason, "
                        "fallback to auto logic"));
    EXPECT_TRUE(log.hasFrom(kAutoFn, "All processing types exhausted, requires investigation!"))
        << log.dump();
}

TEST_F(FactoryTest, EvaluationThatFoundNothingLeavesTheWalkToTheCreate) {
    // Every evaluator run fails, so no selection is stored: the create walks the order itself.
    zyn_test::TempDir control("zyn-control");
    const std::filesystem::path release = control.path() / "release";
    EvaluatorStandIn standIn(zyn_test::HeldOpenUntil(release, "exit 1"));
    VBG::EvaluatorLimits limits;
    limits.programPath = standIn.program();
    VBG::SetEvaluatorLimitsForTesting(limits);

    LogCapture log;
    uint32_t error = 0;
    VirtualBackground* engine = createDuringEvaluation(release, error);
    ASSERT_NE(engine, nullptr) << log.dump();
    EXPECT_TRUE(log.hasFrom(kAutoFn, "Selected processing type is auto, fallback to auto logic"));
    EXPECT_EQ(typeOf(engine), static_cast<uint32_t>(VBG::PtOpenVinoCpu));
    EXPECT_EQ(standIn.calls().size(), 5u);
    destroy(engine);
}

}  // namespace
