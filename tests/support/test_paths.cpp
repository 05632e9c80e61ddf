#include "support/test_paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <stdexcept>
#include <thread>

namespace zyn_test {

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

unsigned PermissionBits(const std::filesystem::path& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        throw std::runtime_error("cannot stat " + path.string());
    }
    return st.st_mode & 07777;
}

bool RunsWithoutBlockingOnFifo(const std::filesystem::path& path,
                               const std::function<void()>& body) {
    if (::mkfifo(path.c_str(), 0600) != 0) {
        throw std::runtime_error("cannot make the FIFO " + path.string());
    }
    auto run = std::async(std::launch::async, body);
    if (run.wait_for(std::chrono::seconds(2)) == std::future_status::ready) {
        run.get();
        return true;
    }
    // A writer that opens and closes at once gives a blocked reader the end of the file.
    while (run.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) {
            ::close(fd);
        }
    }
    run.get();
    return false;
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    bool holds = false;
    while (!(holds = condition()) && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return holds;
}

}  // namespace zyn_test
