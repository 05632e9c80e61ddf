// Configuration: the library configuration file, the JSON effect configuration, its conversion
// into the engines' settings record, and what the exported create and update make of refused
// texts. Records are compared through short descriptions written out by hand in the tables.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "config/config_parser.h"
#include "config/effect_config.h"
#include "config/vbg_settings.h"
#include "support/log_capture.h"
#include "support/test_paths.h"
#include "util/zyn_utils.h"

using VBG::ConfigParser;
using zyn_test::LogCapture;
using zyn_test::TempDir;

namespace {

// A fixed field read without the library's converters; other characters than ASCII show as '?'.
std::string narrow(const char16_t* f) {
    std::string out;
    for (size_t n = 0; n < ZYN_PATH_CHARS && f[n] != 0; ++n) {
        out += f[n] < 0x80 ? static_cast<char>(f[n]) : '?';
    }
    return out;
}

std::u16string wide(const char16_t* f) {
    return std::u16string(f, std::char_traits<char16_t>::length(f));
}

void setField(char16_t* f, const std::u16string& text) {
    text.copy(f, text.size());
    f[text.size()] = 0;
}

std::string describeSettings(const VBGSettings& s) {
    std::ostringstream o;
    o << "pt" << s.pt << " fx" << s.effects << " sig" << s.touchUpSigma << " bt" << s.bt << " ty"
      << s.imageOrVideoType << " src" << s.imageOrVideoDataSource << " algo" << s.blurAlgo;
    if (s.backgroundImageFile[0] != 0) {
        o << " " << narrow(s.backgroundImageFile);
    }
    if (s.pData != nullptr) {
        o << " mem" << s.dataSize;
    }
    return o.str();
}

class Config : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(readFile(R"({"modelsPath": "/m", "logPath": "/l", "fileCachePath": "/c"})"));
        log_.clear();
    }
    bool readFile(const std::string& text) {
        zyn_test::WriteFile(dir_ / "c.json", text);
        return ConfigParser::SetConfig((dir_ / "c.json").c_str());
    }
    void convert(const char* json) {
        config_ = VBG::DefaultZynNativeConfig();
        presenter_ = VBG::DefaultWeathermanSettings();
        feedback_ = VBG::ZynFeedbackSettings{};
        found_ = ConfigParser::ConvertToZynNativeConfig(json, config_, presenter_, feedback_);
    }
    // Sections found (E W F), then the effect record, the presenter record when it is not the
    // default one, and the feedback request.
    std::string describe() const {
        const ZynNativeConfig& c = config_;
        const ZynNativeWeathermanSettings& p = presenter_;
        std::ostringstream o;
        o << (found_.effects ? 'E' : '-') << (found_.weatherman ? 'W' : '-')
          << (found_.feedback ? 'F' : '-') << " fx" << c.effects << " k" << c.backgroundEffectKind
          << " f" << c.backgroundFormat << " s" << c.backgroundDataSource << " pm"
          << c.processingMode << " sig" << c.touchUpSigma;
        o << (c.modelFilePath[0] == 0 ? " unparsed" : "");
        o << (c.backgroundFilePath[0] != 0 ? " " + narrow(c.backgroundFilePath) : "");
        const ZynNativeWeathermanSettings d = VBG::DefaultWeathermanSettings();
        if (std::memcmp(&p, &d, sizeof p) != 0) {
            o << " wm" << p.mode << " r" << p.reserved << " o" << p.overlayAlpha << ","
              << p.overlaySize << "," << p.overlayOffsetX << "," << p.overlayOffsetY << " u"
              << p.underlaySize << "," << p.underlayOffsetX << "," << p.underlayOffsetY << ","
              << p.underlayMode << " n" << p.newsroomSize << "," << p.newsroomPosition << ","
              << p.newsroomPresentationSize << " c" << p.conferenceroomSize;
            o << (p.newsroomBackgroundFile[0] ? " n=" + narrow(p.newsroomBackgroundFile) : "");
            o << (p.conferenceroomBackgroundFile[0] ? " c=" + narrow(p.conferenceroomBackgroundFile)
                                                    : "");
        }
        o << (feedback_.id.empty() ? "" : " id=" + feedback_.id + " in " + feedback_.folder);
        return o.str();
    }
    // Runs one case of kEffectCases.
    void check(const std::string& json, const std::string& expected) {
        SCOPED_TRACE(json);
        log_.clear();
        std::vector<std::string> parts;
        for (size_t at = 0, bar; at != std::string::npos;
             at = bar == std::string::npos ? bar : bar + 3) {
            bar = expected.find(" | ", at);
            parts.push_back(expected.substr(at, bar - at));
        }
        if (parts[0].rfind("throws ", 0) == 0) {
            try {
                convert(json.c_str());
                ADD_FAILURE() << "no exception";
            } catch (const std::exception& e) {
                EXPECT_EQ(parts[0].substr(7), e.what());
            }
            return;
        }
        convert(json.c_str());
        EXPECT_EQ(parts[0], describe());
        for (size_t i = 1; i < parts.size(); ++i) {
            const std::string& p = parts[i];
            if (p[0] == '+' || p[0] == '!') {
                EXPECT_EQ(p[0] == '+', log_.contains(p.substr(1))) << p << "\n" << log_.dump();
            } else {
                EXPECT_EQ(p, settingsOf(config_));
            }
        }
    }
    std::string settingsOf(const ZynNativeConfig& config) {
        VBGSettings settings = VBG::DefaultVBGSettings();
        const bool converted = VBG::D3D12Utils::ConvertToVBGSettings(config, settings);
        return (converted ? "" : "refused ") + describeSettings(settings);
    }

    TempDir dir_{"zyn-config"};
    LogCapture log_;
    ZynNativeConfig config_{};
    ZynNativeWeathermanSettings presenter_{};
    VBG::ZynFeedbackSettings feedback_;
    VBG::ConfigSections found_;
};

}  // namespace

