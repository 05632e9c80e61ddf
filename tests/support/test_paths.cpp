#include "support/test_paths.h"

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace zyn_test {

std::filesystem::path SourceDir() {
    return ZYN_SOURCE_DIR;
}
std::filesystem::path LibraryPath() {
    return ZYN_LIBRARY_PATH;
}
std::filesystem::path TestModelsDir() {
    return ZYN_TEST_MODELS_DIR;
}
std::filesystem::path RealModelsDir() {
    return ZYN_MODELS_DIR;
}
std::filesystem::path SampleImage(const std::string& name) {
    return std::filesystem::path("/usr/lib/python3/dist-packages/skimage/data") / name;
}

TempDir::TempDir(const std::string& tag) {
    static std::atomic<int> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            (tag + "-" + std::to_string(getpid()) + "-" + std::to_string(counter++));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void WriteFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
    out << text;
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace zyn_test
