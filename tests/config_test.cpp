// The JSON effect configuration of an instance: which sections are found, what lands in the native
// configuration, presenter and feedback records, and the messages on the way.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "config/config_parser.h"
#include "config/effect_config.h"
#include "support/log_capture.h"
#include "support/test_paths.h"

using VBG::ConfigParser;
using VBG::ConfigSections;
using zyn_test::LogCapture;
using zyn_test::TempDir;

namespace {

constexpr const char* kConvert = "VBG::ConfigParser::ConvertToZynNativeConfig";
constexpr const char* kEffects = "VBG::ParseVbgConfig";
constexpr const char* kPresenter = "VBG::ParseWeathermanConfig";
constexpr const char* kFeedback = "VBG::ParseZynFeedbackConfig";

// Reads a NUL-terminated record field without going through the library's own converters.
std::u16string field(const char16_t* f) {
    size_t n = 0;
    while (n < ZYN_PATH_CHARS && f[n] != 0) {
        ++n;
    }
    return std::u16string(f, n);
}

// Every test converts with stored folders read from a real library configuration file.
class EffectConfig : public ::testing::Test {
  protected:
    void SetUp() override {
        zyn_test::WriteFile(dir_ / "library.json",
                            R"({"modelsPath": "/opt/zyn/models", "logPath": "/var/log/zyn",
                                "fileCachePath": "/var/cache/zyn"})");
        ASSERT_TRUE(ConfigParser::SetConfig((dir_ / "library.json").c_str()));
        log_.clear();
    }

    ConfigSections convert(const char* json) {
        config_ = VBG::DefaultZynNativeConfig();
        presenter_ = VBG::DefaultWeathermanSettings();
        feedback_ = VBG::ZynFeedbackSettings{};
        return ConfigParser::ConvertToZynNativeConfig(json, config_, presenter_, feedback_);
    }

    static void expectNothingFound(const ConfigSections& s) {
        EXPECT_FALSE(s.effects);
        EXPECT_FALSE(s.weatherman);
        EXPECT_FALSE(s.feedback);
    }

    // The presenter record still holds every default (apart from fields a test names).
    void expectPresenterDefaults() const {
        const ZynNativeWeathermanSettings d = VBG::DefaultWeathermanSettings();
        EXPECT_EQ(d.mode, presenter_.mode);
        EXPECT_EQ(3u, presenter_.reserved);
        EXPECT_EQ(d.overlaySize, presenter_.overlaySize);
        EXPECT_EQ(d.underlaySize, presenter_.underlaySize);
        EXPECT_EQ(d.newsroomSize, presenter_.newsroomSize);
        EXPECT_EQ(d.conferenceroomSize, presenter_.conferenceroomSize);
    }

    TempDir dir_{"zyn-effect-config"};
    LogCapture log_;
    ZynNativeConfig config_{};
    ZynNativeWeathermanSettings presenter_{};
    VBG::ZynFeedbackSettings feedback_;
};

}  // namespace

// ---- Texts that carry nothing -------------------------------------------------------------------

TEST_F(EffectConfig, NullAndUnparseableTextsFindNothing) {
    expectNothingFound(convert(nullptr));
    EXPECT_TRUE(log_.has(spdlog::level::err, "config is nullptr."));
    EXPECT_FALSE(log_.contains("No feedback/id found.")) << log_.dump();

    for (const char* text : {"{\"effects\": [", "not json", "", "[{\"name\": \"blur\"}]", "42"}) {
        log_.clear();
        expectNothingFound(convert(text));
        EXPECT_TRUE(log_.hasFrom(kConvert, std::string("Configuration ") + text)) << text;
        EXPECT_TRUE(log_.has(spdlog::level::err, "config parse failed.")) << text;
        // Parsing stops before the paths are filled.
        EXPECT_EQ(u"", field(config_.modelFilePath)) << text;
    }
}

