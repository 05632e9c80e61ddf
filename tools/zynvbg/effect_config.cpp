#include "effect_config.h"

#include <unistd.h>

#include <fstream>
#include <system_error>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "frame_reader.h"
#include "frame_writer.h"
#include "tool_error.h"

namespace zynvbg {
namespace fs = std::filesystem;
namespace {

// Extensions the library accepts for a "backgroundFile" (it compares them case-sensitively).
bool libraryKnowsExtension(const std::string& ext) {
    static const char* const kKnown[] = {".png", ".jpg", ".jpeg", ".gif",
                                         ".mp4", ".ogv", ".mov",  ".webm"};
    for (const char* known : kKnown) {
        if (ext == known) {
            return true;
        }
    }
    return false;
}

std::string safeStem(const fs::path& file) {
    std::string stem = file.stem().string();
    for (char& c : stem) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '-' || c == '_';
        if (!plain) {
            c = '_';
        }
    }
    return stem.substr(0, 64);
}

[[noreturn]] void unreadable(const fs::path& file, const std::string& why) {
    throw ToolError(kExitUnreadableInput, "cannot read '" + file.string() + "': " + why);
}

void writeString(rapidjson::Writer<rapidjson::StringBuffer>& w, const char* key,
                 const std::string& value) {
    w.Key(key);
    w.String(value.c_str(), static_cast<rapidjson::SizeType>(value.size()));
}

}  // namespace

FileCache::FileCache(fs::path folder) : folder_(std::move(folder)) {}

FileCache::~FileCache() {
    for (const fs::path& entry : placed_) {
        std::error_code ec;
        fs::remove(entry, ec);
    }
}

std::string FileCache::place(const fs::path& file) {
    std::error_code ec;
    if (!fs::is_regular_file(file, ec)) {
        unreadable(file, "no such file");
    }
    if (!std::ifstream(file, std::ios::binary)) {
        unreadable(file, "permission denied");
    }
    // Names carry the process id: several runs may share one cache folder.
    const std::string prefix = "zynvbg-" + std::to_string(getpid()) + "-" +
                               std::to_string(placed_.size()) + "-" + safeStem(file);
    const std::string ext = file.extension().string();
    if (libraryKnowsExtension(ext)) {
        const fs::path target = folder_ / (prefix + ext);
        fs::remove(target, ec);
        // The library opens no symbolic link: a hard link where the file system allows it,
        // a copy otherwise.
        fs::create_hard_link(fs::canonical(file, ec), target, ec);
        if (ec) {
            fs::copy_file(file, target, fs::copy_options::overwrite_existing, ec);
            if (ec) {
                throw ToolError(kExitLibraryFailure, "cannot place '" + file.string() +
                                                         "' in the library's file cache '" +
                                                         folder_.string() + "'");
            }
        }
        placed_.push_back(target);
        return target.filename().string();
    }
    // Another picture format (or an upper-case extension): hand the library a PNG of it.
    FrameReader reader(file.string(), nullptr);
    if (!reader.isPicture()) {
        unreadable(file, "background videos must be .mp4, .mov, .ogv or .webm");
    }
    YuvFrame frame(reader.sourceWidth(), reader.sourceHeight(), PixelLayout::kI420);
    if (!reader.read(frame)) {
        unreadable(file, "it holds no picture");
    }
    const fs::path target = folder_ / (prefix + ".png");
    const OutputPlan plan{OutputKind::kPngSingle, target.string()};
    auto writer =
        OpenWriter(plan, frame.width(), frame.height(), AVRational{30, 1}, PixelLayout::kI420);
    placed_.push_back(target);
    writer->write(frame);
    writer->finish();
    return target.filename().string();
}