// ---- Library configuration file ----------------------------------------------------------------

TEST_F(Config, FileStoresTheThreeFoldersInOrderAndEachFailureHasItsMessage) {
    EXPECT_TRUE(readFile(R"({"extra": 1, "modelsPath": "/m\u00e9", "logPath": "/logs",
                             "fileCachePath": "/cache", "other": {"x": [1]}})"));
    EXPECT_EQ("/m\xC3\xA9", ConfigParser::ModelsPath());
    EXPECT_EQ("/logs", ConfigParser::LogPath());
    EXPECT_EQ("/cache", ConfigParser::FileCachePath());
    EXPECT_EQ("/m\xC3\xA9/model.winml", ConfigParser::ModelFilePath());
    const std::string deep = R"({"modelsPath": "/m1", "logPath": "/l1", "fileCachePath": "/c1", )"
                             R"("x": )" +
                             std::string(32, '[') + std::string(32, ']') + "}";
    const struct {
        std::string text, message, modelsAfter, cacheAfter;
    } cases[] = {
        {R"({"logPath": "/l", "fileCachePath": "/c"})", "modelsPath missing in config file.", "/m",
         "/c"},
        {R"({"modelsPath": "", "logPath": "/l", "fileCachePath": "/c"})", "Models path is empty",
         "", "/c"},
        {R"({"modelsPath": "/m2", "fileCachePath": "/c"})", "logPath missing in config file.",
         "/m2", "/c"},
        {R"({"modelsPath": "/m3", "logPath": "", "fileCachePath": "/c"})", "Log path is empty",
         "/m3", "/c"},
        {R"({"modelsPath": "/m4", "logPath": "/l"})", "fileCachePath missing in config file.",
         "/m4", "/c"},
        {R"({"modelsPath": "/m5", "logPath": "/l5", "fileCachePath": ""})",
         "fileCachePath path is empty", "/m5", ""},
        {"this is not json", "Config file parse failed.", "/m", "/c"},
        {deep, "Config file is nested deeper than 32 levels", "/m", "/c"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_TRUE(readFile(R"({"modelsPath": "/m", "logPath": "/l", "fileCachePath": "/c"})"));
        log_.clear();
        EXPECT_FALSE(readFile(c.text));
        EXPECT_TRUE(log_.hasFrom("VBG::ConfigParser::SetConfig", c.message)) << log_.dump();
        EXPECT_EQ(c.modelsAfter, ConfigParser::ModelsPath());
        EXPECT_EQ(c.cacheAfter, ConfigParser::FileCachePath());
    }
    EXPECT_FALSE(ConfigParser::SetConfig(nullptr));
    EXPECT_TRUE(log_.has(spdlog::level::err, "Config file path is null."));
}

// Only a regular file of at most 64 KiB is read: a FIFO must not block Init, and a huge file is
// not taken into memory.
TEST_F(Config, OnlySmallRegularFilesAreRead) {
    const std::string good = R"({"modelsPath": "/m2", "logPath": "/l2", "fileCachePath": "/c2"})";
    zyn_test::WriteFile(dir_ / "large.json", good + std::string(65536 - good.size() + 1, ' '));
    zyn_test::WriteFile(dir_ / "limit.json", good + std::string(65536 - good.size(), ' '));
    std::filesystem::create_directory(dir_ / "folder.json");
    for (const char* name : {"large.json", "folder.json", "absent.json"}) {
        log_.clear();
        EXPECT_FALSE(ConfigParser::SetConfig((dir_ / name).c_str())) << name;
        EXPECT_TRUE(log_.has(spdlog::level::err, "Config file open failed.")) << name;
    }
    bool read = true;
    EXPECT_TRUE(zyn_test::RunsWithoutBlockingOnFifo(
        dir_ / "fifo.json", [&] { read = ConfigParser::SetConfig((dir_ / "fifo.json").c_str()); }));
    EXPECT_FALSE(read);
    EXPECT_EQ("/m", ConfigParser::ModelsPath());
    EXPECT_TRUE(ConfigParser::SetConfig((dir_ / "limit.json").c_str())) << log_.dump();
}

// ---- Effect configuration ----------------------------------------------------------------------

TEST_F(Config, DefaultsOfTheThreeRecords) {
    const VBGSettings s = VBG::DefaultVBGSettings();
    EXPECT_EQ("pt9 fx0 sig0 bt0 ty0 src0 algo0", describeSettings(s));
    EXPECT_EQ(2u, s.playbackOptions);
    const ZynNativeWeathermanSettings p = VBG::DefaultWeathermanSettings();
    EXPECT_EQ(-1, p.mode);
    EXPECT_EQ(3u, p.reserved);
    config_ = VBG::DefaultZynNativeConfig();
    presenter_ = p;
    presenter_.mode = 5;  // printed against the defaults
    EXPECT_EQ("--- fx0 k0 f0 s0 pm3 sig0.03 unparsed wm5 r3 o1,1,0,0 u1,0,0,0 n1,0,1 c1",
              describe());
}

// One case per block: the text (one or more lines), then after "=>" what it converts to and, split
// by " | ", records that must ("+") or must not ("!") be logged and the engine settings the effect
// record converts to ("pt..." or "refused pt..."). "throws <what>" is the exception it raises.
constexpr const char* kEffectCases = R"(
{"effects": [
=> --- fx0 k0 f0 s0 pm3 sig0.03 unparsed | +Configuration {"effects": [ | +config parse failed.
[{"name": "blur"}]
=> --- fx0 k0 f0 s0 pm3 sig0.03 unparsed | +config parse failed.
42
=> --- fx0 k0 f0 s0 pm3 sig0.03 unparsed | +Configuration 42
{"effects": [], "feedback": true, "id": "abc"}
=> --- fx0 k0 f0 s0 pm3 sig0.03 | +Effect array is empty | !No feedback/id found.
{"effects": {"name": "blur"}}
=> --- fx0 k0 f0 s0 pm3 sig0.03 | +Effect array is empty
{"unrelated": 1}
=> --- fx0 k0 f0 s0 pm3 sig0.03 | +No feedback/id found.
{"effects": [{"name": "blur"}]}
=> E-- fx1 k1 f0 s0 pm3 sig0.03 | +Config Blur | pt9 fx1 sig0 bt1 ty0 src0 algo1
{"processingMode": 7, "effects": [{"name": "blur"}]}
=> E-- fx1 k1 f0 s0 pm7 sig0.03 | pt3 fx1 sig0 bt1 ty0 src0 algo1
{"processingMode": 42, "effects": [{"name": "blur"}]}
=> E-- fx1 k1 f0 s0 pm42 sig0.03 | refused pt9 fx1 sig0 bt0 ty0 src0 algo0
{"processingMode": "2", "effects": [{"name": "blur"}]}
=> E-- fx1 k1 f0 s0 pm3 sig0.03 | +processingMode is not an integer
{"effects": [{"name": "background", "backgroundFile": "beach.jpeg"}]}
=> E-- fx1 k2 f2 s1 pm3 sig0.03 /c/beach.jpeg | pt9 fx1 sig0 bt2 ty2 src1 algo1 /c/beach.jpeg
{"processingMode": 8, "effects": [{"name": "background", "backgroundFile": "s.webm"},
 {"name": "touchUp", "touchUpSigma": "0.4"}]}
=> E-- fx3 k2 f7 s1 pm8 sig0.4 /c/s.webm | pt2 fx3 sig0.4 bt3 ty7 src1 algo1 /c/s.webm
{"effects": [{"name": "background", "backgroundFile": "a.mov"}]}
=> E-- fx1 k2 f6 s1 pm3 sig0.03 /c/a.mov | pt9 fx1 sig0 bt3 ty6 src1 algo1 /c/a.mov
{"effects": [{"name": "background", "backgroundFile": "beach.PNG"}]}
=> --- fx1 k2 f0 s1 pm3 sig0.03 /c/beach.PNG | +Invalid file extension.
 | !filename provided has no extension.
{"effects": [{"name": "background", "backgroundFile": "beach.png.mp4"}]}
=> E-- fx1 k2 f4 s1 pm3 sig0.03 /c/beach.png.mp4
{"effects": [{"name": "background", "backgroundFile": "beach"}]}
=> --- fx1 k2 f0 s1 pm3 sig0.03 /c/beach | +filename provided has no extension.
{"effects": [{"name": "background"}]}
=> --- fx1 k2 f0 s0 pm3 sig0.03 | +effect set to background, but no file provided
 | !Effect does not have backgroundFile
{"effects": [{"name": "touchUp", "touchUpSigma": "0.05"}]}
=> E-- fx2 k0 f0 s0 pm3 sig0.05 | +Config TouchUp Processing Type: 2 Sigma: 0.05
 | pt9 fx2 sig0.05 bt0 ty0 src0 algo1
{"effects": [{"name": "blur"}, {"name": "touchUp", "touchUpSigma": " 1.5e-1x"}]}
=> E-- fx3 k1 f0 s0 pm3 sig0.15 | +Config TouchUp Processing Type: 3 Sigma: 0.15
{"effects": [{"name": "touchUp"}]}
=> --- fx2 k0 f0 s0 pm3 sig0.03 | +Effect does not have touchUpSigma
{"effects": [{"name": "touchUp", "touchUpSigma": 0.5}]}
=> --- fx2 k0 f0 s0 pm3 sig0.03 | +Effect does not have touchUpSigma
{"effects": [{"kind": "blur"}]}
=> --- fx0 k0 f0 s0 pm3 sig0.03 | +Effect does not have name
{"effects": [{"name": "blur"}, {"name": "sparkle"}, {"name": "touchUp", "touchUpSigma": "0.2"}]}
=> --- fx1 k1 f0 s0 pm3 sig0.03 | +Unknown effect passed: sparkle
{"effects": [{"name": "touchUp", "touchUpSigma": "soft"}]}
=> throws invalid stof argument
{"effects": [{"name": "touchUp", "touchUpSigma": ""}]}
=> throws invalid stof argument
{"effects": [{"name": "touchUp", "touchUpSigma": "1e50"}]}
=> throws stof argument out of range
{"effects": [{"name": "blur"}, {"name": "weatherman", "mode": "overlay", "weathermanAlpha": "0.5",
 "weathermanSize": "0.25", "weathermanOffsetX": "0.1", "weathermanOffsetY": "-0.2"},
 {"name": "weatherman", "mode": "sideways"}]}
=> -W- fx1 k1 f0 s0 pm3 sig0.03 wm1 r3 o0.5,0.25,0.1,-0.2 u1,0,0,0 n1,0,1 c1
 | +Unknown effect passed: weatherman | !effect set to weatherman, unknown mode sideways
{"effects": [{"name": "weatherman", "mode": "underlay", "weathermanSize": "0.75",
 "weathermanOffsetX": "0.3", "weathermanOffsetY": "0.4", "weathermanUnderlayMode": "2"}]}
=> -W- fx0 k0 f0 s0 pm3 sig0.03 wm2 r3 o1,1,0,0 u0.75,0.3,0.4,2 n1,0,1 c1
 | +Effect set to Weatherman mode: underlay
{"effects": [{"name": "weatherman", "mode": "newsroom", "weathermanSize": "0.6",
 "weathermanPosition": "1", "presentationSize": "0.8", "backgroundFile": "n.jpg"}]}
=> -W- fx0 k0 f0 s0 pm3 sig0.03 wm3 r3 o1,1,0,0 u1,0,0,0 n0.6,1,0.8 c1 n=/c/n.jpg
 | +Effect set to Weatherman mode: newsroom
{"effects": [{"name": "weatherman", "mode": "conferenceroom", "weathermanSize": "0.9",
 "backgroundFile": "room.png"}]}
=> -W- fx0 k0 f0 s0 pm3 sig0.03 wm4 r3 o1,1,0,0 u1,0,0,0 n1,0,1 c0.9 c=/c/room.png
 | +Effect set to Weatherman mode: conferenceroom
{"effects": [{"name": "weatherman", "mode": "sideways"}]}
=> --- fx0 k0 f0 s0 pm3 sig0.03 | +effect set to weatherman, unknown mode sideways
{"effects": [{"name": "weatherman"}]}
=> --- fx0 k0 f0 s0 pm3 sig0.03 | +Effect does not have mode
{"effects": [{"name": "weatherman", "mode": "underlay", "weathermanSize": "0.5",
 "weathermanOffsetX": "0.3", "weathermanOffsetY": "0.4"}]}
=> --- fx0 k0 f0 s0 pm3 sig0.03 wm2 r3 o1,1,0,0 u0.5,0.3,0.4,0 n1,0,1 c1
 | +Effect does not have weathermanUnderlayMode | !Effect set to Weatherman mode: underlay
{"effects": [{"name": "weatherman", "mode": "underlay", "weathermanSize": "1",
 "weathermanOffsetX": "0", "weathermanOffsetY": "0", "weathermanUnderlayMode": "left"}]}
=> throws invalid stoi argument
{"effects": [{"name": "weatherman", "mode": "newsroom", "weathermanSize": "1",
 "weathermanPosition": "99999999999", "presentationSize": "1", "backgroundFile": "n.png"}]}
=> throws stoi argument out of range
{"effects": [{"name": "weatherman", "mode": "conferenceroom", "backgroundFile": "r.png"}]}
=> --- fx0 k0 f0 s0 pm3 sig0.03 wm4 r3 o1,1,0,0 u1,0,0,0 n1,0,1 c1
 | +Effect does not have weathermanSize
{"effects": [{"name": "weatherman", "mode": "conferenceroom", "weathermanSize": "-131071",
 "backgroundFile": "r.png"}]}
=> -W- fx0 k0 f0 s0 pm3 sig0.03 wm4 r3 o1,1,0,0 u1,0,0,0 n1,0,1 c-131071 c=/c/r.png
{"effects": [{"name": "weatherman", "mode": "overlay", "weathermanAlpha": "131072"}]}
=> --- fx0 k0 f0 s0 pm3 sig0.03 wm1 r3 o1,1,0,0 u1,0,0,0 n1,0,1 c1
 | +weathermanAlpha is out of range: 131072
{"effects": [{"name": "weatherman", "mode": "underlay", "weathermanSize": "nan"}]}
=> --- fx0 k0 f0 s0 pm3 sig0.03 wm2 r3 o1,1,0,0 u1,0,0,0 n1,0,1 c1 | +weathermanSize is out of range: nan
{"effects": [{"name": "weatherman", "mode": "overlay", "weathermanAlpha": "1",
 "weathermanSize": "1", "weathermanOffsetX": "-infinity"}]}
=> --- fx0 k0 f0 s0 pm3 sig0.03 wm1 r3 o1,1,0,0 u1,0,0,0 n1,0,1 c1
 | +weathermanOffsetX is out of range: -inf
{"feedback": true, "id": "session-7"}
=> --F fx0 k0 f0 s0 pm3 sig0.03 id=session-7 in /c | !No feedback/id found.
{"effects": [{"name": "blur"}], "feedback": true, "id": "a.b_C-9"}
=> E-F fx1 k1 f0 s0 pm3 sig0.03 id=a.b_C-9 in /c
{"feedback": false, "id": "x2"}
=> --- fx0 k0 f0 s0 pm3 sig0.03 | +feedback set to false.
{"feedback": true}
=> --- fx0 k0 f0 s0 pm3 sig0.03 | +No feedback/id found. | !feedback set to false.
{"id": "x3"}
=> --- fx0 k0 f0 s0 pm3 sig0.03 | +No feedback/id found.
)";

TEST_F(Config, EffectTextsConvertToTheirRecords) {
    std::istringstream lines(kEffectCases);
    std::string line, json, expected;
    int cases = 0;
    while (std::getline(lines, line)) {
        if (line.rfind("=> ", 0) != 0 && line.rfind(" | ", 0) != 0) {
            if (!expected.empty()) {
                check(json, expected);
                json.clear();
                expected.clear();
                ++cases;
            }
            json += line;
        } else {
            expected += line.substr(line[0] == '=' ? 3 : 0);
        }
    }
    check(json, expected);
    EXPECT_EQ(45, cases + 1);  // every block was read
    log_.clear();
    convert(R"({"effects": [{"name": "blur"}]})");
    EXPECT_EQ(u"/m/model.winml", wide(config_.modelFilePath));
    EXPECT_EQ(u"/l", wide(config_.logPath));
    EXPECT_EQ(u"/c", wide(config_.fileCachePath));
    EXPECT_TRUE(log_.hasFrom("VBG::ParseVbgConfig", "Config Blur"));
    EXPECT_EQ(1u, log_.count("No feedback/id found."));
    EXPECT_TRUE(log_.hasFrom("VBG::ParseZynFeedbackConfig", "No feedback/id found."));
    convert(nullptr);
    EXPECT_EQ("--- fx0 k0 f0 s0 pm3 sig0.03 unparsed", describe());
    EXPECT_TRUE(log_.has(spdlog::level::err, "config is nullptr."));
}

TEST_F(Config, TextsTooLargeOrTooDeeplyNestedAreRefused) {
    const std::string blur = R"({"effects": [{"name": "blur"}], "extra": )";
    const auto nested = [&](int levels) {
        return blur + std::string(levels - 1, '[') + std::string(levels - 1, ']') + "}";
    };
    const struct {
        std::string text, error;
    } cases[] = {
        {nested(32), ""},
        {nested(33), "config is nested deeper than 32 levels"},
        {nested(30000), "config is nested deeper than 32 levels"},
        {blur + std::string(65536 - blur.size() - 2, ' ') + "1}", ""},
        {blur + std::string(65536 - blur.size() - 1, ' ') + "1}",
         "config is larger than 65536 bytes"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.size());
        log_.clear();
        convert(c.text.c_str());
        EXPECT_EQ(c.error.empty(), found_.effects);
        EXPECT_TRUE(c.error.empty() || log_.has(spdlog::level::err, c.error));
    }
}

TEST_F(Config, TheTextIsLoggedOnceEscapedAndCutAndEffectRecordsAreCapped) {
    // Raw line breaks, a forged record in an unknown effect's name, and far more than a record
    // should hold.
    std::string text = "{\"effects\":\n[";
    for (int i = 0; i < 500; ++i) {
        text += "{\"name\": \"blur\"},\r\n";
    }
    convert((text + R"({"name": "x\n[E] forged\u001b"}]})").c_str());
    size_t configRecords = 0;
    for (const auto& r : log_.records()) {
        EXPECT_EQ(std::string::npos, r.message.find_first_of("\n\r\x1b")) << r.message;
        if (r.message.rfind("Configuration ", 0) == 0) {
            ++configRecords;
            EXPECT_EQ("VBG::ConfigParser::ConvertToZynNativeConfig", r.function);
            EXPECT_LE(r.message.size(), 4200u);
            EXPECT_EQ(0u,
                      r.message.find("Configuration {\"effects\":\\n[{\"name\": \"blur\"},\\r"));
            EXPECT_NE(std::string::npos, r.message.find("(truncated)"));
        }
    }
    EXPECT_EQ(1u, configRecords);
    EXPECT_EQ(16u, log_.count("Config Blur"));
    EXPECT_EQ(1u, log_.count("Unknown effect passed: x\\n[E] forged\\x1b")) << log_.dump();
}

TEST_F(Config, FormatCodesOfFileNames) {
    const std::pair<const char*, uint32_t> cases[] = {
        {"a.png", 1}, {"a.jpg", 2},  {"a.jpeg", 2},       {"a.gif", 3}, {"a.mp4", 4}, {"a.ogv", 5},
        {"a.mov", 6}, {"a.webm", 7}, {"a.b.c.webm", 7},   {"a.Png", 0}, {"a.JPG", 0}, {"a.jfif", 0},
        {"a.", 0},    {"a.png ", 0}, {"dir.png/file", 0}, {".gif", 3},  {"README", 0}};
    for (const auto& [name, code] : cases) {
        EXPECT_EQ(code, VBG::GetFormatTypeFromFilename(name)) << name;
    }
    EXPECT_EQ(1u, log_.count("filename provided has no extension."));
}

// Names become paths in the cache folder: anything that could reach another file is a bad value,
// for the background and the room pictures alike; room pictures need a picture extension.
TEST_F(Config, FileNamesStayInsideTheCacheFolder) {
    const char* templates[] = {
        R"({"effects": [{"name": "background", "backgroundFile": "NAME"}]})",
        R"({"effects": [{"name": "weatherman", "mode": "conferenceroom", "weathermanSize": "1",
            "backgroundFile": "NAME"}]})",
        R"({"effects": [{"name": "weatherman", "mode": "newsroom", "weathermanSize": "1",
            "weathermanPosition": "1", "presentationSize": "1", "backgroundFile": "NAME"}]})"};
    const auto text = [&](int t, const std::string& name) {
        std::string json = templates[t];
        return json.replace(json.find("NAME"), 4, name);
    };
    for (const char* name : {"/etc/x.png", "../x.png", "a/../../x.png", "sub/../x.png", "..",
                             "a/..", "./../x.png", "//x.png", "x\\u0000.png"}) {
        for (int t = 0; t < 3; ++t) {
            SCOPED_TRACE(text(t, name));
            log_.clear();
            EXPECT_THROW(convert(text(t, name).c_str()), std::invalid_argument);
            EXPECT_EQ(1u, log_.countContaining("Background file name '")) << log_.dump();
        }
    }
    EXPECT_EQ(1u, log_.countContaining("'x\\x00.png' refused")) << log_.dump();
    for (const char* name : {"sub/dir/beach.png", ".png", "a..png", "./beach.png", "sub/.b.gif"}) {
        convert(text(0, name).c_str());
        EXPECT_EQ("E", describe().substr(0, 1)) << name;
        EXPECT_EQ(std::string("/c/") + name, narrow(config_.backgroundFilePath));
    }
    for (const char* name : {"room.txt", "room.PNG", "room", "room.mp4"}) {
        log_.clear();
        convert(text(1, name).c_str());
        EXPECT_FALSE(found_.weatherman) << name;
        EXPECT_TRUE(log_.hasFrom("VBG::ParseWeathermanConfig", "Invalid file extension.")) << name;
    }
}

