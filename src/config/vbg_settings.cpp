#include "config/vbg_settings.h"

#include <array>
#include <string_view>

#include "config/effect_config.h"
#include "selection/processing_type.h"
#include "util/log.h"
#include "util/text.h"

namespace VBG {
namespace {

// Paths longer than this are not copied into the settings record.
constexpr size_t kMaxSettingsPathChars = 1022;

// Extensions (without the dot, case-sensitive) of files a background can be read from.
constexpr std::array<std::string_view, 7> kImageExtensions = {"jfif", "pjpeg", "jpeg", "pjp",
                                                              "jpg",  "png",   "gif"};
// mov plays from a disk file (the effect configuration accepts it), though not from memory.
constexpr std::array<std::string_view, 6> kVideoExtensions = {"m4v", "mp4",  "ogm",
                                                              "ogv", "webm", "mov"};

template <size_t N>
bool listed(const std::array<std::string_view, N>& list, const std::string& extension) {
    for (const auto& entry : list) {
        if (entry == extension) {
            return true;
        }
    }
    return false;
}

// processingMode of ZynNativeConfig to processing type; false outside 1..9.
bool processingTypeOfMode(uint32_t mode, uint32_t& pt) {
    // Index = processingMode - 1. A fixed table, not arithmetic.
    constexpr std::array<ProcessingType, 9> kTypes = {
        PtGPU,                  // 1
        PtCPU,                  // 2
        PtAuto,                 // 3, the default
        PtOpenVinoGpuPPGPU,     // 4
        PtOpenVinoCpuPPGPU,     // 5
        PtOpenVinoGpuPPCPU,     // 6
        PtOpenVinoCpu,          // 7
        PtOnnxRuntimeCpu,       // 8
        PtOnnxRuntimeDMLPPGPU,  // 9
    };
    if (mode < 1 || mode > kTypes.size()) {
        return false;
    }
    pt = kTypes[mode - 1];
    return true;
}

void copyField(char16_t* to, const char16_t* from) {
    size_t n = 0;
    while (n < ZYN_PATH_CHARS && from[n] != 0) {
        ++n;
    }
    Text::CopyToField(to, ZYN_PATH_CHARS, std::u16string_view(from, n), kMaxSettingsPathChars);
}

std::string dataSourceName(uint32_t source) {
    switch (source) {
        case 0:
            return "ImageOrVideoDataSource::None";
        case 1:
            return "DiskFile";
        case 2:
            return "InMem";
        default:
            return std::to_string(source);
    }
}

std::string formatName(uint32_t format) {
    switch (format) {
        case FormatPng:
            return "Png";
        case FormatJpeg:
            return "Jpeg";
        case FormatGif:
            return "Gif";
        default:
            return std::to_string(format);
    }
}

const char* blurAlgoName(uint32_t algo) {
    switch (algo) {
        case 0:
            return "None";
        case 1:
            return "ResizeBlur";
        default:
            return "Unknown";
    }
}

}  // namespace

VBGSettings DefaultVBGSettings() {
    VBGSettings settings{};
    settings.pt = PtAuto;
    // Decoded video frames stay in CPU memory: there is no GPU path on this platform.
    settings.playbackOptions = 2;
    return settings;
}

namespace D3D12Utils {

bool ConvertToVBGSettings(const ZynNativeConfig& config, VBGSettings& settings) {
    constexpr const char* fn = "VBG::D3D12Utils::ConvertToVBGSettings";
    copyField(settings.logDirectory, config.logPath);
    copyField(settings.fileCachePath, config.fileCachePath);
    copyField(settings.modelFilePath, config.modelFilePath);

    settings.effects = config.effects;
    if ((config.effects & ZYN_EFFECT_TOUCHUP) != 0) {
        settings.touchUpSigma = config.touchUpSigma;
    }

    if (!processingTypeOfMode(config.processingMode, settings.pt)) {
        return false;
    }

    if (config.backgroundEffectKind == 1) {
        settings.bt = BtBlur;
        settings.blurAlgo = 1;
        return true;
    }
    if (config.backgroundEffectKind != 2) {
        // Without a background effect the blur algorithm is still set, so every converted record
        // carries blurAlgo 1.
        settings.blurAlgo = 1;
        return true;
    }

    settings.imageOrVideoType = config.backgroundFormat;
    switch (config.backgroundDataSource) {
        case 0:
            ZLOG_ERROR(fn, "imageOrVideoDataSource cannot be none");
            return false;
        case 1: {
            settings.imageOrVideoDataSource = 1;
            const std::string file = Text::FieldToUtf8(config.backgroundFilePath, ZYN_PATH_CHARS);
            // The extension of the file name part only (a dot in a folder name does not count),
            // by the same rule as the configuration's, so that every name it accepts gets here.
            const std::string_view dotted = FileNameExtension(file);
            if (dotted.empty()) {
                ZLOG_INFO(fn, "File extension not available, file:{}", file);
                return false;
            }
            const std::string extension(dotted.substr(1));
            if (listed(kImageExtensions, extension)) {
                settings.bt = BtImage;
            } else if (listed(kVideoExtensions, extension)) {
                settings.bt = BtVideo;
            } else {
                ZLOG_INFO(fn, "Unknown file format provided, file:{}", file);
                return false;
            }
            copyField(settings.backgroundImageFile, config.backgroundFilePath);
            settings.blurAlgo = 1;
            return true;
        }
        case 2:
            settings.imageOrVideoDataSource = 2;
            settings.pData = config.backgroundData;
            settings.dataSize = config.backgroundDataSize;
            switch (config.backgroundFormat) {
                case FormatPng:
                case FormatJpeg:
                case FormatGif:
                    settings.bt = BtImage;
                    break;
                case FormatMp4:
                case FormatOgv:
                case FormatWebm:
                    settings.bt = BtVideo;
                    break;
                default:
                    // mov is refused for in-memory data although it is accepted from a file.
                    ZLOG_ERROR(fn, "invalid formatType");
                    return false;
            }
            settings.blurAlgo = 1;
            return true;
        default:
            ZLOG_INFO(fn, "Unknown imageOrVideoDataSource passed: {}", config.backgroundDataSource);
            return false;
    }
}

void PrintVBGSettings(const VBGSettings& settings) {
    const std::string backgroundFile =
        settings.imageOrVideoDataSource == 1
            ? Text::FieldToUtf8(settings.backgroundImageFile, ZYN_PATH_CHARS)
            : std::string();
    ZLOG_INFO("VBG::D3D12Utils::PrintVBGSettings",
              "blurAlgo: {0}, bt: {1}, imageOrVideoType: {2}, imageOrVideoDataSource: {3}, "
              "backgroundImageFile: {4}        pData: {5:X}, dataSize: {6}, logDirectory: {7}, "
              "modelFilePath: {8}, pt: {9}, effects: {10}, touchUpSigma: {11}, fileCachePath: {12}",
              blurAlgoName(settings.blurAlgo), settings.bt, formatName(settings.imageOrVideoType),
              dataSourceName(settings.imageOrVideoDataSource), backgroundFile,
              VBG::addr(settings.pData), settings.dataSize,
              Text::FieldToUtf8(settings.logDirectory, ZYN_PATH_CHARS),
              Text::FieldToUtf8(settings.modelFilePath, ZYN_PATH_CHARS),
              ProcessingTypeName(settings.pt), settings.effects, settings.touchUpSigma,
              Text::FieldToUtf8(settings.fileCachePath, ZYN_PATH_CHARS));
}

}  // namespace D3D12Utils
}  // namespace VBG