TEST_F(EffectConfig, TextsTooLargeOrTooDeeplyNestedAreRefused) {
    const std::string blur = R"({"effects": [{"name": "blur"}], "extra": )";
    // An extra key nested `levels` deep under the top-level object.
    const auto nested = [&](int levels) {
        return blur + std::string(levels - 1, '[') + std::string(levels - 1, ']') + "}";
    };
    const struct {
        std::string what, text;
        bool accepted;
        std::string error;
    } cases[] = {
        {"32 levels", nested(32), true, ""},
        {"33 levels", nested(33), false, "config is nested deeper than 32 levels"},
        {"30000 levels", nested(30000), false, "config is nested deeper than 32 levels"},
        {"64 KiB", blur + std::string(65536 - blur.size() - 2, ' ') + "1}", true, ""},
        {"one byte over 64 KiB", blur + std::string(65536 - blur.size() - 1, ' ') + "1}", false,
         "config is larger than 65536 bytes"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        log_.clear();
        EXPECT_EQ(c.accepted, convert(c.text.c_str()).effects);
        if (!c.accepted) {
            EXPECT_TRUE(log_.has(spdlog::level::err, c.error)) << log_.dump().substr(0, 2000);
            EXPECT_TRUE(log_.has(spdlog::level::err, "config parse failed."));
        }
    }
}

TEST_F(EffectConfig, TheTextIsLoggedOnceEscapedAndCutAndEffectRecordsAreCapped) {
    // Raw line breaks between the tokens, a forged record in an unknown effect's name, and far
    // more than a log record should hold.
    std::string text = "{\"effects\":\n[";
    for (int i = 0; i < 500; ++i) {
        text += "{\"name\": \"blur\"},\r\n";
    }
    text += R"({"name": "x\n[E] forged\u001b"}]})";
    convert(text.c_str());
    size_t configRecords = 0;
    for (const auto& r : log_.records()) {
        EXPECT_EQ(std::string::npos, r.message.find_first_of("\n\r\x1b")) << r.message;
        if (r.function == kConvert && r.message.rfind("Configuration ", 0) == 0) {
            ++configRecords;
            EXPECT_LE(r.message.size(), 4200u);
            EXPECT_EQ(0u,
                      r.message.find("Configuration {\"effects\":\\n[{\"name\": \"blur\"},\\r\\n"))
                << r.message.substr(0, 100);
            EXPECT_NE(std::string::npos, r.message.find("(truncated)"));
        }
    }
    EXPECT_EQ(1u, configRecords);
    // One record for each of the first sixteen elements, none for the others.
    EXPECT_EQ(16u, log_.count("Config Blur"));
    EXPECT_EQ(1u, log_.count("Unknown effect passed: x\\n[E] forged\\x1b")) << log_.dump();
}

TEST_F(EffectConfig, EmptyEffectsArrayStopsBeforeFeedback) {
    const ConfigSections s = convert(R"({"effects": [], "feedback": true, "id": "abc"})");
    expectNothingFound(s);
    EXPECT_TRUE(log_.has(spdlog::level::err, "Effect array is empty"));
    EXPECT_EQ("", feedback_.id);
    EXPECT_FALSE(log_.contains("No feedback/id found."));

    expectNothingFound(convert(R"({"effects": {"name": "blur"}})"));
    EXPECT_EQ(2u, log_.count("Effect array is empty"));
    EXPECT_EQ(0u, config_.effects);
}

TEST_F(EffectConfig, TextWithoutAnySectionReportsMissingFeedbackOnly) {
    expectNothingFound(convert(R"({"unrelated": 1})"));
    EXPECT_EQ(1u, log_.count("No feedback/id found."));
    EXPECT_TRUE(log_.has(spdlog::level::err, "No feedback/id found."));
}

// ---- Folders and processing mode ---------------------------------------------------------------

TEST_F(EffectConfig, StoredFoldersAreCopiedIntoTheRecord) {
    const ConfigSections s = convert(R"({"effects": [{"name": "blur"}]})");
    EXPECT_TRUE(s.effects);
    EXPECT_EQ(u"/opt/zyn/models/model.winml", field(config_.modelFilePath));
    EXPECT_EQ(u"/var/log/zyn", field(config_.logPath));
    EXPECT_EQ(u"/var/cache/zyn", field(config_.fileCachePath));
    EXPECT_EQ(3u, config_.processingMode);
}

TEST_F(EffectConfig, ProcessingModeIsCopiedUnchangedWhenItIsAnInteger) {
    convert(R"({"processingMode": 7, "effects": [{"name": "blur"}]})");
    EXPECT_EQ(7u, config_.processingMode);
    // Values outside the mapped range are copied too; the settings conversion refuses them.
    convert(R"({"processingMode": 42, "effects": [{"name": "blur"}]})");
    EXPECT_EQ(42u, config_.processingMode);
    convert(R"({"processingMode": "2", "effects": [{"name": "blur"}]})");
    EXPECT_EQ(3u, config_.processingMode);
}

TEST_F(EffectConfig, NonAsciiFoldersAndFileNamesSurviveIntoTheUtf16Fields) {
    zyn_test::WriteFile(
        dir_ / "library.json",
        "{\"modelsPath\": \"/m/mod\xC3\xA8les\", \"logPath\": \"/journal\xC3\xA9\", "
        "\"fileCachePath\": \"/tmp/\xE7\xBC\x93\xE5\xAD\x98\"}");
    ASSERT_TRUE(ConfigParser::SetConfig((dir_ / "library.json").c_str()));
    // "海滩 café 🌴.png"
    const ConfigSections s = convert(
        "{\"effects\": [{\"name\": \"background\", \"backgroundFile\": "
        "\"\xE6\xB5\xB7\xE6\xBB\xA9 caf\xC3\xA9 \xF0\x9F\x8C\xB4.png\"}]}");
    ASSERT_TRUE(s.effects) << log_.dump();
    EXPECT_EQ(u"/m/modèles/model.winml", field(config_.modelFilePath));
    EXPECT_EQ(u"/journalé", field(config_.logPath));
    EXPECT_EQ(u"/tmp/缓存", field(config_.fileCachePath));
    EXPECT_EQ(u"/tmp/缓存/海滩 café 🌴.png", field(config_.backgroundFilePath));
    EXPECT_EQ(1u, config_.backgroundFormat);
}

TEST_F(EffectConfig, PathThatDoesNotFitItsFieldIsNotCopied) {
    const std::string longName(1100, 'x');
    const ConfigSections s = convert(
        (R"({"effects": [{"name": "background", "backgroundFile": ")" + longName + R"(.png"}]})")
            .c_str());
    EXPECT_TRUE(s.effects);
    EXPECT_EQ(u"", field(config_.backgroundFilePath));
    EXPECT_EQ(1u, config_.backgroundDataSource);
}

// ---- Effect elements ---------------------------------------------------------------------------

TEST_F(EffectConfig, BlurSetsTheBackgroundBitAndKind) {
    const ConfigSections s = convert(R"({"effects": [{"name": "blur"}]})");
    EXPECT_TRUE(s.effects);
    EXPECT_FALSE(s.weatherman);
    EXPECT_FALSE(s.feedback);
    EXPECT_EQ(static_cast<uint32_t>(ZYN_EFFECT_BACKGROUND), config_.effects);
    EXPECT_EQ(1u, config_.backgroundEffectKind);
    EXPECT_EQ(0u, config_.backgroundDataSource);
    EXPECT_TRUE(log_.hasFrom(kEffects, "Config Blur"));
    // Every text without feedback says so, once.
    EXPECT_EQ(1u, log_.count("No feedback/id found."));
    EXPECT_TRUE(log_.hasFrom(kFeedback, "No feedback/id found."));
}

TEST_F(EffectConfig, BackgroundFileIsJoinedToTheCacheFolder) {
    const ConfigSections s =
        convert(R"({"effects": [{"name": "background", "backgroundFile": "beach.jpeg"}]})");
    EXPECT_TRUE(s.effects);
    EXPECT_EQ(static_cast<uint32_t>(ZYN_EFFECT_BACKGROUND), config_.effects);
    EXPECT_EQ(2u, config_.backgroundEffectKind);
    EXPECT_EQ(1u, config_.backgroundDataSource);
    EXPECT_EQ(2u, config_.backgroundFormat);
    EXPECT_EQ(u"/var/cache/zyn/beach.jpeg", field(config_.backgroundFilePath));
}

TEST_F(EffectConfig, BackgroundFileNameRules) {
    // Extension in capitals: refused, although the path and source were already set.
    ConfigSections s =
        convert(R"({"effects": [{"name": "background", "backgroundFile": "beach.PNG"}]})");
    EXPECT_FALSE(s.effects);
    EXPECT_FALSE(s.weatherman);
    EXPECT_TRUE(log_.has(spdlog::level::err, "Invalid file extension."));
    EXPECT_FALSE(log_.contains("filename provided has no extension."));
    EXPECT_EQ(0u, config_.backgroundFormat);
    EXPECT_EQ(1u, config_.backgroundDataSource);
    EXPECT_EQ(2u, config_.backgroundEffectKind);
    EXPECT_EQ(u"/var/cache/zyn/beach.PNG", field(config_.backgroundFilePath));

    // Two dots: the text after the last one decides.
    s = convert(R"({"effects": [{"name": "background", "backgroundFile": "beach.png.mp4"}]})");
    EXPECT_TRUE(s.effects);
    EXPECT_EQ(4u, config_.backgroundFormat);

    // No dot at all.
    log_.clear();
    s = convert(R"({"effects": [{"name": "background", "backgroundFile": "beach"}]})");
    EXPECT_FALSE(s.effects);
    EXPECT_TRUE(log_.has(spdlog::level::err, "filename provided has no extension."));
    EXPECT_TRUE(log_.has(spdlog::level::err, "Invalid file extension."));

    // No file at all: the effect bit and kind are set before the file is looked for.
    log_.clear();
    s = convert(R"({"effects": [{"name": "background"}]})");
    EXPECT_FALSE(s.effects);
    EXPECT_TRUE(log_.hasFrom(kEffects, "effect set to background, but no file provided"));
    EXPECT_FALSE(log_.contains("Effect does not have backgroundFile"));
    EXPECT_EQ(static_cast<uint32_t>(ZYN_EFFECT_BACKGROUND), config_.effects);
    EXPECT_EQ(2u, config_.backgroundEffectKind);
    EXPECT_EQ(0u, config_.backgroundDataSource);
}

TEST_F(EffectConfig, FormatCodesOfFileNames) {
    struct Case {
        const char* name;
        uint32_t code;
    } cases[] = {
        {"a.png", 1},        {"a.jpg", 2},  {"a.jpeg", 2}, {"a.gif", 3},      {"a.mp4", 4},
        {"a.ogv", 5},        {"a.mov", 6},  {"a.webm", 7}, {"a.b.c.webm", 7}, {"a.Png", 0},
        {"a.JPG", 0},        {"a.jfif", 0}, {"a.m4v", 0},  {"a.", 0},         {"a.png ", 0},
        {"dir.png/file", 0}, {".gif", 3},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.code, VBG::GetFormatTypeFromFilename(c.name)) << c.name;
    }
    EXPECT_FALSE(log_.contains("filename provided has no extension."));
    EXPECT_EQ(0u, VBG::GetFormatTypeFromFilename("README"));
    EXPECT_EQ(1u, log_.count("filename provided has no extension."));
}

