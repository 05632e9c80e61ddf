// Configuration: the library configuration file, the JSON effect configuration and its conversion
// into the engines' settings record. Records are compared through short descriptions that list
// what differs from the defaults, written out by hand in the tables.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "config/config_parser.h"
#include "config/effect_config.h"
#include "config/vbg_settings.h"
#include "support/log_capture.h"
#include "support/test_paths.h"
#include "util/text.h"

using VBG::ConfigParser;
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

// " <name><value>" for each value that differs from its default (names and defaults as lists).
template <typename... Values>
std::string differences(const std::string& names, const std::string& defaults, Values... values) {
    std::istringstream nameList(names), defaultList(defaults);
    std::ostringstream out;
    for (const double value : {static_cast<double>(values)...}) {
        std::string name;
        double byDefault = 0;
        nameList >> name;
        defaultList >> byDefault;
        if (static_cast<float>(value) != static_cast<float>(byDefault)) {
            out << " " << name << static_cast<float>(value);
        }
    }
    return out.str();
}

std::string text(const char* name, const char16_t* field) {
    return field[0] != 0 ? " " + std::string(name) + narrow(field) : "";
}

std::string describe(const VBGSettings& s) {
    return differences("pt bt ty src algo fx sig play mem", "9 0 0 0 0 0 0 2 0", s.pt, s.bt,
                       s.imageOrVideoType, s.imageOrVideoDataSource, s.blurAlgo, s.effects,
                       s.touchUpSigma, s.playbackOptions, s.dataSize) +
           text("file=", s.backgroundImageFile);
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
    // The sections found (E W F), then what differs from the defaults.
    std::string describe() const {
        const ZynNativeConfig& c = config_;
        const ZynNativeWeathermanSettings& p = presenter_;
        std::ostringstream out;
        out << (found_.effects ? 'E' : '-') << (found_.weatherman ? 'W' : '-')
            << (found_.feedback ? 'F' : '-') << (c.modelFilePath[0] == 0 ? " unparsed" : "");
        out << differences("fx k f s pm sig wm r oa os ox oy us ux uy um ns np nps cs",
                           "0 0 0 0 3 0.03 -1 3 1 1 0 0 1 0 0 0 1 0 1 1", c.effects,
                           c.backgroundEffectKind, c.backgroundFormat, c.backgroundDataSource,
                           c.processingMode, c.touchUpSigma, p.mode, p.reserved, p.overlayAlpha,
                           p.overlaySize, p.overlayOffsetX, p.overlayOffsetY, p.underlaySize,
                           p.underlayOffsetX, p.underlayOffsetY, p.underlayMode, p.newsroomSize,
                           p.newsroomPosition, p.newsroomPresentationSize, p.conferenceroomSize);
        out << text("file=", c.backgroundFilePath) << text("nf=", p.newsroomBackgroundFile)
            << text("cf=", p.conferenceroomBackgroundFile);
        out << (feedback_.id.empty() ? "" : " id=" + feedback_.id + "@" + feedback_.folder);
        return out.str();
    }
    // Converts, prints and describes the settings.
    std::string settingsOf(const ZynNativeConfig& config) {
        VBGSettings settings = VBG::DefaultVBGSettings();
        const bool converted = VBG::D3D12Utils::ConvertToVBGSettings(config, settings);
        VBG::D3D12Utils::PrintVBGSettings(settings);
        const std::string d = ::describe(settings);
        return converted ? d.substr(d.empty() ? 0 : 1) : "refused" + d;
    }
    // Runs a table of "<input> => <expected>" lines; a line without " => " continues the input,
    // one that starts with " | " the expectation. <expected> is what `run` returns (or "throws
    // <what>"), then " | "-separated checks: "+message" logged, "!message" not logged, "~fragment"
    // in one record, "=settings" converted from the effect record.
    void runTable(const std::string& table, const std::function<std::string(const char*)>& run) {
        std::istringstream lines(table + "\n.");
        std::string line, input, expected;
        while (std::getline(lines, line)) {
            if (line.rfind(" | ", 0) == 0) {
                expected += line;
                continue;
            }
            std::vector<std::string> parts;
            for (size_t at = 0, bar = 0; !expected.empty() && bar != std::string::npos;
                 at = bar + 3) {
                bar = expected.find(" | ", at);
                parts.push_back(expected.substr(at, bar - at));
            }
            SCOPED_TRACE(input);
            log_.clear();
            try {
                EXPECT_EQ(parts.empty() ? "" : parts[0], parts.empty() ? "" : run(input.c_str()));
            } catch (const std::exception& e) {
                EXPECT_EQ(parts[0], std::string("throws ") + e.what());
            }
            for (size_t i = 1; i < parts.size(); ++i) {
                const std::string text = parts[i].substr(1);
                if (parts[i][0] == '+' || parts[i][0] == '!') {
                    EXPECT_EQ(parts[i][0] == '+', log_.contains(text)) << text << log_.dump();
                } else if (parts[i][0] == '~') {
                    EXPECT_EQ(1u, log_.countContaining(text)) << text << log_.dump();
                } else {
                    EXPECT_EQ(text, settingsOf(config_));
                }
            }
            const size_t arrow = line.find(" => ");
            input = (parts.empty() ? input : "") + line.substr(0, arrow);
            expected = arrow == std::string::npos ? "" : line.substr(arrow + 4);
        }
    }

    TempDir dir_{"zyn-config"};
    zyn_test::LogCapture log_;
    ZynNativeConfig config_{};
    ZynNativeWeathermanSettings presenter_{};
    VBG::ZynFeedbackSettings feedback_;
    VBG::ConfigSections found_;
};

}  // namespace

