#include "selection/processing_type_evaluator.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "config/config_parser.h"
#include "selection/processing_type_evaluator_limits.h"
#include "selection/pt_config_init.h"
#include "util/log.h"
#include "util/zyn_utils.h"

extern char** environ;

namespace VBG {
namespace {

constexpr const char* kEvaluatorProgramName = "EvalVBGProcessingType";
// How often a running evaluator is looked at while the library waits for it.
constexpr std::chrono::milliseconds kExitPollInterval{5};

// The process-wide evaluation state. It is never destroyed: the detached evaluation thread may
// still use it while the process exits.
struct EvaluationState {
    // True from the start of an evaluation until its end; cleared under evaluationMutex just before
    // every waiter is woken.
    std::atomic<bool> evaluationRunning{false};
    std::mutex evaluationMutex;
    std::condition_variable evaluationDone;

    std::mutex limitsMutex;
    EvaluatorLimits limits;

    // Process exit: the detached thread must be out of the library's code before the process
    // destroys what it uses (the logger above all). The exit hook raises processExiting and waits
    // for threadActive to fall; the thread checks the flag between its steps and leaves at once,
    // logging nothing more. An evaluator still running then is killed with its process group.
    std::atomic<bool> processExiting{false};
    std::atomic<bool> threadActive{false};
};

EvaluationState& state() {
    static EvaluationState* const instance = new EvaluationState;
    return *instance;
}

EvaluatorLimits currentLimits() {
    std::lock_guard<std::mutex> lock(state().limitsMutex);
    return state().limits;
}

// How long process exit waits for the evaluation thread to leave the library's code.
constexpr std::chrono::milliseconds kExitWait{1000};

bool exiting() {
    return state().processExiting.load();
}

void onProcessExit() {
    state().processExiting.store(true);
    const auto deadline = std::chrono::steady_clock::now() + kExitWait;
    while (state().threadActive.load() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Registered once, after the logger and the stored configuration exist, so that it runs before
// their destruction at exit.
void registerExitHook() {
    static std::once_flag once;
    std::call_once(once, [] { std::atexit(onProcessExit); });
}

void finishEvaluation() {
    std::lock_guard<std::mutex> lock(state().evaluationMutex);
    state().evaluationRunning.exchange(false);
    state().evaluationDone.notify_all();
}

// Whether the stored selection is too old to be used. A stored time that cannot be read counts as
// expired: the evaluation then runs again and the evaluator writes a readable one.
bool selectionExpired(const ProcessingTypeInitializer& initializer) {
    const ProcessingTypeDetails details = initializer.GetSelectedProcessingTypeDetails();
    try {
        return details.isElapsed();
    } catch (const std::exception& e) {
        ZLOG_ERROR("VBG::ProcessingTypeEvaluator::EvaluateInternal",
                   "Stored processing type selection time '{}' cannot be read: {}",
                   details.selectedTime, e.what());
        return true;
    }
}

class SpawnFileActions {
  public:
    SpawnFileActions() { posix_spawn_file_actions_init(&actions_); }
    ~SpawnFileActions() { posix_spawn_file_actions_destroy(&actions_); }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;
    posix_spawn_file_actions_t* get() { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_;
};

class SpawnAttributes {
  public:
    SpawnAttributes() { posix_spawnattr_init(&attributes_); }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    posix_spawnattr_t* get() { return &attributes_; }

  private:
    posix_spawnattr_t attributes_;
};

// Starts `program` with `args` (args[0] is the program name) as a hidden child: standard input,
// output and error on /dev/null, no other descriptor of the host inherited, signal mask and
// dispositions at their defaults, and a session of its own so that no terminal of the host can
// signal it. The environment and the current folder are the host's. Returns 0 or the error code.
int spawnHidden(const std::string& program, const std::vector<std::string>& args, pid_t& pid) {
    SpawnFileActions actions;
    int error =
        posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (error == 0) {
        error = posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, "/dev/null",
                                                 O_WRONLY, 0);
    }
    if (error == 0) {
        error = posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, "/dev/null",
                                                 O_WRONLY, 0);
    }
    if (error == 0) {
        error = posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1);
    }

    SpawnAttributes attributes;
    sigset_t noSignals;
    sigemptyset(&noSignals);
    sigset_t allSignals;
    sigfillset(&allSignals);
    sigdelset(&allSignals, SIGKILL);
    sigdelset(&allSignals, SIGSTOP);
    if (error == 0) {
        error = posix_spawnattr_setsigmask(attributes.get(), &noSignals);
    }
    if (error == 0) {
        error = posix_spawnattr_setsigdefault(attributes.get(), &allSignals);
    }
    if (error == 0) {
        error = posix_spawnattr_setflags(
            attributes.get(), POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    }
    if (error != 0) {
        return error;
    }

    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    return posix_spawn(&pid, program.c_str(), actions.get(), attributes.get(), argv.data(),
                       environ);
}

// A killed evaluator that does not go at once (stuck in the kernel) is reaped by a waiting thread
// of its own whenever it ends, so that no zombie process stays behind in the host.
void reapWhenEnded(pid_t pid) {
    try {
        std::thread([pid] {
            int status = 0;
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
        }).detach();
    } catch (const std::exception& e) {
        ZLOG_ERROR("VBG::ProcessingTypeEvaluator::GetProcessExitCode",
                   "Evaluator process {} cannot be watched and stays unreaped: {}", pid, e.what());
    }
}

// Ends the evaluator's whole process group: the program and whatever it started. The evaluator
// leads a session (and so a group) of its own, whose id stays taken while the evaluator is
// unreaped, so the signal reaches nothing else.
void killGroup(pid_t pid) {
    ::kill(-pid, SIGKILL);
}

// Reaps an evaluator that was just killed: at once as a rule, else later on a thread of its own.
void reapKilled(pid_t pid) {
    constexpr auto kReapWait = std::chrono::seconds(2);
    const auto deadline = std::chrono::steady_clock::now() + kReapWait;
    int status = 0;
    for (;;) {
        const pid_t ended = waitpid(pid, &status, WNOHANG);
        if (ended == pid || (ended < 0 && errno != EINTR)) {
            return;  // reaped, by us or (ECHILD) by the host
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            reapWhenEnded(pid);
            return;
        }
        std::this_thread::sleep_for(kExitPollInterval);
    }
}

// The result of an evaluator that someone else reaped (a host that ignores SIGCHLD, or one that
// waits for any child): its exit status is lost. The evaluator stores a selection only when the
// type works, so a fresh selection naming the type counts as success, anything else as failure.
int32_t resultFromStoredSelection(ProcessingType type) {
    constexpr const char* fn = "VBG::ProcessingTypeEvaluator::GetProcessExitCode";
    const int error = errno;
    bool stored = false;
    try {
        const ProcessingTypeDetails details =
            ProcessingTypeInitializer::GetInstance(ConfigParser::FileCachePath())
                .GetSelectedProcessingTypeDetails();
        stored = details.type == type && !details.isElapsed();
    } catch (const std::exception&) {
        stored = false;  // an unreadable stored time is no selection
    }
    if (stored) {
        ZLOG_INFO(fn,
                  "Exit status of the evaluator cannot be read (error code: {}); it stored {} as "
                  "the selection",
                  error, ProcessingTypeName(type));
        return 0;
    }
    ZLOG_ERROR(fn, "GetExitCodeProcess failed: error code: {}", error);
    return ProcessingTypeEvaluator::kLaunchFailed;
}

// Waits for the child at most `limit` and turns the way it ended into the evaluation result. At the
// deadline, and when the process exits, the evaluator's process group is killed and reaped: no
// evaluator outlives its wait or the host.
int32_t getProcessExitCode(pid_t pid, ProcessingType type, std::chrono::milliseconds limit) {
    constexpr const char* fn = "VBG::ProcessingTypeEvaluator::GetProcessExitCode";
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        // Looks without reaping: while the ended evaluator stays a zombie its group id is ours.
        siginfo_t info{};
        const int rc = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
        if (rc == 0 && info.si_pid == pid) {
            break;
        }
        if (rc < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == ECHILD) {
                return resultFromStoredSelection(type);
            }
            ZLOG_ERROR(fn, "GetExitCodeProcess failed: error code: {}", errno);
            return ProcessingTypeEvaluator::kLaunchFailed;
        }
        if (exiting()) {
            killGroup(pid);
            reapKilled(pid);
            return ProcessingTypeEvaluator::kStillRunning;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            ZLOG_ERROR(fn,
                       "VBG eval process is still running, possible race condition or deadlock");
            killGroup(pid);
            reapKilled(pid);
            return ProcessingTypeEvaluator::kStillRunning;
        }
        std::this_thread::sleep_for(kExitPollInterval);
    }
    // Whatever the evaluator left running in its group goes with it.
    killGroup(pid);
    int status = 0;
    pid_t ended = -1;
    do {
        ended = waitpid(pid, &status, 0);
    } while (ended < 0 && errno == EINTR);
    if (ended < 0) {
        if (errno == ECHILD) {
            return resultFromStoredSelection(type);
        }
        ZLOG_ERROR(fn, "GetExitCodeProcess failed: error code: {}", errno);
        return ProcessingTypeEvaluator::kLaunchFailed;
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        // A crash is a failure of the type, reported the way shells report it.
        return 128 + WTERMSIG(status);
    }
    ZLOG_ERROR(fn, "GetExitCodeProcess failed: error code: {}", status);
    return ProcessingTypeEvaluator::kLaunchFailed;
}

std::string modelFileArgument() {
    return ConfigParser::ModelsPath() + "/model.winml";
}

}  // namespace