// Names become paths in the cache folder: anything that could reach another file is a bad value
// (status 3 at the exports), for the background and the room pictures alike.
TEST_F(EffectConfig, FileNamesStayInsideTheCacheFolder) {
    const std::string refused[] = {"/etc/x.png",   "../x.png", "a/../../x.png",
                                   "sub/../x.png", "..",       "a/..",
                                   "./../x.png",   "//x.png",  "x\\u0000.png"};
    const std::string templates[] = {
        R"({"effects": [{"name": "background", "backgroundFile": "NAME"}]})",
        R"({"effects": [{"name": "weatherman", "mode": "conferenceroom", "weathermanSize": "1",
            "backgroundFile": "NAME"}]})",
        R"({"effects": [{"name": "weatherman", "mode": "newsroom", "weathermanSize": "1",
            "weathermanPosition": "1", "presentationSize": "1", "backgroundFile": "NAME"}]})"};
    for (const std::string& name : refused) {
        for (std::string json : templates) {
            json.replace(json.find("NAME"), 4, name);
            SCOPED_TRACE(json);
            log_.clear();
            EXPECT_THROW(convert(json.c_str()), std::invalid_argument);
            EXPECT_EQ(1u, log_.countContaining("Background file name '")) << log_.dump();
        }
    }
    // The record shows the name with its control characters escaped.
    EXPECT_EQ(1u, log_.countContaining("'x\\x00.png' refused")) << log_.dump();

    // Subfolders, dot files and dots inside a name stay inside.
    for (const char* name : {"sub/dir/beach.png", ".png", "a..png", "./beach.png", "sub/.b.gif"}) {
        const std::string json =
            std::string(R"({"effects": [{"name": "background", "backgroundFile": ")") + name +
            R"("}]})";
        EXPECT_TRUE(convert(json.c_str()).effects) << name << log_.dump();
        EXPECT_EQ(u"/var/cache/zyn/" + std::u16string(name, name + strlen(name)),
                  field(config_.backgroundFilePath));
    }
}