// Number texts always use "." as the decimal point, even in a host whose LC_NUMERIC uses a comma.
TEST_F(Config, DecimalTextsIgnoreTheHostsNumericLocale) {
    TempDir locales("zyn-locale");
    const std::string build =
        "localedef -i de_DE -f UTF-8 '" + (locales / "de_DE.UTF-8").string() + "' >/dev/null 2>&1";
    if (std::system(build.c_str()) != 0) {
        GTEST_SKIP() << "localedef cannot build a decimal-comma locale here";
    }
    setenv("LOCPATH", locales.str().c_str(), 1);
    ASSERT_NE(nullptr, std::setlocale(LC_NUMERIC, "de_DE.UTF-8"));
    EXPECT_EQ(0.0f, std::strtof("0.5", nullptr));  // the C library reads "0.5" as 0 now
    convert(R"({"effects": [{"name": "touchUp", "touchUpSigma": "0.5"}]})");
    const float viaHelper = VBG::DecimalTextToFloat("2.25");
    std::setlocale(LC_NUMERIC, "C");
    unsetenv("LOCPATH");
    EXPECT_EQ("E-- fx2 k0 f0 s0 pm3 sig0.5", describe());
    EXPECT_FLOAT_EQ(2.25f, viaHelper);
}

// The id becomes part of file names: only short plain names are taken.
TEST_F(Config, FeedbackIdsThatCouldNameAnotherFileAreRefused) {
    for (const std::string& id :
         {std::string("/tmp/x"), std::string("../x"), std::string("a/b"), std::string(".hidden"),
          std::string(".."), std::string(65, 'a'), std::string("a b"), std::string("a\\\\b"),
          std::string(""), std::string("caf\u00e9"), std::string("PT_CONFIG"),
          std::string("x\\u0000.json")}) {
        const std::string json = R"({"feedback": true, "id": ")" + id + R"("})";
        SCOPED_TRACE(json);
        log_.clear();
        EXPECT_THROW(convert(json.c_str()), std::invalid_argument);
        EXPECT_EQ(1u, log_.countContaining("Feedback id '")) << log_.dump();
    }
    EXPECT_EQ(1u, log_.countContaining("Feedback id 'x\\x00.json' refused")) << log_.dump();
    convert(("{\"feedback\": true, \"id\": \"" + std::string(64, 'Z') + "\"}").c_str());
    EXPECT_EQ(std::string(64, 'Z'), feedback_.id);
}