TEST_F(Config, FileStoresTheThreeFoldersInOrderAndEachFailureHasItsMessage) {
    EXPECT_TRUE(readFile(R"({"x": 1, "modelsPath": "/m\u00e9", "logPath": "/l1",
                             "fileCachePath": "/c1", "y": {"z": [1]}})"));
    EXPECT_EQ("/m\xC3\xA9 /l1 /c1 /m\xC3\xA9/model.winml",
              ConfigParser::ModelsPath() + " " + ConfigParser::LogPath() + " " +
                  ConfigParser::FileCachePath() + " " + ConfigParser::ModelFilePath());
    // What is stored after each failure: the keys are read in order, each replacing its folder.
    runTable(R"(
{"logPath": "/l", "fileCachePath": "/c"} => /m /c | +modelsPath missing in config file.
{"modelsPath": "", "logPath": "/l", "fileCachePath": "/c"} =>  /c | +Models path is empty
{"modelsPath": "/m2", "fileCachePath": "/c"} => /m2 /c | +logPath missing in config file.
{"modelsPath": "/m3", "logPath": "", "fileCachePath": "/c"} => /m3 /c | +Log path is empty
{"modelsPath": "/m4", "logPath": "/l"} => /m4 /c | +fileCachePath missing in config file.
{"modelsPath": "/m5", "logPath": "/l", "fileCachePath": ""} => /m5  | +fileCachePath path is empty
this is not json => /m /c | +Config file parse failed.
{"modelsPath": "/m6", "logPath": "/l", "fileCachePath": "/c", "x": [[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[
]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]} => /m /c | +Config file is nested deeper than 32 levels
)",
             [&](const char* text) {
                 SetUp();
                 EXPECT_FALSE(readFile(text));
                 return ConfigParser::ModelsPath() + " " + ConfigParser::FileCachePath();
             });
    EXPECT_FALSE(ConfigParser::SetConfig(nullptr));
    EXPECT_TRUE(log_.hasFrom("VBG::ConfigParser::SetConfig", "Config file path is null."));
}