// Room pictures are pictures: the extension rules of the background pictures apply.
TEST_F(EffectConfig, RoomPicturesNeedAPictureExtension) {
    for (const char* name : {"room.txt", "room.PNG", "room", "room.mp4"}) {
        const std::string json =
            std::string(R"({"effects": [{"name": "weatherman", "mode": "conferenceroom",
                                         "weathermanSize": "1", "backgroundFile": ")") +
            name + R"("}]})";
        log_.clear();
        EXPECT_FALSE(convert(json.c_str()).weatherman) << name;
        EXPECT_TRUE(log_.hasFrom(kPresenter, "Invalid file extension.")) << name << log_.dump();
    }
}

TEST_F(EffectConfig, TouchUpReadsItsSigma) {
    ConfigSections s = convert(R"({"effects": [{"name": "touchUp", "touchUpSigma": "0.05"}]})");
    EXPECT_TRUE(s.effects);
    EXPECT_EQ(static_cast<uint32_t>(ZYN_EFFECT_TOUCHUP), config_.effects);
    EXPECT_FLOAT_EQ(0.05f, config_.touchUpSigma);
    EXPECT_EQ(0u, config_.backgroundEffectKind);
    EXPECT_TRUE(log_.hasFrom(kEffects, "Config TouchUp Processing Type: 2 Sigma: 0.05"))
        << log_.dump();

    s = convert(
        R"({"effects": [{"name": "blur"}, {"name": "touchUp", "touchUpSigma": " 1.5e-1x"}]})");
    EXPECT_TRUE(s.effects);
    EXPECT_EQ(3u, config_.effects);
    EXPECT_FLOAT_EQ(0.15f, config_.touchUpSigma);
    EXPECT_TRUE(log_.contains("Config TouchUp Processing Type: 3 Sigma: 0.15")) << log_.dump();
}

