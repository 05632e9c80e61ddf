// Exit codes of zynvbg and the error that carries one up to main().
#pragma once

#include <stdexcept>
#include <string>

namespace zynvbg {

enum ExitCode : int {
    kExitOk = 0,
    kExitBadArguments = 2,
    kExitUnreadableInput = 3,
    kExitLibraryFailure = 4,
    kExitOutputFailure = 5,
};

// A failure the tool reports as one line on stderr and an exit code.
class ToolError : public std::runtime_error {
  public:
    ToolError(ExitCode code, const std::string& message)
        : std::runtime_error(message), code_(code) {}
    ExitCode code() const { return code_; }

  private:
    ExitCode code_;
};

}  // namespace zynvbg
