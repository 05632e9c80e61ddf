// The library configuration file through ConfigParser::SetConfig: accepted exactly when it is a
// JSON object of at most 64 KiB, nested at most 32 deep, whose "modelsPath", "logPath" and
// "fileCachePath" are non-empty strings, then stored byte for byte (embedded NULs included).
#include <rapidjson/document.h>
#include <rapidjson/memorystream.h>

#include <algorithm>

#include "config/config_parser.h"
#include "fuzz_library.h"

namespace {

std::string NonEmptyString(const rapidjson::Document& doc, const char* key) {
    const auto it = doc.FindMember(key);
    return it == doc.MemberEnd() || !it->value.IsString()
               ? ""
               : std::string(it->value.GetString(), it->value.GetStringLength());
}

// The deepest nesting of brackets outside strings (at least what a parser reaches before it stops).
int BracketDepth(const std::string& text) {
    int depth = 0, deepest = 0;
    bool inString = false, escaped = false;
    for (const char c : text) {
        if (inString) {
            inString = escaped || c != '"';
            escaped = !escaped && c == '\\';
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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::filesystem::path path = zyn_fuzz::Scratch() / "library.json";
    zyn_fuzz::WriteText(path, text);
    const bool accepted = VBG::ConfigParser::SetConfig(path.c_str());
    // The depth is checked first: the oracle's own parser recurses. It reads the bytes as they
    // are: Document::Parse(str, length) would skip leading byte-order-mark bytes, which the file
    // reader does not.
    rapidjson::Document doc;
    rapidjson::MemoryStream bytes(text.data(), text.size());
    const bool bounded = size <= 65536 && BracketDepth(text) <= 32;
    const bool object = bounded && !doc.ParseStream(bytes).HasParseError() && doc.IsObject();
    const std::string models = object ? NonEmptyString(doc, "modelsPath") : "",
                      log = object ? NonEmptyString(doc, "logPath") : "",
                      cache = object ? NonEmptyString(doc, "fileCachePath") : "";
    zyn_fuzz::Require(accepted == (!models.empty() && !log.empty() && !cache.empty()));
    zyn_fuzz::Require(!accepted || (VBG::ConfigParser::ModelsPath() == models &&
                                    VBG::ConfigParser::LogPath() == log &&
                                    VBG::ConfigParser::FileCachePath() == cache));
    return 0;
}
