#include "support/vbg_library.h"

#include <dlfcn.h>

#include <stdexcept>

#include "support/test_paths.h"

namespace zyn_test {
namespace {

template <typename F>
void resolve(void* handle, F& out, const char* name) {
    void* symbol = dlsym(handle, name);
    if (symbol == nullptr) {
        throw std::runtime_error(std::string("missing export ") + name);
    }
    out = reinterpret_cast<F>(symbol);
}

}  // namespace

VbgLibrary::VbgLibrary() : VbgLibrary(LibraryPath().string()) {}

VbgLibrary::VbgLibrary(const std::string& path) {
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        throw std::runtime_error(std::string("dlopen failed: ") + dlerror());
    }
#define ZYN_RESOLVE(member, name) resolve(handle_, member, #name)
    ZYN_RESOLVE(Init, ZynNativeVideoProcessingInit);
    ZYN_RESOLVE(VbgGetVersion, ZynNativeVbgGetVersion);
    ZYN_RESOLVE(GetVersion, ZynNativeVideoProcessingGetVersion);
    ZYN_RESOLVE(IsSupported, ZynNativeVbgIsSupported);
    ZYN_RESOLVE(GetSupportedEffects, ZynNativeVideoProcessingGetSupportedEffects);
    ZYN_RESOLVE(VbgCreate, ZynNativeVbgCreateInstance);
    ZYN_RESOLVE(VbgUpdate, ZynNativeVbgUpdateInstance);
    ZYN_RESOLVE(VbgProcessFrame, ZynNativeVbgProcessFrame);
    ZYN_RESOLVE(VbgDestroy, ZynNativeVbgDestroyInstance);
    ZYN_RESOLVE(VbgShutdown, ZynNativeVbgShutdownInstance);
    ZYN_RESOLVE(Create, ZynNativeVideoProcessingCreateInstance);
    ZYN_RESOLVE(Update, ZynNativeVideoProcessingUpdateInstance);
    ZYN_RESOLVE(ProcessFrame, ZynNativeVideoProcessingProcessFrame);
    ZYN_RESOLVE(ProcessPresentationFrame, ZynNativeVideoProcessingProcessPresentationFrame);
    ZYN_RESOLVE(GetOutputFrameSize, ZynNativeVideoProcessingGetOutputFrameSize);
    ZYN_RESOLVE(GetFrameProcessingStats, ZynNativeVideoProcessingGetFrameProcessingStats);
    ZYN_RESOLVE(Destroy, ZynNativeVideoProcessingDestroyInstance);
    ZYN_RESOLVE(Shutdown, ZynNativeVideoProcessingShutdownInstance);
    ZYN_RESOLVE(InternalCreate, ZynNativeInternalCreate);
    ZYN_RESOLVE(InternalDestroy, ZynNativeInternalDestroy);
#undef ZYN_RESOLVE
}

VbgLibrary::~VbgLibrary() {
    // The library stays loaded: its logger and evaluation threads may outlive the test's use.
}

}  // namespace zyn_test
