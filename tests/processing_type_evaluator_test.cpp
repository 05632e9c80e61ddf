// The processing-type evaluation with stand-in evaluator programs (which are started, in which
// order, and how their ends are read), and the automatic create that uses its selection.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "config/vbg_settings.h"
#include "engine/virtual_background_impl_cpu_yuv.h"
#include "support/evaluator_stand_in.h"
#include "support/log_capture.h"
#include "util/text.h"
#include "zyn_native_vbg.h"

using VBG::ProcessingTypeEvaluator;
using VBG::VirtualBackground;
using zyn_test::EvaluatorStandIn;
using zyn_test::LogCapture;
using namespace std::chrono_literals;

namespace {

const std::vector<std::string> kOrder = {"OpenVinoGpuPPGPU", "OnnxRuntimeDMLPPGPU",
                                         "OpenVinoCpuPPGPU", "OpenVinoCpu", "OnnxRuntimeCpu"};
constexpr const char* kAutoFn = "VBG::VirtualBackground::createAutoZynNative";
// Seconds since the epoch `age` ago, as the evaluator program stores them.
std::string Ago(std::chrono::hours age) {
    return std::to_string(
        std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() - age));
}
// Shell code of a stand-in that works: it stores `type` as the selection, as the program does.
std::string StoresType(const std::string& type) {
    return "printf '{\"selected_processing_type\": \"%s\", \"selected_processing_time\": "
           "\"%s\"}' \"" +
           type + "\" \"$(date +%s)\" > \"$4/PT_CONFIG.json\"\nexit 0";
}

class EvaluatorTest : public zyn_test::EvaluationTest {
  protected:
    static std::string failure(int code, const std::string& type) {
        return "VBG eval failed, process return code: " + std::to_string(code) +
               " for processing type: " + type;
    }
    static std::string commandLine(const std::string& type) {
        return "\"" + type + "\" \"" + folders().models().string() + "/model.winml\" \"" +
               folders().logs().string() + "\" \"" + folders().cache().string() + "\"";
    }
    static VBGSettings blurSettings(
        uint32_t pt, const std::filesystem::path& models = zyn_test::RealModelsDir()) {
        VBGSettings settings = VBG::DefaultVBGSettings();
        settings.pt = pt;
        settings.bt = VBG::BtBlur;
        settings.blurAlgo = 1;
        settings.effects = ZYN_EFFECT_BACKGROUND;
        const std::pair<char16_t*, std::filesystem::path> paths[] = {
            {settings.modelFilePath, models / "model.winml"},
            {settings.logDirectory, folders().logs()},
            {settings.fileCachePath, folders().cache()}};
        for (const auto& [field, path] : paths) {
            VBG::Text::CopyToField(field, ZYN_PATH_CHARS, path.string(), ZYN_PATH_CHARS - 1);
        }
        return settings;
    }
    static uint32_t typeOf(VirtualBackground* engine) {
        uint32_t type = 99;
        engine->getFrameProcessingStats(nullptr, nullptr, &type);
        return type;
    }
    static void destroy(VirtualBackground* engine) {
        if (engine != nullptr) {
            engine->shutdown();
            delete engine;
        }
    }
};

// Only a fresh selection (of whatever name) saves the evaluation. The walk through the order stops
// at the first type that works; each failing type is logged with its evaluator's result: the exit
// code, 128 + the signal that ended it, or -4 for one still running at the deadline (killed).
TEST_F(EvaluatorTest, WalkThroughTheOrderUntilATypeWorks) {
    const struct {
        std::string stored;  // the stored selection's type and time, "" for none
        std::string behaviour;
        size_t calls;
        int firstCode;
    } cases[] = {
        {"OnnxRuntimeCpu " + Ago(719h), "exit 0", 0, 0},
        {"NoSuchType " + Ago(1h), "exit 0", 0, 0},
        {"OnnxRuntimeCpu " + Ago(721h), "exit 0", 1, 0},
        {"OnnxRuntimeCpu soon", "exit 0", 1, 0},
        {"", "exit 42", 5, 42},
        {"", "[ \"$1\" = OpenVinoCpu ] && exit 0\nkill -ABRT $$", 4, 128 + 6},
        {"", "[ \"$1\" = OpenVinoGpuPPGPU ] && kill -SEGV $$\nexit 0", 2, 128 + 11},
        {"", "[ \"$1\" = OpenVinoGpuPPGPU ] && exec sleep 60\nexit 0", 2, -4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stored + " " + c.behaviour);
        folders().removeSelection();
        if (!c.stored.empty()) {
            folders().storeSelection(c.stored.substr(0, c.stored.find(' ')),
                                     c.stored.substr(c.stored.find(' ') + 1));
        }
        EvaluatorStandIn standIn(c.behaviour);
        useProgram(standIn.program(), 300ms);
        LogCapture log;
        ProcessingTypeEvaluator::EvaluateInternal();
        EXPECT_FALSE(ProcessingTypeEvaluator::IsEvaluationRunning());
        EXPECT_EQ(standIn.calls(),
                  std::vector<std::string>(kOrder.begin(), kOrder.begin() + c.calls));
        EXPECT_EQ(log.countContaining("Launching VBG eval process"), c.calls);
        const bool allFail = c.calls == 5;
        EXPECT_EQ(log.countContaining(" for processing type: "),
                  allFail ? 5 : std::max(c.calls, size_t{1}) - 1);
        EXPECT_TRUE(c.calls < 2 || log.has(spdlog::level::err, failure(c.firstCode, kOrder[0])))
            << log.dump();
        EXPECT_EQ(log.count("VBG eval failed, process return code: " + std::to_string(c.firstCode)),
                  allFail ? 1u : 0u);
    }
}

