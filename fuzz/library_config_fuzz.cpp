// The library configuration file: arbitrary bytes written to a file and read with
// ConfigParser::SetConfig. A file is accepted exactly when it is a JSON object of at most 64 KiB,
// nested at most 32 levels deep, whose "modelsPath", "logPath" and "fileCachePath" are non-empty
// strings, and the folders stored are then those strings byte for byte (embedded NUL characters
// included).
#include <rapidjson/document.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "config/config_parser.h"

namespace {

const std::string& ConfigPath() {
    static const std::string path = [] {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "zynfuzz_library.XXXXXX").string();
        const int fd = mkstemp(pattern.data());
        if (fd < 0) {
            std::perror("mkstemp");
            std::abort();
        }
        close(fd);
        std::atexit([] { std::remove(ConfigPath().c_str()); });
        return pattern;
    }();
    return path;
}

// The non-empty string value of `key`, or false.
bool NonEmptyString(const rapidjson::Document& doc, const char* key, std::string& value) {
    const auto it = doc.FindMember(key);
    if (it == doc.MemberEnd() || !it->value.IsString() || it->value.GetStringLength() == 0) {
        return false;
    }
    value.assign(it->value.GetString(), it->value.GetStringLength());
    return true;
}

// The deepest nesting of brackets outside strings. For a valid JSON text this is its depth; for
// another text it is at least the depth a parser reaches before it stops.
int BracketDepth(const std::string& text) {
    int depth = 0, deepest = 0;
    bool inString = false, escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return deepest;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    spdlog::set_level(spdlog::level::off);
    (void)ConfigPath();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    {
        std::ofstream out(ConfigPath(), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    const bool accepted = VBG::ConfigParser::SetConfig(ConfigPath().c_str());

    const std::string text(reinterpret_cast<const char*>(data), size);
    // Checked first: the oracle's own parser recurses.
    const bool bounded = size <= 65536 && BracketDepth(text) <= 32;
    rapidjson::Document doc;
    if (bounded) {
        doc.Parse(text.c_str(), text.size());
    }
    std::string models, log, cache;
    const bool valid = bounded && !doc.HasParseError() && doc.IsObject() &&
                       NonEmptyString(doc, "modelsPath", models) &&
                       NonEmptyString(doc, "logPath", log) &&
                       NonEmptyString(doc, "fileCachePath", cache);
    if (accepted != valid) {
        __builtin_trap();
    }
    if (accepted &&
        (VBG::ConfigParser::ModelsPath() != models || VBG::ConfigParser::LogPath() != log ||
         VBG::ConfigParser::FileCachePath() != cache)) {
        __builtin_trap();
    }
    return 0;
}
