// Command line of zynvbg.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "frame_reader.h"
#include "yuv_frame.h"

namespace zynvbg {

struct Size {
    int width = 0;
    int height = 0;
};

// An effect change at a frame: the JSON is handed to ZynNativeVideoProcessingUpdateInstance
// just before that frame is processed.
struct Switch {
    int64_t frame = 0;
    std::string json;
};

struct Options {
    bool help = false;
    bool version = false;

    std::string input;
    std::string output;
    std::optional<RawVideo> raw;  // --raw-size / --raw-format / --raw-fps
    PixelLayout layout = PixelLayout::kNv12;
    std::optional<Size> size;
    int64_t maxFrames = -1;  // --frames

    // Effect configuration: exactly one of these three sources.
    std::string configJson;  // --config-json
    std::string configFile;  // --config
    bool blur = false;
    std::string background;
    std::string touchUpSigma;
    std::string weathermanMode;
    std::string weathermanBackground;
    std::string weathermanSize;
    std::string weathermanOffset;  // "X,Y"
    std::string weathermanAlpha;
    std::optional<int> processingMode;
    std::string presentation;
    std::vector<Switch> switches;

    std::string library;
    std::string models;
    std::string workDir;
    std::string timings;
    bool quiet = false;

    bool shortEffects() const {
        return blur || !background.empty() || !touchUpSigma.empty() || !weathermanMode.empty();
    }
};

// Parses argv. Throws ToolError(kExitBadArguments) with a one-line reason.
Options ParseOptions(int argc, char** argv);

// The --help text.
std::string UsageText();

}  // namespace zynvbg
