// The library log: one asynchronous rotating "ZYN" logger per process, set up once. The logger is
// process-wide, so the cases run in a fixed order inside one test.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <stdexcept>
#include <thread>

#include "diag/spdlog_init.h"
#include "support/test_paths.h"
#include "util/log.h"
#include "util/zyn_utils.h"

namespace fs = std::filesystem;

namespace {

size_t countLogFiles(const fs::path& folder) {
    size_t n = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        n += entry.path().filename().string().rfind("ZYNNativeVBG", 0) == 0 ? 1 : 0;
    }
    return n;
}

void flushLog() {
    // The asynchronous logger flushes on its worker; give it the time to write.
    spdlog::default_logger()->flush();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

}  // namespace

TEST(LoggerSetup, FolderFailuresThenOneSetUpThatSticksAndRotates) {
    zyn_test::TempDir root("zyn-log");

    // A folder whose parent does not exist: runtime error with the path-not-found code, no logger.
    try {
        logger::InitLogger((root.path() / "missing" / "logs").string());
        FAIL() << "expected a runtime error";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("Failed to create NVBG log folder. Error code: 3", e.what());
    }
    EXPECT_FALSE(logger::IsInitialised());

    // A record logged before set-up does not reach the file.
    const fs::path first = root.path() / "first";
    fs::create_directories(first);  // an existing folder is accepted
    ZLOG_INFO("LoggerTest::beforeSetUp", "written before set-up");
    // A link in the log file's place is replaced, never written through.
    zyn_test::WriteFile(root.path() / "victim", "keep");
    fs::create_symlink(root.path() / "victim", first / "ZYNNativeVBG.log");

    logger::InitLogger(first.string());
    ASSERT_TRUE(logger::IsInitialised());
    EXPECT_EQ("ZYN", spdlog::default_logger()->name());

    // A second set-up with another folder changes nothing.
    const fs::path second = root.path() / "second";
    logger::InitLogger(second.string());
    EXPECT_FALSE(fs::exists(second));

    ZLOG_ERROR("VBG::Sample::method", "sample record {}", 42);
    flushLog();

    const std::string text = zyn_test::ReadFile(first / "ZYNNativeVBG.log");
    EXPECT_EQ(std::string::npos, text.find("written before set-up"));
    EXPECT_NE(std::string::npos, text.find("VBG log initialised, current process id: " +
                                           std::to_string(VBG::Utils::ProcessId())));
    // "[yy-mm-dd hh:mm:ss:mmm] [L] [function line] message"
    const std::regex record(
        R"(\[\d{2}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}:\d{3}\] \[E\] \[VBG::Sample::method \d+\] sample record 42)");
    EXPECT_TRUE(std::regex_search(text, record)) << text;

    // Far more than 10 MiB of records (five files' worth): the current file and at most three
    // rotated ones.
    const std::string filler(1000, 'x');
    for (int i = 0; i < 52000; ++i) {
        ZLOG_INFO("LoggerTest::fill", "{} {}", i, filler);
    }
    flushLog();
    EXPECT_EQ(4u, countLogFiles(first));
    for (const auto& entry : fs::directory_iterator(first)) {
        EXPECT_LE(fs::file_size(entry.path()), logger::kMaxFileSize + 2048) << entry.path();
        EXPECT_EQ(0600u, zyn_test::PermissionBits(entry.path())) << entry.path();
    }
    EXPECT_EQ("keep", zyn_test::ReadFile(root.path() / "victim"));
}
