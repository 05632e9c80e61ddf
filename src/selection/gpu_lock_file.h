// The GPU lock file: a marker file in the file cache folder that exists while an OpenVINO GPU model
// is being loaded. The library never reads it; a file left behind after a crash is the sign that
// such a load did not finish.
#pragma once

#include <memory>

namespace VBG {

// Owns the lock file while alive; the destructor deletes it.
class GpuLockFile {
  public:
    GpuLockFile();
    ~GpuLockFile();
    GpuLockFile(const GpuLockFile&) = delete;
    GpuLockFile& operator=(const GpuLockFile&) = delete;
};

// Creates (or truncates) fileCachePath/gpu_lock_file with the text "GPU lock file!" and a line end.
// Failures to open or write are ignored, like the deletion when the lock is released.
std::unique_ptr<GpuLockFile> CreateGpuLockFile();

}  // namespace VBG
