// The effect settings record the engines consume: its defaults, the conversion from the native
// configuration (processing-mode table, background sources and formats, touch-up sigma) and its
// one-line log form.
#include <gtest/gtest.h>

#include <string>

#include "config/config_parser.h"
#include "config/vbg_settings.h"
#include "support/log_capture.h"
#include "support/test_paths.h"

using VBG::D3D12Utils::ConvertToVBGSettings;
using VBG::D3D12Utils::PrintVBGSettings;
using zyn_test::LogCapture;

namespace {

constexpr const char* kConvertFn = "VBG::D3D12Utils::ConvertToVBGSettings";
constexpr const char* kPrintFn = "VBG::D3D12Utils::PrintVBGSettings";

std::u16string field(const char16_t* f) {
    size_t n = 0;
    while (n < ZYN_PATH_CHARS && f[n] != 0) {
        ++n;
    }
    return std::u16string(f, n);
}

void setField(char16_t* f, const std::u16string& text) {
    ASSERT_LT(text.size(), static_cast<size_t>(ZYN_PATH_CHARS));
    text.copy(f, text.size());
    f[text.size()] = 0;
}

ZynNativeConfig backgroundConfig(uint32_t source, uint32_t format, const std::u16string& file) {
    ZynNativeConfig config = VBG::DefaultZynNativeConfig();
    config.effects = ZYN_EFFECT_BACKGROUND;
    config.backgroundEffectKind = 2;
    config.backgroundDataSource = source;
    config.backgroundFormat = format;
    setField(config.backgroundFilePath, file);
    return config;
}

class SettingsConversion : public ::testing::Test {
  protected:
    bool convert(const ZynNativeConfig& config) {
        settings_ = VBG::DefaultVBGSettings();
        return ConvertToVBGSettings(config, settings_);
    }
    LogCapture log_;
    VBGSettings settings_{};
};

}  // namespace

TEST(VbgSettingsDefaults, AutomaticTypeCpuPlaybackAndEverythingElseZero) {
    const VBGSettings s = VBG::DefaultVBGSettings();
    EXPECT_EQ(9u, s.pt);
    EXPECT_EQ(2u, s.playbackOptions);
    VBGSettings rest = s;
    rest.pt = 0;
    rest.playbackOptions = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&rest);
    for (size_t i = 0; i < sizeof rest; ++i) {
        ASSERT_EQ(0, bytes[i]) << "byte " << i;
    }
}

// ---- Processing mode, folders, effects ---------------------------------------------------------

TEST_F(SettingsConversion, ProcessingModeFollowsTheFixedTable) {
    const uint32_t expected[] = {1, 0, 9, 6, 4, 5, 3, 2, 8};
    for (uint32_t mode = 1; mode <= 9; ++mode) {
        ZynNativeConfig config = VBG::DefaultZynNativeConfig();
        config.processingMode = mode;
        ASSERT_TRUE(convert(config)) << mode;
        EXPECT_EQ(expected[mode - 1], settings_.pt) << mode;
    }
    for (uint32_t mode : {0u, 10u, 0xFFFFFFFFu}) {
        ZynNativeConfig config = VBG::DefaultZynNativeConfig();
        config.processingMode = mode;
        log_.clear();
        EXPECT_FALSE(convert(config)) << mode;
        // Refused silently.
        EXPECT_TRUE(log_.records().empty()) << log_.dump();
    }
}

TEST_F(SettingsConversion, FoldersAreCopiedUpTo1022Characters) {
    ZynNativeConfig config = VBG::DefaultZynNativeConfig();
    setField(config.logPath, u"/var/log/zyn");
    setField(config.fileCachePath, u"/var/cache/zyn/é");
    const std::u16string fits(1022, u'm');
    const std::u16string tooLong(1023, u'm');
    setField(config.modelFilePath, fits);
    ASSERT_TRUE(convert(config));
    EXPECT_EQ(u"/var/log/zyn", field(settings_.logDirectory));
    EXPECT_EQ(u"/var/cache/zyn/é", field(settings_.fileCachePath));
    EXPECT_EQ(fits, field(settings_.modelFilePath));

    setField(config.modelFilePath, tooLong);
    ASSERT_TRUE(convert(config));
    EXPECT_EQ(u"", field(settings_.modelFilePath));
}

