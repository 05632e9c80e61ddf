#include "selection/pt_config_init.h"

#include <rapidjson/document.h>

#include <chrono>
#include <filesystem>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "util/bounded_json.h"
#include "util/file_access.h"
#include "util/log.h"
#include "util/text.h"

namespace VBG {
namespace {

constexpr uint64_t kMaxSelectionFileBytes = 64 * 1024;
// The stored strings are short; longer ones are shown cut in the log.
constexpr size_t kLoggedValueBytes = 128;

// Decimal text to a signed 64-bit integer as std::stoll reads it (leading blanks, optional sign,
// the longest numeric prefix), raising with the texts the rest of the system reports.
int64_t parseStoredTime(const std::string& text) {
    try {
        return std::stoll(text);
    } catch (const std::invalid_argument&) {
        throw std::invalid_argument("invalid stoll argument");
    } catch (const std::out_of_range&) {
        throw std::out_of_range("stoll argument out of range");
    }
}

// A string member of `doc`, or false when it is missing or not a string.
bool stringMember(const rapidjson::Document& doc, const std::string& key, std::string& value) {
    const auto it = doc.FindMember(key.c_str());
    if (it == doc.MemberEnd() || !it->value.IsString()) {
        return false;
    }
    value.assign(it->value.GetString(), it->value.GetStringLength());
    return true;
}

}  // namespace

bool ProcessingTypeDetails::isElapsed() const {
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::system_clock::now().time_since_epoch());
    return isElapsed(static_cast<int64_t>(now.count()));
}

bool ProcessingTypeDetails::isElapsed(int64_t nowSeconds) const {
    const int64_t stored = parseStoredTime(selectedTime);
    int64_t seconds = 0;
    if (__builtin_sub_overflow(nowSeconds, stored, &seconds)) {
        // Only absurd stored times get here; the sign of the true difference still decides.
        seconds =
            stored < 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
    }
    // Integer division truncates toward zero: a time in the future gives negative hours (fresh).
    const int64_t hours = seconds / 3600;
    ZLOG_INFO("VBG::ProcessingTypeDetails::isElapsed",
              "Current elapsed duration time in seconds since epoch: {}-{}={} hours", nowSeconds,
              stored, hours);
    return hours > 720;
}

ProcessingTypeInitializer& ProcessingTypeInitializer::GetInstance(const std::string& folder) {
    // An empty folder (a create before the library configuration was read) does not fix the
    // instance: it gets a reader that finds nothing, and the first real folder is still taken.
    static std::mutex mutex;
    static ProcessingTypeInitializer* instance = nullptr;
    static ProcessingTypeInitializer* const none = new ProcessingTypeInitializer(std::string());
    std::lock_guard<std::mutex> lock(mutex);
    if (instance == nullptr) {
        if (folder.empty()) {
            return *none;
        }
        instance = new ProcessingTypeInitializer(folder);  // lives as long as the process
    }
    return *instance;
}

ProcessingTypeInitializer::ProcessingTypeInitializer(std::string folder)
    : folder_(std::move(folder)) {}

std::string ProcessingTypeInitializer::configFilePath() const {
    return (std::filesystem::u8path(folder_) / fileName_).u8string();
}

bool ProcessingTypeInitializer::ConfigFileExists() const {
    if (folder_.empty()) {
        return false;  // never a file of the current folder
    }
    std::error_code ec;
    return std::filesystem::exists(std::filesystem::u8path(configFilePath()), ec);
}

ProcessingTypeDetails ProcessingTypeInitializer::GetSelectedProcessingTypeDetails() const {
    constexpr const char* fn = "VBG::ProcessingTypeInitializer::GetSelectedProcessingTypeDetails";
    ProcessingTypeDetails details;
    if (!ConfigFileExists()) {
        return details;
    }
    const std::string path = configFilePath();
    // The evaluator program writes the file; one that cannot be read as the two string members
    // (including one caught half-written) means no selection.
    // The evaluator renames a small regular file into place: anything else (a folder, a link, a
    // FIFO that would block the reader, a huge file) is not a selection.
    std::string text;
    std::string why;
    if (!Files::ReadSmallFile(path, kMaxSelectionFileBytes, Files::FinalLink::Refuse, text, why)) {
        ZLOG_ERROR(fn, "Stored processing type selection {} cannot be read: {}", path, why);
        return details;
    }
    rapidjson::Document doc;
    const Json::ParseResult parsed = Json::Parse(text, doc);
    if (parsed == Json::ParseResult::TooLarge || parsed == Json::ParseResult::TooDeep) {
        ZLOG_ERROR(fn, "Stored processing type selection {} is {}", path, Json::Describe(parsed));
        return details;
    }
    if (parsed != Json::ParseResult::Ok || !doc.IsObject()) {
        ZLOG_ERROR(fn, "Stored processing type selection {} is not a JSON object", path);
        return details;
    }
    std::string typeName;
    std::string time;
    if (!stringMember(doc, typeKey_, typeName) || !stringMember(doc, timeKey_, time)) {
        ZLOG_ERROR(fn, "Stored processing type selection {} needs the strings {} and {}", path,
                   typeKey_, timeKey_);
        return details;
    }
    details.type = ProcessingTypeFromName(typeName);
    details.selectedTime = time;
    details.isValid = details.type != PtAuto;
    ZLOG_INFO(fn, "Previously selected processing details as string: {}, selected time: {}",
              Text::LogExcerpt(typeName, kLoggedValueBytes),
              Text::LogExcerpt(time, kLoggedValueBytes));
    return details;
}

}  // namespace VBG
