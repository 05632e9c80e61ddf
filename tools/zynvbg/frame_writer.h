// Where processed frames go: a video file, numbered PNG pictures, or nowhere (timing runs).
#pragma once

extern "C" {
#include <libavutil/rational.h>
}

#include <cstdint>
#include <memory>
#include <string>

#include "yuv_frame.h"

namespace zynvbg {

// What the output name asks for, decided from its form before anything is opened.
enum class OutputKind {
    kNull,       // "null": frames are discarded
    kPngSingle,  // one PNG picture
    kPngFrames,  // numbered PNG pictures from a printf pattern such as frame_%05d.png
    kVideo,      // a video file; the extension picks container and codec
};

struct OutputPlan {
    OutputKind kind = OutputKind::kNull;
    std::string path;
};

// Classifies an output name. Throws ToolError(kExitBadArguments) for a name that cannot be
// written (unknown extension, a malformed frame pattern).
OutputPlan PlanOutput(const std::string& path);

// The video extensions the writer knows, for help texts and messages.
const char* VideoExtensions();

class FrameWriter {
  public:
    virtual ~FrameWriter() = default;
    // Writes one frame. Frames whose size differs from the first one are scaled to it.
    // Throws ToolError(kExitOutputFailure).
    virtual void write(const YuvFrame& frame) = 0;
    // Flushes and closes the output. Throws ToolError(kExitOutputFailure).
    virtual void finish() = 0;
    // Frames written so far.
    virtual int64_t count() const = 0;
    // What is being written, e.g. "H.264 (libx264) in out.mp4".
    virtual std::string describe() const = 0;
};

// Makes the folder that will hold the output (and checks that a file can be made there), so
// that an unwritable output is found before any work is done. Throws ToolError(kExitOutputFailure).
void PrepareOutputLocation(const OutputPlan& plan);

// Opens the writer. `width` x `height` is the size of the frames to come; `rate` the frame rate
// of a video. Throws ToolError(kExitOutputFailure).
std::unique_ptr<FrameWriter> OpenWriter(const OutputPlan& plan, int width, int height,
                                        AVRational rate, PixelLayout layout);

}  // namespace zynvbg