TEST_F(SettingsConversion, BlurAlgorithmIsSetWhateverTheBackgroundKind) {
    ZynNativeConfig config = VBG::DefaultZynNativeConfig();
    config.effects = ZYN_EFFECT_BACKGROUND;
    config.backgroundEffectKind = 1;
    ASSERT_TRUE(convert(config));
    EXPECT_EQ(1u, settings_.bt);
    EXPECT_EQ(1u, settings_.blurAlgo);
    EXPECT_EQ(1u, settings_.effects);

    for (uint32_t kind : {0u, 3u, 77u}) {
        config.backgroundEffectKind = kind;
        ASSERT_TRUE(convert(config)) << kind;
        EXPECT_EQ(0u, settings_.bt) << kind;
        EXPECT_EQ(1u, settings_.blurAlgo) << kind;
        EXPECT_EQ(0u, settings_.imageOrVideoDataSource) << kind;
    }
}

TEST_F(SettingsConversion, TouchUpSigmaIsTakenOnlyWithTheTouchUpBit) {
    ZynNativeConfig config = VBG::DefaultZynNativeConfig();
    config.touchUpSigma = 0.5f;
    config.effects = ZYN_EFFECT_BACKGROUND;
    VBGSettings settings = VBG::DefaultVBGSettings();
    settings.touchUpSigma = 0.125f;  // the caller's default
    ASSERT_TRUE(ConvertToVBGSettings(config, settings));
    EXPECT_EQ(0.125f, settings.touchUpSigma);
    EXPECT_EQ(1u, settings.effects);

    config.effects = ZYN_EFFECT_BACKGROUND | ZYN_EFFECT_TOUCHUP;
    ASSERT_TRUE(ConvertToVBGSettings(config, settings));
    EXPECT_EQ(0.5f, settings.touchUpSigma);
    EXPECT_EQ(3u, settings.effects);
}

// ---- Background sources ------------------------------------------------------------------------

TEST_F(SettingsConversion, DiskFileExtensionsDecideImageOrVideo) {
    for (const char16_t* ext : {u"jfif", u"pjpeg", u"jpeg", u"pjp", u"jpg", u"png", u"gif"}) {
        const std::u16string file = u"/c/back.ground." + std::u16string(ext);
        ASSERT_TRUE(convert(backgroundConfig(1, 1, file))) << log_.dump();
        EXPECT_EQ(2u, settings_.bt);
        EXPECT_EQ(file, field(settings_.backgroundImageFile));
    }
    // A file named only by its extension: the configuration accepts it, so the conversion does.
    ASSERT_TRUE(convert(backgroundConfig(1, 1, u"/c/.png"))) << log_.dump();
    EXPECT_EQ(2u, settings_.bt);
    for (const char16_t* ext : {u"m4v", u"mp4", u"ogm", u"ogv", u"webm"}) {
        const std::u16string file = u"/c/clip." + std::u16string(ext);
        ASSERT_TRUE(convert(backgroundConfig(1, 4, file))) << log_.dump();
        EXPECT_EQ(3u, settings_.bt);
        EXPECT_EQ(4u, settings_.imageOrVideoType);
        EXPECT_EQ(1u, settings_.imageOrVideoDataSource);
        EXPECT_EQ(1u, settings_.blurAlgo);
    }
}