// Only a regular file of at most 64 KiB is read: a FIFO must not block Init, and a huge file is
// not taken into memory.
TEST_F(Config, OnlySmallRegularFilesAreRead) {
    const std::string good = R"({"modelsPath": "/m2", "logPath": "/l2", "fileCachePath": "/c2"})";
    zyn_test::WriteFile(dir_ / "large.json", good + std::string(65536 - good.size() + 1, ' '));
    zyn_test::WriteFile(dir_ / "limit.json", good + std::string(65536 - good.size(), ' '));
    std::filesystem::create_directory(dir_ / "folder.json");
    for (const char* name : {"large.json", "folder.json", "absent.json"}) {
        EXPECT_FALSE(ConfigParser::SetConfig((dir_ / name).c_str())) << name;
    }
    EXPECT_EQ(3u, log_.count("Config file open failed."));
    bool read = true;
    EXPECT_TRUE(zyn_test::RunsWithoutBlockingOnFifo(
        dir_ / "fifo.json", [&] { read = ConfigParser::SetConfig((dir_ / "fifo.json").c_str()); }));
    EXPECT_FALSE(read);
    EXPECT_EQ("/m", ConfigParser::ModelsPath());
    EXPECT_TRUE(ConfigParser::SetConfig((dir_ / "limit.json").c_str())) << log_.dump();
}