TEST_F(EffectConfig, MissingRequiredKeysFailThroughGetValue) {
    ConfigSections s = convert(R"({"effects": [{"name": "touchUp"}]})");
    EXPECT_FALSE(s.effects);
    EXPECT_TRUE(log_.hasFrom("VBG::GetValue", "Effect does not have touchUpSigma"));
    // The bit is set before the sigma is read; the sigma keeps its default.
    EXPECT_EQ(static_cast<uint32_t>(ZYN_EFFECT_TOUCHUP), config_.effects);
    EXPECT_FLOAT_EQ(0.03f, config_.touchUpSigma);

    s = convert(R"({"effects": [{"kind": "blur"}]})");
    EXPECT_FALSE(s.effects);
    EXPECT_TRUE(log_.has(spdlog::level::err, "Effect does not have name"));

    // A value that is not a string counts as missing.
    log_.clear();
    s = convert(R"({"effects": [{"name": "touchUp", "touchUpSigma": 0.5}]})");
    EXPECT_FALSE(s.effects);
    EXPECT_TRUE(log_.contains("Effect does not have touchUpSigma"));
}

TEST_F(EffectConfig, FirstFailingElementStopsAndEarlierSettingsStay) {
    const ConfigSections s = convert(
        R"({"effects": [{"name": "blur"}, {"name": "sparkle"},
                        {"name": "touchUp", "touchUpSigma": "0.2"}]})");
    EXPECT_FALSE(s.effects);
    EXPECT_FALSE(s.weatherman);
    EXPECT_TRUE(log_.hasFrom(kEffects, "Unknown effect passed: sparkle"));
    EXPECT_EQ(static_cast<uint32_t>(ZYN_EFFECT_BACKGROUND), config_.effects);
    EXPECT_EQ(1u, config_.backgroundEffectKind);
    EXPECT_FLOAT_EQ(0.03f, config_.touchUpSigma);
    EXPECT_FALSE(log_.contains("Config TouchUp Processing Type: 1 Sigma: 0.2"));
}

TEST_F(EffectConfig, NumberTextsThatDoNotConvertRaise) {
    struct Case {
        const char* json;
        bool invalid;  // else out of range
        const char* what;
    } cases[] = {
        {R"({"effects": [{"name": "touchUp", "touchUpSigma": "soft"}]})", true,
         "invalid stof argument"},
        {R"({"effects": [{"name": "touchUp", "touchUpSigma": ""}]})", true,
         "invalid stof argument"},
        {R"({"effects": [{"name": "touchUp", "touchUpSigma": "1e50"}]})", false,
         "stof argument out of range"},
        {R"({"effects": [{"name": "weatherman", "mode": "underlay", "weathermanSize": "1",
             "weathermanOffsetX": "0", "weathermanOffsetY": "0",
             "weathermanUnderlayMode": "left"}]})",
         true, "invalid stoi argument"},
        {R"({"effects": [{"name": "weatherman", "mode": "newsroom", "weathermanSize": "1",
             "weathermanPosition": "99999999999", "presentationSize": "1",
             "backgroundFile": "n.png"}]})",
         false, "stoi argument out of range"},
    };
    for (const auto& c : cases) {
        try {
            convert(c.json);
            ADD_FAILURE() << "no exception for " << c.json;
        } catch (const std::invalid_argument& e) {
            EXPECT_TRUE(c.invalid) << c.json;
            EXPECT_STREQ(c.what, e.what());
        } catch (const std::out_of_range& e) {
            EXPECT_FALSE(c.invalid) << c.json;
            EXPECT_STREQ(c.what, e.what());
        }
    }
}

