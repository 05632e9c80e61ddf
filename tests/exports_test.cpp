// The exported boundary as a host sees it: the real shared library loaded with dlopen.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
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

std::string run(const std::string& command) {
    std::string out;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    char buffer[4096];
    while (pipe && fgets(buffer, sizeof buffer, pipe.get()) != nullptr) {
        out += buffer;
    }
    return out;
}

}  // namespace

TEST(Exports, TheLibraryExportsExactlyTheTwentyFunctions) {
    const std::string listing =
        run("nm -D --defined-only '" + zyn_test::LibraryPath().string() + "'");
    std::set<std::string> names;
    std::istringstream lines(listing);
    std::string address, type, name;
    while (lines >> address >> type >> name) {
        names.insert(name);
    }
    const std::set<std::string> expected = {
        "ZynNativeVideoProcessingInit",
        "ZynNativeVbgGetVersion",
        "ZynNativeVideoProcessingGetVersion",
        "ZynNativeVbgIsSupported",
        "ZynNativeVideoProcessingGetSupportedEffects",
        "ZynNativeVbgCreateInstance",
        "ZynNativeVideoProcessingCreateInstance",
        "ZynNativeVbgUpdateInstance",
        "ZynNativeVideoProcessingUpdateInstance",
        "ZynNativeVbgProcessFrame",
        "ZynNativeVideoProcessingProcessFrame",
        "ZynNativeVideoProcessingProcessPresentationFrame",
        "ZynNativeVideoProcessingGetOutputFrameSize",
        "ZynNativeVideoProcessingGetFrameProcessingStats",
        "ZynNativeVbgDestroyInstance",
        "ZynNativeVideoProcessingDestroyInstance",
        "ZynNativeVbgShutdownInstance",
        "ZynNativeVideoProcessingShutdownInstance",
        "ZynNativeInternalCreate",
        "ZynNativeInternalDestroy",
    };
    EXPECT_EQ(expected, names) << listing;
    EXPECT_EQ(static_cast<size_t>(VbgLibrary::kExportCount), expected.size());
}

TEST(Exports, VersionComesFromTheBuildAndANullRecordIsRefused) {
    EXPECT_FALSE(lib().GetVersion(nullptr));

    ZynNativeVersion filled{};
    ASSERT_TRUE(lib().GetVersion(&filled));
    const ZynNativeVersion byValue = lib().VbgGetVersion();
    std::ostringstream text;
    text << filled.major << '.' << filled.minor << '.' << filled.build << '.' << filled.revision;
    EXPECT_EQ(ZYN_PRODUCT_VERSION, text.str());
    EXPECT_EQ(filled.major, byValue.major);
    EXPECT_EQ(filled.minor, byValue.minor);
    EXPECT_EQ(filled.build, byValue.build);
    EXPECT_EQ(filled.revision, byValue.revision);
}

TEST(Exports, SupportCheckAndTheExactSupportedEffectsText) {
    LogCapture log;
    EXPECT_TRUE(lib().IsSupported());
    EXPECT_EQ(1u, log.countContaining("OS info: "));
    EXPECT_STREQ(R"({"effects": ["blur","background","touchUp", "weatherman", "feedback"]})",
                 lib().GetSupportedEffects());
    // The GPU check runs for its records only.
    EXPECT_TRUE(log.has(spdlog::level::err,
                        "IsGpuAvailable failed. D3D11 Hardware Layer is not supported"));
}

TEST(Exports, DestroyingANullHandleOnlyLogs) {
    LogCapture log;
    ZynNativeHandle handle = nullptr;
    lib().Destroy(&handle);
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(1u, log.countContaining("DestroyInstance, process id: "));
    EXPECT_EQ(1u, log.countContaining("DestroyInstance done, process id: "));
    EXPECT_EQ(1u, log.countContaining(", object: 0x0"));

    lib().VbgDestroy(&handle);
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(1u, log.countContaining("ZYNNativeVbg destroyed was called, but object not deleted"));
    lib().InternalDestroy(nullptr);
}

TEST(Exports, CallsWithoutAnInstanceFailWithStatusesNotCrashes) {
    ZynNativeHandle handle = nullptr;
    ZynNativeInputFrame in{}, out{};
    EXPECT_EQ(ZYN_STATUS_FRAME_FAILED, lib().ProcessFrame(&handle, &in, &out));
    EXPECT_EQ(ZYN_STATUS_FRAME_FAILED, lib().ProcessFrame(nullptr, &in, &out));
    EXPECT_EQ(ZYN_STATUS_FRAME_FAILED, lib().VbgProcessFrame(&handle, &in, &out));
    ZynNativeInputFrame frames[2] = {};
    EXPECT_EQ(ZYN_STATUS_FRAME_FAILED, lib().ProcessPresentationFrame(&handle, frames, &out));
    uint32_t w = 7, h = 9;
    EXPECT_FALSE(lib().GetOutputFrameSize(&handle, &w, &h));
    EXPECT_EQ(7u, w);
    EXPECT_STREQ("", lib().GetFrameProcessingStats(&handle, nullptr, nullptr, nullptr));
    EXPECT_EQ(nullptr, lib().InternalCreate(nullptr));
    EXPECT_EQ(ZYN_STATUS_CONFIG_FAILED, lib().VbgCreate(nullptr, &handle));
    EXPECT_EQ(nullptr, handle);
}

TEST(Exports, InitFailsOnAMissingConfigurationAndReportsOnTheDebugOutput) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(lib().Init("/nonexistent/zyn/config.json"));
    EXPECT_FALSE(lib().Init(nullptr));
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("ConfigParser::InitConfig failed!")) << err;
}
