#include "selection/gpu_lock_file.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "config/config_parser.h"

namespace VBG {
namespace {

// Joined from the folder configured at the moment of the call, both when the file is made and
// when it is removed.
std::filesystem::path LockFilePath() {
    return std::filesystem::u8path(ConfigParser::FileCachePath()) / "gpu_lock_file";
}

}  // namespace

GpuLockFile::GpuLockFile() {
    std::ofstream file(LockFilePath(), std::ios::out | std::ios::trunc);
    file << "GPU lock file!" << std::endl;
}

GpuLockFile::~GpuLockFile() {
    std::error_code ignored;
    std::filesystem::remove(LockFilePath(), ignored);
}

std::unique_ptr<GpuLockFile> CreateGpuLockFile() {
    return std::make_unique<GpuLockFile>();
}

}  // namespace VBG