// Number texts always use "." as the decimal point, even in a host whose LC_NUMERIC uses a comma.
TEST_F(EffectConfig, DecimalTextsIgnoreTheHostsNumericLocale) {
    TempDir locales("zyn-locale");
    const std::string build =
        "localedef -i de_DE -f UTF-8 '" + (locales / "de_DE.UTF-8").string() + "' >/dev/null 2>&1";
    if (std::system(build.c_str()) != 0) {
        GTEST_SKIP() << "localedef cannot build a decimal-comma locale here";
    }
    setenv("LOCPATH", locales.str().c_str(), 1);
    const char* active = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
    ASSERT_NE(nullptr, active);
    // The locale really reads "0.5" as 0 through the C library.
    EXPECT_EQ(0.0f, std::strtof("0.5", nullptr));

    const ConfigSections s =
        convert(R"({"effects": [{"name": "touchUp", "touchUpSigma": "0.5"}]})");
    const float viaHelper = VBG::DecimalTextToFloat("2.25");
    std::setlocale(LC_NUMERIC, "C");
    unsetenv("LOCPATH");
    EXPECT_TRUE(s.effects);
    EXPECT_FLOAT_EQ(0.5f, config_.touchUpSigma);
    EXPECT_FLOAT_EQ(2.25f, viaHelper);
}

// ---- Presenter ---------------------------------------------------------------------------------

TEST_F(EffectConfig, WeathermanAfterBlurGivesThePresenterAndKeepsBlur) {
    const ConfigSections s = convert(
        R"({"effects": [{"name": "blur"},
                        {"name": "weatherman", "mode": "overlay", "weathermanAlpha": "0.5",
                         "weathermanSize": "0.25", "weathermanOffsetX": "0.1",
                         "weathermanOffsetY": "-0.2"}]})");
    EXPECT_TRUE(s.weatherman);
    EXPECT_FALSE(s.effects);
    EXPECT_FALSE(s.feedback);
    EXPECT_EQ(static_cast<uint32_t>(ZYN_EFFECT_BACKGROUND), config_.effects);
    EXPECT_EQ(1u, config_.backgroundEffectKind);
    EXPECT_TRUE(log_.hasFrom(kEffects, "Unknown effect passed: weatherman"));
    EXPECT_TRUE(log_.hasFrom(kPresenter, "Effect set to Weatherman mode: overlay"));
    EXPECT_EQ(1, presenter_.mode);
}

