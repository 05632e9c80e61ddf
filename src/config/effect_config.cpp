#include "config/effect_config.h"

#include <locale.h>
#include <stdlib.h>

#include <algorithm>
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

// At most this much of a refused name or id is shown in its record (escaped, so that the record
// can neither be forged into several nor flood the log).
constexpr size_t kLoggedRefusedBytes = 128;

// Names and ids become file paths: one that could reach another file is a bad configuration
// value, refused like a number that does not convert.
void checkFileName(const char* fn, const std::string& name) {
    if (!IsCacheFileName(name)) {
        ZLOG_ERROR(fn,
                   "Background file name '{}' refused: a relative path inside the file cache "
                   "folder is expected",
                   Text::LogExcerpt(name, kLoggedRefusedBytes));
        throw std::invalid_argument("background file name refused");
    }
}

// Room pictures are pictures: the extension rules of the picture backgrounds.
bool readPicturePath(const rapidjson::Value& effect, const char* key,
                     const std::string& fileCachePath, char16_t* field) {
    constexpr const char* fn = "VBG::ParseWeathermanConfig";
    std::string name;
    if (!GetValue(effect, key, name)) {
        return false;
    }
    checkFileName(fn, name);
    const uint32_t format = GetFormatTypeFromFilename(name);
    if (format != FormatPng && format != FormatJpeg && format != FormatGif) {
        ZLOG_ERROR(fn, "Invalid file extension.");
        return false;
    }
    copyPath(field, CacheFilePath(fileCachePath, name));
    return true;
}

}  // namespace

std::string_view FileNameExtension(std::string_view path) {
    const size_t slash = path.rfind('/');
    const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    const size_t dot = name.rfind('.');
    return dot == std::string_view::npos ? std::string_view() : name.substr(dot);
}

uint32_t GetFormatTypeFromFilename(const std::string& filename) {
    if (filename.find('.') == std::string::npos) {
        ZLOG_ERROR("VBG::GetFormatTypeFromFilename", "filename provided has no extension.");
        return FormatNone;
    }
    const std::string_view extension = FileNameExtension(filename);
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

bool IsCacheFileName(std::string_view name) {
    if (!name.empty() && name.front() == '/') {
        return false;
    }
    if (name.find('\0') != std::string_view::npos) {
        return false;
    }
    size_t start = 0;
    while (start <= name.size()) {
        const size_t end = std::min(name.find('/', start), name.size());
        if (name.substr(start, end - start) == "..") {
            return false;
        }
        start = end + 1;
    }
    return true;
}

bool IsFeedbackId(std::string_view id) {
    // The dump index is "<id>.json" in the file cache folder, beside the stored processing-type
    // selection: the id that would name that file is not one.
    if (id.empty() || id.size() > 64 || id.front() == '.' || id == "PT_CONFIG") {
        return false;
    }
    for (const char c : id) {
        const bool allowed = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                             (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!allowed) {
            return false;
        }
    }
    return true;
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
            checkFileName(fn, fileName);
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
            !readPicturePath(effect, "backgroundFile", fileCachePath,
                             settings.newsroomBackgroundFile)) {
            return false;
        }
    } else if (mode == "conferenceroom") {
        settings.mode = 4;
        if (!readPresenterFloat(effect, "weathermanSize", settings.conferenceroomSize) ||
            !readPicturePath(effect, "backgroundFile", fileCachePath,
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
    const std::string_view value(id->value.GetString(), id->value.GetStringLength());
    if (!IsFeedbackId(value)) {
        ZLOG_ERROR(fn,
                   "Feedback id '{}' refused: 1 to 64 characters of A-Z, a-z, 0-9, '.', '_' and "
                   "'-', not starting with '.', are expected",
                   Text::LogExcerpt(value, kLoggedRefusedBytes));
        throw std::invalid_argument("feedback id refused");
    }
    feedback.folder = fileCachePath;
    feedback.id.assign(value.data(), value.size());
    return true;
}

}  // namespace VBG
