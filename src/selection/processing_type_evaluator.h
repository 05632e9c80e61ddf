// The processing-type evaluation: once per library start, a detached thread runs the evaluator
// program "EvalVBGProcessingType" (beside the library when built, in the project's libexec folder
// when installed) for the candidate processing types
// in the automatic order until one works. The program records the verdict in "PT_CONFIG.json" in
// the file cache folder; running it in a process of its own keeps a crash or a hang of an inference
// runtime away from the host. Automatic engine creation waits for the evaluation to end.
#pragma once

#include <cstdint>
#include <string>

#include "selection/processing_type.h"

namespace VBG {

class ProcessingTypeEvaluator {
  public:
    // The library could not start the evaluator, or could not read how it ended.
    static constexpr int32_t kLaunchFailed = -3;
    // The evaluator was still running at its deadline (it was then killed with its process group).
    static constexpr int32_t kStillRunning = -4;

    // Marks the evaluation as started and runs EvaluateInternal on a detached thread. Throws
    // std::system_error when the thread cannot be started. Nothing happens while an evaluation
    // started earlier in this process is still on.
    static void StartEvaluation();

    // The thread body: skips everything when a fresh selection is stored, otherwise runs the
    // evaluator for the automatic order until the first success, then wakes every waiter.
    static void EvaluateInternal();

    // Runs the evaluator for one type and returns its exit status (0 = the type works), 128 + the
    // signal number when it was killed by a signal, kLaunchFailed or kStillRunning.
    static int32_t LaunchEvaluator(ProcessingType type);

    // Blocks until no evaluation is running (at once when none is) or 120 seconds pass; false on
    // timeout.
    static bool WaitForEvaluationToComplete();

    static bool IsEvaluationRunning();

    // The program run for each type: "EvalVBGProcessingType" beside the library, else in the
    // project's libexec folder relative to the library's folder; a log record names both places
    // when neither holds it.
    static std::string EvaluatorProgramPath();

    // The command line as the log records show it: the four arguments, each in double quotes,
    // separated by single spaces.
    static std::string CommandLine(ProcessingType type);
};

}  // namespace VBG
