// The selection end to end: the real evaluator program on the real model, and the built library
// through its exports, each library start in a child process (the library's state is per process).
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "support/test_paths.h"
#include "support/vbg_library.h"
#include "zyn_native_vbg.h"

namespace fs = std::filesystem;

namespace {

// Runs `body` in a forked child (output kept in `scratch`): its result, -1 if it did not end
// normally.
int RunInChild(const std::function<int()>& body, const fs::path& scratch, std::string& output) {
    const fs::path file = scratch / "child-output.txt";
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        alarm(240);
        const int code = body();
        std::fflush(nullptr);
        _exit(code);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    output = zyn_test::ReadFile(file);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunEvaluator(std::vector<std::string> args, const fs::path& scratch, std::string& output) {
    args.insert(args.begin(),
                (zyn_test::LibraryPath().parent_path() / "EvalVBGProcessingType").string());
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    return RunInChild(
        [&] {
            execv(argv[0], argv.data());
            return 127;
        },
        scratch, output);
}

// The stored selection's type and time, or false when the file is not the two string members.
bool ReadSelection(const fs::path& file, std::string& type, long long& time) {
    std::smatch m;
    const std::string text = zyn_test::ReadFile(file);
    const std::regex selection(
        R"re(\{"selected_processing_type": "(\w+)", "selected_processing_time": "(\d+)"\}\n?)re");
    if (!std::regex_match(text, m, selection)) {
        return false;
    }
    type = m[1];
    time = std::stoll(m[2]);
    return true;
}

// The program's exit codes: 1 wrong argument count, 2 no type of that name (or "Auto"), 4 no
// engine of the type (no GPU here, or no model), 6 the selection could not be stored, 0 stored.
TEST(EvaluatorProgram, ExitCodesAndTheStoredSelection) {
    zyn_test::TempDir scratch("zyn-eval");
    const std::string model = (zyn_test::RealModelsDir() / "model.winml").string();
    const std::string missingModel = (scratch / "missing.winml").string();
    const fs::path cache = scratch / "new cache";
    const std::string logs = scratch.str();
    const std::pair<std::vector<std::string>, int> cases[] = {
        {{}, 1},
        {{"OnnxRuntimeCpu", model, logs}, 1},
        {{"Auto", model, logs, cache}, 2},
        {{"onnxruntimecpu", model, logs, cache}, 2},
        {{"Unknown", model, logs, cache}, 2},
        {{"OpenVinoGpuPPGPU", model, logs, cache}, 4},
        {{"OnnxRuntimeDMLPPGPU", model, logs, cache}, 4},
        {{"OnnxRuntimeCpu", missingModel, logs, cache}, 4},
        // The cache folder is the host's: a missing one is not made.
        {{"OnnxRuntimeCpu", model, logs, cache}, 6},
    };
    std::string output;
    for (const auto& [args, code] : cases) {
        EXPECT_EQ(RunEvaluator(args, scratch.path(), output), code) << args.size() << output;
    }
    EXPECT_FALSE(fs::exists(cache));

    fs::create_directories(cache);
    const long long before = static_cast<long long>(std::time(nullptr));
    ASSERT_EQ(RunEvaluator({"OnnxRuntimeCpu", model, logs, cache}, scratch.path(), output), 0)
        << output;
    std::string type;
    long long time = 0;
    ASSERT_TRUE(ReadSelection(cache / "PT_CONFIG.json", type, time));
    EXPECT_EQ(type, "OnnxRuntimeCpu");
    EXPECT_GE(time, before);
    EXPECT_LE(time, static_cast<long long>(std::time(nullptr)));
    EXPECT_EQ(zyn_test::PermissionBits(cache / "PT_CONFIG.json"), 0600u);
    // Written beside its final name and renamed into place: nothing else is left behind.
    EXPECT_EQ(std::distance(fs::directory_iterator(cache), fs::directory_iterator()), 1);
}

// One library start: initialise, create an instance from `json`, process one frame, destroy, shut
// down. Returns the instance's processing type, or 100 + the step that failed.
int StartCreateAndProcess(const fs::path& config, const char* json) {
    zyn_test::VbgLibrary library;
    ZynNativeHandle handle = nullptr;
    if (!library.Init(config.c_str())) {
        return 101;
    }
    if (library.Create(json, &handle) != ZYN_STATUS_SUCCESS || handle == nullptr) {
        return 102;
    }
    std::vector<uint8_t> in(640 * 540, 128), out(640 * 540);  // NV12 (format 1) frames
    for (size_t i = 0; i < 640 * 360; ++i) {
        in[i] = static_cast<uint8_t>(16 + (i % 640 + i / 640) % 200);  // luma; then chroma
    }
    ZynNativeInputFrame frame{640, 360, 1, in.data(), 640, &in[640 * 360], 640, nullptr, 0, 0};
    ZynNativeInputFrame output{640, 360, 1, out.data(), 640, &out[640 * 360], 640, nullptr, 0, 0};
    if (library.ProcessFrame(&handle, &frame, &output) != ZYN_STATUS_SUCCESS) {
        return 104;
    }
    uint32_t type = 99;
    library.GetFrameProcessingStats(&handle, nullptr, nullptr, &type);
    library.Destroy(&handle);
    library.Shutdown();
    return static_cast<int>(type);
}

TEST(LibraryStart, FirstStartEvaluatesLaterStartsReuseTheSelection) {
    zyn_test::TempDir root("zyn-e2e");
    const fs::path cache = root / "cache";
    const fs::path selection = cache / "PT_CONFIG.json";
    const fs::path config = root / "library.json";
    fs::create_directories(cache);
    zyn_test::WriteFile(config, "{\"modelsPath\": \"" + zyn_test::RealModelsDir().string() +
                                    "\", \"logPath\": \"" + (root / "log").string() +
                                    "\", \"fileCachePath\": \"" + cache.string() + "\"}");
    constexpr const char* kAutomatic = R"({"processingMode": 3, "effects": [{"name": "blur"}]})";

    // First start: the automatic create waits for the evaluation and uses its result; the library
    // loaded by a relative name, the folder changed: the evaluator is found from the library's
    // place.
    std::string output;
    const int first = RunInChild(
        [&] {
            const fs::path library = zyn_test::LibraryPath();
            if (chdir(library.parent_path().c_str()) != 0 ||
                dlopen(("./" + library.filename().string()).c_str(), RTLD_NOW) == nullptr ||
                chdir(root.path().c_str()) != 0) {
                return 109;
            }
            return StartCreateAndProcess(config, kAutomatic);
        },
        root.path(), output);
    std::string type;
    long long time = 0;
    ASSERT_TRUE(ReadSelection(selection, type, time)) << output;
    // 3 OpenVinoCpu, 2 OnnxRuntimeCpu: whichever comes first in the order and works.
    ASSERT_TRUE(type == "OpenVinoCpu" || type == "OnnxRuntimeCpu") << type;
    EXPECT_EQ(first, type == "OpenVinoCpu" ? 3 : 2) << output;

    // Later starts run no evaluator (which always puts a new file in place); mode 1 (GPU) falls
    // back to the CPU engine, type 0.
    struct stat before {};
    ASSERT_EQ(stat(selection.c_str(), &before), 0);
    const std::string content = zyn_test::ReadFile(selection);
    const std::pair<const char*, int> starts[] = {
        {kAutomatic, first}, {R"({"processingMode": 1, "effects": [{"name": "blur"}]})", 0}};
    for (const auto& [json, expected] : starts) {
        EXPECT_EQ(
            RunInChild([&] { return StartCreateAndProcess(config, json); }, root.path(), output),
            expected)
            << json << "\n"
            << output;
        struct stat after {};
        ASSERT_EQ(stat(selection.c_str(), &after), 0);
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(zyn_test::ReadFile(selection), content);
    }
}

}  // namespace
