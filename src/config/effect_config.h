// The pieces of the JSON effect configuration of an instance: the "effects" array (background
// blur, background file, touch-up), the presenter ("weatherman") element and the feedback request.
// ConfigParser::ConvertToZynNativeConfig runs them in that order.
#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "config/config_parser.h"
#include "zyn_native_vbg.h"

namespace VBG {

// Background file format codes of ZynNativeConfig::backgroundFormat and
// VBGSettings::imageOrVideoType.
enum BackgroundFormat : uint32_t {
    FormatNone = 0,  // refused
    FormatPng = 1,
    FormatJpeg = 2,
    FormatGif = 3,
    FormatMp4 = 4,
    FormatOgv = 5,
    FormatMov = 6,
    FormatWebm = 7,
};

// The extension of the last component of a path, with its dot: the text from the last "." of
// the file name on (".png" for "a/b.png" and for ".png", "." for "a.", empty for "a" or "v1.5/a").
// The one rule for both the configuration and the settings conversion.
std::string_view FileNameExtension(std::string_view path);

// The format code of a file name, from its extension (".png", ".jpg", ".jpeg", ".gif", ".mp4",
// ".ogv", ".mov", ".webm", compared case-sensitively); 0 for anything else. A name without any "."
// logs "filename provided has no extension.".
uint32_t GetFormatTypeFromFilename(const std::string& filename);

// Whether a background file name from a configuration stays inside the cache folder: a relative
// path (subfolders allowed) without a ".." component or a NUL.
bool IsCacheFileName(std::string_view name);

// Whether a feedback id may become part of file names: 1 to 64 characters of A-Z, a-z, 0-9, ".",
// "_" and "-", not starting with ".".
bool IsFeedbackId(std::string_view id);

// Reads the string member `key` of an effect element into `value`; a missing key (or a value that
// is not a string) logs "Effect does not have {key}" and returns false.
bool GetValue(const rapidjson::Value& effect, const char* key, std::string& value);

// Number texts of the effect elements, converted as std::stof and std::stoi do (leading blanks, the
// longest numeric prefix) but always with "." as the decimal point, whatever the host's locale.
// Text without a number raises std::invalid_argument ("invalid stof argument", "invalid stoi
// argument"); a value out of range raises std::out_of_range ("stof argument out of range", "stoi
// argument out of range").
float DecimalTextToFloat(const std::string& text);
int32_t IntegerTextToInt(const std::string& text);

// The cache folder joined with a file name from the configuration (UTF-8).
std::string CacheFilePath(const std::string& fileCachePath, const std::string& fileName);

// Applies the "effects" elements in order to `config`. The first element that fails stops the
// parse with false; what earlier elements set stays set. Any other name than "blur",
// "background" and "touchUp" fails, "weatherman" included: the caller then hands the same array
// to ParseWeathermanConfig.
bool ParseVbgConfig(const rapidjson::Value& effects, const std::string& fileCachePath,
                    ZynNativeConfig& config);

// Fills `settings` from the first "weatherman" element of `effects` and its "mode"; false when
// there is none, the mode is unknown, one of the mode's keys is missing or a room picture has no
// picture extension. A file name that leaves the cache folder raises std::invalid_argument (the
// effect parser too).
bool ParseWeathermanConfig(const rapidjson::Value& effects, const std::string& fileCachePath,
                           ZynNativeWeathermanSettings& settings);

// Fills `feedback` when the document has "feedback": true and an "id"; false otherwise (with an
// error record either way it fails). An id that IsFeedbackId refuses raises std::invalid_argument.
bool ParseZynFeedbackConfig(const rapidjson::Value& document, const std::string& fileCachePath,
                            ZynFeedbackSettings& feedback);

}  // namespace VBG
