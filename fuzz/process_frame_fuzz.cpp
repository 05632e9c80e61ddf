// Frame records through the process-frame export (blur, touch-up): the input decides sizes,
// formats, row padding, a missing plane, a short stride, another output size, in place; the rest is
// the picture. Planes are exactly as long as their records say. A record covering its size gets
// status 0 with the padding after each output row untouched; any other status 2 and the output
// untouched.
#include <algorithm>
#include <array>
#include <vector>

#include "fuzz_library.h"

namespace {

using zyn_fuzz::Require;
constexpr uint8_t kUntouched = 0xA5;  // every output byte before the call
ZynNativeHandle instance = nullptr;

// Reads the input front to back; zeros once it is used up.
struct Reader {
    const uint8_t* data;
    size_t size, at = 0;
    uint8_t byte() { return at < size ? data[at++] : 0; }
    uint32_t u16() { return byte() | (static_cast<uint32_t>(byte()) << 8); }
};

struct Plane {
    std::vector<uint8_t> bytes;
    uint32_t rowBytes = 0, stride = 0;
};
struct FrameUnderTest {
    ZynNativeInputFrame record;
    std::array<Plane, 3> planes;
    bool usable;  // the record covers its size as the frame contract asks
};

// NV12, I420, or (one time in four) any code, of which only 1 and 2 are formats.
uint32_t FormatOf(uint8_t selector, uint8_t raw) {
    return (selector & 3) == 0 ? ZYN_FORMAT_NV12 : (selector & 3) < 3 ? ZYN_FORMAT_I420 : raw;
}

FrameUnderTest MakeFrame(Reader& in, uint32_t w, uint32_t h, uint32_t format, bool shortStride,
                         int missing) {
    const bool nv12 = format == ZYN_FORMAT_NV12;
    const int planes = nv12 ? 2 : 3;
    const uint32_t cw = (w + 1) / 2, ch = (h + 1) / 2;
    const uint32_t rowBytes[3] = {w, nv12 ? 2 * cw : cw, cw}, rows[3] = {h, ch, ch};
    const int shortPlane = shortStride ? in.byte() % planes : -1;
    FrameUnderTest f;
    f.usable = w >= 1 && h >= 1 && w <= 16384 && h <= 16384 &&
               (nv12 || format == ZYN_FORMAT_I420) && (missing < 0 || missing >= planes) &&
               shortPlane < 0;
    uint8_t* pointers[3];
    uint32_t strides[3];
    for (int p = 0; p < 3; ++p) {
        const uint32_t pad = in.byte() % 33, r = rowBytes[p];
        strides[p] = p != shortPlane ? r + pad : r > 0 ? r - 1 - std::min(pad, r - 1) : 0;
        f.planes[p] = {std::vector<uint8_t>(size_t{strides[p]} * rows[p]), r, strides[p]};
        pointers[p] = p == missing || p == planes ? nullptr : f.planes[p].bytes.data();
    }
    // NV12 has no third plane: its stride carries whatever the host left there.
    const uint32_t thirdStride = nv12 ? in.byte() : strides[2];
    f.record = {w,           h,          format,      pointers[0], strides[0],
                pointers[1], strides[1], pointers[2], thirdStride, 0};
    return f;
}

// Whether every byte of the output still holds kUntouched, or (paddingOnly) every byte after a row.
bool Untouched(const FrameUnderTest& f, bool paddingOnly) {
    for (const Plane& plane : f.planes) {
        for (size_t i = 0; i < plane.bytes.size(); ++i) {
            const bool padding = plane.stride == 0 || i % plane.stride >= plane.rowBytes;
            if ((padding || !paddingOnly) && plane.bytes[i] != kUntouched) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zyn_fuzz::InitLibraryOnce();
    Require(ZynNativeVideoProcessingCreateInstance(
                R"({"processingMode": 8, "effects": [{"name": "blur"}, )"
                R"({"name": "touchUp", "touchUpSigma": "0.5"}]})",
                &instance) == ZYN_STATUS_SUCCESS &&
            instance != nullptr);
    std::atexit([] {
        ZynNativeVideoProcessingDestroyInstance(&instance);
        ZynNativeVideoProcessingShutdownInstance();
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in{data, size};
    const uint8_t flags = in.byte(), rawFormats = in.byte();
    const uint32_t width = in.u16() % 400, height = in.u16() % 400;
    const uint8_t missing = in.byte();
    // A missing plane in one of the two records, one time in eight.
    const int missingIn = (flags & 0x40) != 0 && (missing & 7) == 0 ? (missing >> 3) % 3 : -1;
    const int missingOut = (flags & 0x80) != 0 && (missing & 7) == 1 ? (missing >> 3) % 3 : -1;
    const bool otherSize = (flags & 0x10) != 0;
    const uint32_t outWidth = otherSize ? in.u16() % 400 : width;
    const uint32_t outHeight = otherSize ? in.u16() % 400 : height;
    const bool shortStride = (flags & 0x20) != 0, shortIn = shortStride && (missing & 0x80) == 0;

    FrameUnderTest input =
        MakeFrame(in, width, height, FormatOf(flags, rawFormats & 0x0F), shortIn, missingIn);
    FrameUnderTest output =
        MakeFrame(in, outWidth, outHeight, FormatOf(flags >> 2, rawFormats >> 4),
                  shortStride && !shortIn, missingOut);
    const size_t restSize = size - std::min(in.at, size);
    for (int p = 0; p < 3; ++p) {
        std::vector<uint8_t>& bytes = input.planes[p].bytes;
        for (size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = restSize > 0 ? data[in.at + i % restSize] : 128;
        }
        std::fill(output.planes[p].bytes.begin(), output.planes[p].bytes.end(), kUntouched);
    }
    const bool processed =
        input.usable && output.usable && outWidth == width && outHeight == height;
    if (processed && (missing & 0x40) != 0) {  // now and then in place
        Require(ZynNativeVideoProcessingProcessFrame(&instance, &input.record, &input.record) ==
                ZYN_STATUS_SUCCESS);
        return 0;
    }
    const uint32_t status =
        ZynNativeVideoProcessingProcessFrame(&instance, &input.record, &output.record);
    Require(processed ? status == ZYN_STATUS_SUCCESS && Untouched(output, true)
                      : status == ZYN_STATUS_FRAME_FAILED && Untouched(output, false));
    return 0;
}
