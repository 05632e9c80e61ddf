#include "selection/gpu_lock_file.h"

#include <fcntl.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "config/config_parser.h"
#include "util/file_access.h"

namespace VBG {
namespace {

// Joined from the folder configured at the moment of the call, both when the file is made and
// when it is removed.
std::filesystem::path LockFilePath() {
    return std::filesystem::u8path(ConfigParser::FileCachePath()) / "gpu_lock_file";
}

}  // namespace

GpuLockFile::GpuLockFile() {
    // Owner-only and never through a link; failures are ignored, the file is only a marker.
    static constexpr char kText[] = "GPU lock file!\n";
    std::string why;
    const Files::UniqueFd fd = Files::CreateOwnerOnly(LockFilePath().u8string(), O_TRUNC, why);
    if (fd) {
        (void)Files::WriteAll(fd.get(), kText, sizeof kText - 1);
    }
}

GpuLockFile::~GpuLockFile() {
    std::error_code ignored;
    std::filesystem::remove(LockFilePath(), ignored);
}

std::unique_ptr<GpuLockFile> CreateGpuLockFile() {
    return std::make_unique<GpuLockFile>();
}

}  // namespace VBG
