// Diagnostics: the rotating library log, frame statistics, feedback dumps, exception reports and
// the GPU checks' records.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <set>
#include <stdexcept>
#include <thread>

#include "diag/feedback_writer.h"
#include "diag/frame_processing_stats.h"
#include "diag/spdlog_init.h"
#include "gpu/d3d12_utils.h"
#include "support/log_capture.h"
#include "support/test_paths.h"
#include "util/log.h"
#include "util/text.h"
#include "util/zyn_utils.h"

namespace fs = std::filesystem;
using VBG::FrameStats;
using zyn_test::LogCapture;
using zyn_test::ReadFile;
using zyn_test::TempDir;

namespace {

// Marks one frame's points at the given times in ms; a negative time leaves its point out.
void frame(FrameStats& stats, std::initializer_list<int64_t> pointsMs) {
    int point = 0;
    for (const int64_t ms : pointsMs) {
        if (ms >= 0) {
            stats.markAt(point, ms * 1000000);
        }
        ++point;
    }
}

// The four stage durations of the last frame: pre, inference, post and total.
std::string stages(const FrameStats& s) {
    return std::to_string(s.current(FrameStats::Pre)) + " " +
           std::to_string(s.current(FrameStats::Inf)) + " " +
           std::to_string(s.current(FrameStats::Post)) + " " +
           std::to_string(s.current(FrameStats::Total));
}

void flushLog() {
    spdlog::default_logger()->flush();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the worker writes
}

}  // namespace

// The logger is process-wide: its cases run in a fixed order inside one test.
TEST(Logging, FolderFailuresThenOneSetUpThatSticksAndRotates) {
    TempDir root("zyn-log");
    try {
        logger::InitLogger((root.path() / "missing" / "logs").string());
        FAIL() << "expected a runtime error";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("Failed to create NVBG log folder. Error code: 3", e.what());
    }
    EXPECT_FALSE(logger::IsInitialised());
    const fs::path first = root.path() / "first";
    fs::create_directories(first);  // an existing folder is accepted
    ZLOG_INFO("LoggerTest::beforeSetUp", "written before set-up");
    // A link in the log file's place is replaced, never written through.
    zyn_test::WriteFile(root / "victim", "keep");
    fs::create_symlink(root / "victim", first / "ZYNNativeVBG.log");
    logger::InitLogger(first.string());
    EXPECT_EQ("ZYN", spdlog::default_logger()->name());
    logger::InitLogger((root / "second").string());  // a second set-up changes nothing
    EXPECT_FALSE(fs::exists(root / "second"));
    ZLOG_ERROR("VBG::Sample::method", "sample record {}", 42);
    flushLog();
    const std::string text = ReadFile(first / "ZYNNativeVBG.log");
    EXPECT_EQ(std::string::npos, text.find("written before set-up"));
    EXPECT_NE(std::string::npos, text.find("VBG log initialised, current process id: " +
                                           std::to_string(VBG::Utils::ProcessId())));
    // "[yy-mm-dd hh:mm:ss:mmm] [L] [function line] message"
    EXPECT_TRUE(std::regex_search(
        text, std::regex(R"(\[\d{2}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}:\d{3}\] )"
                         R"(\[E\] \[VBG::Sample::method \d+\] sample record 42)")));
    // Far more than 10 MiB (10485760 bytes) of records: the current file and three rotated ones.
    for (int i = 0; i < 52000; ++i) {
        ZLOG_INFO("LoggerTest::fill", "{} {}", i, std::string(1000, 'x'));
    }
    flushLog();
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(first)) {
        names.insert(entry.path().filename().string());
        EXPECT_LE(fs::file_size(entry.path()), 10485760u + 2048) << entry.path();
        EXPECT_EQ(0600u, zyn_test::PermissionBits(entry.path())) << entry.path();
    }
    EXPECT_EQ((std::set<std::string>{"ZYNNativeVBG.log", "ZYNNativeVBG.1.log", "ZYNNativeVBG.2.log",
                                     "ZYNNativeVBG.3.log"}),
              names);
    EXPECT_EQ("keep", ReadFile(root / "victim"));
}

