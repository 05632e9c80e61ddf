// The processing-type selection end to end: the real evaluator program on the real model, and the
// built library reached only through its exports. The library keeps process-wide state (one
// initialisation, one evaluation thread, one inference backend), so every library start runs in a
// child process of its own.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/test_paths.h"
#include "support/vbg_library.h"
#include "zyn_native_vbg.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

fs::path EvaluatorProgram() {
    return zyn_test::LibraryPath().parent_path() / "EvalVBGProcessingType";
}

struct ChildResult {
    int code = -1;  // exit code; -1 when it did not end normally or in time
    std::string output;
};

ChildResult Finish(pid_t pid, const fs::path& outputFile, std::chrono::seconds limit) {
    ChildResult result;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    for (;;) {
        const pid_t ended = waitpid(pid, &status, WNOHANG);
        if (ended == pid) {
            break;
        }
        if (ended < 0 || std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            result.output = "child did not end in time\n";
            status = -1;
            break;
        }
        std::this_thread::sleep_for(10ms);
    }
    if (status != -1 && WIFEXITED(status)) {
        result.code = WEXITSTATUS(status);
    } else if (status != -1 && WIFSIGNALED(status)) {
        result.output += "child killed by signal " + std::to_string(WTERMSIG(status)) + "\n";
    }
    result.output += zyn_test::ReadFile(outputFile);
    return result;
}

// Runs the evaluator program with `args` (after the program name); its output is kept.
ChildResult RunEvaluator(const std::vector<std::string>& args, const zyn_test::TempDir& scratch) {
    const fs::path output = scratch.path() / "evaluator-output.txt";
    std::vector<std::string> all = {EvaluatorProgram().string()};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : all) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return Finish(pid, output, 240s);
}

// Runs `body` in a forked child with its standard error kept; the child's exit code is body's
// result. Nothing of the library is loaded in this process before the fork.
ChildResult RunInChild(const std::function<int()>& body, const zyn_test::TempDir& scratch) {
    const fs::path output = scratch.path() / "child-output.txt";
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, STDERR_FILENO);
        int code = 99;
        try {
            code = body();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "exception: %s\n", e.what());
        }
        std::fflush(nullptr);
        _exit(code);
    }
    return Finish(pid, output, 240s);
}

// Prints what failed in the child and gives its step number as the exit code.
int Fail(int step, const std::string& what) {
    std::fprintf(stderr, "step %d: %s\n", step, what.c_str());
    return step;
}

struct Nv12Frame {
    std::vector<uint8_t> luma;
    std::vector<uint8_t> chroma;
    ZynNativeInputFrame record{};

    Nv12Frame(uint32_t width, uint32_t height)
        : luma(size_t{width} * height), chroma(size_t{width} * (height / 2), 128) {
        for (uint32_t y = 0; y < height; ++y) {
            for (uint32_t x = 0; x < width; ++x) {
                luma[size_t{y} * width + x] = static_cast<uint8_t>(16 + (x + y) % 200);
            }
        }
        record.width = width;
        record.height = height;
        record.format = ZYN_FORMAT_NV12;
        record.plane0 = luma.data();
        record.stride0 = width;
        record.plane1 = chroma.data();
        record.stride1 = width;
    }
};

// One library start: initialise with a library configuration, create an instance from `json`,
// process one frame, destroy, shut down. Reports the processing type of the instance.
int StartCreateAndProcess(const fs::path& config, const char* json, uint32_t expectedStatus,
                          const fs::path& typeReport) {
    zyn_test::VbgLibrary library;
    if (!library.Init(config.c_str())) {
        return Fail(1, "ZynNativeVideoProcessingInit failed");
    }
    ZynNativeHandle handle = nullptr;
    const uint32_t status = library.Create(json, &handle);
    if (status != expectedStatus) {
        return Fail(2, "create status " + std::to_string(status));
    }
    if (handle == nullptr) {
        return Fail(3, "create gave no instance");
    }
    Nv12Frame input(640, 360);
    Nv12Frame output(640, 360);
    const uint32_t frameStatus = library.ProcessFrame(&handle, &input.record, &output.record);
    if (frameStatus != ZYN_STATUS_SUCCESS) {
        return Fail(4, "frame status " + std::to_string(frameStatus));
    }
    uint32_t type = 99;
    library.GetFrameProcessingStats(&handle, nullptr, nullptr, &type);
    zyn_test::WriteFile(typeReport, std::to_string(type));
    library.Destroy(&handle);
    library.Shutdown();
    return 0;
}

