// Processing types: names both ways, the automatic order, and the stored selection with its
// 30-day expiry.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

#include "selection/processing_type.h"
#include "selection/pt_config_init.h"
#include "support/log_capture.h"
#include "support/test_paths.h"

using VBG::ProcessingTypeDetails;
using VBG::ProcessingTypeFromName;
using VBG::ProcessingTypeInitializer;
using VBG::ProcessingTypeName;
using zyn_test::LogCapture;
using zyn_test::TempDir;
using zyn_test::WriteFile;

namespace {

constexpr const char* kReadFn = "VBG::ProcessingTypeInitializer::GetSelectedProcessingTypeDetails";
constexpr int64_t kHour = 3600;

std::string selection(const std::string& type, const std::string& time) {
    return R"({"selected_processing_type": ")" + type + R"(", "selected_processing_time": ")" +
           time + R"("})";
}

ProcessingTypeDetails storedAt(int64_t seconds) {
    ProcessingTypeDetails d;
    d.type = VBG::PtOpenVinoCpu;
    d.isValid = true;
    d.selectedTime = std::to_string(seconds);
    return d;
}

}  // namespace

// ---- Names -------------------------------------------------------------------------------------

TEST(ProcessingTypeNames, EveryValueHasItsNameAndTheHolesAreUnknown) {
    const char* names[] = {"CPU",
                           "GPU",
                           "OnnxRuntimeCpu",
                           "OpenVinoCpu",
                           "OpenVinoCpuPPGPU",
                           "OpenVinoGpuPPCPU",
                           "OpenVinoGpuPPGPU",
                           "Unknown",
                           "OnnxRuntimeDMLPPGPU",
                           "Auto"};
    for (uint32_t type = 0; type <= 9; ++type) {
        EXPECT_EQ(names[type], ProcessingTypeName(type)) << type;
        if (type != 7) {
            EXPECT_EQ(type, static_cast<uint32_t>(ProcessingTypeFromName(names[type]))) << type;
        }
    }
    EXPECT_EQ("Unknown", ProcessingTypeName(7));
    EXPECT_EQ("Unknown", ProcessingTypeName(42));
    EXPECT_EQ("Unknown", ProcessingTypeName(10));
    EXPECT_EQ("Unknown", ProcessingTypeName(0xFFFFFFFFu));
}

TEST(ProcessingTypeNames, LookupIsExactAndCaseSensitive) {
    EXPECT_EQ(VBG::PtOpenVinoCpu, ProcessingTypeFromName("OpenVinoCpu"));
    EXPECT_EQ(VBG::PtOpenVinoCpuPPGPU, ProcessingTypeFromName("OpenVinoCpuPPGPU"));
    EXPECT_EQ(VBG::PtCPU, ProcessingTypeFromName("CPU"));
    for (const char* name : {"auto", "AUTO", "cpu", "Cpu", "openvinocpu", "OpenVinoCpuPP",
                             "OpenVino", "Unknown", "", " CPU", "CPU ", "OpenVinoCpu\n"}) {
        EXPECT_EQ(VBG::PtAuto, ProcessingTypeFromName(name)) << '"' << name << '"';
    }
}

TEST(ProcessingTypeNames, AutomaticSelectionTriesGpuPipelinesFirst) {
    const std::vector<VBG::ProcessingType> expected = {
        VBG::PtOpenVinoGpuPPGPU, VBG::PtOnnxRuntimeDMLPPGPU, VBG::PtOpenVinoCpuPPGPU,
        VBG::PtOpenVinoCpu, VBG::PtOnnxRuntimeCpu};
    EXPECT_EQ(expected, VBG::AutomaticSelectionOrder());
    EXPECT_EQ(6u, static_cast<uint32_t>(VBG::AutomaticSelectionOrder().front()));
}

// ---- Expiry ------------------------------------------------------------------------------------

TEST(ProcessingTypeExpiry, SelectionsOlderThan720HoursAreElapsed) {
    const int64_t now = 1'750'000'000;
    LogCapture log;
    EXPECT_FALSE(storedAt(now - 720 * kHour).isElapsed(now));
    EXPECT_TRUE(log.hasFrom("VBG::ProcessingTypeDetails::isElapsed",
                            "Current elapsed duration time in seconds since epoch: 1750000000-"
                            "1747408000=720 hours"))
        << log.dump();
    // Hours are whole: 720 hours and 3599 seconds is still 720.
    EXPECT_FALSE(storedAt(now - 721 * kHour + 1).isElapsed(now));
    EXPECT_TRUE(storedAt(now - 721 * kHour).isElapsed(now));
    EXPECT_TRUE(log.contains(
        "Current elapsed duration time in seconds since epoch: 1750000000-1747404400=721 hours"));
    EXPECT_FALSE(storedAt(now).isElapsed(now));
}

