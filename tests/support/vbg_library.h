// The real libZYNNativeVBG.so, loaded with dlopen and reached only through its exported
// functions, as a host reaches it.
#pragma once

#include "zyn_native_vbg.h"

// Member name and exported name of every export.
#define ZYN_TEST_EXPORTS(X)                                                       \
    X(Init, ZynNativeVideoProcessingInit)                                         \
    X(VbgGetVersion, ZynNativeVbgGetVersion)                                      \
    X(GetVersion, ZynNativeVideoProcessingGetVersion)                             \
    X(IsSupported, ZynNativeVbgIsSupported)                                       \
    X(GetSupportedEffects, ZynNativeVideoProcessingGetSupportedEffects)           \
    X(VbgCreate, ZynNativeVbgCreateInstance)                                      \
    X(VbgUpdate, ZynNativeVbgUpdateInstance)                                      \
    X(VbgProcessFrame, ZynNativeVbgProcessFrame)                                  \
    X(VbgDestroy, ZynNativeVbgDestroyInstance)                                    \
    X(VbgShutdown, ZynNativeVbgShutdownInstance)                                  \
    X(Create, ZynNativeVideoProcessingCreateInstance)                             \
    X(Update, ZynNativeVideoProcessingUpdateInstance)                             \
    X(ProcessFrame, ZynNativeVideoProcessingProcessFrame)                         \
    X(ProcessPresentationFrame, ZynNativeVideoProcessingProcessPresentationFrame) \
    X(GetOutputFrameSize, ZynNativeVideoProcessingGetOutputFrameSize)             \
    X(GetFrameProcessingStats, ZynNativeVideoProcessingGetFrameProcessingStats)   \
    X(Destroy, ZynNativeVideoProcessingDestroyInstance)                           \
    X(Shutdown, ZynNativeVideoProcessingShutdownInstance)                         \
    X(InternalCreate, ZynNativeInternalCreate)                                    \
    X(InternalDestroy, ZynNativeInternalDestroy)

namespace zyn_test {

// Loads the built library; throws std::runtime_error when it cannot be loaded or an
// export is missing. The library stays loaded: its logger and threads may outlive the test's use.
struct VbgLibrary {
    VbgLibrary();
    VbgLibrary(const VbgLibrary&) = delete;
    VbgLibrary& operator=(const VbgLibrary&) = delete;

#define ZYN_TEST_MEMBER(member, name) decltype(&::name) member = nullptr;
    ZYN_TEST_EXPORTS(ZYN_TEST_MEMBER)
#undef ZYN_TEST_MEMBER
};

}  // namespace zyn_test