// -3 (launch failed) for a program that cannot be started, and for an evaluator whose status
// was reaped by the system (a host that ignores SIGCHLD) unless it stored its type.
TEST_F(EvaluatorTest, LaunchFailureAndLostExitStatus) {
    zyn_test::TempDir dir("zyn-no-evaluator");
    const std::string missing = (dir / "EvalVBGProcessingType").string();
    const std::string launchFailed = "VBG eval process launch failed, error code: ";
    const std::string line = ", command line: " + commandLine("OpenVinoCpu");
    const struct {
        std::string behaviour;  // "" for a program that does not exist, "-x" for one not executable
        bool ignoreChildren;
        int code;
        std::string error;
    } cases[] = {
        {"", false, -3, launchFailed + "2, process: " + missing + line},     // ENOENT
        {"-x", false, -3, launchFailed + "13, process: " + missing + line},  // EACCES
        {"exit 0", true, -3, "GetExitCodeProcess failed: error code: 10"},   // ECHILD
        {StoresType("$1"), true, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.behaviour);
        folders().removeSelection();
        EvaluatorStandIn standIn(c.behaviour);
        useProgram(c.behaviour.empty() || c.behaviour == "-x" ? missing : standIn.program());
        if (c.behaviour == "-x") {
            zyn_test::WriteFile(missing, "#!/bin/sh\nexit 0\n");
            ::chmod(missing.c_str(), 0644);
        }
        struct sigaction ignore = {}, previous = {};
        ignore.sa_handler = c.ignoreChildren ? SIG_IGN : SIG_DFL;
        ASSERT_EQ(::sigaction(SIGCHLD, &ignore, &previous), 0);
        LogCapture log;
        EXPECT_EQ(ProcessingTypeEvaluator::LaunchEvaluator(VBG::PtOpenVinoCpu), c.code);
        ::sigaction(SIGCHLD, &previous, nullptr);
        EXPECT_EQ(log.countAt(spdlog::level::err), c.error.empty() ? 0u : 1u) << log.dump();
        EXPECT_TRUE(c.error.empty() || log.has(spdlog::level::err, c.error)) << log.dump();
    }
}

TEST_F(EvaluatorTest, HungEvaluatorIsKilledWithWhatItStartedAndReaped) {
    EvaluatorStandIn standIn(
        "sleep 60 &\necho $! > \"$(dirname \"$0\")/child.txt\"\necho $$ > \"$(dirname "
        "\"$0\")/pid.txt\"\nexec sleep 60");
    useProgram(standIn.program(), 300ms);
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ProcessingTypeEvaluator::LaunchEvaluator(VBG::PtOpenVinoCpu), -4);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 300ms);
    EXPECT_LT(waited, 10s);
    EXPECT_TRUE(log.has(spdlog::level::err,
                        "VBG eval process is still running, possible race condition or deadlock"))
        << log.dump();
    // The evaluator is reaped; what it started runs no more (it may be a zombie of its adopter).
    const auto pid = zyn_test::ReadLines(standIn.dir() / "pid.txt");
    const auto child = zyn_test::ReadLines(standIn.dir() / "child.txt");
    ASSERT_EQ(pid.size() + child.size(), 2u);
    EXPECT_EQ(zyn_test::ProcessState("/proc/" + pid[0] + "/stat"), '\0') << "not reaped";
    const auto childRuns = [&] {
        const char state = zyn_test::ProcessState("/proc/" + child[0] + "/stat");
        return state != '\0' && state != 'Z';
    };
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (childRuns() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_FALSE(childRuns()) << "what the evaluator started still runs";
}

// Engines whose init (or else presenter set-up) throws, counted when freed.
std::atomic<int> enginesFreed{0};
std::atomic<bool> throwInInit{false};
struct ThrowingEngine : VBG::VirtualBackgroundImplYuv {
    using VirtualBackgroundImplYuv::VirtualBackgroundImplYuv;
    ~ThrowingEngine() override { ++enginesFreed; }
    int init(const VBGSettings&, uint32_t, uint32_t) override {
        return throwInInit ? throw std::runtime_error("init threw") : 0;
    }
    bool updateWeatherman(const ZynNativeWeathermanSettings&) override {
        throw std::runtime_error("presenter set-up threw");
    }
};

