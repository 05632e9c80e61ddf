// EvalVBGProcessingType: finds out whether one processing type works on this machine.
//
//   EvalVBGProcessingType <type name> <models folder>/model.winml <log folder> <file cache folder>
//
// The library starts this program once per candidate type, in a process of its own, so that a
// crash or a hang of an inference runtime cannot take the host down. The program loads
// libZYNNativeVBG.so from its own folder (installed: from the library folder), builds an engine of
// the named type through the exported functions (a blur effect on the given model), runs a few
// synthetic camera frames through it and, when every frame came back processed, records the type
// and the current time in "PT_CONFIG.json" in the file cache folder. It reads no library
// configuration file: everything it needs is on its command line. Its standard streams are
// /dev/null when the library runs it.
//
// Exit codes:
//   0  the type works; "PT_CONFIG.json" names it
//   1  wrong number of arguments
//   2  the first argument names no processing type (or names "Auto")
//   3  the library, or one of its exports, cannot be loaded
//   4  no engine of the type could be created (not supported here, or it failed to initialise)
//   5  a frame failed or came back unprocessed
//   6  "PT_CONFIG.json" could not be written
//   7  any other failure
#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "selection/processing_type.h"
#include "util/text.h"
#include "zyn_install_layout.h"
#include "zyn_native_vbg.h"

namespace {

enum ExitCode : int {
    kWorks = 0,
    kUsage = 1,
    kUnknownType = 2,
    kLibraryUnavailable = 3,
    kEngineUnavailable = 4,
    kFrameFailed = 5,
    kSelectionNotWritten = 6,
    kUnexpected = 7,
};

constexpr uint32_t kFrameWidth = 640;
constexpr uint32_t kFrameHeight = 360;
constexpr int kFrameCount = 5;
constexpr const char* kLibraryName = "libZYNNativeVBG.so.1";

void report(const std::string& text) {
    std::fprintf(stderr, "EvalVBGProcessingType: %s\n", text.c_str());
}

// The library that started this program: beside it in the build tree, else in the installed
// library folder relative to the project's libexec folder. Never looked for in the current folder.
std::filesystem::path libraryPath() {
    std::error_code ec;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) {
        return {};
    }
    const std::filesystem::path beside = self.parent_path() / kLibraryName;
    if (std::filesystem::exists(beside, ec)) {
        return beside;
    }
    return (self.parent_path() / ZYN_LIBDIR_FROM_LIBEXEC / kLibraryName).lexically_normal();
}

struct Library {
    void* handle = nullptr;
    decltype(&::ZynNativeInternalCreate) create = nullptr;
    decltype(&::ZynNativeInternalDestroy) destroy = nullptr;
    decltype(&::ZynNativeVbgProcessFrame) processFrame = nullptr;
    decltype(&::ZynNativeVbgShutdownInstance) shutdown = nullptr;

    template <typename F>
    bool resolve(F& out, const char* name) {
        out = reinterpret_cast<F>(dlsym(handle, name));
        if (out == nullptr) {
            report(std::string("missing export ") + name);
        }
        return out != nullptr;
    }

    bool load(const std::filesystem::path& path) {
        if (path.empty()) {
            report("cannot find the program's own file");
            return false;
        }
        handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            report(std::string("cannot load the library: ") + dlerror());
            return false;
        }
        return resolve(create, "ZynNativeInternalCreate") &&
               resolve(destroy, "ZynNativeInternalDestroy") &&
               resolve(processFrame, "ZynNativeVbgProcessFrame") &&
               resolve(shutdown, "ZynNativeVbgShutdownInstance");
    }
};

bool copyPath(char16_t* field, const std::string& utf8) {
    return VBG::Text::CopyToField(field, ZYN_PATH_CHARS, utf8, ZYN_PATH_CHARS - 1);
}

// The settings of a blur effect for `type`, as the configuration conversion would make them.
bool makeSettings(uint32_t type, const std::string& modelFile, const std::string& logFolder,
                  const std::string& cacheFolder, VBGSettings& settings) {
    settings = VBGSettings{};
    settings.pt = type;
    settings.bt = 1;  // blur
    settings.blurAlgo = 1;
    settings.effects = ZYN_EFFECT_BACKGROUND;
    settings.playbackOptions = 2;
    return copyPath(settings.modelFilePath, modelFile) &&
           copyPath(settings.logDirectory, logFolder) &&
           copyPath(settings.fileCachePath, cacheFolder);
}

// NV12 planes of one frame with the record that describes them.
struct Nv12Frame {
    std::vector<uint8_t> luma;
    std::vector<uint8_t> chroma;
    ZynNativeInputFrame record{};

    Nv12Frame(uint32_t width, uint32_t height, uint8_t fill)
        : luma(size_t{width} * height, fill), chroma(size_t{width} * (height / 2), 128) {
        record.width = width;
        record.height = height;
        record.format = ZYN_FORMAT_NV12;
        record.plane0 = luma.data();
        record.stride0 = width;
        record.plane1 = chroma.data();
        record.stride1 = width;
    }
};