TEST_F(EffectConfig, EachPresenterModeReadsItsOwnKeys) {
    ConfigSections s = convert(
        R"({"effects": [{"name": "weatherman", "mode": "overlay", "weathermanAlpha": "0.5",
                         "weathermanSize": "0.25", "weathermanOffsetX": "0.1",
                         "weathermanOffsetY": "-0.2"}]})");
    ASSERT_TRUE(s.weatherman) << log_.dump();
    EXPECT_EQ(1, presenter_.mode);
    EXPECT_FLOAT_EQ(0.5f, presenter_.overlayAlpha);
    EXPECT_FLOAT_EQ(0.25f, presenter_.overlaySize);
    EXPECT_FLOAT_EQ(0.1f, presenter_.overlayOffsetX);
    EXPECT_FLOAT_EQ(-0.2f, presenter_.overlayOffsetY);
    EXPECT_FLOAT_EQ(1.0f, presenter_.underlaySize);
    EXPECT_EQ(3u, presenter_.reserved);

    s = convert(
        R"({"effects": [{"name": "weatherman", "mode": "underlay", "weathermanSize": "0.75",
                         "weathermanOffsetX": "0.3", "weathermanOffsetY": "0.4",
                         "weathermanUnderlayMode": "2"}]})");
    ASSERT_TRUE(s.weatherman) << log_.dump();
    EXPECT_EQ(2, presenter_.mode);
    EXPECT_FLOAT_EQ(0.75f, presenter_.underlaySize);
    EXPECT_FLOAT_EQ(0.3f, presenter_.underlayOffsetX);
    EXPECT_FLOAT_EQ(0.4f, presenter_.underlayOffsetY);
    EXPECT_EQ(2, presenter_.underlayMode);
    EXPECT_FLOAT_EQ(1.0f, presenter_.overlaySize);
    EXPECT_FLOAT_EQ(1.0f, presenter_.overlayAlpha);

    s = convert(
        R"({"effects": [{"name": "weatherman", "mode": "newsroom", "weathermanSize": "0.6",
                         "weathermanPosition": "1", "presentationSize": "0.8",
                         "backgroundFile": "studio.jpg"}]})");
    ASSERT_TRUE(s.weatherman) << log_.dump();
    EXPECT_EQ(3, presenter_.mode);
    EXPECT_FLOAT_EQ(0.6f, presenter_.newsroomSize);
    EXPECT_EQ(1, presenter_.newsroomPosition);
    EXPECT_FLOAT_EQ(0.8f, presenter_.newsroomPresentationSize);
    EXPECT_EQ(u"/var/cache/zyn/studio.jpg", field(presenter_.newsroomBackgroundFile));
    EXPECT_EQ(u"", field(presenter_.conferenceroomBackgroundFile));

    s = convert(
        R"({"effects": [{"name": "weatherman", "mode": "conferenceroom", "weathermanSize": "0.9",
                         "backgroundFile": "room.png"}]})");
    ASSERT_TRUE(s.weatherman) << log_.dump();
    EXPECT_EQ(4, presenter_.mode);
    EXPECT_FLOAT_EQ(0.9f, presenter_.conferenceroomSize);
    EXPECT_EQ(u"/var/cache/zyn/room.png", field(presenter_.conferenceroomBackgroundFile));
    EXPECT_FLOAT_EQ(1.0f, presenter_.newsroomSize);
    EXPECT_EQ(u"", field(presenter_.newsroomBackgroundFile));

    for (const char* mode : {"overlay", "underlay", "newsroom", "conferenceroom"}) {
        EXPECT_EQ(1u, log_.count(std::string("Effect set to Weatherman mode: ") + mode)) << mode;
    }
}

TEST_F(EffectConfig, PresenterFailures) {
    ConfigSections s = convert(R"({"effects": [{"name": "weatherman", "mode": "sideways"}]})");
    expectNothingFound(s);
    EXPECT_TRUE(log_.has(spdlog::level::err, "effect set to weatherman, unknown mode sideways"));
    expectPresenterDefaults();

    s = convert(R"({"effects": [{"name": "weatherman"}]})");
    EXPECT_FALSE(s.weatherman);
    EXPECT_TRUE(log_.contains("Effect does not have mode"));

    // Keys are read in order; the first missing one fails and is named.
    log_.clear();
    s = convert(
        R"({"effects": [{"name": "weatherman", "mode": "underlay", "weathermanSize": "0.5",
                         "weathermanOffsetX": "0.3", "weathermanOffsetY": "0.4"}]})");
    EXPECT_FALSE(s.weatherman);
    EXPECT_TRUE(log_.hasFrom("VBG::GetValue", "Effect does not have weathermanUnderlayMode"));
    EXPECT_FALSE(log_.contains("Effect set to Weatherman mode: underlay"));

    log_.clear();
    s = convert(R"({"effects": [{"name": "weatherman", "mode": "conferenceroom",
                                 "backgroundFile": "room.png"}]})");
    EXPECT_FALSE(s.weatherman);
    EXPECT_TRUE(log_.contains("Effect does not have weathermanSize"));
    EXPECT_EQ(u"", field(presenter_.conferenceroomBackgroundFile));

    // An array that fails for another reason and holds no presenter gives nothing.
    log_.clear();
    s = convert(R"({"effects": [{"name": "sparkle"}]})");
    expectNothingFound(s);
    EXPECT_EQ(-1, presenter_.mode);
}

