// JSON documents read from outside the library (effect configurations, the library configuration
// file, the stored processing-type selection) are parsed through here: bounded in size and in
// nesting depth, so that no text can exhaust the stack or the heap while it is read.
#pragma once

#include <rapidjson/document.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace VBG::Json {

// The deepest document the library reads is an effect configuration: object, "effects" array,
// effect object. Anything much deeper is not a configuration.
constexpr unsigned kMaxDepth = 32;
// Far above every configuration the library reads (a few hundred bytes each).
constexpr size_t kMaxBytes = 64 * 1024;

enum class ParseResult { Ok, TooLarge, TooDeep, Invalid };

// Parses `text` into `doc` (iteratively, without recursion); anything but Ok leaves `doc` null.
ParseResult Parse(std::string_view text, rapidjson::Document& doc);

// A NUL-terminated text: only up to kMaxBytes + 1 bytes of it are ever looked at.
ParseResult ParseText(const char* text, rapidjson::Document& doc);

// Words for a log record ("larger than 65536 bytes", "nested deeper than 32 levels", "not valid
// JSON"); empty for Ok.
std::string Describe(ParseResult result);

}  // namespace VBG::Json
