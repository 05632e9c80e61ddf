#include "config/effect_config.h"

#include <locale.h>
#include <stdlib.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <limits>
#include <stdexcept>

#include "util/log.h"
#include "util/text.h"

namespace VBG {
namespace {

// Paths are copied only when they fit their field with its terminator.
constexpr size_t kMaxPathChars = ZYN_PATH_CHARS - 1;
// Effect elements that get a record of their own; names and modes are shown cut to this length.
constexpr size_t kLoggedEffects = 16;
constexpr size_t kLoggedNameBytes = 64;

// The "C" locale, so that "0.5" reads as one half even in a host that switched LC_NUMERIC to a
// locale with a decimal comma.
locale_t numberLocale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return locale;
}

void copyPath(char16_t* field, const std::string& utf8) {
    Text::CopyToField(field, ZYN_PATH_CHARS, utf8, kMaxPathChars);
}

bool readFloat(const rapidjson::Value& effect, const char* key, float& value) {
    std::string text;
    if (!GetValue(effect, key, text)) {
        return false;
    }
    value = DecimalTextToFloat(text);
    return true;
}

// Presenter sizes, offsets and opacity: the layouts multiply them by frame sides (at most 16384)
// and keep the products as integers, so NaN, the infinities and values whose product would not
// fit an int are refused.
bool readPresenterFloat(const rapidjson::Value& effect, const char* key, float& value) {
    constexpr float kLargest = static_cast<float>(std::numeric_limits<int32_t>::max() / 16384);
    float read = 0.0f;
    if (!readFloat(effect, key, read)) {
        return false;
    }
    if (!std::isfinite(read) || std::fabs(read) > kLargest) {
        ZLOG_ERROR("VBG::ParseWeathermanConfig", "{} is out of range: {}", key, read);
        return false;
    }
    value = read;
    return true;
}

bool readInt(const rapidjson::Value& effect, const char* key, int32_t& value) {
    std::string text;
    if (!GetValue(effect, key, text)) {
        return false;
    }
    value = IntegerTextToInt(text);
    return true;
}

bool readPath(const rapidjson::Value& effect, const char* key, const std::string& fileCachePath,
              char16_t* field) {
    std::string name;
    if (!GetValue(effect, key, name)) {
        return false;
    }
    copyPath(field, CacheFilePath(fileCachePath, name));
    return true;
}

}  // namespace

uint32_t GetFormatTypeFromFilename(const std::string& filename) {
    const size_t dot = filename.rfind('.');
    if (dot == std::string::npos) {
        ZLOG_ERROR("VBG::GetFormatTypeFromFilename", "filename provided has no extension.");
        return FormatNone;
    }
    const std::string extension = filename.substr(dot);
    if (extension == ".png") {
        return FormatPng;
    }
    if (extension == ".jpg" || extension == ".jpeg") {
        return FormatJpeg;
    }
    if (extension == ".gif") {
        return FormatGif;
    }
    if (extension == ".mp4") {
        return FormatMp4;
    }
    if (extension == ".ogv") {
        return FormatOgv;
    }
    if (extension == ".mov") {
        return FormatMov;
    }
    if (extension == ".webm") {
        return FormatWebm;
    }
    return FormatNone;
}

bool GetValue(const rapidjson::Value& effect, const char* key, std::string& value) {
    if (effect.IsObject()) {
        const auto it = effect.FindMember(key);
        if (it != effect.MemberEnd() && it->value.IsString()) {
            value.assign(it->value.GetString(), it->value.GetStringLength());
            return true;
        }
    }
    ZLOG_ERROR("VBG::GetValue", "Effect does not have {}", key);
    return false;
}

float DecimalTextToFloat(const std::string& text) {
    const char* begin = text.c_str();
    char* end = nullptr;
    const int savedErrno = errno;
    errno = 0;
    const float value = strtof_l(begin, &end, numberLocale());
    const int error = errno;
    errno = savedErrno;
    if (end == begin) {
        throw std::invalid_argument("invalid stof argument");
    }
    if (error == ERANGE) {
        throw std::out_of_range("stof argument out of range");
    }
    return value;
}

int32_t IntegerTextToInt(const std::string& text) {
    try {
        return std::stoi(text);
    } catch (const std::invalid_argument&) {
        throw std::invalid_argument("invalid stoi argument");
    } catch (const std::out_of_range&) {
        throw std::out_of_range("stoi argument out of range");
    }
}

std::string CacheFilePath(const std::string& fileCachePath, const std::string& fileName) {
    // A plain join: the name is always taken inside the cache folder, even when it starts with a
    // separator.
    if (fileCachePath.empty() || fileCachePath.back() == '/') {
        return fileCachePath + fileName;
    }
    return fileCachePath + "/" + fileName;
}