void SetEvaluatorLimitsForTesting(const EvaluatorLimits& limits) {
    std::lock_guard<std::mutex> lock(state().limitsMutex);
    state().limits = limits;
}

void ResetEvaluatorLimitsForTesting() {
    SetEvaluatorLimitsForTesting(EvaluatorLimits{});
}

void ProcessingTypeEvaluator::StartEvaluation() {
    // The evaluation counts as running from here, not from the first line of the thread, so that
    // an automatic create right after the library start waits for it instead of finding nothing.
    if (state().evaluationRunning.exchange(true)) {
        ZLOG_INFO("VBG::ProcessingTypeEvaluator::StartEvaluation",
                  "Processing type evaluation is already running");
        return;
    }
    // The selection reader is made here, before the exit hook, so that it outlives the hook.
    (void)ProcessingTypeInitializer::GetInstance(ConfigParser::FileCachePath());
    registerExitHook();
    state().threadActive.store(true);
    try {
        std::thread([] {
            if (!exiting()) {
                EvaluateInternal();
            }
            state().threadActive.store(false);
        }).detach();
    } catch (...) {
        state().threadActive.store(false);
        finishEvaluation();
        throw;
    }
}

void ProcessingTypeEvaluator::EvaluateInternal() {
    constexpr const char* fn = "VBG::ProcessingTypeEvaluator::EvaluateInternal";
    try {
        const ProcessingTypeInitializer& initializer =
            ProcessingTypeInitializer::GetInstance(ConfigParser::FileCachePath());
        // A fresh selection is used as it is, whatever type it names.
        if (initializer.ConfigFileExists() && !selectionExpired(initializer)) {
            finishEvaluation();
            return;
        }
        state().evaluationRunning.exchange(true);
        int32_t code = kLaunchFailed;
        for (const ProcessingType type : AutomaticSelectionOrder()) {
            if (exiting()) {
                break;
            }
            code = LaunchEvaluator(type);
            if (exiting()) {
                break;  // the process is ending: nothing more is logged
            }
            if (code == 0) {
                finishEvaluation();
                return;
            }
            ZLOG_ERROR(fn, "VBG eval failed, process return code: {} for processing type: {}", code,
                       ProcessingTypeName(type));
        }
        if (!exiting()) {
            ZLOG_ERROR(fn, "VBG eval failed, process return code: {}", code);
        }
    } catch (const std::exception& e) {
        // Nothing may leave the thread: an escaping exception would end the host.
        try {
            ZLOG_ERROR(fn, "Processing type evaluation failed: {}", e.what());
        } catch (...) {
        }
    } catch (...) {
    }
    finishEvaluation();
}

