// What the fuzz targets that go through the exported functions share: a scratch folder with the
// library configuration file, a fresh stored processing-type selection (so that initialisation
// runs no evaluator program) and a few background files, and the library initialised once with
// the real segmentation model. Engines of processing mode 8 (ONNX Runtime on the CPU) are made
// first, so the one process-wide inference backend is that one for the whole run.
#pragma once

#include <spdlog/spdlog.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>

#include "selection/processing_type_evaluator.h"
#include "zyn_native_vbg.h"

namespace zyn_fuzz {

namespace fs = std::filesystem;

inline void WriteText(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

// The scratch folder of this fuzzing process, removed at exit.
inline const fs::path& Scratch() {
    static const fs::path dir = [] {
        std::string pattern = (fs::temp_directory_path() / "zynfuzz.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
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

// A selection stored now, naming the processing type of mode 8.
inline std::string FreshSelection() {
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    return "{\"selected_processing_type\": \"OnnxRuntimeCpu\", \"selected_processing_time\": \"" +
           std::to_string(now) + "\"}";
}

// Background files that effect configurations may name, relative to the cache folder: pictures
// from the picture decoder's seed inputs, and a short video made with the ffmpeg program (left out
// when the program is missing).
inline void WriteBackgroundFiles() {
    const fs::path pictures = fs::path(ZYN_SOURCE_DIR) / "fuzz" / "corpus" / "picture_decoder";
    const std::pair<const char*, const char*> copies[] = {{"scene.png", "bg.png"},
                                                          {"scene.jpg", "bg.jpg"},
                                                          {"anim.gif", "anim.gif"},
                                                          {"still.gif", "still.gif"},
                                                          {"gray.png", "room.png"}};
    for (const auto& [from, to] : copies) {
        std::error_code ec;
        fs::copy_file(pictures / from, CacheFolder() / to, fs::copy_options::overwrite_existing,
                      ec);
    }
    const std::string video = (CacheFolder() / "clip.mp4").string();
    const std::string command =
        "ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi -i "
        "color=c=blue:s=64x36:r=10:d=0.5 -c:v libx264 -pix_fmt yuv420p '" +
        video + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "zyn_fuzz: no video background (ffmpeg failed)\n");
    }
}

// ZYN_FUZZ_NO_SELECTION=1 runs a target without a stored processing-type selection: creates in
// automatic mode then find none, and the evaluation started by initialisation finds no evaluator
// program beside the fuzz target.
inline bool NoStoredSelection() {
    const char* value = std::getenv("ZYN_FUZZ_NO_SELECTION");
    return value != nullptr && std::string(value) == "1";
}

// Initialises the library once per process; the log is switched off afterwards so that records
// cost nothing per input.
inline void InitLibraryOnce() {
    static const bool done = [] {
        fs::create_directories(CacheFolder());
        fs::create_directories(Scratch() / "log");
        if (!NoStoredSelection()) {
            WriteText(CacheFolder() / "PT_CONFIG.json", FreshSelection());
        }
        WriteBackgroundFiles();
        const fs::path config = Scratch() / "library.json";
        WriteText(config, "{\"modelsPath\": \"" + std::string(ZYN_MODELS_DIR) +
                              "\", \"logPath\": \"" + (Scratch() / "log").string() +
                              "\", \"fileCachePath\": \"" + CacheFolder().string() + "\"}");
        if (!ZynNativeVideoProcessingInit(config.c_str())) {
            std::fprintf(stderr, "zyn_fuzz: library initialisation failed\n");
            std::abort();
        }
        // The evaluation thread finds the fresh selection and ends at once.
        for (int i = 0; i < 1000 && VBG::ProcessingTypeEvaluator::IsEvaluationRunning(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        // The backend of mode 8 is made by the first engine and outlives it.
        ZynNativeHandle first = nullptr;
        if (ZynNativeVideoProcessingCreateInstance(
                R"({"processingMode": 8, "effects": [{"name": "blur"}]})", &first) != 0 ||
            first == nullptr) {
            std::fprintf(stderr, "zyn_fuzz: the first instance could not be made\n");
            std::abort();
        }
        ZynNativeVideoProcessingDestroyInstance(&first);
        spdlog::default_logger()->set_level(spdlog::level::off);
        return true;
    }();
    (void)done;
}

}  // namespace zyn_fuzz
