#include "config/config_parser.h"

#include <rapidjson/document.h>

#include <cstring>
#include <filesystem>
#include <mutex>

#include "config/effect_config.h"
#include "util/bounded_json.h"
#include "util/file_access.h"
#include "util/log.h"
#include "util/text.h"

namespace VBG {
namespace {

constexpr uint64_t kMaxConfigFileBytes = 64 * 1024;
// How much of an effect configuration its log record shows.
constexpr size_t kLoggedConfigBytes = 4096;

struct StoredPaths {
    std::mutex mutex;
    std::string modelsPath;
    std::string logPath;
    std::string fileCachePath;
};

StoredPaths& stored() {
    static StoredPaths paths;
    return paths;
}

// Looks `key` up and stores its string value; false (with the key's own messages) when it is
// missing or empty.
bool storePath(const rapidjson::Document& doc, const char* key, std::string StoredPaths::*field,
               const char* missingMessage, const char* emptyMessage) {
    auto it = doc.FindMember(key);
    if (it == doc.MemberEnd()) {
        ZLOG_ERROR("VBG::ConfigParser::SetConfig", "{}", missingMessage);
        return false;
    }
    // A value of another type than string is not supported input; it is read as empty.
    std::string value;
    if (it->value.IsString()) {
        value.assign(it->value.GetString(), it->value.GetStringLength());
    }
    {
        std::lock_guard<std::mutex> lock(stored().mutex);
        stored().*field = value;
    }
    if (value.empty()) {
        ZLOG_ERROR("VBG::ConfigParser::SetConfig", "{}", emptyMessage);
        return false;
    }
    return true;
}

}  // namespace

bool ConfigParser::SetConfig(const char* path) {
    if (path == nullptr) {
        ZLOG_ERROR("VBG::ConfigParser::SetConfig", "Config file path is null.");
        return false;
    }
    // Only a regular file is read (a FIFO would block Init), and only up to a size no real
    // configuration comes near. The host names the file: a link to it is followed.
    std::string text;
    std::string why;
    if (!Files::ReadSmallFile(path, kMaxConfigFileBytes, Files::FinalLink::Follow, text, why)) {
        ZLOG_ERROR("VBG::ConfigParser::SetConfig", "Config file {} cannot be read: {}", path, why);
        ZLOG_ERROR("VBG::ConfigParser::SetConfig", "Config file open failed.");
        return false;
    }
    rapidjson::Document doc;
    const Json::ParseResult parsed = Json::Parse(text, doc);
    if (parsed != Json::ParseResult::Ok || !doc.IsObject()) {
        if (parsed == Json::ParseResult::TooLarge || parsed == Json::ParseResult::TooDeep) {
            ZLOG_ERROR("VBG::ConfigParser::SetConfig", "Config file is {}", Json::Describe(parsed));
        }
        ZLOG_ERROR("VBG::ConfigParser::SetConfig", "Config file parse failed.");
        return false;
    }
    return storePath(doc, "modelsPath", &StoredPaths::modelsPath,
                     "modelsPath missing in config file.", "Models path is empty") &&
           storePath(doc, "logPath", &StoredPaths::logPath, "logPath missing in config file.",
                     "Log path is empty") &&
           storePath(doc, "fileCachePath", &StoredPaths::fileCachePath,
                     "fileCachePath missing in config file.", "fileCachePath path is empty");
}

std::string ConfigParser::ModelsPath() {
    std::lock_guard<std::mutex> lock(stored().mutex);
    return stored().modelsPath;
}

std::string ConfigParser::LogPath() {
    std::lock_guard<std::mutex> lock(stored().mutex);
    return stored().logPath;
}

std::string ConfigParser::FileCachePath() {
    std::lock_guard<std::mutex> lock(stored().mutex);
    return stored().fileCachePath;
}

std::string ConfigParser::ModelFilePath() {
    return (std::filesystem::u8path(ModelsPath()) / "model.winml").u8string();
}

ZynNativeConfig DefaultZynNativeConfig() {
    ZynNativeConfig config{};
    config.processingMode = 3;
    config.touchUpSigma = 0.03f;
    return config;
}

ZynNativeWeathermanSettings DefaultWeathermanSettings() {
    ZynNativeWeathermanSettings s{};
    s.mode = -1;
    s.reserved = 3;
    s.overlayAlpha = 1.0f;
    s.overlaySize = 1.0f;
    s.underlaySize = 1.0f;
    s.newsroomSize = 1.0f;
    s.newsroomPresentationSize = 1.0f;
    s.conferenceroomSize = 1.0f;
    return s;
}

ConfigSections ConfigParser::ConvertToZynNativeConfig(const char* json, ZynNativeConfig& config,
                                                      ZynNativeWeathermanSettings& weatherman,
                                                      ZynFeedbackSettings& feedback) {
    constexpr const char* fn = "VBG::ConfigParser::ConvertToZynNativeConfig";
    ConfigSections found;
    if (json == nullptr) {
        ZLOG_ERROR(fn, "config is nullptr.");
        return found;
    }
    // Logged once, escaped and cut short: a configuration can neither forge records nor fill the
    // log.
    const std::string_view text(json, strnlen(json, Json::kMaxBytes + 1));
    ZLOG_INFO(fn, "Configuration {}", Text::LogExcerpt(text, kLoggedConfigBytes));
    rapidjson::Document doc;
    const Json::ParseResult parsed = Json::Parse(text, doc);
    if (parsed != Json::ParseResult::Ok || !doc.IsObject()) {
        if (parsed == Json::ParseResult::TooLarge || parsed == Json::ParseResult::TooDeep) {
            ZLOG_ERROR(fn, "config is {}", Json::Describe(parsed));
        }
        ZLOG_ERROR(fn, "config parse failed.");
        return found;
    }

    const std::string fileCachePath = FileCachePath();
    constexpr size_t kMaxPathChars = ZYN_PATH_CHARS - 1;
    Text::CopyToField(config.modelFilePath, ZYN_PATH_CHARS, ModelFilePath(), kMaxPathChars);
    Text::CopyToField(config.logPath, ZYN_PATH_CHARS, LogPath(), kMaxPathChars);
    Text::CopyToField(config.fileCachePath, ZYN_PATH_CHARS, fileCachePath, kMaxPathChars);

    const auto mode = doc.FindMember("processingMode");
    if (mode != doc.MemberEnd()) {
        if (mode->value.IsInt()) {
            config.processingMode = static_cast<uint32_t>(mode->value.GetInt());
        } else if (mode->value.IsUint()) {
            config.processingMode = mode->value.GetUint();
        } else {
            // Not a usable value: the record keeps its mode.
            ZLOG_WARN(fn, "processingMode is not an integer");
        }
    }

    const auto effects = doc.FindMember("effects");
    if (effects != doc.MemberEnd()) {
        // Anything but a non-empty array carries no effect.
        if (!effects->value.IsArray() || effects->value.Empty()) {
            ZLOG_ERROR(fn, "Effect array is empty");
            return found;
        }
        if (ParseVbgConfig(effects->value, fileCachePath, config)) {
            found.effects = true;
        } else {
            found.weatherman = ParseWeathermanConfig(effects->value, fileCachePath, weatherman);
        }
    }

    found.feedback = ParseZynFeedbackConfig(doc, fileCachePath, feedback);
    return found;
}

}  // namespace VBG
