// Diagnostics: the rotating library log, frame statistics, feedback dumps, exception reports and
// the debug names, with the small text and path services they rest on.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
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

// One frame starting at `start` ms with the given stage lengths in ms.
void frame(FrameStats& stats, int64_t start, int64_t pre, int64_t inf, int64_t post) {
    const int64_t ms = 1000000;
    stats.markAt(FrameStats::FrameStart, start * ms);
    stats.markAt(FrameStats::PreDone, (start + pre) * ms);
    stats.markAt(FrameStats::InferenceDone, (start + pre + inf) * ms);
    stats.markAt(FrameStats::FrameEnd, (start + pre + inf + post) * ms);
}

void flushLog() {
    spdlog::default_logger()->flush();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the worker writes
}

std::vector<std::string> messagesFrom(const LogCapture& log, const std::string& function) {
    std::vector<std::string> out;
    for (const auto& r : log.records()) {
        if (r.function == function) {
            out.push_back(r.message);
        }
    }
    return out;
}

// A 6x4 I420 gradient whose planes are padded, to show that strides are honoured.
struct I420Frame {
    std::vector<uint8_t> y = std::vector<uint8_t>(8 * 4), u = std::vector<uint8_t>(5 * 2),
                         v = std::vector<uint8_t>(5 * 2);
    ZynNativeInputFrame record{6, 4, ZYN_FORMAT_I420, y.data(), 8, u.data(), 5, v.data(), 5, 0.0f};
    I420Frame() {
        for (uint32_t i = 0; i < y.size(); ++i) {
            y[i] = static_cast<uint8_t>(30 + 20 * (i % 8) + 5 * (i / 8));
        }
        for (uint32_t i = 0; i < u.size(); ++i) {
            u[i] = static_cast<uint8_t>(100 + 10 * (i % 5));
            v[i] = static_cast<uint8_t>(160 - 10 * (i / 5));
        }
    }
    std::string argb() const {
        std::string out(6 * 4 * 4, '\0');
        libyuv::I420ToARGB(y.data(), 8, u.data(), 5, v.data(), 5,
                           reinterpret_cast<uint8_t*>(out.data()), 24, 6, 4);
        return out;
    }
};

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
    ASSERT_TRUE(logger::IsInitialised());
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

TEST(FrameStatistics, FirstFrameRecordSummaryAndReport) {
    LogCapture log;
    FrameStats stats("V", 10);
    EXPECT_EQ(2147483647, stats.minimum(FrameStats::Total));
    EXPECT_STREQ(
        R"({"preProcessedTime":0,"inferenceTime":0,"postProcessedTime":0,"fullFrameTime":0})",
        stats.report());
    // Frames end at 10, 1010, ..., 10010 ms: the window opens at the first frame's end and the
    // eleventh closes it 10000 ms later.
    for (int i = 0; i < 11; ++i) {
        frame(stats, i * 1000, i == 3 ? 6 : 2, 5, 3);
    }
    EXPECT_EQ((std::vector<std::string>{"[V] Pre:2 Inf:5 Post:3 Total:10"}),
              messagesFrom(log, "VBG::FrameStats::LogFirstFrameStats"));
    // 11 frames in 10 s; Total sums 10*10+14 = 114 ms, 114/11 = 10.364; Pre 2*10+6 = 26, 2.364.
    EXPECT_EQ((std::vector<std::string>{"[V] fps: 1.100[(Total) curr:10 min:10 max:14 avg:10.364]"
                                        "[(Post) curr:3 min:3 max:3 avg:3.000]"
                                        "[(Inf) curr:5 min:5 max:5 avg:5.000]"
                                        "[(Pre) curr:2 min:2 max:6 avg:2.364]"}),
              messagesFrom(log, "VBG::FrameStats::LogStats"));
    EXPECT_EQ(0, stats.frameCount());
    EXPECT_EQ(2147483647, stats.minimum(FrameStats::Pre));
    EXPECT_EQ(0, stats.maximum(FrameStats::Pre));
    // The next window starts at the summary: nine seconds later no summary yet.
    for (int i = 1; i <= 9; ++i) {
        frame(stats, 10000 + i * 1000, 1, 1, 1);
    }
    EXPECT_EQ(1u, messagesFrom(log, "VBG::FrameStats::LogStats").size());
    stats.clearFirstFrameLogged();  // what an update does
    frame(stats, 30000, 4, 9, 2);
    EXPECT_EQ("[V] Pre:4 Inf:9 Post:2 Total:15",
              messagesFrom(log, "VBG::FrameStats::LogFirstFrameStats").back());
    EXPECT_STREQ(
        R"({"preProcessedTime":4,"inferenceTime":9,"postProcessedTime":2,"fullFrameTime":15})",
        stats.report());
}

