// What the fuzz targets share: a quiet log, a scratch folder removed at exit, and for the targets
// that go through the exported functions the library initialised once with the real model, a
// fresh stored processing-type selection (so that no evaluator program runs) and background files
// in its cache folder. The first engine is of processing mode 8 (ONNX Runtime on the CPU), so that
// the one process-wide inference backend is that one for the whole run.
#pragma once

#include <spdlog/spdlog.h>
#include <stdlib.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "selection/processing_type_evaluator.h"
#include "zyn_native_vbg.h"

namespace zyn_fuzz {

namespace fs = std::filesystem;

// A broken oracle stops the fuzzer at the input that broke it.
inline void Require(bool holds) {
    holds ? void() : __builtin_trap();
}

inline void WriteText(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline const fs::path& Scratch() {
    static const fs::path dir = [] {
        spdlog::set_level(spdlog::level::off);
        std::string pattern = (fs::temp_directory_path() / "zynfuzz.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        std::atexit([] {
            std::error_code ec;
            fs::remove_all(Scratch(), ec);
        });
        return fs::path(pattern);
    }();
    return dir;
}

inline fs::path CacheFolder() {
    return Scratch() / "cache";
}

// ZYN_FUZZ_NO_SELECTION=1: no stored selection, so creates in automatic mode find none (and the
// evaluation started by initialisation finds no evaluator program beside the target).
inline bool NoStoredSelection() {
    const char* value = std::getenv("ZYN_FUZZ_NO_SELECTION");
    return value != nullptr && std::string(value) == "1";
}

// A selection of the processing type of mode 8, stored now.
inline void StoreFreshSelection() {
    if (!NoStoredSelection()) {
        WriteText(
            CacheFolder() / "PT_CONFIG.json",
            R"({"selected_processing_type": "OnnxRuntimeCpu", "selected_processing_time": ")" +
                std::to_string(time(nullptr)) + "\"}");
    }
}

inline void InitLibraryOnce() {
    static const bool done = [] {
        fs::create_directories(CacheFolder());
        StoreFreshSelection();
        // Background files effect configurations may name: seed pictures and a short video.
        const fs::path seeds = fs::path(ZYN_SOURCE_DIR) / "fuzz" / "corpus" / "picture_decoder";
        for (const char* copy : {"scene.png bg.png", "scene.jpg bg.jpg", "anim.gif anim.gif",
                                 "still.gif still.gif", "gray.png room.png"}) {
            const std::string names = copy;
            std::error_code ec;
            fs::copy_file(seeds / names.substr(0, names.find(' ')),
                          CacheFolder() / names.substr(names.find(' ') + 1),
                          fs::copy_options::overwrite_existing, ec);
        }
        std::system(
            ("ffmpeg -loglevel error -nostdin -y -f lavfi -i color=c=blue:s=64x36:r=10:d=0.5 "
             "-c:v libx264 -pix_fmt yuv420p " +
             (CacheFolder() / "clip.mp4").string() + " >/dev/null 2>&1")
                .c_str());
        const fs::path config = Scratch() / "library.json";
        WriteText(config, "{\"modelsPath\": \"" + std::string(ZYN_MODELS_DIR) +
                              "\", \"logPath\": \"" + (Scratch() / "log").string() +
                              "\", \"fileCachePath\": \"" + CacheFolder().string() + "\"}");
        const bool initialised = ZynNativeVideoProcessingInit(config.c_str());
        VBG::ProcessingTypeEvaluator::WaitForEvaluationToComplete();
        ZynNativeHandle first = nullptr;
        if (!initialised ||
            ZynNativeVideoProcessingCreateInstance(
                R"({"processingMode": 8, "effects": [{"name": "blur"}]})", &first) != 0 ||
            first == nullptr) {
            std::abort();
        }
        ZynNativeVideoProcessingDestroyInstance(&first);
        // Initialisation turned the log on; records cost nothing per input once it is off again.
        spdlog::default_logger()->set_level(spdlog::level::off);
        return true;
    }();
    (void)done;
}

}  // namespace zyn_fuzz