struct LibraryFolders {
    zyn_test::TempDir root{"zyn-e2e"};
    fs::path logs() const { return root.path() / "log"; }
    fs::path cache() const { return root.path() / "cache"; }
    fs::path config() const { return root.path() / "library.json"; }
    fs::path selection() const { return cache() / "PT_CONFIG.json"; }

    LibraryFolders() {
        fs::create_directories(cache());
        zyn_test::WriteFile(config(), "{\"modelsPath\": \"" + zyn_test::RealModelsDir().string() +
                                          "\", \"logPath\": \"" + logs().string() +
                                          "\", \"fileCachePath\": \"" + cache().string() + "\"}");
    }
};

struct Selection {
    std::string type;
    long long time = 0;
};

bool ReadSelection(const fs::path& file, Selection& selection) {
    rapidjson::Document doc;
    const std::string text = zyn_test::ReadFile(file);
    doc.Parse(text.c_str());
    if (doc.HasParseError() || !doc.IsObject() || !doc.HasMember("selected_processing_type") ||
        !doc.HasMember("selected_processing_time") || !doc["selected_processing_type"].IsString() ||
        !doc["selected_processing_time"].IsString()) {
        return false;
    }
    selection.type = doc["selected_processing_type"].GetString();
    selection.time = std::stoll(doc["selected_processing_time"].GetString());
    return true;
}

long long NowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// ---- The evaluator program on its own ---------------------------------------------------------

TEST(EvaluatorProgram, RefusesWrongArgumentsAndNamesOfNoType) {
    zyn_test::TempDir scratch("zyn-eval");
    const std::string model = (zyn_test::RealModelsDir() / "model.winml").string();
    const std::string cache = (scratch.path() / "cache").string();

    EXPECT_EQ(RunEvaluator({}, scratch).code, 1);
    EXPECT_EQ(RunEvaluator({"OnnxRuntimeCpu", model, scratch.str()}, scratch).code, 1);
    for (const std::string name : {"Auto", "onnxruntimecpu", "Unknown"}) {
        const ChildResult result = RunEvaluator({name, model, scratch.str(), cache}, scratch);
        EXPECT_EQ(result.code, 2) << name << "\n" << result.output;
    }
    EXPECT_FALSE(fs::exists(fs::path(cache) / "PT_CONFIG.json"));
}

TEST(EvaluatorProgram, WorkingCpuTypeIsStoredWithTheCurrentTime) {
    zyn_test::TempDir scratch("zyn-eval");
    const fs::path cache = scratch.path() / "new cache";
    const std::string model = (zyn_test::RealModelsDir() / "model.winml").string();
    // The cache folder is the host's: a missing one is not made, and the verdict is not stored.
    const ChildResult missing =
        RunEvaluator({"OnnxRuntimeCpu", model, scratch.str(), cache.string()}, scratch);
    EXPECT_EQ(missing.code, 6) << missing.output;
    EXPECT_FALSE(fs::exists(cache));

    fs::create_directories(cache);
    const long long before = NowSeconds();
    const ChildResult result =
        RunEvaluator({"OnnxRuntimeCpu", model, scratch.str(), cache.string()}, scratch);
    ASSERT_EQ(result.code, 0) << result.output;

    Selection selection;
    ASSERT_TRUE(ReadSelection(cache / "PT_CONFIG.json", selection))
        << zyn_test::ReadFile(cache / "PT_CONFIG.json");
    EXPECT_EQ(selection.type, "OnnxRuntimeCpu");
    EXPECT_EQ(zyn_test::PermissionBits(cache / "PT_CONFIG.json"), 0600u);
    EXPECT_GE(selection.time, before);
    EXPECT_LE(selection.time, NowSeconds());
    // Written beside its final name and renamed into place: nothing else is left behind.
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(cache)) {
        names.push_back(entry.path().filename().string());
    }
    EXPECT_EQ(names, std::vector<std::string>{"PT_CONFIG.json"});
}