TEST(FrameStatistics, DurationsTruncateAndAFailedFrameCountsWithZeroStages) {
    FrameStats stats("SS", 10);
    stats.markAt(0, 0);
    stats.markAt(1, 1999999);  // 1.999999 ms
    stats.markAt(2, 2000000);
    stats.markAt(3, 5500000);
    EXPECT_EQ("1 0 3 5", std::to_string(stats.current(FrameStats::Pre)) + " " +
                             std::to_string(stats.current(FrameStats::Inf)) + " " +
                             std::to_string(stats.current(FrameStats::Post)) + " " +
                             std::to_string(stats.current(FrameStats::Total)));
    // Start and end only: the model never ran.
    stats.markAt(FrameStats::FrameStart, 50000000);
    stats.markAt(FrameStats::FrameEnd, 57000000);
    EXPECT_EQ(0u, stats.current(FrameStats::Pre) + stats.current(FrameStats::Inf) +
                      stats.current(FrameStats::Post));
    EXPECT_EQ(7u, stats.current(FrameStats::Total));
    EXPECT_EQ(2, stats.frameCount());
    EXPECT_EQ(0, stats.minimum(FrameStats::Inf));
    // Marks of a failed frame do not leak into the next one.
    stats.markAt(FrameStats::FrameStart, 100000000);
    stats.markAt(FrameStats::PreDone, 101000000);
    stats.markAt(FrameStats::FrameEnd, 103000000);
    EXPECT_EQ(1u, stats.current(FrameStats::Pre));
    EXPECT_EQ(0u, stats.current(FrameStats::Inf) + stats.current(FrameStats::Post));
}