TEST(ProcessingTypeExpiry, FutureTimesAreFresh) {
    const int64_t now = 1'750'000'000;
    LogCapture log;
    EXPECT_FALSE(storedAt(now + 5000 * kHour).isElapsed(now));
    EXPECT_TRUE(log.contains(
        "Current elapsed duration time in seconds since epoch: 1750000000-1768000000=-5000 hours"));
    // Truncation toward zero: 1.5 hours ahead is -1.
    EXPECT_FALSE(storedAt(now + 5400).isElapsed(now));
    EXPECT_TRUE(log.contains(
        "Current elapsed duration time in seconds since epoch: 1750000000-1750005400=-1 hours"));
    // Extreme stored values do not overflow the difference.
    ProcessingTypeDetails d;
    d.selectedTime = "-9223372036854775808";
    EXPECT_TRUE(d.isElapsed(now));
    d.selectedTime = "9223372036854775807";
    EXPECT_FALSE(d.isElapsed(-now));
}

TEST(ProcessingTypeExpiry, CurrentTimeComesFromTheSystemClock) {
    const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
    LogCapture log;
    EXPECT_TRUE(storedAt(now - 722 * kHour).isElapsed());
    EXPECT_FALSE(storedAt(now - 719 * kHour).isElapsed());
    EXPECT_FALSE(storedAt(now).isElapsed());
    EXPECT_EQ(3u, log.countContaining("Current elapsed duration time in seconds since epoch: "));
}

