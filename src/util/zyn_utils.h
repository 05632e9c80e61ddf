// Small services used across the library: the log file path, the product name and version, the
// library's own folder, process and thread ids, and the reporting of platform runtime errors.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "zyn_native_vbg.h"

namespace VBG {

// A runtime error that carries a 32-bit result code (HRESULT style), as raised by the renderer and
// platform code and reported through Utils::processException.
class HResultError : public std::runtime_error {
  public:
    HResultError(int32_t code, const std::string& message)
        : std::runtime_error(message), code_(code) {}
    int32_t code() const noexcept { return code_; }

  private:
    int32_t code_;
};

namespace Utils {

// The folder joined with "ZYNNativeVBG.log".
std::string GetAssetFullPath(const std::string& folder);

// Product name and four-part version, fixed at build time. Fills the version record from the
// version text; false (with a log record) when it cannot be read.
bool GetProductAndVersion(std::string& productName, std::string& productVersion,
                          ZynNativeVersion& version);
// Splits "a.b.c.d" into the record; throws std::invalid_argument for a part that is no number.
ZynNativeVersion ParseProductVersion(const std::string& text);

// Logs prefix + " HR:{0:X} , message: {1}" at error level and returns the code.
int32_t processException(const HResultError& error, const std::string& prefix);

// Absolute folder that holds libZYNNativeVBG.so (or the executable the library code is linked
// into), resolved once when the library is loaded; empty when it cannot be found.
std::string GetLibraryFolder();

// A file shipped with the library: beside it in the build tree, else where an installed tree keeps
// it (programs in the project's libexec folder, data in the private runtime folder), both relative
// to the library's folder. Returns the installed place when neither exists. besideLibrary, when
// given, receives the first place looked in. Empty (never a path relative to the current folder)
// when the library's folder is unknown.
enum class Companion { Program, Data };
std::string LibraryCompanionPath(const std::string& fileName, Companion where,
                                 std::string* besideLibrary = nullptr);

uint64_t ProcessId();
uint64_t ThreadId();

// Debugger output of the platform: one line to stderr.
void DebugOutput(const std::string& text);

}  // namespace Utils
}  // namespace VBG
