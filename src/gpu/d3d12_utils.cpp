#include "gpu/d3d12_utils.h"

#include <array>

#include "util/log.h"

namespace VBG::D3D12Utils {

Adapter* GetHardwareAdapter() {
    // No adapter enumeration exists here: the walk over hardware adapters finds nothing.
    ZLOG_ERROR("VBG::D3D12Utils::GetHardwareAdapter",
               "Hardware adapter is not supported on this system, GPU cannot be used for ML");
    return nullptr;
}

bool IsGpuAvailable() {
    if (GetHardwareAdapter() == nullptr) {
        ZLOG_ERROR("VBG::D3D12Utils::IsGpuAvailable",
                   "IsGpuAvailable failed. D3D11 Hardware Layer is not supported");
        return false;
    }
    return true;
}

std::string ResourceName(uint32_t key) {
    static const std::array<const char*, 25> names = {
        "None",
        "BGRASourceImage",
        "BGRASourceImageUpload",
        "RT1",
        "RT2",
        "BlurMask",
        "BlurMaskUpload",
        "BlurBGRAMask",
        "BlurBGRAMaskUpload",
        "BlurBGRAMaskRTV",
        "FinalBGRACPUData",
        "RT3",
        "BackgroundImage",
        "None",
        "None",
        "None",
        "None",
        "None",
        "BGRAPresentationImage",
        "BGRAPresentationImageUpload",
        "PresentationRT1",
        "FinalBGRACPUDataPresentation",
        "PresentationRT2",
        "BackgroundPresentationImage",
        "BackgroundPresentationImageUpload",
    };
    return key < names.size() ? names[key] : "None";
}

std::string BackgroundTypeName(uint32_t bt) {
    switch (bt) {
        case 0:
            return "None";
        case 1:
            return "Blur";
        case 2:
            return "Image";
        case 3:
            return "Video";
        default:
            return "Unknown";
    }
}

}  // namespace VBG::D3D12Utils
