// The evaluation thread against the threads that wait for it (one start runs one evaluation, whose
// end wakes every waiter; a waiter after the end returns at once) and against process exit.
#include <gtest/gtest.h>

#include <cstdlib>

#include <atomic>
#include <chrono>
#include <ctime>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/evaluator_stand_in.h"
#include "support/log_capture.h"

using VBG::ProcessingTypeEvaluator;
using namespace std::chrono_literals;

namespace {

using EvaluationWaitTest = zyn_test::EvaluationTest;

TEST_F(EvaluationWaitTest, OneEvaluationWhoseEndWakesEveryWaiter) {
    zyn_test::TempDir control("zyn-control");
    const std::filesystem::path release = control.path() / "release";
    zyn_test::EvaluatorStandIn standIn(zyn_test::HeldOpenUntil(release, "exit 0"));
    useProgram(standIn.program());

    zyn_test::LogCapture log;
    ProcessingTypeEvaluator::StartEvaluation();
    // Running from the moment the start returns, before the thread has done anything.
    EXPECT_TRUE(ProcessingTypeEvaluator::IsEvaluationRunning());
    ProcessingTypeEvaluator::StartEvaluation();
    EXPECT_TRUE(log.contains("Processing type evaluation is already running")) << log.dump();

    constexpr int kWaiters = 3;
    std::vector<std::atomic<long>> tids(kWaiters);
    std::vector<std::future<bool>> results;
    for (int i = 0; i < kWaiters; ++i) {
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

    // An automatic create that saw the evaluation running and begins its wait just after the end
    // was signalled must not sit out the whole wait.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(ProcessingTypeEvaluator::WaitForEvaluationToComplete());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_FALSE(log.contains("Evaluation thread timeout occured")) << log.dump();
}

// Exit while the thread walks the order: handlers registered after the library's exit hook (here
// one that holds the exit while evaluators fail) run first; what the thread uses outlives them.
TEST_F(EvaluationWaitTest, ProcessExitWhileTheOrderIsWalkedEndsCleanly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            // The logger, then the hook (by an evaluation that walks nothing), as in a library.
            spdlog::default_logger();
            folders().storeSelection("OnnxRuntimeCpu", std::to_string(std::time(nullptr)));
            ProcessingTypeEvaluator::StartEvaluation();
            waitForEvaluationEnd();
            std::atexit([] { std::this_thread::sleep_for(800ms); });
            folders().removeSelection();
            zyn_test::EvaluatorStandIn standIn("sleep 0.1\nexit 1");
            useProgram(standIn.program());
            ProcessingTypeEvaluator::StartEvaluation();
            zyn_test::WaitFor([&] { return !standIn.calls().empty(); }, 20s);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
