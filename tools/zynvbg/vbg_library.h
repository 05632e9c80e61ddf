// libZYNNativeVBG.so loaded at run time and reached only through its exported functions, as a
// conferencing host reaches it.
#pragma once

#include <string>

#include "zyn_native_vbg.h"

namespace zynvbg {

class VbgLibrary {
  public:
    // Loads the library from `path`. Throws ToolError(kExitLibraryFailure) when it cannot be
    // loaded or lacks an export the tool calls.
    explicit VbgLibrary(const std::string& path);
    // The library is never unloaded: its logger and evaluation threads live until the process
    // ends, and their code must stay mapped.
    ~VbgLibrary() = default;
    VbgLibrary(const VbgLibrary&) = delete;
    VbgLibrary& operator=(const VbgLibrary&) = delete;

    const std::string& path() const { return path_; }

    decltype(&::ZynNativeVideoProcessingInit) Init = nullptr;
    decltype(&::ZynNativeVbgGetVersion) GetVersion = nullptr;
    decltype(&::ZynNativeVideoProcessingCreateInstance) Create = nullptr;
    decltype(&::ZynNativeVideoProcessingUpdateInstance) Update = nullptr;
    decltype(&::ZynNativeVideoProcessingProcessFrame) ProcessFrame = nullptr;
    decltype(&::ZynNativeVideoProcessingProcessPresentationFrame) ProcessPresentationFrame =
        nullptr;
    decltype(&::ZynNativeVideoProcessingGetOutputFrameSize) GetOutputFrameSize = nullptr;
    decltype(&::ZynNativeVideoProcessingGetFrameProcessingStats) GetFrameProcessingStats = nullptr;
    decltype(&::ZynNativeVideoProcessingDestroyInstance) Destroy = nullptr;
    decltype(&::ZynNativeVideoProcessingShutdownInstance) Shutdown = nullptr;

  private:
    std::string path_;
    void* handle_ = nullptr;
};

// Where the library is looked for when --library is not given: beside the tool (the build tree),
// in the installed library folder relative to the tool, then the system's library search path.
std::string FindLibrary(const std::string& toolFolder);

// One effect instance; destroyed (and the library shut down) when the object goes away.
class VbgInstance {
  public:
    explicit VbgInstance(VbgLibrary& library) : library_(library) {}
    ~VbgInstance();
    VbgInstance(const VbgInstance&) = delete;
    VbgInstance& operator=(const VbgInstance&) = delete;

    // ZynNativeVideoProcessingCreateInstance; returns the status (the handle may stay null).
    uint32_t create(const std::string& json);
    // ZynNativeVideoProcessingUpdateInstance; a failed update leaves no instance.
    uint32_t update(const std::string& json);
    bool alive() const { return handle_ != nullptr; }
    ZynNativeHandle* handle() { return &handle_; }

  private:
    VbgLibrary& library_;
    ZynNativeHandle handle_ = nullptr;
    bool created_ = false;
};

}  // namespace zynvbg