TEST_F(SettingsConversion, DiskFileRefusals) {
    // Extensions compare case-sensitively.
    EXPECT_FALSE(convert(backgroundConfig(1, 2, u"/c/photo.JPG")));
    EXPECT_TRUE(log_.hasFrom(kConvertFn, "Unknown file format provided, file:/c/photo.JPG"));
    EXPECT_EQ(u"", field(settings_.backgroundImageFile));
    EXPECT_EQ(0u, settings_.blurAlgo);
    EXPECT_EQ(0u, settings_.bt);

    // A mov file plays from disk as a video; a MOV file is refused like JPG.
    EXPECT_TRUE(convert(backgroundConfig(1, 6, u"/c/clip.mov")));
    EXPECT_EQ(3u, settings_.bt);
    EXPECT_FALSE(convert(backgroundConfig(1, 6, u"/c/clip.MOV")));
    EXPECT_TRUE(log_.contains("Unknown file format provided, file:/c/clip.MOV"));

    // Only the file name part has an extension.
    EXPECT_FALSE(convert(backgroundConfig(1, 1, u"/c/v1.5/background")));
    EXPECT_TRUE(log_.contains("File extension not available, file:/c/v1.5/background"));
    EXPECT_FALSE(convert(backgroundConfig(1, 1, u"")));
    EXPECT_TRUE(log_.contains("File extension not available, file:"));

    // Non-ASCII names reach the message as UTF-8.
    EXPECT_FALSE(convert(backgroundConfig(1, 1, u"/c/фон.bmp")));
    EXPECT_TRUE(log_.contains("Unknown file format provided, file:/c/\xD1\x84\xD0\xBE\xD0\xBD.bmp"))
        << log_.dump();
}

TEST_F(SettingsConversion, DataSourceMustBeFileOrMemory) {
    EXPECT_FALSE(convert(backgroundConfig(0, 1, u"/c/a.png")));
    EXPECT_TRUE(log_.has(spdlog::level::err, "imageOrVideoDataSource cannot be none"));
    EXPECT_FALSE(convert(backgroundConfig(3, 1, u"/c/a.png")));
    EXPECT_TRUE(log_.hasFrom(kConvertFn, "Unknown imageOrVideoDataSource passed: 3"));
    EXPECT_EQ(0u, settings_.blurAlgo);
}

TEST_F(SettingsConversion, InMemoryFormats) {
    static const uint8_t data[16] = {};
    const uint32_t expectedBt[] = {0, 2, 2, 2, 3, 3, 0, 3};
    for (uint32_t format = 1; format <= 7; ++format) {
        ZynNativeConfig config = backgroundConfig(2, format, u"/c/ignored.png");
        config.backgroundData = data;
        config.backgroundDataSize = sizeof data;
        log_.clear();
        const bool ok = convert(config);
        EXPECT_EQ(2u, settings_.imageOrVideoDataSource) << format;
        EXPECT_EQ(data, settings_.pData) << format;
        EXPECT_EQ(16u, settings_.dataSize) << format;
        EXPECT_EQ(format, settings_.imageOrVideoType);
        EXPECT_EQ(u"", field(settings_.backgroundImageFile)) << format;
        if (format == 6) {
            // mov is refused from memory although accepted from a file.
            EXPECT_FALSE(ok);
            EXPECT_TRUE(log_.has(spdlog::level::err, "invalid formatType"));
            EXPECT_EQ(0u, settings_.blurAlgo);
        } else {
            EXPECT_TRUE(ok) << format;
            EXPECT_EQ(expectedBt[format], settings_.bt) << format;
            EXPECT_EQ(1u, settings_.blurAlgo);
        }
    }
    for (uint32_t format : {0u, 8u}) {
        log_.clear();
        EXPECT_FALSE(convert(backgroundConfig(2, format, u""))) << format;
        EXPECT_TRUE(log_.contains("invalid formatType")) << format;
    }
}

