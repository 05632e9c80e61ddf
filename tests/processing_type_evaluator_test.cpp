// The processing-type evaluation with stand-in evaluator programs: which programs are started, in
// which order, with which arguments and streams, and how their ends are read.
#include "selection/processing_type_evaluator.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "selection/processing_type_evaluator_limits.h"
#include "support/evaluator_stand_in.h"
#include "support/log_capture.h"

using VBG::ProcessingTypeEvaluator;
using zyn_test::EvaluationFolders;
using zyn_test::EvaluatorStandIn;
using zyn_test::LogCapture;
using namespace std::chrono_literals;

namespace {

const std::vector<std::string> kAutomaticOrderNames = {
    "OpenVinoGpuPPGPU", "OnnxRuntimeDMLPPGPU", "OpenVinoCpuPPGPU", "OpenVinoCpu", "OnnxRuntimeCpu"};

class EvaluatorTest : public ::testing::Test {
  protected:
    void SetUp() override { folders().removeSelection(); }
    void TearDown() override {
        VBG::ResetEvaluatorLimitsForTesting();
        folders().removeSelection();
    }

    static const EvaluationFolders& folders() { return EvaluationFolders::Get(); }

    static void useProgram(const std::string& program,
                           std::chrono::milliseconds evaluatorRun = 60s) {
        VBG::EvaluatorLimits limits;
        limits.programPath = program;
        limits.evaluatorRun = evaluatorRun;
        VBG::SetEvaluatorLimitsForTesting(limits);
    }

    static std::string failureMessage(int code, const std::string& type) {
        return "VBG eval failed, process return code: " + std::to_string(code) +
               " for processing type: " + type;
    }