TEST_F(Config, NonAsciiFoldersAndFileNamesSurviveIntoTheUtf16Fields) {
    ASSERT_TRUE(
        readFile("{\"modelsPath\": \"/m/mod\xC3\xA8les\", \"logPath\": \"/journal\xC3\xA9\", "
                 "\"fileCachePath\": \"/tmp/\xE7\xBC\x93\xE5\xAD\x98\"}"));
    convert(
        "{\"effects\": [{\"name\": \"background\", \"backgroundFile\": "
        "\"\xE6\xB5\xB7\xE6\xBB\xA9 caf\xC3\xA9 \xF0\x9F\x8C\xB4.png\"}]}");
    ASSERT_TRUE(found_.effects) << log_.dump();
    EXPECT_EQ(u"/m/modèles/model.winml", wide(config_.modelFilePath));
    EXPECT_EQ(u"/journalé", wide(config_.logPath));
    EXPECT_EQ(u"/tmp/缓存/海滩 café 🌴.png", wide(config_.backgroundFilePath));
    VBGSettings settings = VBG::DefaultVBGSettings();
    ASSERT_TRUE(VBG::D3D12Utils::ConvertToVBGSettings(config_, settings));
    EXPECT_EQ(u"/tmp/缓存/海滩 café 🌴.png", wide(settings.backgroundImageFile));
    EXPECT_EQ(u"/tmp/缓存", wide(settings.fileCachePath));
    // A path that does not fit its field is not copied.
    convert(("{\"effects\": [{\"name\": \"background\", \"backgroundFile\": \"" +
             std::string(1100, 'x') + ".png\"}]}")
                .c_str());
    EXPECT_EQ("E-- fx1 k2 f1 s1 pm3 sig0.03", describe());
}

