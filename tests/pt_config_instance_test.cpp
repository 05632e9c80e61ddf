// The process-wide reader of the stored selection: the first GetInstance call fixes its folder.
// Kept in its own executable so that the first call here is the first call in the process.
#include <gtest/gtest.h>

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