TEST_F(EffectConfig, PresenterNumbersThatAreNotFiniteOrOverflowAnIntAreRefused) {
    // The layouts multiply these by frame sides of up to 16384 and keep the products as int.
    const struct {
        const char* text;
        bool accepted;
    } values[] = {{"0.25", true}, {"-131071", true}, {"131072", false},
                  {"nan", false}, {"inf", false},    {"-infinity", false}};
    for (const char* key :
         {"weathermanAlpha", "weathermanSize", "weathermanOffsetX", "weathermanOffsetY"}) {
        for (const auto& v : values) {
            SCOPED_TRACE(std::string(key) + " = " + v.text);
            std::string element = R"({"name": "weatherman", "mode": "overlay", )";
            for (const char* k :
                 {"weathermanAlpha", "weathermanSize", "weathermanOffsetX", "weathermanOffsetY"}) {
                element += std::string("\"") + k + "\": \"" + (k == key ? v.text : "0.5") + "\", ";
            }
            element.resize(element.size() - 2);
            log_.clear();
            EXPECT_EQ(v.accepted,
                      convert(("{\"effects\": [" + element + "}]}").c_str()).weatherman);
            EXPECT_EQ(v.accepted ? 0u : 1u,
                      log_.countContaining(std::string(key) + " is out of range"));
        }
    }
}

TEST_F(EffectConfig, FirstWeathermanElementIsTheOneRead) {
    const ConfigSections s = convert(
        R"({"effects": [{"name": "weatherman", "mode": "conferenceroom", "weathermanSize": "0.5",
                         "backgroundFile": "a.png"},
                        {"name": "weatherman", "mode": "sideways"}]})");
    EXPECT_TRUE(s.weatherman);
    EXPECT_EQ(4, presenter_.mode);
    EXPECT_FALSE(log_.contains("effect set to weatherman, unknown mode sideways"));
}

// ---- Feedback ----------------------------------------------------------------------------------

TEST_F(EffectConfig, FeedbackAloneSetsOnlyTheFeedbackSection) {
    const ConfigSections s = convert(R"({"feedback": true, "id": "session-7"})");
    EXPECT_TRUE(s.feedback);
    EXPECT_FALSE(s.effects);
    EXPECT_FALSE(s.weatherman);
    EXPECT_EQ("session-7", feedback_.id);
    EXPECT_EQ("/var/cache/zyn", feedback_.folder);
    EXPECT_FALSE(log_.contains("No feedback/id found."));
}

// The id becomes part of file names: only short plain names are taken.
TEST_F(EffectConfig, FeedbackIdsThatCouldNameAnotherFileAreRefused) {
    const std::string refused[] = {"/tmp/x",
                                   "../x",
                                   "a/b",
                                   ".hidden",
                                   "..",
                                   ".",
                                   std::string(65, 'a'),
                                   "a b",
                                   "a\\\\b",
                                   "",
                                   "caf\u00e9",
                                   "PT_CONFIG",
                                   "x\\u0000.json"};
    for (const std::string& id : refused) {
        const std::string json =
            R"({"effects": [{"name": "blur"}], "feedback": true, "id": ")" + id + R"("})";
        SCOPED_TRACE(json);
        log_.clear();
        EXPECT_THROW(convert(json.c_str()), std::invalid_argument);
        EXPECT_EQ(1u, log_.countContaining("Feedback id '")) << log_.dump();
    }
    EXPECT_EQ(1u, log_.countContaining("Feedback id 'x\\x00.json' refused")) << log_.dump();

    for (const std::string& id : {std::string(64, 'Z'), std::string("a.b_C-9"), std::string("7")}) {
        const std::string json = R"({"feedback": true, "id": ")" + id + R"("})";
        EXPECT_TRUE(convert(json.c_str()).feedback) << id;
        EXPECT_EQ(id, feedback_.id);
    }
}

TEST_F(EffectConfig, FeedbackWithEffectsAndItsRefusals) {
    ConfigSections s = convert(R"({"effects": [{"name": "blur"}], "feedback": true, "id": "x1"})");
    EXPECT_TRUE(s.feedback);
    EXPECT_TRUE(s.effects);

    s = convert(R"({"feedback": false, "id": "x2"})");
    expectNothingFound(s);
    EXPECT_TRUE(log_.hasFrom(kFeedback, "feedback set to false."));
    EXPECT_EQ("", feedback_.id);

    log_.clear();
    s = convert(R"({"feedback": true})");
    expectNothingFound(s);
    EXPECT_EQ(1u, log_.count("No feedback/id found."));
    EXPECT_FALSE(log_.contains("feedback set to false."));

    log_.clear();
    s = convert(R"({"id": "x3"})");
    expectNothingFound(s);
    EXPECT_EQ(1u, log_.count("No feedback/id found."));
}
