// The evaluation thread against the threads that wait for it: the end wakes every waiter, a waiter
// that comes after the end returns at once, and one library start runs one evaluation.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "selection/processing_type_evaluator.h"
#include "selection/processing_type_evaluator_limits.h"
#include "support/evaluator_stand_in.h"
#include "support/log_capture.h"

using VBG::ProcessingTypeEvaluator;
using zyn_test::EvaluationFolders;
using zyn_test::EvaluatorStandIn;
using zyn_test::LogCapture;
using namespace std::chrono_literals;

namespace {

class EvaluationWaitTest : public ::testing::Test {
  protected:
    void SetUp() override { folders().removeSelection(); }
    void TearDown() override {
        // Leave no evaluation behind for the next test.
        waitUntilNotRunning();
        VBG::ResetEvaluatorLimitsForTesting();
        folders().removeSelection();
    }

    static const EvaluationFolders& folders() { return EvaluationFolders::Get(); }

    static void useProgram(const std::string& program, std::chrono::milliseconds completionWait) {
        VBG::EvaluatorLimits limits;
        limits.programPath = program;
        limits.completionWait = completionWait;
        limits.evaluatorRun = 60s;
        VBG::SetEvaluatorLimitsForTesting(limits);
    }

    static bool waitUntilNotRunning(std::chrono::seconds limit = 30s) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (ProcessingTypeEvaluator::IsEvaluationRunning()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::sleep_for(5ms);
        }
        return true;
    }
};

TEST_F(EvaluationWaitTest, EveryWaiterIsWokenWithTrueWhenTheEvaluationEnds) {
    zyn_test::TempDir control("zyn-control");
    const std::filesystem::path release = control.path() / "release";
    EvaluatorStandIn standIn(zyn_test::HeldOpenUntil(release, "exit 0"));
    useProgram(standIn.program(), 60s);

    ProcessingTypeEvaluator::StartEvaluation();
    // Running from the moment the start returns, before the thread has done anything.
    EXPECT_TRUE(ProcessingTypeEvaluator::IsEvaluationRunning());

    constexpr int kWaiters = 3;
    std::vector<std::atomic<long>> tids(kWaiters);
    std::vector<std::future<bool>> results;
    for (int i = 0; i < kWaiters; ++i) {
        tids[i] = 0;
        results.push_back(std::async(std::launch::async, [&tids, i] {
            tids[i] = zyn_test::CurrentThreadId();
            return ProcessingTypeEvaluator::WaitForEvaluationToComplete();
        }));
    }
    // End the evaluation only once every waiter is blocked in its wait.
    for (int i = 0; i < kWaiters; ++i) {
        while (tids[i] == 0) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(zyn_test::WaitUntilThreadSleeps(tids[i], 20s));
    }
    EXPECT_TRUE(ProcessingTypeEvaluator::IsEvaluationRunning());
    zyn_test::WriteFile(release, "");

    for (auto& result : results) {
        ASSERT_EQ(result.wait_for(30s), std::future_status::ready);
        EXPECT_TRUE(result.get());
    }
    EXPECT_FALSE(ProcessingTypeEvaluator::IsEvaluationRunning());
    EXPECT_EQ(standIn.calls(), std::vector<std::string>{"OpenVinoGpuPPGPU"});
}

TEST_F(EvaluationWaitTest, WaiterThatComesAfterTheEndReturnsTrueAtOnce) {
    // An automatic create that saw the evaluation running and begins its wait just after the end
    // was signalled must not sit out the whole wait.
    EvaluatorStandIn standIn("exit 0");
    useProgram(standIn.program(), 60s);
    ProcessingTypeEvaluator::StartEvaluation();
    ASSERT_TRUE(waitUntilNotRunning());
    ASSERT_EQ(standIn.calls().size(), 1u);

    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(ProcessingTypeEvaluator::WaitForEvaluationToComplete());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_FALSE(log.contains("Evaluation thread timeout occured")) << log.dump();
}

TEST_F(EvaluationWaitTest, SecondStartWhileRunningRunsNoSecondEvaluation) {
    zyn_test::TempDir control("zyn-control");
    const std::filesystem::path release = control.path() / "release";
    EvaluatorStandIn standIn(zyn_test::HeldOpenUntil(release, "exit 0"));
    useProgram(standIn.program(), 60s);

    LogCapture log;
    ProcessingTypeEvaluator::StartEvaluation();
    ProcessingTypeEvaluator::StartEvaluation();
    EXPECT_TRUE(log.contains("Processing type evaluation is already running")) << log.dump();
    zyn_test::WriteFile(release, "");
    ASSERT_TRUE(waitUntilNotRunning());
    EXPECT_EQ(standIn.calls(), std::vector<std::string>{"OpenVinoGpuPPGPU"});
}

TEST_F(EvaluationWaitTest, StartWithAFreshSelectionEndsAtOnceWithoutAProcess) {
    EvaluatorStandIn standIn("exit 0");
    useProgram(standIn.program(), 60s);
    folders().storeSelectionAged("OpenVinoCpu", 1h);

    ProcessingTypeEvaluator::StartEvaluation();
    ASSERT_TRUE(waitUntilNotRunning());
    EXPECT_TRUE(standIn.calls().empty());
}

}  // namespace