// ---- Engine settings ---------------------------------------------------------------------------

TEST_F(Config, ProcessingModesFollowTheFixedTableAndFoldersAreCopiedUpTo1022Characters) {
    const uint32_t expected[] = {1, 0, 9, 6, 4, 5, 3, 2, 8};
    ZynNativeConfig config = VBG::DefaultZynNativeConfig();
    for (uint32_t mode = 1; mode <= 9; ++mode) {
        config.processingMode = mode;
        EXPECT_EQ("pt" + std::to_string(expected[mode - 1]) + " fx0 sig0 bt0 ty0 src0 algo1",
                  settingsOf(config));
    }
    for (uint32_t mode : {0u, 10u, 0xFFFFFFFFu}) {
        config.processingMode = mode;
        EXPECT_EQ("refused pt9 fx0 sig0 bt0 ty0 src0 algo0", settingsOf(config));
    }
    EXPECT_TRUE(log_.records().empty()) << log_.dump();  // refused silently
    config.processingMode = 3;
    VBGSettings settings = VBG::DefaultVBGSettings();
    setField(config.modelFilePath, std::u16string(1022, u'm'));
    setField(config.logPath, std::u16string(1023, u'l'));
    ASSERT_TRUE(VBG::D3D12Utils::ConvertToVBGSettings(config, settings));
    EXPECT_EQ(1022u, wide(settings.modelFilePath).size());
    EXPECT_EQ(u"", wide(settings.logDirectory));
    // The touch-up sigma is taken with the touch-up bit only.
    config.touchUpSigma = 0.5f;
    config.effects = ZYN_EFFECT_BACKGROUND;
    settings.touchUpSigma = 0.125f;
    ASSERT_TRUE(VBG::D3D12Utils::ConvertToVBGSettings(config, settings));
    EXPECT_EQ(0.125f, settings.touchUpSigma);
}

