// The inference backend interface: the shared tables, the mask state, loadBindModel, the factory
// and the one process-wide backend instance.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "ml/vbg_ml_processing.h"
#include "ml/vbg_onnxruntime_processing.h"
#include "support/log_capture.h"
#include "support/test_paths.h"
#ifdef ZYN_WITH_OPENVINO
#include "ml/vbg_openvino_processing.h"
#endif

namespace {

using zyn_test::LogCapture;

// A backend whose load and bind answer as told and count their calls.
class ScriptedBackend : public VBG::IVBGMLProcessing {
  public:
    ScriptedBackend(bool loadResult, bool bindResult)
        : IVBGMLProcessing(2), loadResult_(loadResult), bindResult_(bindResult) {}

    bool runModel(const uint8_t*, uint32_t, uint32_t, VBG::VBGMLState*) override { return false; }
    uint8_t* getInputBuffer() override { return inputBuffer.get(); }
    bool loadModel(const std::string& path) override {
        ++loadCalls;
        loadedPath = path;
        return loadResult_;
    }
    bool bindModel() override {
        ++bindCalls;
        return bindResult_;
    }
    void clearModel() override {}

    int loadCalls = 0;
    int bindCalls = 0;
    std::string loadedPath;

  private:
    bool loadResult_;
    bool bindResult_;
};

std::string TestModel(const std::string& name) {
    return (zyn_test::TestModelsDir() / name).string();
}

TEST(SharedTables, UnitFloatTableIsExactSinglePrecisionDivision) {
    ScriptedBackend backend(true, true);
    for (int i = 0; i < 256; ++i) {
        const float expected = static_cast<float>(i) / 255.0f;
        EXPECT_EQ(VBG::unitFloatTable[i], expected) << "entry " << i;
    }
    EXPECT_EQ(VBG::unitFloatTable[0], 0.0f);
    EXPECT_EQ(VBG::unitFloatTable[255], 1.0f);
}

TEST(SharedTables, MaskContrastTableDropsWeakValuesAndRisesSmoothly) {
    ScriptedBackend backend(true, true);
    for (int i = 0; i <= 107; ++i) {
        EXPECT_EQ(VBG::maskContrastTable[i], 0) << "entry " << i;
    }
    // 102 / 255 is exactly the lower threshold and still maps to 0.
    EXPECT_EQ(VBG::maskContrastTable[102], 0);
    EXPECT_EQ(VBG::maskContrastTable[108], 1);
    for (int i = 250; i <= 254; ++i) {
        EXPECT_EQ(VBG::maskContrastTable[i], 254) << "entry " << i;
    }
    EXPECT_EQ(VBG::maskContrastTable[255], 255);
    for (int i = 1; i < 256; ++i) {
        EXPECT_LE(VBG::maskContrastTable[i - 1], VBG::maskContrastTable[i]) << "entry " << i;
    }
    // The middle of the curve: v = 178/255, t = (v - 0.4) / 0.6 is close to 0.497, where the
    // smoothstep is close to one half.
    EXPECT_NEAR(VBG::maskContrastTable[178], 126, 1);
}

TEST(SharedTables, EveryBackendConstructionRewritesThem) {
    std::vector<uint8_t> contrast;
    {
        ScriptedBackend first(true, true);
        contrast.assign(VBG::maskContrastTable, VBG::maskContrastTable + 256);
    }
    VBG::unitFloatTable[7] = -1.0f;
    VBG::maskContrastTable[200] = 3;
    ScriptedBackend second(true, true);
    EXPECT_EQ(VBG::unitFloatTable[7], 7.0f / 255.0f);
    EXPECT_EQ(std::vector<uint8_t>(VBG::maskContrastTable, VBG::maskContrastTable + 256), contrast);
}

TEST(MLState, NewStateIsZeroFilledAndLogged) {
    LogCapture log;
    VBG::VBGMLState state(256, 144);
    EXPECT_EQ(state.width, 256u);
    EXPECT_EQ(state.height, 144u);
    ASSERT_EQ(state.size, 256 * 144);
    for (int32_t p = 0; p < state.size; ++p) {
        ASSERT_EQ(state.mask[p], 0) << "mask pixel " << p;
        ASSERT_EQ(state.prevMask[p], 0.0f) << "prevMask pixel " << p;
    }
    EXPECT_TRUE(log.has(spdlog::level::info, "Constructed VBGMLState with 256 x 144"))
        << log.dump();
}

TEST(MLState, CreateStateHasTheModelSize) {
    ScriptedBackend backend(true, true);
    backend.modelWidth = 16;
    backend.modelHeight = 8;
    const auto state = backend.createState();
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->width, 16u);
    EXPECT_EQ(state->height, 8u);
    EXPECT_EQ(state->size, 128);
}