TEST(EvaluatorProgram, TypesThatCannotRunHereStoreNothing) {
    zyn_test::TempDir scratch("zyn-eval");
    const fs::path cache = scratch.path() / "cache";
    const std::string model = (zyn_test::RealModelsDir() / "model.winml").string();
    // No GPU on this platform; and no model at all for a CPU type.
    for (const auto& [name, modelFile] : std::vector<std::pair<std::string, std::string>>{
             {"OpenVinoGpuPPGPU", model},
             {"OnnxRuntimeDMLPPGPU", model},
             {"OnnxRuntimeCpu", (scratch.path() / "missing.winml").string()}}) {
        const ChildResult result =
            RunEvaluator({name, modelFile, scratch.str(), cache.string()}, scratch);
        EXPECT_EQ(result.code, 4) << name << "\n" << result.output;
    }
    EXPECT_FALSE(fs::exists(cache / "PT_CONFIG.json"));
}

// ---- Library starts ---------------------------------------------------------------------------

TEST(LibraryStart, FirstStartEvaluatesAndWaitsSecondStartReusesTheSelection) {
    LibraryFolders folders;
    const fs::path typeReport = folders.root.path() / "type.txt";
    constexpr const char* kAutomatic = R"({"processingMode": 3, "effects": [{"name": "blur"}]})";

    // First start on a fresh cache: the automatic create waits for the evaluation and uses what it
    // stored. The host loaded the library by a relative name and changed its current folder
    // afterwards: the evaluator is still found from the library's own place.
    const ChildResult first = RunInChild(
        [&] {
            const fs::path library = zyn_test::LibraryPath();
            if (chdir(library.parent_path().c_str()) != 0 ||
                dlopen(("./" + library.filename().string()).c_str(), RTLD_NOW) == nullptr ||
                chdir(folders.root.path().c_str()) != 0) {
                return Fail(9, "loading the library by a relative name");
            }
            return StartCreateAndProcess(folders.config(), kAutomatic, 0, typeReport);
        },
        folders.root);
    ASSERT_EQ(first.code, 0) << first.output;
    Selection selection;
    ASSERT_TRUE(ReadSelection(folders.selection(), selection));
    EXPECT_TRUE(selection.type == "OpenVinoCpu" || selection.type == "OnnxRuntimeCpu")
        << selection.type;
    const std::string typeNumber = selection.type == "OpenVinoCpu" ? "3" : "2";
    EXPECT_EQ(zyn_test::ReadFile(typeReport), typeNumber);

    // Second start within 720 hours: no evaluator runs, so the file stays the very same file (the
    // evaluator always puts a new one in place).
    struct stat before {};
    ASSERT_EQ(stat(folders.selection().c_str(), &before), 0);
    const std::string content = zyn_test::ReadFile(folders.selection());
    const ChildResult second = RunInChild(
        [&] { return StartCreateAndProcess(folders.config(), kAutomatic, 0, typeReport); },
        folders.root);
    ASSERT_EQ(second.code, 0) << second.output;
    struct stat after {};
    ASSERT_EQ(stat(folders.selection().c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(zyn_test::ReadFile(folders.selection()), content);
    EXPECT_EQ(zyn_test::ReadFile(typeReport), typeNumber);
}

TEST(LibraryStart, GpuModeCreateFallsBackToTheCpu) {
    LibraryFolders folders;
    // A fresh selection, so that this start runs no evaluator.
    zyn_test::WriteFile(folders.selection(),
                        "{\"selected_processing_type\": \"OnnxRuntimeCpu\", "
                        "\"selected_processing_time\": \"" +
                            std::to_string(NowSeconds()) + "\"}");
    const fs::path typeReport = folders.root.path() / "type.txt";
    const ChildResult result = RunInChild(
        [&] {
            return StartCreateAndProcess(folders.config(),
                                         R"({"processingMode": 1, "effects": [{"name": "blur"}]})",
                                         0, typeReport);
        },
        folders.root);
    ASSERT_EQ(result.code, 0) << result.output;
    EXPECT_EQ(zyn_test::ReadFile(typeReport), "0");  // processing mode 2: CPU
}

}  // namespace
