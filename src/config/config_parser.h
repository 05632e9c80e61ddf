// The library configuration file (models, log and file cache folders) and the JSON effect
// configuration of an instance.
#pragma once

#include <string>

#include "zyn_native_vbg.h"

namespace VBG {

// Where and under which name the feedback files of an instance are written.
struct ZynFeedbackSettings {
    std::string folder;  // UTF-8
    std::string id;
};

// Sections found by ConvertToZynNativeConfig.
struct ConfigSections {
    bool feedback = false;
    bool weatherman = false;
    bool effects = false;
};

class ConfigParser {
  public:
    // Reads the library configuration file; true when "modelsPath", "logPath" and
    // "fileCachePath" were all found and non-empty. Values found before a failing key stay stored.
    static bool SetConfig(const char* path);

    // The stored folders (UTF-8), empty until set.
    static std::string ModelsPath();
    static std::string LogPath();
    static std::string FileCachePath();
    // Models folder joined with "model.winml".
    static std::string ModelFilePath();

    // Converts a JSON effect configuration. The three records must hold their defaults first.
    // Number texts that do not convert raise std::invalid_argument / std::out_of_range.
    static ConfigSections ConvertToZynNativeConfig(const char* json, ZynNativeConfig& config,
                                                   ZynNativeWeathermanSettings& weatherman,
                                                   ZynFeedbackSettings& feedback);
};

// Records with their documented defaults.
ZynNativeConfig DefaultZynNativeConfig();
ZynNativeWeathermanSettings DefaultWeathermanSettings();

}  // namespace VBG