TEST_F(Config, EffectTextsConvertToTheirRecords) {
    runTable(R"(
{"effects": [ => --- unparsed | +Configuration {"effects": [ | +config parse failed.
42 => --- unparsed | +Configuration 42 | +config parse failed.
{"effects": [], "feedback": true, "id": "abc"}
 => --- | +Effect array is empty | !No feedback/id found.
{"effects": {"name": "blur"}} => --- | +Effect array is empty
{"unrelated": 1} => --- | +No feedback/id found.
{"effects": [{"name": "blur"}]} => E-- fx1 k1 | +Config Blur
{"processingMode": 1, "effects": [{"name": "blur"}]} => E-- fx1 k1 pm1 | =pt1 bt1 algo1 fx1
{"processingMode": 2, "effects": [{"name": "blur"}]} => E-- fx1 k1 pm2 | =pt0 bt1 algo1 fx1
{"processingMode": 3, "effects": [{"name": "blur"}]} => E-- fx1 k1 | =bt1 algo1 fx1
{"processingMode": 4, "effects": [{"name": "blur"}]} => E-- fx1 k1 pm4 | =pt6 bt1 algo1 fx1
{"processingMode": 5, "effects": [{"name": "blur"}]} => E-- fx1 k1 pm5 | =pt4 bt1 algo1 fx1
{"processingMode": 6, "effects": [{"name": "blur"}]} => E-- fx1 k1 pm6 | =pt5 bt1 algo1 fx1
{"processingMode": 7, "effects": [{"name": "blur"}]} => E-- fx1 k1 pm7 | =pt3 bt1 algo1 fx1
{"processingMode": 8, "effects": [{"name": "blur"}]} => E-- fx1 k1 pm8 | =pt2 bt1 algo1 fx1
{"processingMode": 9, "effects": [{"name": "blur"}]} => E-- fx1 k1 pm9 | =pt8 bt1 algo1 fx1
{"processingMode": 0, "effects": [{"name": "blur"}]} => E-- fx1 k1 pm0 | =refused fx1
{"processingMode": 42, "effects": [{"name": "blur"}]} => E-- fx1 k1 pm42 | =refused fx1
{"processingMode": "2", "effects": [{"name": "blur"}]} => E-- fx1 k1
 | +processingMode is not an integer
{"effects": [{"name": "background", "backgroundFile": "b.jpeg"}]} => E-- fx1 k2 f2 s1 file=/c/b.jpeg
 | =bt2 ty2 src1 algo1 fx1 file=/c/b.jpeg
{"processingMode": 8, "effects": [{"name": "background", "backgroundFile": "s.webm"},
 {"name": "touchUp", "touchUpSigma": "0.4"}]} => E-- fx3 k2 f7 s1 pm8 sig0.4 file=/c/s.webm
 | +Config TouchUp Processing Type: 3 Sigma: 0.4 | =pt2 bt3 ty7 src1 algo1 fx3 sig0.4 file=/c/s.webm
{"effects": [{"name": "background", "backgroundFile": "a.ogv"}]} => E-- fx1 k2 f5 s1 file=/c/a.ogv
{"effects": [{"name": "background", "backgroundFile": "d.png/f"}]} => --- fx1 k2 s1 file=/c/d.png/f
 | +Invalid file extension. | !filename provided has no extension.
{"effects": [{"name": "background", "backgroundFile": "a.mov"}]} => E-- fx1 k2 f6 s1 file=/c/a.mov
 | =bt3 ty6 src1 algo1 fx1 file=/c/a.mov
{"effects": [{"name": "background", "backgroundFile": "b.PNG"}]} => --- fx1 k2 s1 file=/c/b.PNG
 | +Invalid file extension. | !filename provided has no extension.
{"effects": [{"name": "background", "backgroundFile": "b"}]} => --- fx1 k2 s1 file=/c/b
 | +filename provided has no extension.
{"effects": [{"name": "background"}]}
 => --- fx1 k2 | +effect set to background, but no file provided
 | !Effect does not have backgroundFile
{"effects": [{"name": "touchUp", "touchUpSigma": "0.05"}]} => E-- fx2 sig0.05
 | +Config TouchUp Processing Type: 2 Sigma: 0.05 | =algo1 fx2 sig0.05
{"effects": [{"name": "blur"}, {"name": "touchUp", "touchUpSigma": " 1.5e-1x"}]}
 => E-- fx3 k1 sig0.15
{"effects": [{"name": "touchUp"}]} => --- fx2 | +Effect does not have touchUpSigma
{"effects": [{"name": "touchUp", "touchUpSigma": 0.5}]}
 => --- fx2 | +Effect does not have touchUpSigma
{"effects": [{"kind": "blur"}]} => --- | +Effect does not have name
{"effects": [{"name": "blur"}, {"name": "sparkle"}, {"name": "touchUp", "touchUpSigma": "0.2"}]}
 => --- fx1 k1 | +Unknown effect passed: sparkle
{"effects": [{"name": "touchUp", "touchUpSigma": "soft"}]} => throws invalid stof argument
{"effects": [{"name": "touchUp", "touchUpSigma": "1e50"}]} => throws stof argument out of range
{"effects": [{"name": "blur"}, {"name": "weatherman", "mode": "overlay", "weathermanAlpha": "0.5",
 "weathermanSize": "0.25", "weathermanOffsetX": "0.1", "weathermanOffsetY": "-0.2"},
 {"name": "weatherman", "mode": "sideways"}]} => -W- fx1 k1 wm1 oa0.5 os0.25 ox0.1 oy-0.2
 | +Unknown effect passed: weatherman | +Effect set to Weatherman mode: overlay
 | !effect set to weatherman, unknown mode sideways
{"effects": [{"name": "weatherman", "mode": "underlay", "weathermanSize": "0.75",
 "weathermanOffsetX": "0.3", "weathermanOffsetY": "0.4", "weathermanUnderlayMode": "2"}]}
 => -W- wm2 us0.75 ux0.3 uy0.4 um2 | +Effect set to Weatherman mode: underlay
{"effects": [{"name": "weatherman", "mode": "newsroom", "weathermanSize": "0.6",
 "weathermanPosition": "1", "presentationSize": "0.8", "backgroundFile": "n.jpg"}]}
 => -W- wm3 ns0.6 np1 nps0.8 nf=/c/n.jpg | +Effect set to Weatherman mode: newsroom
{"effects": [{"name": "weatherman", "mode": "conferenceroom", "weathermanSize": "-131071",
 "backgroundFile": "r.gif"}]} => -W- wm4 cs-131071 cf=/c/r.gif
 | +Effect set to Weatherman mode: conferenceroom
{"effects": [{"name": "weatherman", "mode": "sideways"}]} => ---
 | +effect set to weatherman, unknown mode sideways
{"effects": [{"name": "weatherman"}]} => --- | +Effect does not have mode
{"effects": [{"name": "weatherman", "mode": "underlay", "weathermanSize": "0.5",
 "weathermanOffsetX": "0.3", "weathermanOffsetY": "0.4"}]} => --- wm2 us0.5 ux0.3 uy0.4
 | +Effect does not have weathermanUnderlayMode | !Effect set to Weatherman mode: underlay
{"effects": [{"name": "weatherman", "mode": "underlay", "weathermanSize": "1",
 "weathermanOffsetX": "0", "weathermanOffsetY": "0", "weathermanUnderlayMode": "left"}]}
 => throws invalid stoi argument
{"effects": [{"name": "weatherman", "mode": "newsroom", "weathermanSize": "1",
 "weathermanPosition": "9999999999", "presentationSize": "1", "backgroundFile": "n.png"}]}
 => throws stoi argument out of range
{"effects": [{"name": "weatherman", "mode": "conferenceroom", "backgroundFile": "r.png"}]}
 => --- wm4
 | +Effect does not have weathermanSize
{"effects": [{"name": "weatherman", "mode": "overlay", "weathermanAlpha": "131072"}]} => --- wm1
 | +weathermanAlpha is out of range: 131072
{"effects": [{"name": "weatherman", "mode": "underlay", "weathermanSize": "nan"}]} => --- wm2
 | +weathermanSize is out of range: nan
{"feedback": true, "id": "session-7"} => --F id=session-7@/c | !No feedback/id found.
{"effects": [{"name": "blur"}], "feedback": true, "id": "a.b_C-9"} => E-F fx1 k1 id=a.b_C-9@/c
{"feedback": false, "id": "x2"} => --- | +feedback set to false.
{"feedback": true} => --- | +No feedback/id found. | !feedback set to false.
{"id": "x3"} => --- | +No feedback/id found.
{"feedback": true, "id": "/tmp/x"} => throws feedback id refused | ~Feedback id '/tmp/x' refused
{"feedback": true, "id": "../x"} => throws feedback id refused | ~Feedback id '../x' refused
{"feedback": true, "id": "caf\u00e9"} => throws feedback id refused
{"feedback": true, "id": "PT_CONFIG"} => throws feedback id refused
{"feedback": true, "id": ""} => throws feedback id refused
{"feedback": true, "id": "x\u0000.json"} => throws feedback id refused
 | ~Feedback id 'x\x00.json' refused
{"feedback": true, "id": "ZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZ"}
 => throws feedback id refused
{"feedback": true, "id": "ZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZ"}
 => --F id=ZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZ@/c
)",
             [&](const char* json) {
                 convert(json);
                 // Every parsed text says at most once that it carries no feedback request.
                 EXPECT_GE(1u, log_.count("No feedback/id found."));
                 return describe();
             });
    log_.clear();
    convert(R"({"effects": [{"name": "blur"}]})");
    EXPECT_EQ("/m/model.winml /l /c", narrow(config_.modelFilePath) + " " +
                                          narrow(config_.logPath) + " " +
                                          narrow(config_.fileCachePath));
    EXPECT_TRUE(log_.hasFrom("VBG::ParseVbgConfig", "Config Blur"));
    EXPECT_TRUE(log_.hasFrom("VBG::ParseZynFeedbackConfig", "No feedback/id found."));
    convert(nullptr);
    EXPECT_EQ("--- unparsed", describe());
    EXPECT_TRUE(log_.has(spdlog::level::err, "config is nullptr."));
}

TEST_F(Config, TextsTooLargeOrTooDeeplyNestedAreRefusedAndTheirRecordIsEscapedAndCut) {
    const std::string blur = R"({"effects": [{"name": "blur"}], "x": )";
    for (int levels : {32, 33}) {
        convert((blur + std::string(levels - 1, '[') + std::string(levels - 1, ']') + "}").c_str());
        EXPECT_EQ(levels == 32, found_.effects);
    }
    convert((blur + std::string(65536 - blur.size() - 2, ' ') + "1}").c_str());
    EXPECT_TRUE(found_.effects);
    convert((blur + std::string(65536 - blur.size() - 1, ' ') + "1}").c_str());
    EXPECT_FALSE(found_.effects);
    EXPECT_TRUE(log_.has(spdlog::level::err, "config is nested deeper than 32 levels"));
    EXPECT_TRUE(log_.has(spdlog::level::err, "config is larger than 65536 bytes"));
    // Raw line breaks, a forged record in an unknown effect's name, and far more than a record
    // should hold: one record per element for the first sixteen only.
    std::string text = "{\"effects\":\n[";
    for (int i = 0; i < 500; ++i) {
        text += "{\"name\": \"blur\"},\r\n";
    }
    log_.clear();
    convert((text + R"({"name": "x\n[E] forged\u001b"}]})").c_str());
    for (const auto& r : log_.records()) {
        EXPECT_EQ(std::string::npos, r.message.find_first_of("\n\r\x1b")) << r.message;
    }
    const auto config = log_.records().front().message;
    EXPECT_EQ(0u, config.find("Configuration {\"effects\":\\n[{\"name\": \"blur\"},\\r\\n"));
    EXPECT_EQ(config.size() - 11, config.find("(truncated)"));
    EXPECT_GE(4200u, config.size());
    EXPECT_EQ(1u, log_.countContaining("Configuration "));
    EXPECT_EQ(16u, log_.count("Config Blur"));
    EXPECT_EQ(1u, log_.count("Unknown effect passed: x\\n[E] forged\\x1b")) << log_.dump();
}

// Names become paths in the cache folder: anything that could reach another file is a bad value,
// for the background and the room pictures alike; room pictures need a picture extension.
TEST_F(Config, FileNamesStayInsideTheCacheFolder) {
    const char* templates[] = {
        R"({"effects": [{"name": "background", "backgroundFile": "NAME"}]})",
        R"({"effects": [{"name": "weatherman", "mode": "newsroom", "weathermanSize": "1",
            "weathermanPosition": "1", "presentationSize": "1", "backgroundFile": "NAME"}]})"};
    const auto text = [&](int t, const std::string& name) {
        std::string json = templates[t];
        return json.replace(json.find("NAME"), 4, name);
    };
    std::string table;
    for (const char* name : {"/etc/x.png", "../x.png", "a/../../x.png", "sub/../x.png", "..",
                             "a/..", "./../x.png", "//x.png", "x\\u0000.png"}) {
        for (int t = 0; t < 2; ++t) {
            table += text(t, name) + " => throws background file name refused\n";
            table += " | ~Background file name '\n";
        }
    }
    table += text(0, "x\\u0000.png") + " => throws background file name refused\n";
    runTable(table + " | ~'x\\x00.png' refused",
             [&](const char* json) { return convert(json), describe(); });
    for (const char* name : {"sub/dir/b.png", ".png", "a..png", "./b.png", "sub/.b.gif"}) {
        convert(text(0, name).c_str());
        EXPECT_TRUE(found_.effects) << name;
        EXPECT_EQ(std::string("/c/") + name, narrow(config_.backgroundFilePath));
    }
    for (const char* name : {"room.txt", "room.PNG", "room", "room.mp4"}) {
        log_.clear();
        convert(text(1, name).c_str());
        EXPECT_FALSE(found_.weatherman) << name;
        EXPECT_TRUE(log_.hasFrom("VBG::ParseWeathermanConfig", "Invalid file extension.")) << name;
    }
}