// One request: "<tag><id>.bin" dumps (ARGB frames, raw masks) and the index "<id>.json"; dumps
// are owner-only and no link an entry of the folder holds is followed.
TEST(FeedbackDumps, OneRequestWritesTaggedFilesAndTheirIndex) {
    TempDir dir("feedback"), elsewhere("feedback-target");
    zyn_test::WriteFile(elsewhere / "victim", "keep");
    fs::create_symlink(elsewhere / "victim", dir / "x.json");
    zyn_test::WriteFile(dir / "finalabc.bin", "older dump");
    fs::permissions(dir / "finalabc.bin", fs::perms::all);
    LogCapture log;
    I420Frame raw;
    std::vector<uint8_t> y(24), uv(12);
    libyuv::I420ToNV12(raw.y.data(), 8, raw.u.data(), 5, raw.v.data(), 5, y.data(), 6, uv.data(), 6,
                       6, 4);
    const ZynNativeInputFrame nv12{6, 4, ZYN_FORMAT_NV12, y.data(), 6, uv.data(), 6, nullptr, 0, 0};
    const std::vector<uint8_t> current = {1, 2, 3, 4, 5, 6}, previous = {9, 8, 7, 6, 5, 4};
    VBG::FeedbackWriter writer;
    ASSERT_TRUE(writer.Start(dir.str(), "abc"));
    EXPECT_FALSE(writer.Start(dir.str(), "second"));
    EXPECT_EQ("abc", writer.id());
    writer.WritePreviousMaskToFile(previous.data(), 3, 2);
    writer.WriteFramesToFile(&raw.record, &nv12);
    writer.WriteCurrentMaskToFile(current.data(), 2, 3);
    writer.End();
    EXPECT_FALSE(writer.isActive());
    for (const char* message :
         {"FeedbackWriter::Start id: abc", "FeedbackWriter in progress with id abc",
          "FeedbackWriter::WriteFramesToFile raw: 6 x 4, final: 6 x 4",
          "FeedbackWriter::WriteCurrentMaskToFile 2 x 3",
          "FeedbackWriter::WritePreviousMaskToFile 3 x 2", "FeedbackWriter::End abc"}) {
        EXPECT_TRUE(log.contains(message)) << message << "\n" << log.dump();
    }
    // Both frames are the same picture; the NV12 one through its own conversion.
    EXPECT_EQ(raw.argb(), ReadFile(dir / "rawabc.bin"));
    std::string finalArgb(96, '\0');
    libyuv::NV12ToARGB(y.data(), 6, uv.data(), 6, reinterpret_cast<uint8_t*>(finalArgb.data()), 24,
                       6, 4);
    EXPECT_EQ(finalArgb, ReadFile(dir / "finalabc.bin"));
    EXPECT_EQ("\1\2\3\4\5\6", ReadFile(dir / "currentMaskabc.bin"));
    EXPECT_EQ("\11\10\7\6\5\4", ReadFile(dir / "previousMaskabc.bin"));
    for (const char* name : {"rawabc.bin", "finalabc.bin", "currentMaskabc.bin", "abc.json"}) {
        EXPECT_EQ(0600u, zyn_test::PermissionBits(dir / name)) << name;
    }
    // The index, in the order of the writes.
    EXPECT_EQ(R"({"previousMask":{"filename":"previousMaskabc.bin","width":3,"height":2},)"
              R"("raw":{"filename":"rawabc.bin","width":6,"height":4},)"
              R"("final":{"filename":"finalabc.bin","width":6,"height":4},)"
              R"("currentMask":{"filename":"currentMaskabc.bin","width":2,"height":3}})",
              ReadFile(dir / "abc.json"));
    // A frame of an unknown format is not written; the next request starts afresh.
    ZynNativeInputFrame odd = raw.record;
    odd.format = 3;
    ASSERT_TRUE(writer.Start(dir.str(), "x"));
    writer.WriteFramesToFile(&odd, &raw.record);
    writer.End();
    EXPECT_FALSE(fs::exists(dir / "rawx.bin"));
    EXPECT_EQ(raw.argb(), ReadFile(dir / "finalx.bin"));
    EXPECT_EQ("keep", ReadFile(elsewhere / "victim"));
    EXPECT_EQ(1u, log.countContaining("x.json not written: it is a symbolic link"));
}

TEST(Services, LogFileNameVersionExceptionReportAndLibraryFolder) {
    EXPECT_EQ("/var/log/zyn/ZYNNativeVBG.log", VBG::Utils::GetAssetFullPath("/var/log/zyn"));
    EXPECT_EQ("/var/log/zyn/ZYNNativeVBG.log", VBG::Utils::GetAssetFullPath("/var/log/zyn/"));
    const ZynNativeVersion v = VBG::Utils::ParseProductVersion("7.12.305.4");
    EXPECT_EQ("7 12 305 4", std::to_string(v.major) + " " + std::to_string(v.minor) + " " +
                                std::to_string(v.build) + " " + std::to_string(v.revision));
    EXPECT_THROW(VBG::Utils::ParseProductVersion("1.x.3.4"), std::invalid_argument);
    EXPECT_THROW(VBG::Utils::ParseProductVersion("1.2"), std::invalid_argument);
    std::string name, version;
    ZynNativeVersion record{};
    ASSERT_TRUE(VBG::Utils::GetProductAndVersion(name, version, record));
    EXPECT_EQ("ZYNNativeVBG", name);
    EXPECT_TRUE(fs::is_directory(VBG::Utils::GetLibraryFolder()));

    LogCapture log;
    EXPECT_EQ(
        static_cast<int32_t>(0x887A0005),
        VBG::Utils::processException(
            VBG::HResultError(static_cast<int32_t>(0x887A0005), "device gone"), "run failed."));
    EXPECT_TRUE(log.hasFrom("VBG::Utils::processException",
                            "run failed. HR:887A0005 , message: device gone"));
}