TEST_F(Config, BackgroundSourcesOfTheSettings) {
    static const uint8_t data[16] = {};
    const struct {
        uint32_t kind, source, format;
        std::u16string file;
        std::string expected, logged;
    } cases[] = {
        {3, 1, 1, u"/c/a.png", "pt9 fx1 sig0 bt0 ty0 src0 algo1", ""},
        {77, 1, 1, u"/c/a.png", "pt9 fx1 sig0 bt0 ty0 src0 algo1", ""},
        {2, 1, 1, u"/c/b.jfif", "pt9 fx1 sig0 bt2 ty1 src1 algo1 /c/b.jfif", ""},
        {2, 1, 1, u"/c/b.pjpeg", "pt9 fx1 sig0 bt2 ty1 src1 algo1 /c/b.pjpeg", ""},
        {2, 1, 1, u"/c/b.pjp", "pt9 fx1 sig0 bt2 ty1 src1 algo1 /c/b.pjp", ""},
        {2, 1, 1, u"/c/b.jpg", "pt9 fx1 sig0 bt2 ty1 src1 algo1 /c/b.jpg", ""},
        {2, 1, 3, u"/c/back.ground.gif", "pt9 fx1 sig0 bt2 ty3 src1 algo1 /c/back.ground.gif", ""},
        {2, 1, 1, u"/c/.png", "pt9 fx1 sig0 bt2 ty1 src1 algo1 /c/.png", ""},
        {2, 1, 4, u"/c/v.m4v", "pt9 fx1 sig0 bt3 ty4 src1 algo1 /c/v.m4v", ""},
        {2, 1, 4, u"/c/v.mp4", "pt9 fx1 sig0 bt3 ty4 src1 algo1 /c/v.mp4", ""},
        {2, 1, 4, u"/c/v.ogm", "pt9 fx1 sig0 bt3 ty4 src1 algo1 /c/v.ogm", ""},
        {2, 1, 5, u"/c/v.ogv", "pt9 fx1 sig0 bt3 ty5 src1 algo1 /c/v.ogv", ""},
        {2, 1, 2, u"/c/photo.JPG", "refused pt9 fx1 sig0 bt0 ty2 src1 algo0",
         "Unknown file format provided, file:/c/photo.JPG"},
        {2, 1, 6, u"/c/clip.MOV", "refused pt9 fx1 sig0 bt0 ty6 src1 algo0",
         "Unknown file format provided, file:/c/clip.MOV"},
        {2, 1, 1, u"/c/фон.bmp", "refused pt9 fx1 sig0 bt0 ty1 src1 algo0",
         "Unknown file format provided, file:/c/\xD1\x84\xD0\xBE\xD0\xBD.bmp"},
        {2, 1, 1, u"/c/v1.5/background", "refused pt9 fx1 sig0 bt0 ty1 src1 algo0",
         "File extension not available, file:/c/v1.5/background"},
        {2, 1, 1, u"", "refused pt9 fx1 sig0 bt0 ty1 src1 algo0",
         "File extension not available, file:"},
        {2, 0, 1, u"/c/a.png", "refused pt9 fx1 sig0 bt0 ty1 src0 algo0",
         "imageOrVideoDataSource cannot be none"},
        {2, 3, 1, u"/c/a.png", "refused pt9 fx1 sig0 bt0 ty1 src0 algo0",
         "Unknown imageOrVideoDataSource passed: 3"},
        // In memory: the file is ignored, and mov is refused although it plays from a file.
        {2, 2, 1, u"/c/x.png", "pt9 fx1 sig0 bt2 ty1 src2 algo1 mem16", ""},
        {2, 2, 2, u"", "pt9 fx1 sig0 bt2 ty2 src2 algo1 mem16", ""},
        {2, 2, 3, u"", "pt9 fx1 sig0 bt2 ty3 src2 algo1 mem16", ""},
        {2, 2, 4, u"", "pt9 fx1 sig0 bt3 ty4 src2 algo1 mem16", ""},
        {2, 2, 5, u"", "pt9 fx1 sig0 bt3 ty5 src2 algo1 mem16", ""},
        {2, 2, 7, u"", "pt9 fx1 sig0 bt3 ty7 src2 algo1 mem16", ""},
        {2, 2, 6, u"", "refused pt9 fx1 sig0 bt0 ty6 src2 algo0 mem16", "invalid formatType"},
        {2, 2, 0, u"", "refused pt9 fx1 sig0 bt0 ty0 src2 algo0 mem16", "invalid formatType"},
        {2, 2, 8, u"", "refused pt9 fx1 sig0 bt0 ty8 src2 algo0 mem16", "invalid formatType"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        ZynNativeConfig config = VBG::DefaultZynNativeConfig();
        config.effects = ZYN_EFFECT_BACKGROUND;
        config.backgroundEffectKind = c.kind;
        config.backgroundDataSource = c.source;
        config.backgroundFormat = c.format;
        config.backgroundData = data;
        config.backgroundDataSize = sizeof data;
        setField(config.backgroundFilePath, c.file);
        log_.clear();
        EXPECT_EQ(c.expected, settingsOf(config));
        EXPECT_TRUE(c.logged.empty() || log_.contains(c.logged)) << log_.dump();
    }
}

TEST_F(Config, SettingsPrintAsOneRecord) {
    VBGSettings s = VBG::DefaultVBGSettings();
    s.blurAlgo = 1;
    s.bt = 2;
    s.imageOrVideoType = 2;
    s.imageOrVideoDataSource = 1;
    setField(s.backgroundImageFile, u"/c/plage é.jpg");
    setField(s.logDirectory, u"/l");
    setField(s.modelFilePath, u"/m/model.winml");
    setField(s.fileCachePath, u"/c");
    s.pt = 3;
    s.effects = 3;
    s.touchUpSigma = 0.25f;
    VBG::D3D12Utils::PrintVBGSettings(s);
    s = VBG::DefaultVBGSettings();
    s.imageOrVideoDataSource = 2;
    s.pData = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(0xABCDEF0));
    s.dataSize = 4096;
    s.imageOrVideoType = 5;
    s.bt = 3;
    setField(s.backgroundImageFile, u"/not/printed.png");
    VBG::D3D12Utils::PrintVBGSettings(s);
    s = VBG::DefaultVBGSettings();
    s.blurAlgo = 2;
    s.pt = 7;
    s.imageOrVideoType = 3;
    VBG::D3D12Utils::PrintVBGSettings(s);
    const std::string expected[] = {
        "blurAlgo: ResizeBlur, bt: 2, imageOrVideoType: Jpeg, imageOrVideoDataSource: DiskFile, "
        "backgroundImageFile: /c/plage \xC3\xA9.jpg        pData: 0, dataSize: 0, logDirectory: "
        "/l, "
        "modelFilePath: /m/model.winml, pt: OpenVinoCpu, effects: 3, touchUpSigma: 0.25, "
        "fileCachePath: /c",
        "blurAlgo: None, bt: 3, imageOrVideoType: 5, imageOrVideoDataSource: InMem, "
        "backgroundImageFile:         pData: ABCDEF0, dataSize: 4096, logDirectory: , "
        "modelFilePath: , pt: Auto, effects: 0, touchUpSigma: 0, fileCachePath: ",
        "blurAlgo: Unknown, bt: 0, imageOrVideoType: Gif, imageOrVideoDataSource: "
        "ImageOrVideoDataSource::None, backgroundImageFile:         pData: 0, dataSize: 0, "
        "logDirectory: , modelFilePath: , pt: Unknown, effects: 0, touchUpSigma: 0, "
        "fileCachePath: "};
    const auto records = log_.records();
    ASSERT_EQ(3u, records.size()) << log_.dump();
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(expected[i], records[i].message);
        EXPECT_EQ("VBG::D3D12Utils::PrintVBGSettings", records[i].function);
        EXPECT_EQ(spdlog::level::info, records[i].level);
    }
}

