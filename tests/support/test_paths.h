// Paths the tests need: the source tree, the built library, the models, and fresh scratch folders.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace zyn_test {

std::filesystem::path LibraryPath();    // the built libZYNNativeVBG.so
std::filesystem::path TestModelsDir();  // tests/models (small generated models)
std::filesystem::path RealModelsDir();  // .deps/models (the converted segmentation models)
std::filesystem::path SampleImage(const std::string& name);  // Debian's skimage pictures

// A new empty folder under the system temporary folder, removed by the destructor.
class TempDir {
  public:
    explicit TempDir(const std::string& tag = "zyn");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::string str() const { return path_.string(); }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

void WriteFile(const std::filesystem::path& path, const std::string& text);  // replaces the file
std::string ReadFile(const std::filesystem::path& path);
unsigned PermissionBits(const std::filesystem::path& path);  // 0600 for owner read-write

// Makes a FIFO at `path` and runs `body`, which may read it. False when `body` was still running
// after two seconds (blocked on the FIFO): it is then released by opening the writing end, so that
// a faulty reader fails its test instead of hanging the suite.
bool RunsWithoutBlockingOnFifo(const std::filesystem::path& path,
                               const std::function<void()>& body);

// Polls `condition` every millisecond until it holds or `timeout` passes; returns its last value.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

}  // namespace zyn_test