// The create export without an engine: 0 when the automatic create finds none, 3 and the engine
// freed when it throws; the handle null.
TEST_F(EvaluatorTest, CreateExportLeavesTheHandleNullWhenNoEngineIsMade) {
    VirtualBackground::SetEngineMakerForTesting(
        [](uint32_t pt) -> VirtualBackground* { return new ThrowingEngine(pt); });
    for (const int mode : {3, 2}) {
        for (const bool presenter : {false, true}) {
            SCOPED_TRACE(std::to_string(mode) + (presenter ? " with presenter" : ""));
            const std::string json =
                R"({"processingMode": )" + std::to_string(mode) + R"(, "effects": [)" +
                (presenter ? R"({"name": "weatherman", "mode": "overlay", "weathermanAlpha": )"
                             R"("0.9", "weathermanSize": "0.5", "weathermanOffsetX": "0.25", )"
                             R"("weathermanOffsetY": "0"}]})"
                           : R"({"name": "blur"}]})");
            throwInInit = !presenter;
            enginesFreed = 0;
            LogCapture log;
            ZynNativeHandle handle = reinterpret_cast<ZynNativeHandle>(0x1);
            EXPECT_EQ(ZynNativeVideoProcessingCreateInstance(json.c_str(), &handle),
                      mode == 3 ? 0u : 3u);
            EXPECT_EQ(handle, nullptr);
            EXPECT_EQ(enginesFreed.load(), mode == 3 ? 0 : 1);
            EXPECT_TRUE(log.has(spdlog::level::err, mode == 3   ? "createAutoZynNative failed"
                                                    : presenter ? "presenter set-up threw"
                                                                : "init threw"))
                << log.dump();
        }
    }
    VirtualBackground::SetEngineMakerForTesting(nullptr);
}

// The automatic create: the stored type if it works, else (for auto only) the first type of the
// order that works, 3 here; while an evaluation runs it waits for it on a thread of its own, and
// the stand-in evaluator ends only once that thread is blocked in the wait.
TEST_F(EvaluatorTest, AutomaticCreateUsesTheSelectionOrWalksTheOrder) {
    zyn_test::TempDir empty("zyn-no-model");
    const std::string failed = " failed for some reason, fallback to auto logic";
    const struct {
        std::string stored;     // the selection stored before the create, "" for none
        std::string evaluator;  // the running evaluation's stand-in, "" for none
        uint32_t pt;
        bool model;
        uint32_t type;   // of the engine made, 99 for none
        uint32_t error;  // the status of the last create that failed on the way
        std::string logged;
    } cases[] = {
        {"", StoresType("OnnxRuntimeCpu"), 9, true, 2, 0,
         "Selected processing type: OnnxRuntimeCpu"},
        {"", "exit 1", 9, true, 3, 5, "Selected processing type is auto, fallback to auto logic"},
        {"", "exit 1", 9, true, 99, 0, "Evaluation process is taking too much time to complete"},
        {"", "", 9, true, 99, 0,
         "Process Evaluation is not initialised and not running, possibly no processing types "
         "are supported"},
        {"OpenVinoGpuPPGPU", "", 9, true, 3, 5,
         "Selected processing type: OpenVinoGpuPPGPU" + failed},
        {"OpenVinoGpuPPGPU", "", 3, true, 99, 5, "Processing type is not auto!"},
        {"OnnxRuntimeCpu", "", 9, false, 99, 3,
         "All processing types exhausted, requires investigation!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged);
        folders().removeSelection();
        if (!c.stored.empty()) {
            folders().storeSelection(c.stored, Ago(1h));
        }
        zyn_test::TempDir control("zyn-control");
        const std::filesystem::path release = control / "release";
        EvaluatorStandIn standIn(zyn_test::HeldOpenUntil(release, c.evaluator));
        const bool givesUp = c.type == 99 && !c.evaluator.empty();
        useProgram(standIn.program(), 60s, givesUp ? 300ms : 60s);
        if (!c.evaluator.empty()) {
            ProcessingTypeEvaluator::StartEvaluation();
        }
        LogCapture log;
        std::atomic<long> tid{0};
        uint32_t error = 0;
        auto creation = std::async(std::launch::async, [&] {
            tid = zyn_test::CurrentThreadId();
            return VirtualBackground::createAutoZynNative(
                blurSettings(c.pt, c.model ? zyn_test::RealModelsDir() : empty.path()), error, 1280,
                720);
        });
        while (tid == 0) {
            std::this_thread::yield();
        }
        if (!c.evaluator.empty() && !givesUp) {
            EXPECT_TRUE(zyn_test::WaitUntilThreadSleeps(tid, 20s));
            zyn_test::WriteFile(release, "");
        }
        VirtualBackground* engine = creation.get();
        zyn_test::WriteFile(release, "");
        waitForEvaluationEnd();  // it logs until it ends: let it end while the capture is alive
        EXPECT_TRUE(log.hasFrom(kAutoFn, c.logged)) << log.dump();
        EXPECT_EQ(engine == nullptr ? 99u : typeOf(engine), c.type);
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(log.has(spdlog::level::err, "Evaluation thread timeout occured"), givesUp);
        destroy(engine);
        VBG::DestroyVBGMLProcessingInstance();
    }
}

}  // namespace