std::string ShortOptionsJson(const Options& o) {
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> w(text);
    w.StartObject();
    w.Key("effects");
    w.StartArray();
    if (o.blur) {
        w.StartObject();
        writeString(w, "name", "blur");
        w.EndObject();
    }
    if (!o.background.empty()) {
        w.StartObject();
        writeString(w, "name", "background");
        writeString(w, "backgroundFile", o.background);
        w.EndObject();
    }
    if (!o.touchUpSigma.empty()) {
        w.StartObject();
        writeString(w, "name", "touchUp");
        writeString(w, "touchUpSigma", o.touchUpSigma);
        w.EndObject();
    }
    if (!o.weathermanMode.empty()) {
        const std::string& mode = o.weathermanMode;
        const bool layered = mode == "overlay" || mode == "underlay";
        const std::string size =
            !o.weathermanSize.empty() ? o.weathermanSize : (layered ? "0.3" : "1.0");
        std::string offsetX = "0.3";
        std::string offsetY = "0.3";
        if (!o.weathermanOffset.empty()) {
            const size_t comma = o.weathermanOffset.find(',');
            offsetX = o.weathermanOffset.substr(0, comma);
            offsetY = o.weathermanOffset.substr(comma + 1);
        }
        w.StartObject();
        writeString(w, "name", "weatherman");
        writeString(w, "mode", mode);
        if (mode == "overlay") {
            writeString(w, "weathermanAlpha",
                        o.weathermanAlpha.empty() ? "1.0" : o.weathermanAlpha);
        }
        writeString(w, "weathermanSize", size);
        if (layered) {
            writeString(w, "weathermanOffsetX", offsetX);
            writeString(w, "weathermanOffsetY", offsetY);
        }
        if (mode == "underlay") {
            writeString(w, "weathermanUnderlayMode", "0");
        }
        if (mode == "newsroom") {
            writeString(w, "weathermanPosition", "0");
            writeString(w, "presentationSize", "1.0");
        }
        if (!layered) {
            writeString(w, "backgroundFile", o.weathermanBackground);
        }
        w.EndObject();
    }
    w.EndArray();
    w.EndObject();
    return text.GetString();
}

namespace {

void parseObject(rapidjson::Document& doc, const std::string& text, const std::string& what) {
    doc.Parse(text.c_str(), text.size());
    if (doc.HasParseError()) {
        throw ToolError(
            kExitBadArguments,
            what + " is not valid JSON: " + rapidjson::GetParseError_En(doc.GetParseError()) +
                " (at character " + std::to_string(doc.GetErrorOffset()) + ")");
    }
    if (!doc.IsObject()) {
        throw ToolError(kExitBadArguments, what + " must be a JSON object");
    }
}

}  // namespace

void CheckJsonObject(const std::string& text, const std::string& what) {
    rapidjson::Document doc;
    parseObject(doc, text, what);
}

EffectConfig PrepareConfig(const std::string& text, const std::string& what,
                           const fs::path& baseFolder, FileCache& cache,
                           std::optional<int> forcedMode, std::optional<int> defaultMode) {
    rapidjson::Document doc;
    parseObject(doc, text, what);
    EffectConfig config;
    auto& alloc = doc.GetAllocator();
    auto effects = doc.FindMember("effects");
    if (effects != doc.MemberEnd() && effects->value.IsArray()) {
        for (auto& effect : effects->value.GetArray()) {
            if (!effect.IsObject()) {
                continue;
            }
            auto name = effect.FindMember("name");
            if (name != effect.MemberEnd() && name->value.IsString() &&
                std::string(name->value.GetString()) == "weatherman") {
                config.presenter = true;
                auto mode = effect.FindMember("mode");
                if (mode != effect.MemberEnd() && mode->value.IsString()) {
                    config.presenterMode = mode->value.GetString();
                }
            }
            auto file = effect.FindMember("backgroundFile");
            if (file == effect.MemberEnd() || !file->value.IsString()) {
                continue;
            }
            fs::path path = file->value.GetString();
            if (path.is_relative() && !baseFolder.empty() && fs::exists(baseFolder / path)) {
                path = baseFolder / path;
            }
            const std::string placed = cache.place(path);
            file->value.SetString(placed.c_str(), static_cast<rapidjson::SizeType>(placed.size()),
                                  alloc);
        }
    }
    auto mode = doc.FindMember("processingMode");
    if (forcedMode && mode != doc.MemberEnd()) {
        mode->value.SetInt(*forcedMode);
    } else if (mode == doc.MemberEnd() && (forcedMode || defaultMode)) {
        doc.AddMember("processingMode", rapidjson::Value(forcedMode ? *forcedMode : *defaultMode),
                      alloc);
    }
    rapidjson::StringBuffer out;
    rapidjson::Writer<rapidjson::StringBuffer> writer(out);
    doc.Accept(writer);
    config.json = out.GetString();
    return config;
}

}  // namespace zynvbg
