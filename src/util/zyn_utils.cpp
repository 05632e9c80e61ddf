#include "util/zyn_utils.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <sstream>

#include "util/log.h"
#include "zyn_install_layout.h"
#include "zyn_version.h"

namespace VBG::Utils {
namespace {

// The folder of the file this code was loaded from, as an absolute path. A library loaded by a
// relative path is named relative to the current folder of that moment, so this runs while the
// library is being loaded (see the constructor below) and its answer is kept for the life of the
// process: a host that changes its current folder later does not move the evaluator program or
// OpenVINO's plugin list. Linked into a program, the code's file is the program itself.
std::string ResolveLibraryFolder() {
    Dl_info info{};
    link_map* map = nullptr;
    if (dladdr1(reinterpret_cast<void*>(&ResolveLibraryFolder), &info,
                reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0) {
        return {};
    }
    // The main program's entry has no name (dladdr would give argv[0]).
    const bool inProgram = map == nullptr || map->l_name == nullptr || map->l_name[0] == '\0';
    std::error_code ec;
    const auto file = std::filesystem::canonical(inProgram ? "/proc/self/exe" : map->l_name, ec);
    return ec ? std::string() : file.parent_path().string();
}

const std::string& LibraryFolder() {
    static const std::string folder = ResolveLibraryFolder();
    return folder;
}

__attribute__((constructor)) void ResolveLibraryFolderAtLoad() {
    LibraryFolder();
}

}  // namespace

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
    return LibraryFolder();
}

std::string LibraryCompanionPath(const std::string& fileName, Companion where,
                                 std::string* besideLibrary) {
    const std::filesystem::path folder = std::filesystem::u8path(LibraryFolder());
    const std::filesystem::path beside = folder / fileName;
    if (besideLibrary != nullptr) {
        *besideLibrary = beside.u8string();
    }
    if (folder.empty()) {
        return {};
    }
    std::error_code ec;
    if (std::filesystem::exists(beside, ec)) {
        return beside.u8string();
    }
    const char* relative =
        where == Companion::Program ? ZYN_LIBEXEC_FROM_LIBDIR : ZYN_PRIVATE_FROM_LIBDIR;
    return (folder / relative / fileName).lexically_normal().u8string();
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
