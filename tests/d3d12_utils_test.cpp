// Adapter selection and GPU availability on a system without Direct3D 12, and the debug names of
// the renderer's resources and of the background types.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "gpu/d3d12_utils.h"
#include "support/log_capture.h"

namespace {

using zyn_test::LogCapture;

TEST(D3D12Adapter, NoHardwareAdapterAndNoGpu) {
    LogCapture log;
    EXPECT_EQ(VBG::D3D12Utils::GetHardwareAdapter(), nullptr);
    EXPECT_TRUE(
        log.hasFrom("VBG::D3D12Utils::GetHardwareAdapter",
                    "Hardware adapter is not supported on this system, GPU cannot be used for ML"))
        << log.dump();

    log.clear();
    EXPECT_FALSE(VBG::D3D12Utils::IsGpuAvailable());
    const auto records = log.records();
    ASSERT_EQ(records.size(), 2u) << log.dump();
    // The adapter search reports first, then the availability check.
    EXPECT_EQ(records[0].level, spdlog::level::err);
    EXPECT_EQ(records[0].message,
              "Hardware adapter is not supported on this system, GPU cannot be used for ML");
    EXPECT_EQ(records[1].function, "VBG::D3D12Utils::IsGpuAvailable");
    EXPECT_EQ(records[1].message, "IsGpuAvailable failed. D3D11 Hardware Layer is not supported");
}

TEST(D3D12Names, ResourceKeysHaveTheirDebugNames) {
    const std::vector<std::pair<uint32_t, std::string>> named = {
        {1, "BGRASourceImage"},
        {2, "BGRASourceImageUpload"},
        {3, "RT1"},
        {4, "RT2"},
        {5, "BlurMask"},
        {6, "BlurMaskUpload"},
        {7, "BlurBGRAMask"},
        {8, "BlurBGRAMaskUpload"},
        {9, "BlurBGRAMaskRTV"},
        {10, "FinalBGRACPUData"},
        {11, "RT3"},
        {12, "BackgroundImage"},
        {18, "BGRAPresentationImage"},
        {19, "BGRAPresentationImageUpload"},
        {20, "PresentationRT1"},
        {21, "FinalBGRACPUDataPresentation"},
        {22, "PresentationRT2"},
        {23, "BackgroundPresentationImage"},
        {24, "BackgroundPresentationImageUpload"},
    };
    for (const auto& [key, name] : named) {
        EXPECT_EQ(VBG::D3D12Utils::ResourceName(key), name) << "key " << key;
    }
    // Keys without a resource of their own.
    for (uint32_t key : {0u, 13u, 14u, 15u, 16u, 17u, 25u, 26u, 1000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(VBG::D3D12Utils::ResourceName(key), "None") << "key " << key;
    }
}

TEST(D3D12Names, BackgroundTypes) {
    EXPECT_EQ(VBG::D3D12Utils::BackgroundTypeName(0), "None");
    EXPECT_EQ(VBG::D3D12Utils::BackgroundTypeName(1), "Blur");
    EXPECT_EQ(VBG::D3D12Utils::BackgroundTypeName(2), "Image");
    EXPECT_EQ(VBG::D3D12Utils::BackgroundTypeName(3), "Video");
    EXPECT_EQ(VBG::D3D12Utils::BackgroundTypeName(4), "Unknown");
    EXPECT_EQ(VBG::D3D12Utils::BackgroundTypeName(0xFFFFFFFFu), "Unknown");
}

}  // namespace
