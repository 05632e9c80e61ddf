// The real libZYNNativeVBG.so, loaded with dlopen and reached only through its exported
// functions, as a host reaches it.
#pragma once

#include <string>

#include "zyn_native_vbg.h"

namespace zyn_test {

struct VbgLibrary {
    // Loads the built library (or `path`); throws std::runtime_error when it cannot be loaded or an
    // export is missing.
    VbgLibrary();
    explicit VbgLibrary(const std::string& path);
    ~VbgLibrary();
    VbgLibrary(const VbgLibrary&) = delete;
    VbgLibrary& operator=(const VbgLibrary&) = delete;

    decltype(&::ZynNativeVideoProcessingInit) Init;
    decltype(&::ZynNativeVbgGetVersion) VbgGetVersion;
    decltype(&::ZynNativeVideoProcessingGetVersion) GetVersion;
    decltype(&::ZynNativeVbgIsSupported) IsSupported;
    decltype(&::ZynNativeVideoProcessingGetSupportedEffects) GetSupportedEffects;
    decltype(&::ZynNativeVbgCreateInstance) VbgCreate;
    decltype(&::ZynNativeVbgUpdateInstance) VbgUpdate;
    decltype(&::ZynNativeVbgProcessFrame) VbgProcessFrame;
    decltype(&::ZynNativeVbgDestroyInstance) VbgDestroy;
    decltype(&::ZynNativeVbgShutdownInstance) VbgShutdown;
    decltype(&::ZynNativeVideoProcessingCreateInstance) Create;
    decltype(&::ZynNativeVideoProcessingUpdateInstance) Update;
    decltype(&::ZynNativeVideoProcessingProcessFrame) ProcessFrame;
    decltype(&::ZynNativeVideoProcessingProcessPresentationFrame) ProcessPresentationFrame;
    decltype(&::ZynNativeVideoProcessingGetOutputFrameSize) GetOutputFrameSize;
    decltype(&::ZynNativeVideoProcessingGetFrameProcessingStats) GetFrameProcessingStats;
    decltype(&::ZynNativeVideoProcessingDestroyInstance) Destroy;
    decltype(&::ZynNativeVideoProcessingShutdownInstance) Shutdown;
    decltype(&::ZynNativeInternalCreate) InternalCreate;
    decltype(&::ZynNativeInternalDestroy) InternalDestroy;

    static constexpr int kExportCount = 20;

  private:
    void* handle_ = nullptr;
};

}  // namespace zyn_test
