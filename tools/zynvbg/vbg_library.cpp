#include "vbg_library.h"

#include <dlfcn.h>

#include <filesystem>

#include "tool_error.h"
#include "zyn_install_layout.h"

namespace zynvbg {
namespace fs = std::filesystem;
namespace {

constexpr const char* kLibraryName = "libZYNNativeVBG.so.1";

template <typename F>
void resolve(void* handle, const std::string& path, F& out, const char* name) {
    void* symbol = dlsym(handle, name);
    if (symbol == nullptr) {
        throw ToolError(kExitLibraryFailure, "'" + path + "' has no export " + name);
    }
    out = reinterpret_cast<F>(symbol);
}

}  // namespace

VbgLibrary::VbgLibrary(const std::string& path) : path_(path) {
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char* why = dlerror();
        throw ToolError(kExitLibraryFailure,
                        "cannot load the library: " + std::string(why != nullptr ? why : path));
    }
    resolve(handle_, path, Init, "ZynNativeVideoProcessingInit");
    resolve(handle_, path, GetVersion, "ZynNativeVbgGetVersion");
    resolve(handle_, path, Create, "ZynNativeVideoProcessingCreateInstance");
    resolve(handle_, path, Update, "ZynNativeVideoProcessingUpdateInstance");
    resolve(handle_, path, ProcessFrame, "ZynNativeVideoProcessingProcessFrame");
    resolve(handle_, path, ProcessPresentationFrame,
            "ZynNativeVideoProcessingProcessPresentationFrame");
    resolve(handle_, path, GetOutputFrameSize, "ZynNativeVideoProcessingGetOutputFrameSize");
    resolve(handle_, path, GetFrameProcessingStats,
            "ZynNativeVideoProcessingGetFrameProcessingStats");
    resolve(handle_, path, Destroy, "ZynNativeVideoProcessingDestroyInstance");
    resolve(handle_, path, Shutdown, "ZynNativeVideoProcessingShutdownInstance");
}

std::string FindLibrary(const std::string& toolFolder) {
    for (const fs::path& candidate :
         {fs::path(toolFolder) / kLibraryName,
          fs::path(toolFolder) / ZYN_LIBDIR_FROM_BINDIR / kLibraryName}) {
        std::error_code ec;
        if (fs::is_regular_file(candidate, ec)) {
            return fs::weakly_canonical(candidate, ec).string();
        }
    }
    return kLibraryName;
}

uint32_t VbgInstance::create(const std::string& json) {
    created_ = true;
    return library_.Create(json.c_str(), &handle_);
}

uint32_t VbgInstance::update(const std::string& json) {
    return library_.Update(&handle_, json.c_str());
}

VbgInstance::~VbgInstance() {
    if (handle_ != nullptr) {
        library_.Destroy(&handle_);
    }
    if (created_) {
        library_.Shutdown();
    }
}

}  // namespace zynvbg
