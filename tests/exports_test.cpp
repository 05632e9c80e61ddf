// The exported boundary as a host sees it: the real shared library loaded with dlopen.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "support/log_capture.h"
#include "support/test_paths.h"
#include "support/vbg_library.h"
#include "zyn_version.h"

using zyn_test::LogCapture;
using zyn_test::VbgLibrary;

namespace {

VbgLibrary& lib() {
    static VbgLibrary library;
    return library;
}

}  // namespace

// The twenty functions resolve (VbgLibrary looks each one up by name) and nothing else is exported.
TEST(Exports, TheLibraryExportsExactlyTheTwentyFunctions) {
    lib();
    const std::string command =
        "nm -D --defined-only '" + zyn_test::LibraryPath().string() + "' | wc -l";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    int count = 0;
    ASSERT_EQ(1, fscanf(pipe.get(), "%d", &count));
    EXPECT_EQ(20, count);
}

TEST(Exports, VersionSupportAndTheExactSupportedEffectsText) {
    EXPECT_FALSE(lib().GetVersion(nullptr));
    ZynNativeVersion filled{};
    ASSERT_TRUE(lib().GetVersion(&filled));
    const ZynNativeVersion byValue = lib().VbgGetVersion();
    EXPECT_EQ(ZYN_PRODUCT_VERSION,
              std::to_string(filled.major) + "." + std::to_string(filled.minor) + "." +
                  std::to_string(filled.build) + "." + std::to_string(filled.revision));
    EXPECT_EQ(0, std::memcmp(&filled, &byValue, sizeof filled));

    LogCapture log;
    EXPECT_TRUE(lib().IsSupported());
    EXPECT_EQ(1u, log.countContaining("OS info: "));
    EXPECT_STREQ(R"({"effects": ["blur","background","touchUp", "weatherman", "feedback"]})",
                 lib().GetSupportedEffects());
    // The GPU check runs for its records only.
    EXPECT_TRUE(log.has(spdlog::level::err,
                        "IsGpuAvailable failed. D3D11 Hardware Layer is not supported"));
}

// Statuses: 2 a frame without a live instance, 3 a refused configuration, 5 a processing type
// this machine does not support (processing mode 9 is a GPU type; there is no GPU here).
TEST(Exports, CallsWithoutAnInstanceFailWithStatusesNotCrashes) {
    LogCapture log;
    ZynNativeHandle handle = nullptr;
    ZynNativeInputFrame in{}, out{}, frames[2] = {};
    EXPECT_EQ(2u, lib().ProcessFrame(&handle, &in, &out));
    EXPECT_EQ(2u, lib().ProcessFrame(nullptr, &in, &out));
    EXPECT_EQ(2u, lib().VbgProcessFrame(&handle, &in, &out));
    EXPECT_EQ(2u, lib().ProcessPresentationFrame(&handle, frames, &out));
    uint32_t w = 7, h = 9;
    EXPECT_FALSE(lib().GetOutputFrameSize(&handle, &w, &h));
    EXPECT_EQ(7u, w);
    EXPECT_STREQ("", lib().GetFrameProcessingStats(&handle, nullptr, nullptr, nullptr));
    EXPECT_EQ(nullptr, lib().InternalCreate(nullptr));
    EXPECT_EQ(3u, lib().VbgCreate(nullptr, &handle));
    ZynNativeConfig config{};
    config.processingMode = 9;
    config.effects = 1;
    config.backgroundEffectKind = 1;
    EXPECT_EQ(5u, lib().VbgCreate(&config, &handle));
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(3u, lib().VbgUpdate(&handle, &config));  // no instance to update
    EXPECT_EQ(3u, lib().VbgUpdate(&handle, nullptr));

    // Destroying a null handle only logs.
    lib().Destroy(&handle);
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(1u, log.countContaining("DestroyInstance, process id: "));
    EXPECT_EQ(1u, log.countContaining("DestroyInstance done, process id: "));
    EXPECT_EQ(1u, log.countContaining(", object: 0x0"));
    lib().VbgDestroy(&handle);
    EXPECT_EQ(1u, log.countContaining("ZYNNativeVbg destroyed was called, but object not deleted"));
    lib().InternalDestroy(nullptr);
}

// Refused texts: 1 feedback only at create, 2 a feedback request without an instance at update, 3 a
// text that is refused. A create leaves the handle alone; a failed update destroys and nulls it.
TEST(Exports, RefusedTextsAtCreateAndUpdateGiveTheirStatus) {
    static int marker = 0;
    const struct {
        const char* json;
        uint32_t create, update;
        const char* logged;
    } cases[] = {
        {R"({"feedback": true, "id": "f1"})", 1, 2,
         "Feedback constraint passed in create instance"},
        {nullptr, 3, 3, "config is nullptr."},
        {"{}", 3, 3, "ConvertToZynNativeConfig failed"},
        {R"({"effects": []})", 3, 3, "ConvertToZynNativeConfig failed"},
        {R"({"feedback": true, "id": "../f2"})", 3, 3, "feedback id refused"},
        {R"({"effects": [{"name": "touchUp", "touchUpSigma": "x"}]})", 3, 3,
         "invalid stof argument"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json != nullptr ? c.json : "(null)");
        LogCapture log;
        ZynNativeHandle handle = &marker;
        EXPECT_EQ(c.create, lib().Create(c.json, &handle));
        EXPECT_EQ(&marker, handle);
        EXPECT_TRUE(log.contains(c.logged)) << log.dump();
        EXPECT_EQ(c.update, lib().Update(&handle, c.json));
        EXPECT_EQ(nullptr, handle);
        EXPECT_EQ(1u, log.countContaining("DestroyInstance done, process id: ")) << log.dump();
        // The update's record gives the length of the text, never the text.
        const std::string length =
            c.json == nullptr ? "(null)" : "(" + std::to_string(std::strlen(c.json)) + " bytes)";
        EXPECT_EQ(1u, log.countContaining("ZYNNativeVideoProcessing updated with config " + length +
                                          " on thread "));
        EXPECT_EQ(1u, log.countContaining(" with result " + std::to_string(c.update)));
    }
}

TEST(Exports, InitFailsOnAMissingConfigurationAndReportsOnTheDebugOutput) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(lib().Init("/nonexistent/zyn/config.json"));
    EXPECT_FALSE(lib().Init(nullptr));
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("ConfigParser::InitConfig failed!")) << err;
}