TEST(BackendBase, LoadBindModelBindsOnlyAfterASuccessfulLoad) {
    {
        ScriptedBackend failingLoad(false, true);
        EXPECT_FALSE(failingLoad.loadBindModel("/models/a.onnx"));
        EXPECT_EQ(failingLoad.loadCalls, 1);
        EXPECT_EQ(failingLoad.bindCalls, 0);
        EXPECT_EQ(failingLoad.loadedPath, "/models/a.onnx");
    }
    {
        ScriptedBackend failingBind(true, false);
        EXPECT_FALSE(failingBind.loadBindModel("m"));
        EXPECT_EQ(failingBind.loadCalls, 1);
        EXPECT_EQ(failingBind.bindCalls, 1);
    }
    {
        ScriptedBackend working(true, true);
        EXPECT_TRUE(working.loadBindModel("m"));
        EXPECT_EQ(working.loadCalls, 1);
        EXPECT_EQ(working.bindCalls, 1);
    }
}

TEST(BackendBase, CachePathIsNotKeptByDefault) {
    ScriptedBackend backend(true, true);
    EXPECT_FALSE(backend.setCachePath("/tmp/cache"));
}

TEST(BackendFactory, MapsProcessingTypesToBackends) {
    for (uint32_t type : {0u, 2u, 8u}) {
        const auto backend = VBG::createBackend(type);
        ASSERT_NE(backend, nullptr) << "type " << type;
        EXPECT_NE(dynamic_cast<VBG::OnnxRuntimeProcessing*>(backend.get()), nullptr)
            << "type " << type;
        EXPECT_EQ(backend->processingType, type);
        EXPECT_EQ(backend->modelWidth, 0u);
        EXPECT_EQ(backend->modelHeight, 0u);
    }
#ifdef ZYN_WITH_OPENVINO
    for (uint32_t type : {3u, 4u, 5u, 6u}) {
        const auto backend = VBG::createBackend(type);
        ASSERT_NE(backend, nullptr) << "type " << type;
        EXPECT_NE(dynamic_cast<VBG::OpenVinoProcessing*>(backend.get()), nullptr)
            << "type " << type;
        EXPECT_EQ(backend->processingType, type);
    }
#endif
    for (uint32_t type : {1u, 7u, 9u, 10u, 0xFFFFFFFFu}) {
        EXPECT_EQ(VBG::createBackend(type), nullptr) << "type " << type;
    }
}

class BackendInstance : public ::testing::Test {
  protected:
    void SetUp() override { VBG::DestroyVBGMLProcessingInstance(); }
    void TearDown() override { VBG::DestroyVBGMLProcessingInstance(); }

    const std::string model_ = TestModel("exact_two_channel.onnx");
    const std::string cache_ = "/tmp/zyn-cache-unused";
};

TEST_F(BackendInstance, SecondEngineOfTheSameTypeSharesTheLoadedBackend) {
    LogCapture log;
    const auto [first, firstOk] = VBG::GetVBGMLProcessingInstance(2, cache_, model_);
    ASSERT_TRUE(firstOk) << log.dump();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->processingType, 2u);
    EXPECT_EQ(first->modelWidth, 16u);
    EXPECT_EQ(first->modelHeight, 8u);

    const auto [second, secondOk] = VBG::GetVBGMLProcessingInstance(2, cache_, model_);
    EXPECT_TRUE(secondOk);
    EXPECT_EQ(second, first);
    EXPECT_EQ(log.count("GetVBGMLProcessingInstance create"), 1u) << log.dump();
    EXPECT_TRUE(log.has(spdlog::level::info, "GetVBGMLProcessingInstance create"));
    EXPECT_EQ(log.countContaining("Model file loaded in: "), 1u) << log.dump();
    EXPECT_EQ(log.countContaining("Binding complete: "), 1u);
}