// Each row: background kind, data source, format and file, then the settings; in memory the data
// (16 bytes) are taken and the file is ignored. The touch-up sigma comes with its effect bit only.
TEST_F(Config, BackgroundSourcesOfTheSettings) {
    static const uint8_t data[16] = {};
    runTable(R"(
3 1 1 /c/a.png => algo1 fx1 | ~imageOrVideoDataSource: ImageOrVideoDataSource::None, 
2 1 1 /c/b.jfif => bt2 ty1 src1 algo1 fx1 file=/c/b.jfif
2 1 1 /c/b.pjp => bt2 ty1 src1 algo1 fx1 file=/c/b.pjp
2 1 2 /c/b.jpg => bt2 ty2 src1 algo1 fx1 file=/c/b.jpg
 | ~blurAlgo: ResizeBlur, bt: 2, imageOrVideoType: Jpeg, imageOrVideoDataSource: DiskFile,
 | ~DiskFile, backgroundImageFile: /c/b.jpg        pData: 0, dataSize: 0, logDirectory: ,
 | ~, modelFilePath: , pt: Auto, effects: 1, touchUpSigma: 0, fileCachePath: 
2 1 3 /c/back.ground.gif => bt2 ty3 src1 algo1 fx1 file=/c/back.ground.gif | ~Type: Gif, 
2 1 1 /c/.png => bt2 ty1 src1 algo1 fx1 file=/c/.png
2 1 4 /c/v.m4v => bt3 ty4 src1 algo1 fx1 file=/c/v.m4v
2 1 4 /c/v.mp4 => bt3 ty4 src1 algo1 fx1 file=/c/v.mp4
2 1 5 /c/v.ogv => bt3 ty5 src1 algo1 fx1 file=/c/v.ogv
2 1 2 /c/photo.JPG => refused ty2 src1 fx1 | +Unknown file format provided, file:/c/photo.JPG
2 1 6 /c/clip.MOV => refused ty6 src1 fx1 | +Unknown file format provided, file:/c/clip.MOV
2 1 1 /c/фон.bmp => refused ty1 src1 fx1 | +Unknown file format provided, file:/c/фон.bmp
 | ~blurAlgo: None, bt: 0, imageOrVideoType: Png, 
2 1 1 /c/v1.5/bg => refused ty1 src1 fx1 | +File extension not available, file:/c/v1.5/bg
2 1 1 - => refused ty1 src1 fx1 | +File extension not available, file:
2 0 1 /c/a.png => refused ty1 fx1 | +imageOrVideoDataSource cannot be none
2 3 1 /c/a.png => refused ty1 fx1 | +Unknown imageOrVideoDataSource passed: 3
2 2 1 /c/x.png => bt2 ty1 src2 algo1 fx1 mem16
2 2 4 - => bt3 ty4 src2 algo1 fx1 mem16
2 2 5 - => bt3 ty5 src2 algo1 fx1 mem16
 | ~imageOrVideoType: 5, imageOrVideoDataSource: InMem, backgroundImageFile:         pData: 
2 2 7 - => bt3 ty7 src2 algo1 fx1 mem16
2 2 6 - => refused ty6 src2 fx1 mem16 | +invalid formatType
2 2 8 - => refused ty8 src2 fx1 mem16 | +invalid formatType
1 0 0 touchUp => bt1 algo1 fx3 sig0.5
)",
             [&](const char* row) {
                 std::istringstream in(row);
                 std::string file;
                 ZynNativeConfig config = VBG::DefaultZynNativeConfig();
                 config.effects = ZYN_EFFECT_BACKGROUND;
                 in >> config.backgroundEffectKind >> config.backgroundDataSource >>
                     config.backgroundFormat >> file;
                 config.effects |= file == "touchUp" ? ZYN_EFFECT_TOUCHUP : 0;
                 config.touchUpSigma = 0.5f;
                 const std::u16string path = VBG::Text::Utf8ToUtf16(file == "-" ? "" : file);
                 config.backgroundFilePath[path.copy(config.backgroundFilePath, 1000)] = 0;
                 config.backgroundData = config.backgroundDataSource == 2 ? data : nullptr;
                 config.backgroundDataSize = 16;
                 return settingsOf(config);
             });
    // Folders of up to 1022 characters are copied.
    ZynNativeConfig config = VBG::DefaultZynNativeConfig();
    VBGSettings settings = VBG::DefaultVBGSettings();
    config.modelFilePath[std::u16string(1022, u'm').copy(config.modelFilePath, 1022)] = 0;
    config.logPath[std::u16string(1023, u'l').copy(config.logPath, 1023)] = 0;
    ASSERT_TRUE(VBG::D3D12Utils::ConvertToVBGSettings(config, settings));
    EXPECT_EQ(1022u, narrow(settings.modelFilePath).size());
    EXPECT_EQ("", narrow(settings.logDirectory));
    settings.blurAlgo = 2;
    VBG::D3D12Utils::PrintVBGSettings(settings);
    EXPECT_EQ(1u, log_.countContaining("blurAlgo: Unknown, bt: 0, ")) << log_.dump();
}
