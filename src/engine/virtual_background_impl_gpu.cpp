#include "engine/virtual_background_impl_gpu.h"

#include "gpu/d3d12_utils.h"
#include "selection/processing_type.h"
#include "util/log.h"

namespace VBG {
namespace {

constexpr const char* kRendererMissing = "D3D12OBJ or VBGD3D12 object is not available";

}  // namespace

VirtualBackgroundImplGPU::VirtualBackgroundImplGPU(uint32_t processingType)
    : VirtualBackgroundImpl(processingType) {
    constexpr const char* fn = "VBG::VirtualBackgroundImplGPU::VirtualBackgroundImplGPU";
    if (processingType == PtOpenVinoCpuPPGPU || processingType == PtOpenVinoGpuPPGPU ||
        processingType == PtOnnxRuntimeDMLPPGPU) {
        ZLOG_INFO(fn, "WinML GPU processing disabled");
        winmlGpuDisabled = true;
    }
    // The renderer takes its device from the first usable hardware adapter. Without one there is
    // nothing to build it on (no interface); this platform has no renderer implementation either,
    // so an adapter alone would still leave the construction failed.
    hr = D3D12Utils::GetHardwareAdapter() == nullptr ? kResultNoInterface : kResultFailed;
    ZLOG_ERROR(fn, "Failed to initialise D3D12OBJ");
    ZLOG_INFO(fn, "Constructed. HR:0x{0:X}", hr);
}

VirtualBackgroundImplGPU::~VirtualBackgroundImplGPU() {
    ZLOG_INFO("VBG::VirtualBackgroundImplGPU::~VirtualBackgroundImplGPU", "Destroyed. HR:0x{0:X}",
              hr);
}

int VirtualBackgroundImplGPU::init(const VBGSettings& /*settings*/, uint32_t /*width*/,
                                   uint32_t /*height*/) {
    ZLOG_ERROR("VBG::VirtualBackgroundImplGPU::init",
               "VBGD3D12 not initialised properly. HR:0x{0:X}", hr);
    return hr == kResultNoInterface ? 1 : 2;
}

bool VirtualBackgroundImplGPU::processVideoFrame(uint8_t* /*argb*/, uint32_t /*width*/,
                                                 uint32_t /*height*/, uint32_t* /*flagOut*/,
                                                 bool /*isPresentation*/) {
    ZLOG_ERROR("VBG::VirtualBackgroundImplGPU::processVideoFrame", kRendererMissing);
    return false;
}

bool VirtualBackgroundImplGPU::processVideoFrameInternal(const ZynNativeInputFrame* /*input*/,
                                                         ZynNativeInputFrame* /*output*/) {
    ZLOG_ERROR("VBG::VirtualBackgroundImplGPU::processVideoFrameInternal", kRendererMissing);
    return false;
}

bool VirtualBackgroundImplGPU::processPresentationFrameInternal(
    const ZynNativeInputFrame* /*camera*/, const ZynNativeInputFrame* /*presentation*/,
    ZynNativeInputFrame* /*output*/) {
    ZLOG_ERROR("VBG::VirtualBackgroundImplGPU::processPresentationFrameInternal", kRendererMissing);
    return false;
}

bool VirtualBackgroundImplGPU::initProcessing() {
    ZLOG_ERROR("VBG::VirtualBackgroundImplGPU::initProcessing", kRendererMissing);
    return false;
}

}  // namespace VBG