// ---- At the exported create and update ---------------------------------------------------------

// Statuses: 1 feedback only at create, 2 a feedback request without an instance, 3 a refused text.
TEST_F(Config, RefusedTextsAtCreateAndUpdateGiveTheirStatusAndLeaveTheHandle) {
    static int marker = 0;
    const struct {
        const char* json;
        uint32_t create, update;
        const char* logged;
    } cases[] = {
        {R"({"feedback": true, "id": "f1"})", 1, 2,
         "Feedback constraint passed in create instance"},
        {nullptr, 3, 3, "config is nullptr."},
        {"{not json", 3, 3, "ConvertToZynNativeConfig failed"},
        {"{}", 3, 3, "ConvertToZynNativeConfig failed"},
        {R"({"effects": []})", 3, 3, "ConvertToZynNativeConfig failed"},
        {R"({"feedback": false, "id": "f"})", 3, 3, "ConvertToZynNativeConfig failed"},
        {R"({"feedback": true, "id": "../f2"})", 3, 3, "feedback id refused"},
        {R"({"effects": [{"name": "touchUp", "touchUpSigma": "smooth"}]})", 3, 3,
         "invalid stof argument"},
        {R"({"effects": [{"name": "weatherman", "mode": "overlay", "weathermanAlpha": "1e99",
             "weathermanSize": "1", "weathermanOffsetX": "0", "weathermanOffsetY": "0"}]})",
         3, 3, "stof argument out of range"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json != nullptr ? c.json : "(null)");
        log_.clear();
        ZynNativeHandle handle = &marker;
        EXPECT_EQ(c.create, ZynNativeVideoProcessingCreateInstance(c.json, &handle));
        EXPECT_EQ(&marker, handle);
        EXPECT_TRUE(log_.contains(c.logged)) << log_.dump();
        EXPECT_EQ(0u, log_.countContaining("created with status"));
        handle = nullptr;
        log_.clear();
        EXPECT_EQ(c.update, ZynNativeVideoProcessingUpdateInstance(&handle, c.json));
        EXPECT_EQ(nullptr, handle);
        // A failed update always goes through the destroy path; its record names the length.
        EXPECT_EQ(1u, log_.countContaining("DestroyInstance done, process id: ")) << log_.dump();
        const std::string length =
            c.json == nullptr ? "(null)" : "(" + std::to_string(std::strlen(c.json)) + " bytes)";
        EXPECT_TRUE(log_.hasFrom("ZynNativeVideoProcessingUpdateInstance",
                                 "ZYNNativeVideoProcessing updated with config " + length +
                                     " on thread " + std::to_string(VBG::Utils::ThreadId()) +
                                     " with result " + std::to_string(c.update)))
            << log_.dump();
    }
}
