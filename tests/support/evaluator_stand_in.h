// The evaluation suites' folders (one set per process: the stored-selection reader keeps the first
// cache folder it is given), stand-in evaluator programs (shell scripts that note their type
// argument and do what the test asks) and fixture.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "config/config_parser.h"
#include "ml/vbg_ml_processing.h"
#include "selection/processing_type_evaluator.h"
#include "selection/processing_type_evaluator_limits.h"
#include "selection/pt_config_init.h"
#include "support/test_paths.h"

namespace zyn_test {

inline std::vector<std::string> ReadLines(const std::filesystem::path& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The models, log and file cache folders of this test process, configured once through a library
// configuration file. The names hold blanks so that quoting and argument passing are exercised.
class EvaluationFolders {
  public:
    static const EvaluationFolders& Get() {
        static const EvaluationFolders folders;
        return folders;
    }
    std::filesystem::path models() const { return root_.path() / "models dir"; }
    std::filesystem::path logs() const { return root_.path() / "log dir"; }
    std::filesystem::path cache() const { return root_.path() / "cache dir"; }
    std::filesystem::path selectionFile() const { return cache() / "PT_CONFIG.json"; }

    // Stores a selection as the evaluator program writes it.
    void storeSelection(const std::string& typeName, const std::string& time) const {
        WriteFile(selectionFile(), "{\"selected_processing_type\": \"" + typeName +
                                       "\", \"selected_processing_time\": \"" + time + "\"}");
    }
    void removeSelection() const { std::filesystem::remove(selectionFile()); }

  private:
    EvaluationFolders() : root_("zyn-evaluation") {
        for (const auto& folder : {models(), logs(), cache()}) {
            std::filesystem::create_directories(folder);
        }
        const std::filesystem::path config = root_.path() / "library.json";
        WriteFile(config, "{\"modelsPath\": \"" + models().string() + "\", \"logPath\": \"" +
                              logs().string() + "\", \"fileCachePath\": \"" + cache().string() +
                              "\"}");
        if (!VBG::ConfigParser::SetConfig(config.string().c_str())) {
            throw std::runtime_error("library configuration not accepted");
        }
        VBG::ProcessingTypeInitializer::GetInstance(cache().string());
    }

    TempDir root_;
};

// A stand-in evaluator: appends its first argument (the type name) to calls.txt beside it, then
// runs `behaviour`, shell code that sees the usual positional parameters ($1 is the type name).
class EvaluatorStandIn {
  public:
    explicit EvaluatorStandIn(const std::string& behaviour) : dir_("zyn-stand-in") {
        WriteFile(program(),
                  "#!/bin/sh\nprintf '%s\\n' \"$1\" >> \"$(dirname \"$0\")/calls.txt\"\n" +
                      behaviour + "\n");
        ::chmod(program().c_str(), 0755);
    }
    std::string program() const { return (dir_.path() / "evaluator").string(); }
    std::filesystem::path dir() const { return dir_.path(); }
    std::vector<std::string> calls() const { return ReadLines(dir_.path() / "calls.txt"); }

  private:
    TempDir dir_;
};

// Shell code that keeps a stand-in running until the file `release` exists, then runs `then`.
inline std::string HeldOpenUntil(const std::filesystem::path& release, const std::string& then) {
    return "while [ ! -e '" + release.string() + "' ]; do sleep 0.01; done\n" + then;
}

inline long CurrentThreadId() {
    return static_cast<long>(::syscall(SYS_gettid));
}

// State letter of /proc/<stat> ('S' sleeping, 'Z' zombie), or '\0' when it is gone.
inline char ProcessState(const std::string& stat) {
    const std::string text = ReadFile(stat);
    const size_t close = text.rfind(')');
    return close == std::string::npos || close + 2 >= text.size() ? '\0' : text[close + 2];
}

// Waits (at most `limit`) until thread `tid` of this process is asleep in the kernel, as a thread
// blocked in a wait is. False when it did not happen in time.
inline bool WaitUntilThreadSleeps(long tid, std::chrono::milliseconds limit) {
    return WaitFor(
        [tid] { return ProcessState("/proc/self/task/" + std::to_string(tid) + "/stat") == 'S'; },
        limit);
}

// Each test starts without a stored selection and leaves no evaluation, limits or backend behind.
class EvaluationTest : public ::testing::Test {
  protected:
    void SetUp() override { folders().removeSelection(); }
    void TearDown() override {
        EXPECT_TRUE(waitForEvaluationEnd());
        VBG::ResetEvaluatorLimitsForTesting();
        folders().removeSelection();
        VBG::DestroyVBGMLProcessingInstance();  // one backend per process, of one type
    }
    static bool waitForEvaluationEnd() {
        return WaitFor([] { return !VBG::ProcessingTypeEvaluator::IsEvaluationRunning(); },
                       std::chrono::seconds(30));
    }
    static const EvaluationFolders& folders() { return EvaluationFolders::Get(); }
    static void useProgram(const std::string& program,
                           std::chrono::milliseconds run = std::chrono::seconds(60),
                           std::chrono::milliseconds completionWait = std::chrono::seconds(60)) {
        VBG::EvaluatorLimits limits;
        limits.programPath = program;
        limits.evaluatorRun = run;
        limits.completionWait = completionWait;
        VBG::SetEvaluatorLimitsForTesting(limits);
    }
};

}  // namespace zyn_test
