// Effect configurations as the tool hands them to the library: JSON text from the command line
// (or built from the short options), with every "backgroundFile" placed in the library's file
// cache folder, where the library looks for it by name.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "options.h"

namespace zynvbg {

// Puts background files into the cache folder under names the library accepts, and removes
// them again when destroyed.
class FileCache {
  public:
    explicit FileCache(std::filesystem::path folder);
    ~FileCache();
    FileCache(const FileCache&) = delete;
    FileCache& operator=(const FileCache&) = delete;

    const std::filesystem::path& folder() const { return folder_; }

    // Makes `file` available in the cache folder and returns the name to use in the JSON. Files
    // whose extension the library knows are linked (copied where links fail); other pictures are
    // converted to PNG. Throws ToolError(kExitUnreadableInput) for a missing or unreadable file.
    std::string place(const std::filesystem::path& file);

  private:
    std::filesystem::path folder_;
    std::vector<std::filesystem::path> placed_;
};

struct EffectConfig {
    std::string json;  // the text for the library
    bool presenter = false;
    std::string presenterMode;
};

// The JSON of the short effect options (--blur, --background, --touchup, --weatherman ...), with
// file names as the user gave them.
std::string ShortOptionsJson(const Options& options);

// Checks that `text` is a JSON object, places its background files in `cache` (relative names
// are looked for in `baseFolder` first when it is not empty, then in the current folder). Sets
// "processingMode" to `forcedMode` when given, else to `defaultMode` when the text has none.
// `what` names the text in messages. Throws ToolError(kExitBadArguments) for text that is not a
// JSON object.
EffectConfig PrepareConfig(const std::string& text, const std::string& what,
                           const std::filesystem::path& baseFolder, FileCache& cache,
                           std::optional<int> forcedMode, std::optional<int> defaultMode);

// Throws ToolError(kExitBadArguments) unless `text` is a JSON object; touches no file.
void CheckJsonObject(const std::string& text, const std::string& what);

}  // namespace zynvbg