TEST(ProcessingTypeExpiry, TimeTextsParseAsStoll) {
    ProcessingTypeDetails d;
    LogCapture log;
    // The numeric prefix counts, with leading blanks.
    d.selectedTime = "  1750000000 seconds";
    EXPECT_FALSE(d.isElapsed(1'750'000'000));
    EXPECT_TRUE(log.contains(
        "Current elapsed duration time in seconds since epoch: 1750000000-1750000000=0 hours"));

    struct Case {
        const char* text;
        bool invalid;
        const char* what;
    } cases[] = {
        {"", true, "invalid stoll argument"},
        {"yesterday", true, "invalid stoll argument"},
        {"99999999999999999999", false, "stoll argument out of range"},
        {"-99999999999999999999", false, "stoll argument out of range"},
    };
    for (const auto& c : cases) {
        d.selectedTime = c.text;
        try {
            d.isElapsed(0);
            ADD_FAILURE() << "no exception for " << c.text;
        } catch (const std::invalid_argument& e) {
            EXPECT_TRUE(c.invalid) << c.text;
            EXPECT_STREQ(c.what, e.what());
        } catch (const std::out_of_range& e) {
            EXPECT_FALSE(c.invalid) << c.text;
            EXPECT_STREQ(c.what, e.what());
        }
    }
}

// ---- Stored selection --------------------------------------------------------------------------

class StoredSelection : public ::testing::Test {
  protected:
    ProcessingTypeDetails read() {
        return ProcessingTypeInitializer(dir_.str()).GetSelectedProcessingTypeDetails();
    }
    void write(const std::string& text) { WriteFile(dir_ / "PT_CONFIG.json", text); }
    TempDir dir_{"zyn-pt-config"};
    LogCapture log_;
};

TEST_F(StoredSelection, MissingFileMeansAutoSilently) {
    ProcessingTypeInitializer reader(dir_.str());
    EXPECT_FALSE(reader.ConfigFileExists());
    const ProcessingTypeDetails d = reader.GetSelectedProcessingTypeDetails();
    EXPECT_EQ(VBG::PtAuto, d.type);
    EXPECT_FALSE(d.isValid);
    EXPECT_EQ("", d.selectedTime);
    EXPECT_TRUE(log_.records().empty()) << log_.dump();
    EXPECT_EQ((dir_.path() / "PT_CONFIG.json").string(), reader.configFilePath());
}

TEST_F(StoredSelection, StoredTypeAndTimeAreReadBack) {
    write(selection("OpenVinoCpu", "1700000000"));
    ProcessingTypeInitializer reader(dir_.str());
    EXPECT_TRUE(reader.ConfigFileExists());
    const ProcessingTypeDetails d = reader.GetSelectedProcessingTypeDetails();
    EXPECT_EQ(VBG::PtOpenVinoCpu, d.type);
    EXPECT_TRUE(d.isValid);
    EXPECT_EQ("1700000000", d.selectedTime);
    EXPECT_TRUE(log_.hasFrom(
        kReadFn,
        "Previously selected processing details as string: OpenVinoCpu, selected time: "
        "1700000000"))
        << log_.dump();
    EXPECT_EQ(1u, log_.records().size());
}

TEST_F(StoredSelection, NamesThatMeanNoSelection) {
    for (const char* name : {"Auto", "Unknown", "openvinocpu", "SomeFutureType"}) {
        write(selection(name, "1700000000"));
        const ProcessingTypeDetails d = read();
        EXPECT_EQ(VBG::PtAuto, d.type) << name;
        EXPECT_FALSE(d.isValid) << name;
        EXPECT_EQ("1700000000", d.selectedTime) << name;
    }
    EXPECT_EQ(1u, log_.count("Previously selected processing details as string: SomeFutureType, "
                             "selected time: 1700000000"));
}

TEST_F(StoredSelection, MalformedFilesReadAsNoSelectionWithOneError) {
    const std::string cases[] = {
        "",
        "{\"selected_processing_type\": \"OpenVinoCpu\", \"selected_processing_ti",  // half written
        "not json at all",
        "[\"OpenVinoCpu\", \"1700000000\"]",
        R"({"selected_processing_type": "OpenVinoCpu"})",
        R"({"selected_processing_time": "1700000000"})",
        R"({"selected_processing_type": 3, "selected_processing_time": "1700000000"})",
        R"({"selected_processing_type": "OpenVinoCpu", "selected_processing_time": 1700000000})",
        // Nested past 32 levels, or past 64 KiB: refused before the members are looked at.
        R"({"selected_processing_type": "OpenVinoCpu", "selected_processing_time": "1700000000",)"
        R"( "x": )" +
            std::string(40, '[') + std::string(40, ']') + "}",
        selection("OpenVinoCpu", "1700000000") + std::string(65536, ' '),
    };
    for (const auto& text : cases) {
        write(text);
        log_.clear();
        ProcessingTypeDetails d;
        ASSERT_NO_THROW(d = read()) << text;
        EXPECT_EQ(VBG::PtAuto, d.type) << text;
        EXPECT_FALSE(d.isValid) << text;
        EXPECT_EQ("", d.selectedTime) << text;
        ASSERT_EQ(1u, log_.records().size()) << text << "\n" << log_.dump();
        EXPECT_EQ(spdlog::level::err, log_.records()[0].level) << text;
        EXPECT_EQ(kReadFn, log_.records()[0].function) << text;
    }
}

// Only a regular file of at most 64 KiB is read; a FIFO in its place must not block the reader.
TEST_F(StoredSelection, EntriesOtherThanASmallRegularFileAreMalformed) {
    const std::string good = selection("OpenVinoCpu", "1700000000");
    const std::function<void(const std::filesystem::path&)> makers[] = {
        [](const std::filesystem::path& p) { std::filesystem::create_directory(p); },
        [&](const std::filesystem::path& p) {
            WriteFile(p, good + std::string(64 * 1024 - good.size() + 1, ' '));
        },
        [&](const std::filesystem::path& p) {
            WriteFile(dir_ / "elsewhere.json", good);
            std::filesystem::create_symlink(dir_ / "elsewhere.json", p);
        },
        nullptr,  // a FIFO
    };
    for (const auto& make : makers) {
        std::filesystem::remove_all(dir_ / "PT_CONFIG.json");
        log_.clear();
        ProcessingTypeDetails d;
        if (make) {
            make(dir_ / "PT_CONFIG.json");
            d = read();
        } else {
            EXPECT_TRUE(
                zyn_test::RunsWithoutBlockingOnFifo(dir_ / "PT_CONFIG.json", [&] { d = read(); }));
        }
        EXPECT_EQ(VBG::PtAuto, d.type);
        ASSERT_EQ(1u, log_.records().size()) << log_.dump();
        EXPECT_EQ(spdlog::level::err, log_.records()[0].level);
    }
    std::filesystem::remove_all(dir_ / "PT_CONFIG.json");
    WriteFile(dir_ / "PT_CONFIG.json", good + std::string(64 * 1024 - good.size(), ' '));
    EXPECT_TRUE(read().isValid);
}

TEST_F(StoredSelection, NonAsciiFolderAndTrailingSeparator) {
    const std::filesystem::path folder = dir_.path() / u8"缓存 é";
    std::filesystem::create_directories(folder);
    WriteFile(folder / "PT_CONFIG.json", selection("OnnxRuntimeCpu", "1"));
    const std::string utf8 = dir_.str() + "/\xE7\xBC\x93\xE5\xAD\x98 \xC3\xA9/";
    ProcessingTypeInitializer reader(utf8);
    EXPECT_EQ(utf8 + "PT_CONFIG.json", reader.configFilePath());
    const ProcessingTypeDetails d = reader.GetSelectedProcessingTypeDetails();
    EXPECT_EQ(VBG::PtOnnxRuntimeCpu, d.type);
    EXPECT_TRUE(d.isElapsed(1'750'000'000));
}
