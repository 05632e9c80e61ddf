#include "config/config_parser.h"

#include <rapidjson/document.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>

#include "util/log.h"

namespace VBG {
namespace {

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
    std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
    if (!file.is_open()) {
        ZLOG_ERROR("VBG::ConfigParser::SetConfig", "Config file open failed.");
        return false;
    }
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    rapidjson::Document doc;
    doc.Parse(text.c_str(), text.size());
    if (doc.HasParseError() || !doc.IsObject()) {
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

}  // namespace VBG
