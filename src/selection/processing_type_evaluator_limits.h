// Replaceable limits of the processing-type evaluation. The library always runs with the shipped
// values; only the test suites replace them, to use stand-in evaluator programs and short waits.
#pragma once

#include <chrono>
#include <string>

namespace VBG {

struct EvaluatorLimits {
    // How long automatic engine creation waits for the evaluation to end.
    std::chrono::milliseconds completionWait{std::chrono::seconds(120)};
    // How long one evaluator process may run before it is killed and counted as failed.
    std::chrono::milliseconds evaluatorRun{std::chrono::seconds(300)};
    // The program to run; empty means the one installed beside the library.
    std::string programPath;
};

void SetEvaluatorLimitsForTesting(const EvaluatorLimits& limits);
void ResetEvaluatorLimitsForTesting();

}  // namespace VBG
