// Processing types: names both ways, the automatic order, and the stored selection (PT_CONFIG.json
// in the file cache folder) with its 720-hour expiry.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

#include "selection/processing_type.h"
#include "selection/pt_config_init.h"
#include "support/log_capture.h"
#include "support/test_paths.h"

using VBG::ProcessingTypeDetails;
using VBG::ProcessingTypeInitializer;
using zyn_test::LogCapture;
using zyn_test::TempDir;
using zyn_test::WriteFile;

namespace {

std::string selection(const std::string& type, const std::string& time) {
    return R"({"selected_processing_type": ")" + type + R"(", "selected_processing_time": ")" +
           time + R"("})";
}

}  // namespace

TEST(ProcessingTypeNames, NumbersNamesAndTheAutomaticOrder) {
    std::istringstream table(
        "CPU GPU OnnxRuntimeCpu OpenVinoCpu OpenVinoCpuPPGPU OpenVinoGpuPPCPU OpenVinoGpuPPGPU "
        "Unknown OnnxRuntimeDMLPPGPU Auto Unknown");
    const std::vector<std::string> names{std::istream_iterator<std::string>(table), {}};
    for (uint32_t type = 0; type <= 10; ++type) {
        EXPECT_EQ(VBG::ProcessingTypeName(type), names[type]) << type;
        // 7 and 10 have no name, and a name that is no type (case and blanks count) reads as 9.
        EXPECT_EQ(static_cast<uint32_t>(VBG::ProcessingTypeFromName(names[type])),
                  type == 7 || type == 10 ? 9u : type);
    }
    EXPECT_EQ(VBG::ProcessingTypeName(0xFFFFFFFFu), "Unknown");
    for (const char* name : {"auto", "cpu", "openvinocpu", "OpenVinoCpuPP", "", " CPU", "CPU "}) {
        EXPECT_EQ(static_cast<uint32_t>(VBG::ProcessingTypeFromName(name)), 9u) << name;
    }
    std::vector<uint32_t> order;
    for (const auto type : VBG::AutomaticSelectionOrder()) {
        order.push_back(static_cast<uint32_t>(type));
    }
    EXPECT_EQ(order, (std::vector<uint32_t>{6, 8, 4, 3, 2}));
}