    static std::string quotedCommandLine(const std::string& type) {
        return "\"" + type + "\" \"" + folders().models().string() + "/model.winml\" \"" +
               folders().logs().string() + "\" \"" + folders().cache().string() + "\"";
    }
};

// ---- Whether the evaluation runs at all -----------------------------------------------------

TEST_F(EvaluatorTest, FreshSelectionStartsNoProcess) {
    EvaluatorStandIn standIn("exit 0");
    useProgram(standIn.program());
    // A fresh selection is used whatever it names, even a type that is not known.
    for (const std::string name : {"OnnxRuntimeCpu", "NoSuchType"}) {
        SCOPED_TRACE(name);
        folders().storeSelectionAged(name, 720h);
        LogCapture log;
        ProcessingTypeEvaluator::EvaluateInternal();
        EXPECT_TRUE(standIn.calls().empty());
        EXPECT_EQ(log.countContaining("Launching VBG eval process"), 0u) << log.dump();
        EXPECT_FALSE(ProcessingTypeEvaluator::IsEvaluationRunning());
    }
}

TEST_F(EvaluatorTest, MissingExpiredOrUnreadableSelectionRunsTheFirstTypeAndStopsAtSuccess) {
    struct Case {
        const char* what;
        std::function<void()> prepare;
    };
    const std::vector<Case> cases = {
        {"missing", [] { folders().removeSelection(); }},
        {"expired", [] { folders().storeSelectionAged("OnnxRuntimeCpu", 721h); }},
        {"unreadable time", [] { folders().storeSelection("OnnxRuntimeCpu", "soon"); }},
        {"not JSON", [] { zyn_test::WriteFile(folders().selectionFile(), "{\"selected"); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EvaluatorStandIn standIn("exit 0");
        useProgram(standIn.program());
        c.prepare();
        LogCapture log;
        ProcessingTypeEvaluator::EvaluateInternal();
        EXPECT_EQ(standIn.calls(), std::vector<std::string>{"OpenVinoGpuPPGPU"});
        EXPECT_EQ(log.countContaining("VBG eval failed"), 0u) << log.dump();
        EXPECT_FALSE(ProcessingTypeEvaluator::IsEvaluationRunning());
    }
}

// ---- The walk through the automatic order ---------------------------------------------------

TEST_F(EvaluatorTest, EveryTypeFailingStartsFiveProcessesInOrderAndLogsEachFailure) {
    EvaluatorStandIn standIn("exit 1");
    useProgram(standIn.program());
    LogCapture log;
    ProcessingTypeEvaluator::EvaluateInternal();

    EXPECT_EQ(standIn.calls(), kAutomaticOrderNames);
    for (const std::string& type : kAutomaticOrderNames) {
        EXPECT_TRUE(log.has(spdlog::level::err, failureMessage(1, type))) << type << log.dump();
    }
    EXPECT_EQ(log.countContaining(" for processing type: "), 5u);
    EXPECT_TRUE(log.has(spdlog::level::err, "VBG eval failed, process return code: 1"));
    EXPECT_EQ(log.countContaining("Launching VBG eval process"), 5u);
    EXPECT_FALSE(ProcessingTypeEvaluator::IsEvaluationRunning());
}

TEST_F(EvaluatorTest, WalkStopsAtTheFirstTypeThatWorks) {
    // Only OpenVinoCpu works; the last code before it is what each failure reports.
    EvaluatorStandIn standIn("[ \"$1\" = OpenVinoCpu ] && exit 0\nexit 3");
    useProgram(standIn.program());
    LogCapture log;
    ProcessingTypeEvaluator::EvaluateInternal();

    EXPECT_EQ(standIn.calls(), std::vector<std::string>(kAutomaticOrderNames.begin(),
                                                        kAutomaticOrderNames.begin() + 4));
    EXPECT_EQ(log.countContaining(" for processing type: "), 3u) << log.dump();
    EXPECT_TRUE(log.contains(failureMessage(3, "OpenVinoCpuPPGPU")));
    EXPECT_EQ(log.count("VBG eval failed, process return code: 3"), 0u);
}

TEST_F(EvaluatorTest, CrashingEvaluatorCountsAsFailedType) {
    EvaluatorStandIn standIn("[ \"$1\" = OpenVinoGpuPPGPU ] && kill -SEGV $$\nexit 0");
    useProgram(standIn.program());
    LogCapture log;
    ProcessingTypeEvaluator::EvaluateInternal();

    EXPECT_EQ(standIn.calls(),
              (std::vector<std::string>{"OpenVinoGpuPPGPU", "OnnxRuntimeDMLPPGPU"}));
    EXPECT_TRUE(log.has(spdlog::level::err, failureMessage(128 + SIGSEGV, "OpenVinoGpuPPGPU")))
        << log.dump();
}

TEST_F(EvaluatorTest, MissingEvaluatorFailsEveryTypeWithLaunchFailure) {
    zyn_test::TempDir empty("zyn-no-evaluator");
    const std::string program = (empty.path() / "EvalVBGProcessingType").string();
    useProgram(program);
    LogCapture log;
    ProcessingTypeEvaluator::EvaluateInternal();

    for (const std::string& type : kAutomaticOrderNames) {
        EXPECT_TRUE(log.has(spdlog::level::err, failureMessage(-3, type))) << type;
        EXPECT_TRUE(log.has(spdlog::level::err,
                            "VBG eval process launch failed, error code: 2, process: " + program +
                                ", command line: " + quotedCommandLine(type)))
            << log.dump();
    }
    EXPECT_TRUE(log.has(spdlog::level::err, "VBG eval failed, process return code: -3"));
    EXPECT_FALSE(std::filesystem::exists(folders().selectionFile()));
}

// ---- One evaluator process ------------------------------------------------------------------

TEST_F(EvaluatorTest, CommandLineRecordAndArgumentsCarryTheFourValues) {
    EvaluatorStandIn standIn("exit 0");
    useProgram(standIn.program());
    LogCapture log;
    EXPECT_EQ(ProcessingTypeEvaluator::LaunchEvaluator(VBG::PtOpenVinoCpu), 0);

    // Four double-quoted values separated by single blanks, the model file joined with "/".
    const std::string commandLine = "\"OpenVinoCpu\" \"" + folders().models().string() +
                                    "/model.winml\" \"" + folders().logs().string() + "\" \"" +
                                    folders().cache().string() + "\"";
    EXPECT_EQ(ProcessingTypeEvaluator::CommandLine(VBG::PtOpenVinoCpu), commandLine);
    EXPECT_TRUE(
        log.has(spdlog::level::warn, "Launching VBG eval process, process: " + standIn.program() +
                                         ", command line: " + commandLine))
        << log.dump();
    EXPECT_EQ(
        standIn.argvLines(),
        (std::vector<std::string>{
            "argc=4", "arg=OpenVinoCpu", "arg=" + (folders().models() / "model.winml").string(),
            "arg=" + folders().logs().string(), "arg=" + folders().cache().string()}));
}

TEST_F(EvaluatorTest, EvaluatorGetsNullStreamsNoHostDescriptorsNoBlockedSignalsAndItsOwnSession) {
    // Everything is read by the shell itself (built-ins and expansions), before any redirection or
    // child process could change what it sees.
    EvaluatorStandIn standIn(
        "out=\"$(dirname \"$0\")\"\n"
        "s0=$(readlink /proc/$$/fd/0); s1=$(readlink /proc/$$/fd/1); s2=$(readlink "
        "/proc/$$/fd/2)\n"
        "leaked=no; [ -e /proc/$$/fd/47 ] && leaked=yes\n"
        "mask=; while read -r key value; do [ \"$key\" = SigBlk: ] && mask=$value; done < "
        "/proc/$$/status\n"
        "read -r stat < /proc/$$/stat; set -- $stat\n"
        "printf '%s\\n' \"$s0\" \"$s1\" \"$s2\" \"$leaked\" \"$mask\" \"$6\" \"$$\" > "
        "\"$out/report.txt\"\n"
        "exit 0");
    useProgram(standIn.program());

    // A descriptor the host opened without close-on-exec, and a signal it blocks.
    const int hostFile = ::open("/dev/zero", O_RDONLY);
    ASSERT_GE(hostFile, 0);
    ASSERT_EQ(::dup2(hostFile, 47), 47);
    sigset_t blocked, previous;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);

    const int code = ProcessingTypeEvaluator::LaunchEvaluator(VBG::PtOnnxRuntimeCpu);

    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    ::close(47);
    ::close(hostFile);

    ASSERT_EQ(code, 0);
    const std::vector<std::string> report = zyn_test::ReadLines(standIn.dir() / "report.txt");
    ASSERT_EQ(report.size(), 7u);
    EXPECT_EQ(report[0], "/dev/null");
    EXPECT_EQ(report[1], "/dev/null");
    EXPECT_EQ(report[2], "/dev/null");
    EXPECT_EQ(report[3], "no") << "a descriptor of the host reached the evaluator";
    EXPECT_EQ(report[4], "0000000000000000") << "signals blocked in the evaluator";
    EXPECT_EQ(report[5], report[6]) << "the evaluator does not lead a session of its own";
}

TEST_F(EvaluatorTest, ExitStatusIsTheResultAndASignalCountsAs128Plus) {
    EvaluatorStandIn exits("exit 42");
    useProgram(exits.program());
    EXPECT_EQ(ProcessingTypeEvaluator::LaunchEvaluator(VBG::PtOnnxRuntimeCpu), 42);

    EvaluatorStandIn aborts("kill -ABRT $$");
    useProgram(aborts.program());
    EXPECT_EQ(ProcessingTypeEvaluator::LaunchEvaluator(VBG::PtOnnxRuntimeCpu), 128 + SIGABRT);
}

TEST_F(EvaluatorTest, ProgramThatCannotBeExecutedIsALaunchFailure) {
    zyn_test::TempDir dir("zyn-not-executable");
    const std::filesystem::path program = dir.path() / "EvalVBGProcessingType";
    zyn_test::WriteFile(program, "#!/bin/sh\nexit 0\n");
    ::chmod(program.c_str(), 0644);
    useProgram(program.string());
    LogCapture log;
    EXPECT_EQ(ProcessingTypeEvaluator::LaunchEvaluator(VBG::PtOpenVinoCpu),
              ProcessingTypeEvaluator::kLaunchFailed);
    EXPECT_TRUE(log.has(spdlog::level::err,
                        "VBG eval process launch failed, error code: " + std::to_string(EACCES) +
                            ", process: " + program.string() +
                            ", command line: " + quotedCommandLine("OpenVinoCpu")))
        << log.dump();
}

TEST_F(EvaluatorTest, HostThatIgnoresChildSignalsGetsTheResultFromTheStoredSelection) {
    // With SIGCHLD ignored the system reaps children itself and their status cannot be read: an
    // evaluator that stored its type worked, one that did not failed.
    struct sigaction ignore {};
    struct sigaction previous {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    const struct {
        const char* behaviour;
        int code;
    } cases[] = {{"exit 0", ProcessingTypeEvaluator::kLaunchFailed},
                 {"printf '{\"selected_processing_type\": \"%s\", \"selected_processing_time\": "
                  "\"%s\"}' \"$1\" \"$(date +%s)\" > \"$4/PT_CONFIG.json\"\nexit 0",
                  0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.behaviour);
        folders().removeSelection();
        EvaluatorStandIn standIn(c.behaviour);
        useProgram(standIn.program());
        ASSERT_EQ(::sigaction(SIGCHLD, &ignore, &previous), 0);
        LogCapture log;
        const int code = ProcessingTypeEvaluator::LaunchEvaluator(VBG::PtOpenVinoCpu);
        ::sigaction(SIGCHLD, &previous, nullptr);

        EXPECT_EQ(code, c.code);
        EXPECT_EQ(log.has(spdlog::level::err,
                          "GetExitCodeProcess failed: error code: " + std::to_string(ECHILD)),
                  c.code != 0)
            << log.dump();
        EXPECT_EQ(standIn.calls(), std::vector<std::string>{"OpenVinoCpu"});
    }
}

namespace {
char processState(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    return close == std::string::npos || close + 2 >= text.size() ? '\0' : text[close + 2];
}
}  // namespace

TEST_F(EvaluatorTest, HungEvaluatorIsKilledWithWhatItStartedAndReaped) {
    EvaluatorStandIn standIn(
        "sleep 60 &\necho $! > \"$(dirname \"$0\")/child.txt\"\necho $$ > \"$(dirname "
        "\"$0\")/pid.txt\"\nexec sleep 60");
    useProgram(standIn.program(), 300ms);
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    const int code = ProcessingTypeEvaluator::LaunchEvaluator(VBG::PtOpenVinoCpu);
    const auto waited = std::chrono::steady_clock::now() - start;

    EXPECT_EQ(code, ProcessingTypeEvaluator::kStillRunning);
    EXPECT_GE(waited, 300ms);
    EXPECT_LT(waited, 10s);
    EXPECT_TRUE(log.has(spdlog::level::err,
                        "VBG eval process is still running, possible race condition or deadlock"))
        << log.dump();

    // The evaluator is gone and reaped; what it started runs no more (it may wait as a zombie
    // for whichever process adopted it).
    const std::vector<std::string> pid = zyn_test::ReadLines(standIn.dir() / "pid.txt");
    const std::vector<std::string> child = zyn_test::ReadLines(standIn.dir() / "child.txt");
    ASSERT_EQ(pid.size(), 1u);
    ASSERT_EQ(child.size(), 1u);
    EXPECT_EQ(processState(std::stoi(pid[0])), '\0') << "evaluator process was not reaped";
    const pid_t childPid = std::stoi(child[0]);
    const auto childRuns = [childPid] {
        const char state = processState(childPid);
        return state != '\0' && state != 'Z';
    };
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (childRuns() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_FALSE(childRuns()) << "what the evaluator started still runs";
    if (childRuns()) {
        ::kill(childPid, SIGKILL);
    }
}

TEST_F(EvaluatorTest, HungEvaluatorCountsAsFailedAndTheNextTypeIsTried) {
    EvaluatorStandIn standIn(
        "if [ \"$1\" = OpenVinoGpuPPGPU ]; then echo $$ > \"$(dirname \"$0\")/pid.txt\"; exec "
        "sleep 60; fi\nexit 0");
    useProgram(standIn.program(), 200ms);
    LogCapture log;
    ProcessingTypeEvaluator::EvaluateInternal();

    const std::vector<std::string> pidLines = zyn_test::ReadLines(standIn.dir() / "pid.txt");
    if (!pidLines.empty()) {
        ::kill(std::stoi(pidLines[0]), SIGKILL);
    }
    EXPECT_EQ(standIn.calls(),
              (std::vector<std::string>{"OpenVinoGpuPPGPU", "OnnxRuntimeDMLPPGPU"}));
    EXPECT_TRUE(log.has(spdlog::level::err, failureMessage(-4, "OpenVinoGpuPPGPU"))) << log.dump();
}

}  // namespace