TEST(Services, Utf8AndUtf16RoundTripAndFixedFieldsCopyOnlyWhatFits) {
    const std::string utf8 = "a\xC3\xA9\xE6\xA8\xA1\xF0\x9F\x93\x81z";  // a é 模 📁 z
    EXPECT_EQ(u"a\u00e9\u6a21\U0001F4C1z", VBG::Text::Utf8ToUtf16(utf8));
    EXPECT_EQ(utf8, VBG::Text::Utf16ToUtf8(u"a\u00e9\u6a21\U0001F4C1z"));
    // Broken input never throws: it is replaced.
    EXPECT_EQ(u"\uFFFDx", VBG::Text::Utf8ToUtf16("\xFFx"));
    EXPECT_EQ(u"\uFFFD", VBG::Text::Utf8ToUtf16("\xE6\xA8"));
    char16_t field[8];
    EXPECT_TRUE(VBG::Text::CopyToField(field, 8, std::string("abc"), 6));
    EXPECT_FALSE(VBG::Text::CopyToField(field, 8, std::string("abcdefg"), 6));
    EXPECT_EQ("abc", VBG::Text::FieldToUtf8(field, 8));   // left as it was
    std::fill(std::begin(field), std::end(field), u'q');  // no terminator: read to the capacity
    EXPECT_EQ("qqqqqqqq", VBG::Text::FieldToUtf8(field, 8));
}

// Without Direct3D 12 there is no adapter: the search reports first, then the availability check.
TEST(GpuNames, NoAdapterNoGpuAndTheDebugNames) {
    LogCapture log;
    EXPECT_EQ(nullptr, VBG::D3D12Utils::GetHardwareAdapter());
    EXPECT_FALSE(VBG::D3D12Utils::IsGpuAvailable());
    const std::string noAdapter =
        "Hardware adapter is not supported on this system, GPU cannot be used for ML";
    const auto records = log.records();
    ASSERT_EQ(3u, records.size()) << log.dump();
    EXPECT_EQ("VBG::D3D12Utils::GetHardwareAdapter", records[0].function);
    EXPECT_EQ(noAdapter, records[0].message);
    EXPECT_EQ(spdlog::level::err, records[1].level);
    EXPECT_EQ(noAdapter, records[1].message);
    EXPECT_EQ("VBG::D3D12Utils::IsGpuAvailable", records[2].function);
    EXPECT_EQ("IsGpuAvailable failed. D3D11 Hardware Layer is not supported", records[2].message);

    // Keys 0, 13 to 17 and from 25 on name no resource.
    std::istringstream names(
        "None BGRASourceImage BGRASourceImageUpload RT1 RT2 BlurMask BlurMaskUpload BlurBGRAMask "
        "BlurBGRAMaskUpload BlurBGRAMaskRTV FinalBGRACPUData RT3 BackgroundImage None None None "
        "None "
        "None BGRAPresentationImage BGRAPresentationImageUpload PresentationRT1 "
        "FinalBGRACPUDataPresentation PresentationRT2 BackgroundPresentationImage "
        "BackgroundPresentationImageUpload None");
    std::string name;
    for (uint32_t key = 0; names >> name; ++key) {
        EXPECT_EQ(name, VBG::D3D12Utils::ResourceName(key)) << key;
    }
    EXPECT_EQ("None", VBG::D3D12Utils::ResourceName(0xFFFFFFFFu));
    const char* types[] = {"None", "Blur", "Image", "Video", "Unknown"};
    for (uint32_t type = 0; type < 5; ++type) {
        EXPECT_EQ(types[type], VBG::D3D12Utils::BackgroundTypeName(type));
    }
    EXPECT_EQ("Unknown", VBG::D3D12Utils::BackgroundTypeName(0xFFFFFFFFu));
}