TEST(FrameStatistics, FirstFrameRecordSummaryReportAndFailedFrames) {
    LogCapture log;
    FrameStats stats("V", 10);
    // Frames end at 10, 1010, ..., 10010 ms: the window opens at the first frame's end and the
    // eleventh closes it 10000 ms later.
    for (int64_t i = 0; i < 11; ++i) {
        const int64_t pre = i == 3 ? 6 : 2;
        frame(stats, {i * 1000, i * 1000 + pre, i * 1000 + pre + 5, i * 1000 + pre + 8});
    }
    EXPECT_EQ(1u, log.count("[V] Pre:2 Inf:5 Post:3 Total:10"));
    // 11 frames in 10 s; Total sums 10*10+14 = 114 ms, 114/11 = 10.364; Pre 2*10+6 = 26, 2.364.
    EXPECT_TRUE(log.hasFrom("VBG::FrameStats::LogStats",
                            "[V] fps: 1.100[(Total) curr:10 min:10 max:14 avg:10.364]"
                            "[(Post) curr:3 min:3 max:3 avg:3.000]"
                            "[(Inf) curr:5 min:5 max:5 avg:5.000]"
                            "[(Pre) curr:2 min:2 max:6 avg:2.364]"))
        << log.dump();
    EXPECT_EQ(0, stats.frameCount());
    EXPECT_EQ(2147483647, stats.minimum(FrameStats::Pre));
    // The next window starts at the summary: nine seconds later no summary yet.
    for (int64_t i = 1; i <= 9; ++i) {
        frame(stats, {10000 + i * 1000, 10001 + i * 1000, 10002 + i * 1000, 10003 + i * 1000});
    }
    EXPECT_EQ(1u, log.countContaining("fps: "));
    stats.clearFirstFrameLogged();  // what an update does
    frame(stats, {30000, 30004, 30013, 30015});
    EXPECT_TRUE(
        log.hasFrom("VBG::FrameStats::LogFirstFrameStats", "[V] Pre:4 Inf:9 Post:2 Total:15"));
    EXPECT_STREQ(
        R"({"preProcessedTime":4,"inferenceTime":9,"postProcessedTime":2,"fullFrameTime":15})",
        stats.report());
    // Whole milliseconds, truncated: 1.999999, 0.000001 and 3.5 ms.
    frame(stats, {31000, -1, -1, -1});
    stats.markAt(FrameStats::PreDone, 31001999999);
    stats.markAt(FrameStats::InferenceDone, 31002000000);
    stats.markAt(FrameStats::FrameEnd, 31005500000);
    EXPECT_EQ("1 0 3 5", stages(stats));
    // Start and end only: the model never ran. Marks do not leak into the next frame.
    frame(stats, {32000, -1, -1, 32007});
    EXPECT_EQ("0 0 0 7", stages(stats));
    EXPECT_EQ(0, stats.minimum(FrameStats::Inf));
    frame(stats, {33000, 33001, -1, 33003});
    EXPECT_EQ("1 0 0 3", stages(stats));
}

// What the engine pipeline's feedback case does not reach: an I420 frame with padded strides, a
// frame of another format, owner-only dumps (also over an older, open file) and no link followed.
TEST(FeedbackDumps, I420FramesOwnerOnlyFilesAndNoLinkFollowed) {
    TempDir dir("feedback"), elsewhere("feedback-target");
    zyn_test::WriteFile(elsewhere / "victim", "keep");
    fs::create_symlink(elsewhere / "victim", dir / "x.json");
    zyn_test::WriteFile(dir / "rawabc.bin", "older dump");
    fs::permissions(dir / "rawabc.bin", fs::perms::all);
    LogCapture log;
    // 6x4 I420, luma stride 8 and chroma stride 5, over a gradient.
    std::vector<uint8_t> bytes(70);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(30 + 7 * i);
    }
    uint8_t* b = bytes.data();
    const ZynNativeInputFrame i420{6, 4, ZYN_FORMAT_I420, b, 8, b + 40, 5, b + 60, 5, 0};
    ZynNativeInputFrame odd = i420;
    odd.format = 3;
    std::string argb(96, '\0');
    libyuv::I420ToARGB(b, 8, b + 40, 5, b + 60, 5, reinterpret_cast<uint8_t*>(&argb[0]), 24, 6, 4);
    VBG::FeedbackWriter writer;
    ASSERT_TRUE(writer.Start(dir.str(), "abc"));
    writer.WriteFramesToFile(&i420, &odd);
    writer.WriteCurrentMaskToFile(b, 2, 3);
    writer.End();
    EXPECT_EQ(argb, ReadFile(dir / "rawabc.bin"));
    EXPECT_FALSE(fs::exists(dir / "finalabc.bin"));
    EXPECT_EQ(std::string(b, b + 6), ReadFile(dir / "currentMaskabc.bin"));
    for (const char* name : {"rawabc.bin", "currentMaskabc.bin", "abc.json"}) {
        EXPECT_EQ(0600u, zyn_test::PermissionBits(dir / name)) << name;
    }
    EXPECT_EQ(R"({"raw":{"filename":"rawabc.bin","width":6,"height":4},)"
              R"("currentMask":{"filename":"currentMaskabc.bin","width":2,"height":3}})",
              ReadFile(dir / "abc.json"));
    ASSERT_TRUE(writer.Start(dir.str(), "x"));
    writer.End();
    EXPECT_EQ("keep", ReadFile(elsewhere / "victim"));
    for (const char* message :
         {"FeedbackWriter::Start id: abc",
          "FeedbackWriter::WriteFramesToFile raw: 6 x 4, final: 6 x 4",
          "FeedbackWriter::WriteCurrentMaskToFile 2 x 3", "FeedbackWriter::End abc",
          "x.json not written: it is a symbolic link"}) {
        EXPECT_EQ(1u, log.countContaining(message)) << message << "\n" << log.dump();
    }
}

