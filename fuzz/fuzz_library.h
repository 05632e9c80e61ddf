// What the fuzz targets share: a quiet log, a scratch folder removed at exit, and the library
// initialised once with the real model, a fresh stored selection (no evaluator program runs) and
// background files in its cache; the first engine, of mode 8, fixes the process-wide backend.
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
        Require(mkdtemp(pattern.data()) != nullptr);
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

// ZYN_FUZZ_NO_SELECTION=1: no stored selection, so automatic creates find none.
inline bool NoStoredSelection() {
    return std::string(std::getenv("ZYN_FUZZ_NO_SELECTION") ?: "") == "1";
}

inline void StoreFreshSelection() {  // of the type of mode 8, now
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
        for (const auto& [from, to] : {std::pair<const char*, const char*>{"scene.png", "bg.png"},
                                       {"scene.jpg", "bg.jpg"},
                                       {"anim.gif", "anim.gif"},
                                       {"still.gif", "still.gif"},
                                       {"gray.png", "room.png"}}) {
            std::error_code ec;
            fs::copy_file(seeds / from, CacheFolder() / to, fs::copy_options::overwrite_existing,
                          ec);
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
        Require(initialised &&
                ZynNativeVideoProcessingCreateInstance(
                    R"({"processingMode": 8, "effects": [{"name": "blur"}]})", &first) == 0 &&
                first != nullptr);
        ZynNativeVideoProcessingDestroyInstance(&first);
        // Initialisation turned the log on; records cost nothing per input once it is off again.
        spdlog::default_logger()->set_level(spdlog::level::off);
        return true;
    }();
    (void)done;
}

}  // namespace zyn_fuzz