TEST_F(SettingsConversion, JsonBackgroundReachesTheSettings) {
    zyn_test::TempDir dir("zyn-settings");
    zyn_test::WriteFile(dir / "library.json",
                        R"({"modelsPath": "/m", "logPath": "/l", "fileCachePath": "/c/кэш"})");
    ASSERT_TRUE(VBG::ConfigParser::SetConfig((dir / "library.json").c_str()));
    ZynNativeConfig config = VBG::DefaultZynNativeConfig();
    ZynNativeWeathermanSettings presenter = VBG::DefaultWeathermanSettings();
    VBG::ZynFeedbackSettings feedback;
    const auto found = VBG::ConfigParser::ConvertToZynNativeConfig(
        R"({"processingMode": 8, "effects": [{"name": "background", "backgroundFile": "sea.webm"},
                                              {"name": "touchUp", "touchUpSigma": "0.4"}]})",
        config, presenter, feedback);
    ASSERT_TRUE(found.effects);
    ASSERT_TRUE(convert(config)) << log_.dump();
    EXPECT_EQ(2u, settings_.pt);
    EXPECT_EQ(3u, settings_.bt);
    EXPECT_EQ(7u, settings_.imageOrVideoType);
    EXPECT_EQ(u"/c/кэш/sea.webm", field(settings_.backgroundImageFile));
    EXPECT_EQ(u"/m/model.winml", field(settings_.modelFilePath));
    EXPECT_EQ(3u, settings_.effects);
    EXPECT_FLOAT_EQ(0.4f, settings_.touchUpSigma);
}

// ---- Log line ----------------------------------------------------------------------------------

TEST(VbgSettingsPrint, DiskFileRecordPrintsExactly) {
    VBGSettings s = VBG::DefaultVBGSettings();
    s.blurAlgo = 1;
    s.bt = 2;
    s.imageOrVideoType = 2;
    s.imageOrVideoDataSource = 1;
    setField(s.backgroundImageFile, u"/c/plage é.jpg");
    s.dataSize = 0;
    setField(s.logDirectory, u"/l");
    setField(s.modelFilePath, u"/m/model.winml");
    setField(s.fileCachePath, u"/c");
    s.pt = 3;
    s.effects = 3;
    s.touchUpSigma = 0.25f;
    LogCapture log;
    PrintVBGSettings(s);
    ASSERT_EQ(1u, log.records().size());
    EXPECT_EQ(spdlog::level::info, log.records()[0].level);
    EXPECT_TRUE(log.hasFrom(
        kPrintFn,
        "blurAlgo: ResizeBlur, bt: 2, imageOrVideoType: Jpeg, imageOrVideoDataSource: DiskFile, "
        "backgroundImageFile: /c/plage \xC3\xA9.jpg        pData: 0, dataSize: 0, logDirectory: "
        "/l, "
        "modelFilePath: /m/model.winml, pt: OpenVinoCpu, effects: 3, touchUpSigma: 0.25, "
        "fileCachePath: /c"))
        << log.dump();
}

TEST(VbgSettingsPrint, NamesNumbersAndTheFileOnlyForDiskSources) {
    VBGSettings s = VBG::DefaultVBGSettings();
    s.imageOrVideoDataSource = 2;
    s.pData = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(0xABCDEF0));
    s.dataSize = 4096;
    s.imageOrVideoType = 5;
    s.bt = 3;
    s.blurAlgo = 0;
    setField(s.backgroundImageFile, u"/not/printed.png");
    LogCapture log;
    PrintVBGSettings(s);
    EXPECT_TRUE(
        log.contains("blurAlgo: None, bt: 3, imageOrVideoType: 5, imageOrVideoDataSource: InMem, "
                     "backgroundImageFile:         pData: ABCDEF0, dataSize: 4096, logDirectory: , "
                     "modelFilePath: , pt: Auto, effects: 0, touchUpSigma: 0, fileCachePath: "))
        << log.dump();

    log.clear();
    s = VBG::DefaultVBGSettings();
    s.blurAlgo = 2;
    s.pt = 7;
    s.imageOrVideoType = 3;
    PrintVBGSettings(s);
    EXPECT_EQ(1u, log.countContaining("blurAlgo: Unknown, bt: 0, imageOrVideoType: Gif, "
                                      "imageOrVideoDataSource: ImageOrVideoDataSource::None, "))
        << log.dump();
    EXPECT_EQ(1u, log.countContaining(", pt: Unknown, ")) << log.dump();
}
