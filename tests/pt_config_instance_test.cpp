// The process-wide reader of the stored selection: the first GetInstance call with a folder fixes
// it.
// Kept in its own executable so that the first call here is the first call in the process.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "selection/pt_config_init.h"
#include "support/test_paths.h"

using VBG::ProcessingTypeInitializer;
using zyn_test::TempDir;
using zyn_test::WriteFile;

TEST(ProcessingTypeInitializerInstance, FirstFolderWinsForTheWholeProcess) {
    TempDir first("zyn-pt-first");
    TempDir second("zyn-pt-second");
    WriteFile(first / "PT_CONFIG.json",
              R"({"selected_processing_type": "OpenVinoCpu", "selected_processing_time": "10"})");
    WriteFile(
        second / "PT_CONFIG.json",
        R"({"selected_processing_type": "OnnxRuntimeCpu", "selected_processing_time": "20"})");

    // An empty folder (a create before the library configuration was read) fixes nothing, and
    // its reader never takes the file of the current folder.
    TempDir current("zyn-pt-current");
    WriteFile(current / "PT_CONFIG.json",
              R"({"selected_processing_type": "OpenVinoCpu", "selected_processing_time": "5"})");
    const std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(current.path());
    const bool emptyFound =
        ProcessingTypeInitializer::GetInstance("").GetSelectedProcessingTypeDetails().isValid;
    std::filesystem::current_path(previous);
    EXPECT_FALSE(emptyFound);

    ProcessingTypeInitializer& a = ProcessingTypeInitializer::GetInstance(first.str());
    ProcessingTypeInitializer& b = ProcessingTypeInitializer::GetInstance(second.str());
    EXPECT_EQ(&a, &b);
    EXPECT_EQ(first.str(), b.folder());
    const VBG::ProcessingTypeDetails d = b.GetSelectedProcessingTypeDetails();
    EXPECT_EQ(VBG::PtOpenVinoCpu, d.type);
    EXPECT_EQ("10", d.selectedTime);

    // The instance keeps reading the file as it is now, not as it was at the first call.
    WriteFile(first / "PT_CONFIG.json",
              R"({"selected_processing_type": "Auto", "selected_processing_time": "30"})");
    EXPECT_FALSE(
        ProcessingTypeInitializer::GetInstance("").GetSelectedProcessingTypeDetails().isValid);
}
