// The stored processing-type selection: "PT_CONFIG.json" in the file cache folder, written by the
// evaluator program with the type that worked on this machine and when. The library only reads it.
#pragma once

#include <cstdint>
#include <string>

#include "selection/processing_type.h"

namespace VBG {

// The stored selection as read back.
struct ProcessingTypeDetails {
    ProcessingType type = PtAuto;  // PtAuto when nothing usable is stored
    std::string selectedTime;      // decimal seconds since 1970-01-01 UTC, as stored
    bool isValid = false;          // type != PtAuto

    // Whether the selection is older than 720 hours (30 days). A selection exactly 720 hours old
    // and one stamped in the future are fresh. An unparsable time raises std::invalid_argument
    // ("invalid stoll argument") or std::out_of_range ("stoll argument out of range").
    bool isElapsed() const;
    // The same against a given current time (whole seconds since 1970-01-01 UTC).
    bool isElapsed(int64_t nowSeconds) const;
};

class ProcessingTypeInitializer {
  public:
    // The process-wide reader. The first call with a non-empty folder fixes the folder; later
    // calls return the same instance and ignore their argument. Before that, an empty folder gets
    // a reader that finds no stored selection.
    static ProcessingTypeInitializer& GetInstance(const std::string& folder);

    // A reader of its own for `folder` (UTF-8); the library itself uses GetInstance.
    explicit ProcessingTypeInitializer(std::string folder);

    // Whether the folder joined with "PT_CONFIG.json" exists as a file-system entry.
    bool ConfigFileExists() const;

    // The stored selection; type PtAuto and isValid false when the file is absent, or malformed
    // (not JSON, a key missing, a value that is not a string; one error record).
    ProcessingTypeDetails GetSelectedProcessingTypeDetails() const;

    const std::string& folder() const { return folder_; }
    std::string configFilePath() const;

  private:
    const std::string folder_;
    const std::string fileName_ = "PT_CONFIG.json";
    const std::string typeKey_ = "selected_processing_type";
    const std::string timeKey_ = "selected_processing_time";
};

}  // namespace VBG