// Whole hours (truncated toward zero) of now - stored; more than 720 is elapsed. The stored time
// is read as stoll reads it, and refused with stoll's texts.
TEST(ProcessingTypeExpiry, SelectionsOlderThan720WholeHoursAreElapsed) {
    const struct {
        const char* stored;
        bool elapsed;
        const char* logged;  // "now-stored=hours", or what is thrown
    } cases[] = {
        {"1747408000", false, "1750000000-1747408000=720 hours"},  // 720 * 3600 s before
        {"1747404401", false, "1750000000-1747404401=720 hours"},  // 721 hours less a second
        {"1747404400", true, "1750000000-1747404400=721 hours"},
        {"  1750000000 seconds", false, "1750000000-1750000000=0 hours"},
        {"1750005400", false, "1750000000-1750005400=-1 hours"},  // 1.5 hours ahead
        {"1768000000", false, "1750000000-1768000000=-5000 hours"},
        // The difference does not overflow: INT64_MAX / 3600 hours.
        {"-9223372036854775808", true, "1750000000--9223372036854775808=2562047788015215 hours"},
        {"", false, "invalid stoll argument"},
        {"yesterday", false, "invalid stoll argument"},
        {"-99999999999999999999", false, "stoll argument out of range"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        ProcessingTypeDetails d;
        d.selectedTime = c.stored;
        try {
            EXPECT_EQ(d.isElapsed(1'750'000'000), c.elapsed) << c.logged;
            EXPECT_TRUE(log.hasFrom("VBG::ProcessingTypeDetails::isElapsed",
                                    std::string("Current elapsed duration time in seconds since "
                                                "epoch: ") +
                                        c.logged))
                << log.dump();
        } catch (const std::logic_error& e) {
            EXPECT_STREQ(e.what(), c.logged);
        }
    }
    ProcessingTypeDetails d;
    d.selectedTime = "9223372036854775807";
    EXPECT_FALSE(d.isElapsed(-1'750'000'000));
}

class StoredSelection : public ::testing::Test {
  protected:
    ProcessingTypeDetails read() {
        return ProcessingTypeInitializer(dir_.str()).GetSelectedProcessingTypeDetails();
    }
    void write(const std::string& text) { WriteFile(dir_ / "PT_CONFIG.json", text); }
    TempDir dir_{"zyn-pt-config"};
    LogCapture log_;
};

TEST_F(StoredSelection, TypeAndTimeAreReadBackAndNamesOfNoTypeMeanNone) {
    ProcessingTypeInitializer reader(dir_.str() + "/");
    EXPECT_EQ(reader.configFilePath(), dir_.str() + "/PT_CONFIG.json");
    EXPECT_FALSE(reader.ConfigFileExists());
    EXPECT_FALSE(reader.GetSelectedProcessingTypeDetails().isValid);
    EXPECT_TRUE(log_.records().empty()) << "a missing file is no error";

    write(selection("OpenVinoCpu", "1700000000"));
    EXPECT_TRUE(reader.ConfigFileExists());
    const ProcessingTypeDetails d = reader.GetSelectedProcessingTypeDetails();
    EXPECT_EQ(static_cast<uint32_t>(d.type), 3u);
    EXPECT_TRUE(d.isValid);
    EXPECT_EQ(d.selectedTime, "1700000000");
    EXPECT_TRUE(log_.hasFrom("VBG::ProcessingTypeInitializer::GetSelectedProcessingTypeDetails",
                             "Previously selected processing details as string: OpenVinoCpu, "
                             "selected time: 1700000000"))
        << log_.dump();

    write(selection("Unknown", "1700000000"));
    EXPECT_FALSE(read().isValid);
}

TEST_F(StoredSelection, AnythingButTwoStringMembersInASmallRegularFileIsNoneWithOneError) {
    const std::string good = selection("OpenVinoCpu", "1700000000");
    const std::string texts[] = {
        "",
        good.substr(0, 60),  // half written
        "[\"OpenVinoCpu\", \"1700000000\"]",
        R"({"selected_processing_type": "OpenVinoCpu"})",
        R"({"selected_processing_type": 3, "selected_processing_time": "1700000000"})",
        R"({"selected_processing_type": "OpenVinoCpu", "selected_processing_time": 1700000000})",
        // Nested past 32 levels, or past 64 KiB.
        R"({"selected_processing_type": "OpenVinoCpu", "selected_processing_time": "1", "x": )" +
            std::string(40, '[') + std::string(40, ']') + "}",
        good + std::string(64 * 1024 - good.size() + 1, ' '),
    };
    const std::filesystem::path file = dir_ / "PT_CONFIG.json";
    std::vector<std::function<void()>> entries;
    for (const std::string& text : texts) {
        entries.push_back([this, text] { write(text); });
    }
    entries.push_back([&] { std::filesystem::create_directory(file); });
    entries.push_back([&] {
        WriteFile(dir_ / "elsewhere.json", good);
        std::filesystem::create_symlink(dir_ / "elsewhere.json", file);
    });
    entries.push_back(nullptr);  // a FIFO, which must not block the reader
    for (size_t i = 0; i < entries.size(); ++i) {
        SCOPED_TRACE(i);
        std::filesystem::remove_all(file);
        log_.clear();
        ProcessingTypeDetails d;
        if (entries[i]) {
            entries[i]();
            d = read();
        } else {
            EXPECT_TRUE(zyn_test::RunsWithoutBlockingOnFifo(file, [&] { d = read(); }));
        }
        EXPECT_EQ(static_cast<uint32_t>(d.type), 9u);
        EXPECT_EQ(d.selectedTime, "");
        ASSERT_EQ(log_.records().size(), 1u) << log_.dump();
        EXPECT_EQ(log_.records()[0].level, spdlog::level::err);
    }
    std::filesystem::remove_all(file);
    write(good + std::string(64 * 1024 - good.size(), ' '));  // exactly 64 KiB
    EXPECT_TRUE(read().isValid);
}