// A camera-like picture: video-range luma gradients with a bright block that moves from frame to
// frame, so that the model and the blur see changing content.
void paintCameraFrame(Nv12Frame& frame, int index) {
    const uint32_t w = frame.record.width;
    const uint32_t h = frame.record.height;
    const uint32_t blockX = 120 + 40 * static_cast<uint32_t>(index);
    for (uint32_t y = 0; y < h; ++y) {
        for (uint32_t x = 0; x < w; ++x) {
            const bool block = x >= blockX && x < blockX + 160 && y >= 80 && y < 300;
            frame.luma[size_t{y} * w + x] =
                block ? 200 : static_cast<uint8_t>(16 + (x * 150 / w + y * 50 / h));
        }
    }
    for (uint32_t y = 0; y < h / 2; ++y) {
        for (uint32_t x = 0; x < w; x += 2) {
            frame.chroma[size_t{y} * w + x] = static_cast<uint8_t>(100 + (x * 40 / w));
            frame.chroma[size_t{y} * w + x + 1] = static_cast<uint8_t>(140 - (y * 40 / h));
        }
    }
}

bool runFrames(Library& library, void* engine) {
    Nv12Frame input(kFrameWidth, kFrameHeight, 0);
    for (int i = 0; i < kFrameCount; ++i) {
        paintCameraFrame(input, i);
        // The camera picture never holds luma 0: an output byte still 0 was never written.
        Nv12Frame output(kFrameWidth, kFrameHeight, 0);
        void* handle = engine;
        const uint32_t status = library.processFrame(&handle, &input.record, &output.record);
        if (status != ZYN_STATUS_SUCCESS) {
            report("frame " + std::to_string(i) + " failed with status " + std::to_string(status));
            return false;
        }
        for (const uint8_t value : output.luma) {
            if (value == 0) {
                report("frame " + std::to_string(i) + " came back unprocessed");
                return false;
            }
        }
    }
    return true;
}

// Writes the selection next to its final name and renames it into place, so that a reader never
// sees a half-written file. The temporary has an unpredictable name and is created exclusively
// (never through a link someone placed there) and owner-only; the rename replaces whatever entry
// held the final name without following it.
bool writeSelection(const std::string& cacheFolder, const std::string& typeName) {
    // The cache folder belongs to the host: a missing one is not made again here (the host may
    // have removed it while the evaluation ran).
    std::error_code ec;
    const std::filesystem::path folder = std::filesystem::u8path(cacheFolder);
    const std::filesystem::path target = folder / "PT_CONFIG.json";
    std::string pattern = (folder / "PT_CONFIG.json.XXXXXX").string();

    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    // The names are plain ASCII words from the fixed table: nothing to escape.
    const std::string text = "{\"selected_processing_type\": \"" + typeName +
                             "\", \"selected_processing_time\": \"" + std::to_string(now) + "\"}\n";

    // mkostemp: O_CREAT | O_EXCL, mode 0600.
    const int fd = mkostemp(pattern.data(), O_CLOEXEC);
    const int error = errno;
    const std::filesystem::path temporary = pattern;
    if (fd < 0) {
        report("cannot create " + temporary.string() + ": " + std::strerror(error));
        return false;
    }
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        written += static_cast<size_t>(n);
    }
    const bool complete = written == text.size() && fsync(fd) == 0;
    const bool closed = close(fd) == 0;
    if (!complete || !closed) {
        report("cannot write " + temporary.string());
        std::filesystem::remove(temporary, ec);
        return false;
    }
    std::filesystem::rename(temporary, target, ec);
    if (ec) {
        report("cannot rename into " + target.string() + ": " + ec.message());
        std::filesystem::remove(temporary, ec);
        return false;
    }
    return true;
}

int evaluate(int argc, char** argv) {
    if (argc != 5) {
        report("usage: EvalVBGProcessingType <type name> <model file> <log folder> <cache folder>");
        return kUsage;
    }
    const std::string typeName = argv[1];
    const std::string modelFile = argv[2];
    const std::string logFolder = argv[3];
    const std::string cacheFolder = argv[4];

    const VBG::ProcessingType type = VBG::ProcessingTypeFromName(typeName);
    if (type == VBG::PtAuto) {
        report("no processing type is named '" + typeName + "'");
        return kUnknownType;
    }
    VBGSettings settings;
    if (!makeSettings(type, modelFile, logFolder, cacheFolder, settings)) {
        report("a path is too long for the settings record");
        return kUsage;
    }

    Library library;
    if (!library.load(libraryPath())) {
        return kLibraryUnavailable;
    }
    void* engine = library.create(&settings);
    if (engine == nullptr) {
        report("no engine of type " + typeName);
        library.shutdown();
        return kEngineUnavailable;
    }
    const bool framesOk = runFrames(library, engine);
    library.destroy(engine);
    library.shutdown();
    if (!framesOk) {
        return kFrameFailed;
    }
    return writeSelection(cacheFolder, typeName) ? kWorks : kSelectionNotWritten;
}

}  // namespace

int main(int argc, char** argv) {
    int code = kUnexpected;
    try {
        code = evaluate(argc, argv);
    } catch (const std::exception& e) {
        report(std::string("unexpected failure: ") + e.what());
    } catch (...) {
        report("unexpected failure");
    }
    std::fflush(stderr);
    // The verdict is on disk by now. Leaving without the static teardown of the inference runtimes
    // keeps a fault in that teardown from turning a working type into a failed one.
    _exit(code);
}