int32_t ProcessingTypeEvaluator::LaunchEvaluator(ProcessingType type) {
    constexpr const char* fn = "VBG::ProcessingTypeEvaluator::LaunchEvaluator";
    const EvaluatorLimits limits = currentLimits();
    const std::string program = EvaluatorProgramPath();
    const std::string commandLine = CommandLine(type);
    ZLOG_WARN(fn, "Launching VBG eval process, process: {}, command line: {}", program,
              commandLine);

    const std::vector<std::string> args = {program, ProcessingTypeName(type), modelFileArgument(),
                                           ConfigParser::LogPath(), ConfigParser::FileCachePath()};
    pid_t pid = 0;
    const int error = spawnHidden(program, args, pid);
    if (error != 0) {
        ZLOG_ERROR(fn,
                   "VBG eval process launch failed, error code: {}, process: {}, command line: {}",
                   error, program, commandLine);
        return kLaunchFailed;
    }
    return getProcessExitCode(pid, type, limits.evaluatorRun);
}

bool ProcessingTypeEvaluator::WaitForEvaluationToComplete() {
    const EvaluatorLimits limits = currentLimits();
    std::unique_lock<std::mutex> lock(state().evaluationMutex);
    const auto deadline = std::chrono::steady_clock::now() + limits.completionWait;
    // The flag is the predicate: an end signalled before this wait began (between the caller's
    // look at the flag and here) is seen at once, and a spurious wake-up does not end the wait.
    if (!state().evaluationDone.wait_until(lock, deadline,
                                           [] { return !state().evaluationRunning.load(); })) {
        ZLOG_ERROR("VBG::ProcessingTypeEvaluator::WaitForEvaluationToComplete",
                   "Evaluation thread timeout occured");
        return false;
    }
    return true;
}

bool ProcessingTypeEvaluator::IsEvaluationRunning() {
    return state().evaluationRunning.load();
}

std::string ProcessingTypeEvaluator::EvaluatorProgramPath() {
    const EvaluatorLimits limits = currentLimits();
    if (!limits.programPath.empty()) {
        return limits.programPath;
    }
    // Beside the library in the build tree, in the project's libexec folder when installed.
    std::string beside;
    std::string program =
        Utils::LibraryCompanionPath(kEvaluatorProgramName, Utils::Companion::Program, &beside);
    std::error_code ec;
    if (program.empty() || !std::filesystem::is_regular_file(program, ec)) {
        ZLOG_ERROR("VBG::ProcessingTypeEvaluator::EvaluatorProgramPath",
                   "Evaluator program not found, looked for {} and {}",
                   beside.empty() ? std::string(kEvaluatorProgramName) : beside, program);
    }
    return program;
}

std::string ProcessingTypeEvaluator::CommandLine(ProcessingType type) {
    return "\"" + ProcessingTypeName(type) + "\" \"" + modelFileArgument() + "\" \"" +
           ConfigParser::LogPath() + "\" \"" + ConfigParser::FileCachePath() + "\"";
}

}  // namespace VBG