TEST_F(BackendInstance, OtherTypeIsRefusedAndTheFirstBackendStaysUsable) {
    const auto [backend, ok] = VBG::GetVBGMLProcessingInstance(2, cache_, model_);
    ASSERT_TRUE(ok);

    LogCapture log;
    const auto [other, otherOk] = VBG::GetVBGMLProcessingInstance(0, cache_, model_);
    EXPECT_FALSE(otherOk);
    EXPECT_EQ(other, nullptr);
    EXPECT_TRUE(log.has(spdlog::level::warn,
                        "Processing Type mismatch and hence returning false to fallback"))
        << log.dump();
    EXPECT_EQ(log.count("GetVBGMLProcessingInstance create"), 0u);
    EXPECT_EQ(log.count("GetVBGMLProcessingInstance destroy"), 0u);

    const auto state = backend->createState();
    std::vector<uint8_t> image(16 * 8 * 4, 200);
    EXPECT_TRUE(backend->runModel(image.data(), 16, 8, state.get())) << log.dump();
    EXPECT_GT(state->mask[0], 0);

    const auto [again, againOk] = VBG::GetVBGMLProcessingInstance(2, cache_, model_);
    EXPECT_TRUE(againOk);
    EXPECT_EQ(again, backend);
}

TEST_F(BackendInstance, DestroyThenCreateMakesAndLoadsANewBackend) {
    const auto first = VBG::GetVBGMLProcessingInstance(2, cache_, model_);
    ASSERT_TRUE(first.second);

    LogCapture log;
    VBG::DestroyVBGMLProcessingInstance();
    EXPECT_TRUE(log.has(spdlog::level::info, "GetVBGMLProcessingInstance destroy"));
    // A second destroy has nothing left to destroy.
    VBG::DestroyVBGMLProcessingInstance();
    EXPECT_EQ(log.count("GetVBGMLProcessingInstance destroy"), 1u);

    // After the destroy another processing type is no longer a mismatch.
    const auto second = VBG::GetVBGMLProcessingInstance(0, cache_, model_);
    ASSERT_TRUE(second.second) << log.dump();
    EXPECT_EQ(second.first->processingType, 0u);
    EXPECT_EQ(log.count("GetVBGMLProcessingInstance create"), 1u);
    EXPECT_EQ(log.countContaining("Model file loaded in: "), 1u);
    EXPECT_EQ(log.count("Processing Type mismatch and hence returning false to fallback"), 0u);
}

TEST_F(BackendInstance, TypesWithoutABackendLeaveNoInstance) {
    for (uint32_t type : {7u, 9u, 1u}) {
        LogCapture log;
        const auto [backend, ok] = VBG::GetVBGMLProcessingInstance(type, cache_, model_);
        EXPECT_FALSE(ok) << "type " << type;
        EXPECT_EQ(backend, nullptr);
        EXPECT_EQ(log.count("GetVBGMLProcessingInstance create"), 1u);
        EXPECT_EQ(log.countContaining("Model file loaded in: "), 0u);
    }
    // Nothing was kept: a supported type is created from scratch, without a mismatch.
    LogCapture log;
    const auto [backend, ok] = VBG::GetVBGMLProcessingInstance(2, cache_, model_);
    EXPECT_TRUE(ok) << log.dump();
    EXPECT_EQ(log.count("GetVBGMLProcessingInstance create"), 1u);
}

TEST_F(BackendInstance, FailedLoadDestroysTheHalfMadeBackend) {
    zyn_test::TempDir dir("zyn-ml");
    LogCapture log;
    const auto [backend, ok] =
        VBG::GetVBGMLProcessingInstance(2, cache_, (dir / "missing.onnx").string());
    EXPECT_FALSE(ok);
    EXPECT_EQ(backend, nullptr);
    EXPECT_TRUE(log.has(spdlog::level::err, "loadBindModel failed")) << log.dump();
    EXPECT_TRUE(log.has(spdlog::level::info, "GetVBGMLProcessingInstance destroy"));
    EXPECT_EQ(log.countContaining("Binding complete: "), 0u);

    log.clear();
    const auto retry = VBG::GetVBGMLProcessingInstance(2, cache_, model_);
    EXPECT_TRUE(retry.second) << log.dump();
    EXPECT_EQ(log.count("GetVBGMLProcessingInstance create"), 1u);
}

TEST_F(BackendInstance, ModelThatCannotBeBoundFailsTheCreate) {
    LogCapture log;
    const auto [backend, ok] =
        VBG::GetVBGMLProcessingInstance(2, cache_, TestModel("three_input_channels.onnx"));
    EXPECT_FALSE(ok);
    EXPECT_EQ(backend, nullptr);
    EXPECT_EQ(log.countContaining("Model file loaded in: "), 1u);
    EXPECT_TRUE(log.has(spdlog::level::err, "loadBindModel failed")) << log.dump();
}

}  // namespace
