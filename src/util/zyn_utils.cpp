#include "util/zyn_utils.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <sstream>

#include "util/log.h"
#include "zyn_version.h"

namespace VBG::Utils {

std::string GetAssetFullPath(const std::string& folder) {
    // The log file name is appended with the platform separator; an empty folder gives the bare
    // file name, relative to the current folder.
    std::filesystem::path path(folder);
    path /= "ZYNNativeVBG.log";
    return path.string();
}

ZynNativeVersion ParseProductVersion(const std::string& text) {
    ZynNativeVersion version{};
    uint32_t* parts[4] = {&version.major, &version.minor, &version.build, &version.revision};
    std::stringstream stream(text);
    std::string part;
    for (auto* out : parts) {
        if (!std::getline(stream, part, '.')) {
            throw std::invalid_argument("stoi");
        }
        *out = static_cast<uint32_t>(std::stoi(part));
    }
    return version;
}

bool GetProductAndVersion(std::string& productName, std::string& productVersion,
                          ZynNativeVersion& version) {
    if (GetLibraryFolder().empty()) {
        ZLOG_ERROR("VBG::Utils::GetProductAndVersion", "GetModuleFileName failed with error {}",
                   errno);
        return false;
    }
    productName = ZYN_PRODUCT_NAME;
    productVersion = ZYN_PRODUCT_VERSION;
    version = ParseProductVersion(productVersion);
    return true;
}

int32_t processException(const HResultError& error, const std::string& prefix) {
    ZLOG_ERROR("VBG::Utils::processException", fmt::runtime(prefix + " HR:{0:X} , message: {1}"),
               static_cast<uint32_t>(error.code()), error.what());
    return error.code();
}

std::string GetLibraryFolder() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&GetLibraryFolder), &info) == 0 ||
        info.dli_fname == nullptr) {
        return {};
    }
    std::error_code ec;
    auto path = std::filesystem::weakly_canonical(info.dli_fname, ec);
    if (ec) {
        path = info.dli_fname;
    }
    return path.parent_path().string();
}

uint64_t ProcessId() {
    return static_cast<uint64_t>(getpid());
}

uint64_t ThreadId() {
    return static_cast<uint64_t>(syscall(SYS_gettid));
}

void DebugOutput(const std::string& text) {
    std::fprintf(stderr, "%s\n", text.c_str());
    std::fflush(stderr);
}

}  // namespace VBG::Utils