bool ParseVbgConfig(const rapidjson::Value& effects, const std::string& fileCachePath,
                    ZynNativeConfig& config) {
    constexpr const char* fn = "VBG::ParseVbgConfig";
    size_t index = 0;
    for (const auto& effect : effects.GetArray()) {
        // One record per element at most, and none past the first few elements.
        const bool logged = index++ < kLoggedEffects;
        std::string name;
        if (!GetValue(effect, "name", name)) {
            return false;
        }
        if (name == "blur") {
            if (logged) {
                ZLOG_INFO(fn, "Config Blur");
            }
            config.effects |= ZYN_EFFECT_BACKGROUND;
            config.backgroundEffectKind = 1;
        } else if (name == "background") {
            config.backgroundEffectKind = 2;
            config.effects |= ZYN_EFFECT_BACKGROUND;
            const auto file = effect.FindMember("backgroundFile");
            if (file == effect.MemberEnd() || !file->value.IsString()) {
                ZLOG_ERROR(fn, "effect set to background, but no file provided");
                return false;
            }
            const std::string fileName(file->value.GetString(), file->value.GetStringLength());
            config.backgroundDataSource = 1;
            copyPath(config.backgroundFilePath, CacheFilePath(fileCachePath, fileName));
            config.backgroundFormat = GetFormatTypeFromFilename(fileName);
            if (config.backgroundFormat == FormatNone) {
                ZLOG_ERROR(fn, "Invalid file extension.");
                return false;
            }
        } else if (name == "touchUp") {
            config.effects |= ZYN_EFFECT_TOUCHUP;
            if (!readFloat(effect, "touchUpSigma", config.touchUpSigma)) {
                return false;
            }
            if (logged) {
                ZLOG_INFO(fn, "Config TouchUp Processing Type: {} Sigma: {}", config.effects,
                          config.touchUpSigma);
            }
        } else {
            // "weatherman" ends up here too; the caller tries the presenter parser next.
            ZLOG_INFO(fn, "Unknown effect passed: {}", Text::LogExcerpt(name, kLoggedNameBytes));
            return false;
        }
    }
    return true;
}

bool ParseWeathermanConfig(const rapidjson::Value& effects, const std::string& fileCachePath,
                           ZynNativeWeathermanSettings& settings) {
    constexpr const char* fn = "VBG::ParseWeathermanConfig";
    const rapidjson::Value* element = nullptr;
    for (const auto& effect : effects.GetArray()) {
        if (!effect.IsObject()) {
            continue;
        }
        const auto name = effect.FindMember("name");
        if (name != effect.MemberEnd() && name->value.IsString() &&
            std::string(name->value.GetString(), name->value.GetStringLength()) == "weatherman") {
            element = &effect;
            break;
        }
    }
    if (element == nullptr) {
        return false;
    }
    const rapidjson::Value& effect = *element;
    std::string mode;
    if (!GetValue(effect, "mode", mode)) {
        return false;
    }
    if (mode == "overlay") {
        settings.mode = 1;
        if (!readPresenterFloat(effect, "weathermanAlpha", settings.overlayAlpha) ||
            !readPresenterFloat(effect, "weathermanSize", settings.overlaySize) ||
            !readPresenterFloat(effect, "weathermanOffsetX", settings.overlayOffsetX) ||
            !readPresenterFloat(effect, "weathermanOffsetY", settings.overlayOffsetY)) {
            return false;
        }
    } else if (mode == "underlay") {
        settings.mode = 2;
        if (!readPresenterFloat(effect, "weathermanSize", settings.underlaySize) ||
            !readPresenterFloat(effect, "weathermanOffsetX", settings.underlayOffsetX) ||
            !readPresenterFloat(effect, "weathermanOffsetY", settings.underlayOffsetY) ||
            !readInt(effect, "weathermanUnderlayMode", settings.underlayMode)) {
            return false;
        }
    } else if (mode == "newsroom") {
        settings.mode = 3;
        if (!readPresenterFloat(effect, "weathermanSize", settings.newsroomSize) ||
            !readInt(effect, "weathermanPosition", settings.newsroomPosition) ||
            !readPresenterFloat(effect, "presentationSize", settings.newsroomPresentationSize) ||
            !readPath(effect, "backgroundFile", fileCachePath, settings.newsroomBackgroundFile)) {
            return false;
        }
    } else if (mode == "conferenceroom") {
        settings.mode = 4;
        if (!readPresenterFloat(effect, "weathermanSize", settings.conferenceroomSize) ||
            !readPath(effect, "backgroundFile", fileCachePath,
                      settings.conferenceroomBackgroundFile)) {
            return false;
        }
    } else {
        ZLOG_ERROR(fn, "effect set to weatherman, unknown mode {}",
                   Text::LogExcerpt(mode, kLoggedNameBytes));
        return false;
    }
    ZLOG_INFO(fn, "Effect set to Weatherman mode: {}", mode);
    return true;
}

bool ParseZynFeedbackConfig(const rapidjson::Value& document, const std::string& fileCachePath,
                            ZynFeedbackSettings& feedback) {
    constexpr const char* fn = "VBG::ParseZynFeedbackConfig";
    const auto requested = document.FindMember("feedback");
    const auto id = document.FindMember("id");
    if (requested == document.MemberEnd() || id == document.MemberEnd() || !id->value.IsString()) {
        // Written for every configuration without feedback.
        ZLOG_ERROR(fn, "No feedback/id found.");
        return false;
    }
    if (!requested->value.IsBool() || !requested->value.GetBool()) {
        ZLOG_ERROR(fn, "feedback set to false.");
        return false;
    }
    feedback.folder = fileCachePath;
    feedback.id.assign(id->value.GetString(), id->value.GetStringLength());
    return true;
}

}  // namespace VBG