TEST(Services, LogFileNameTextFieldsExceptionReportAndGpuRecords) {
    EXPECT_EQ("/var/log/zyn/ZYNNativeVBG.log", VBG::Utils::GetAssetFullPath("/var/log/zyn"));
    EXPECT_EQ("/var/log/zyn/ZYNNativeVBG.log", VBG::Utils::GetAssetFullPath("/var/log/zyn/"));
    EXPECT_THROW(VBG::Utils::ParseProductVersion("1.2"), std::invalid_argument);
    // UTF-8 of one to four bytes (a, e acute, a CJK character, an astral-plane emoji) both ways.
    // A stray byte, a cut sequence, an overlong form and a lone surrogate are replaced once each.
    const std::string utf8 = u8"a\u00e9\u6a21\U0001F4C1";
    EXPECT_EQ(u"a\u00e9\u6a21\U0001F4C1", VBG::Text::Utf8ToUtf16(utf8));
    EXPECT_EQ(utf8, VBG::Text::Utf16ToUtf8(u"a\u00e9\u6a21\U0001F4C1"));
    EXPECT_EQ(u"\uFFFDx\uFFFD\uFFFD", VBG::Text::Utf8ToUtf16("\xFFx\xE6\xA8\xC0\x80"));
    EXPECT_EQ(u8"\uFFFDa\uFFFD", VBG::Text::Utf16ToUtf8(std::u16string{0xD800, u'a', 0xDC00}));
    // A field keeps what fits, and one without a terminator is read to its capacity.
    char16_t field[8];
    EXPECT_TRUE(VBG::Text::CopyToField(field, 8, std::string("abc"), 6));
    EXPECT_FALSE(VBG::Text::CopyToField(field, 8, std::string("abcdefg"), 6));
    EXPECT_EQ("abc", VBG::Text::FieldToUtf8(field, 8));
    std::fill(std::begin(field), std::end(field), u'q');
    EXPECT_EQ("qqqqqqqq", VBG::Text::FieldToUtf8(field, 8));

    LogCapture log;
    EXPECT_EQ(
        static_cast<int32_t>(0x887A0005),
        VBG::Utils::processException(
            VBG::HResultError(static_cast<int32_t>(0x887A0005), "device gone"), "run failed."));
    EXPECT_TRUE(log.hasFrom("VBG::Utils::processException",
                            "run failed. HR:887A0005 , message: device gone"));
    // Without Direct3D 12 there is no adapter: the search reports, then the availability check.
    log.clear();
    EXPECT_EQ(nullptr, VBG::D3D12Utils::GetHardwareAdapter());
    EXPECT_FALSE(VBG::D3D12Utils::IsGpuAvailable());
    EXPECT_EQ(2u, log.countAt(spdlog::level::err,
                              "Hardware adapter is not supported on this "
                              "system, GPU cannot be used for ML"));
    EXPECT_TRUE(log.hasFrom("VBG::D3D12Utils::IsGpuAvailable",
                            "IsGpuAvailable failed. D3D11 Hardware Layer is not supported"));
    // Names in records: resources by key 0-25 (0, 13-17 and 25 have none), background types 0-4.
    namespace D = VBG::D3D12Utils;
    std::string names;
    for (uint32_t key = 0; key <= 30; ++key) {
        names += (key <= 25 ? D::ResourceName(key) : D::BackgroundTypeName(key - 26)) + " ";
    }
    EXPECT_EQ(names,
              "None BGRASourceImage BGRASourceImageUpload RT1 RT2 BlurMask BlurMaskUpload "
              "BlurBGRAMask BlurBGRAMaskUpload BlurBGRAMaskRTV FinalBGRACPUData RT3 "
              "BackgroundImage None None None None None BGRAPresentationImage "
              "BGRAPresentationImageUpload PresentationRT1 FinalBGRACPUDataPresentation "
              "PresentationRT2 BackgroundPresentationImage BackgroundPresentationImageUpload "
              "None None Blur Image Video Unknown ");
}
