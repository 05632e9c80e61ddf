// Effect configurations that the exported create and update refuse before any engine is made:
// statuses, what happens to the host's handle, and the records written on the way.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/log_capture.h"
#include "zyn_native_vbg.h"

using zyn_test::LogCapture;

namespace {

constexpr const char* kCreate = "ZynNativeVideoProcessingCreateInstance";
constexpr const char* kUpdate = "ZynNativeVideoProcessingUpdateInstance";

// A handle value no create would write: a create that must leave the handle alone keeps it.
ZynNativeHandle sentinel() {
    static int marker = 0;
    return &marker;
}

}  // namespace

TEST(ConfigAtCreate, FeedbackAloneReturnsOneAndLeavesTheHandle) {
    LogCapture log;
    ZynNativeHandle handle = sentinel();
    EXPECT_EQ(1u,
              ZynNativeVideoProcessingCreateInstance(R"({"feedback": true, "id": "f1"})", &handle));
    EXPECT_EQ(sentinel(), handle);
    EXPECT_TRUE(log.has(spdlog::level::err, "Feedback constraint passed in create instance"));
    EXPECT_TRUE(log.hasFrom(kCreate, "Feedback constraint passed in create instance"));
    EXPECT_FALSE(log.contains("ConvertToZynNativeConfig failed"));
}

TEST(ConfigAtCreate, TextsWithoutAnySectionReturnThreeAndLeaveTheHandle) {
    for (const char* text :
         {"{not json", "{}", R"({"effects": []})", R"({"feedback": false, "id": "f"})"}) {
        LogCapture log;
        ZynNativeHandle handle = sentinel();
        EXPECT_EQ(3u, ZynNativeVideoProcessingCreateInstance(text, &handle)) << text;
        EXPECT_EQ(sentinel(), handle) << text;
        EXPECT_TRUE(log.hasFrom(kCreate, "ConvertToZynNativeConfig failed")) << log.dump();
    }
    LogCapture log;
    ZynNativeHandle handle = nullptr;
    EXPECT_EQ(3u, ZynNativeVideoProcessingCreateInstance(nullptr, &handle));
    EXPECT_EQ(nullptr, handle);
    EXPECT_TRUE(log.contains("config is nullptr."));
    EXPECT_TRUE(log.has(spdlog::level::err, "ConvertToZynNativeConfig failed"));
}

TEST(ConfigAtCreate, NumberTextThatDoesNotConvertReturnsThree) {
    struct Case {
        const char* json;
        const char* what;
    } cases[] = {
        {R"({"effects": [{"name": "touchUp", "touchUpSigma": "smooth"}]})",
         "invalid stof argument"},
        {R"({"effects": [{"name": "weatherman", "mode": "overlay", "weathermanAlpha": "1e99",
             "weathermanSize": "1", "weathermanOffsetX": "0", "weathermanOffsetY": "0"}]})",
         "stof argument out of range"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        ZynNativeHandle handle = sentinel();
        EXPECT_EQ(3u, ZynNativeVideoProcessingCreateInstance(c.json, &handle)) << c.json;
        EXPECT_EQ(sentinel(), handle);
        EXPECT_TRUE(log.hasFrom(kCreate, c.what)) << log.dump();
        EXPECT_FALSE(log.contains("ZYNNativeVideoProcessing created with status 3"));
    }
}

TEST(ConfigAtUpdate, RefusedTextsReturnTheirStatusAndLeaveTheHandleNull) {
    struct Case {
        const char* json;
        uint32_t status;
    } cases[] = {
        {"not json", 3},
        {"{}", 3},
        {R"({"effects": [{"name": "touchUp", "touchUpSigma": "x"}]})", 3},
        // The feedback branch needs an instance; an id that names another file is a bad value.
        {R"({"feedback": true, "id": "f2"})", 2},
        {R"({"feedback": true, "id": "../f2"})", 3},
    };
    for (const auto& c : cases) {
        LogCapture log;
        ZynNativeHandle handle = nullptr;
        EXPECT_EQ(c.status, ZynNativeVideoProcessingUpdateInstance(&handle, c.json)) << c.json;
        EXPECT_EQ(nullptr, handle) << c.json;
        // A failed update always goes through the destroy path.
        EXPECT_EQ(1u, log.countContaining("DestroyInstance done, process id: ")) << log.dump();
        // The text itself is in the conversion's record only; this one gives its length.
        EXPECT_EQ(1u,
                  log.countContaining("ZYNNativeVideoProcessing updated with config (" +
                                      std::to_string(std::strlen(c.json)) + " bytes) on thread "))
            << log.dump();
        EXPECT_EQ(1u, log.countContaining(" with result " + std::to_string(c.status)));
        for (const auto& r : log.records()) {
            if (r.message.rfind("ZYNNativeVideoProcessing updated", 0) == 0) {
                EXPECT_EQ(kUpdate, r.function);
            }
        }
    }
}
