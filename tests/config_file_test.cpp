// The library configuration file: three required folders, stored in order, replaced by a later
// successful read.
#include <gtest/gtest.h>

#include <filesystem>

#include "config/config_parser.h"
#include "support/log_capture.h"
#include "support/test_paths.h"

using VBG::ConfigParser;
using zyn_test::LogCapture;
using zyn_test::TempDir;
using zyn_test::WriteFile;

namespace {

constexpr const char* kFn = "VBG::ConfigParser::SetConfig";

std::string config(const std::string& models, const std::string& logs, const std::string& cache) {
    return R"({"modelsPath": ")" + models + R"(", "logPath": ")" + logs +
           R"(", "fileCachePath": ")" + cache + R"("})";
}

class ConfigFile : public ::testing::Test {
  protected:
    void SetUp() override {
        WriteFile(dir_ / "good.json", config("/m0", "/l0", "/c0"));
        ASSERT_TRUE(ConfigParser::SetConfig((dir_ / "good.json").c_str()));
    }
    bool read(const std::string& text) {
        WriteFile(dir_ / "c.json", text);
        return ConfigParser::SetConfig((dir_ / "c.json").c_str());
    }
    TempDir dir_{"zyn-config"};
    LogCapture log_;
};

}  // namespace

TEST_F(ConfigFile, GoodFileStoresAllThreeAndIgnoresExtraKeys) {
    EXPECT_TRUE(read(R"({"extra": 1, "modelsPath": "/models", "logPath": "/logs",
                        "fileCachePath": "/cache", "other": {"x": [1]}})"));
    EXPECT_EQ("/models", ConfigParser::ModelsPath());
    EXPECT_EQ("/logs", ConfigParser::LogPath());
    EXPECT_EQ("/cache", ConfigParser::FileCachePath());
    EXPECT_EQ("/models/model.winml", ConfigParser::ModelFilePath());
}

TEST_F(ConfigFile, NonAsciiFoldersSurviveUnchanged) {
    const std::string models = "/d\xC3\xA9j\xC3\xA0/\xE6\xA8\xA1\xE5\x9E\x8B";  // déjà/模型
    const std::string cache = "/\xF0\x9F\x93\x81";                              // an emoji folder
    EXPECT_TRUE(read(config(models, "/l\xC3\xB6g", cache)));
    EXPECT_EQ(models, ConfigParser::ModelsPath());
    EXPECT_EQ("/l\xC3\xB6g", ConfigParser::LogPath());
    EXPECT_EQ(cache, ConfigParser::FileCachePath());
}

TEST_F(ConfigFile, EmptyCachePathFailsAfterReplacingTheOtherTwo) {
    EXPECT_FALSE(read(config("/m1", "/l1", "")));
    EXPECT_TRUE(log_.has(spdlog::level::err, "fileCachePath path is empty"));
    EXPECT_EQ("/m1", ConfigParser::ModelsPath());
    EXPECT_EQ("/l1", ConfigParser::LogPath());
    EXPECT_EQ("", ConfigParser::FileCachePath());
}

TEST_F(ConfigFile, EachMissingOrEmptyKeyHasItsOwnMessageAndStopsThere) {
    struct Case {
        std::string text;
        std::string message;
        std::string modelsAfter;
    } cases[] = {
        {R"({"logPath": "/l", "fileCachePath": "/c"})", "modelsPath missing in config file.",
         "/m0"},
        {R"({"modelsPath": "", "logPath": "/l", "fileCachePath": "/c"})", "Models path is empty",
         ""},
        {R"({"modelsPath": "/m2", "fileCachePath": "/c"})", "logPath missing in config file.",
         "/m2"},
        {R"({"modelsPath": "/m3", "logPath": "", "fileCachePath": "/c"})", "Log path is empty",
         "/m3"},
        {R"({"modelsPath": "/m4", "logPath": "/l"})", "fileCachePath missing in config file.",
         "/m4"},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(read(config("/m0", "/l0", "/c0")));
        log_.clear();
        EXPECT_FALSE(read(c.text)) << c.text;
        EXPECT_TRUE(log_.hasFrom(kFn, c.message)) << c.text << "\n" << log_.dump();
        EXPECT_EQ(1u, log_.records().size()) << log_.dump();
        EXPECT_EQ(c.modelsAfter, ConfigParser::ModelsPath()) << c.text;
    }
}

// (Oversized files are refused before parsing: OnlySmallRegularFilesAreRead.)
TEST_F(ConfigFile, FilesNestedTooDeeplyAreRefused) {
    const std::string good = config("/m1", "/l1", "/c1");
    const std::string text = good.substr(0, good.size() - 1) + ", \"extra\": " +
                             std::string(32, '[') + std::string(32, ']') + "}";
    EXPECT_FALSE(read(text));
    EXPECT_TRUE(log_.has(spdlog::level::err, "Config file is nested deeper than 32 levels"))
        << log_.dump();
    EXPECT_TRUE(log_.has(spdlog::level::err, "Config file parse failed."));
    EXPECT_EQ("/m0", ConfigParser::ModelsPath());
}

TEST_F(ConfigFile, UnreadableFilesFailWithoutTouchingStoredPaths) {
    EXPECT_FALSE(read("this is not json"));
    EXPECT_TRUE(log_.has(spdlog::level::err, "Config file parse failed."));
    EXPECT_FALSE(read(""));
    EXPECT_FALSE(ConfigParser::SetConfig((dir_ / "absent.json").c_str()));
    EXPECT_TRUE(log_.has(spdlog::level::err, "Config file open failed."));
    EXPECT_FALSE(ConfigParser::SetConfig(nullptr));
    EXPECT_TRUE(log_.has(spdlog::level::err, "Config file path is null."));
    EXPECT_EQ("/m0", ConfigParser::ModelsPath());
    EXPECT_EQ("/c0", ConfigParser::FileCachePath());
}

// Only a regular file of at most 64 KiB is read: a FIFO must not block Init, and a huge file is
// not taken into memory.
TEST_F(ConfigFile, OnlySmallRegularFilesAreRead) {
    const std::string good = config("/m2", "/l2", "/c2");
    WriteFile(dir_ / "large.json", good + std::string(64 * 1024 - good.size() + 1, ' '));
    WriteFile(dir_ / "limit.json", good + std::string(64 * 1024 - good.size(), ' '));
    std::filesystem::create_directory(dir_ / "folder.json");
    for (const char* name : {"large.json", "folder.json"}) {
        log_.clear();
        EXPECT_FALSE(ConfigParser::SetConfig((dir_ / name).c_str())) << name;
        EXPECT_TRUE(log_.hasFrom(kFn, "Config file open failed.")) << name << log_.dump();
    }
    bool read = true;
    EXPECT_TRUE(zyn_test::RunsWithoutBlockingOnFifo(
        dir_ / "fifo.json", [&] { read = ConfigParser::SetConfig((dir_ / "fifo.json").c_str()); }));
    EXPECT_FALSE(read);
    EXPECT_EQ("/m0", ConfigParser::ModelsPath());
    EXPECT_TRUE(ConfigParser::SetConfig((dir_ / "limit.json").c_str())) << log_.dump();
}
