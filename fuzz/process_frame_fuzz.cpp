// Frame records through the process-frame export of one instance (blur with touch-up) made once:
// the input decides the size (odd and tiny ones included), the formats of the input and the
// output record, the row padding of every plane, whether a plane is missing, a stride is too short
// or the output has another size, and whether a usable frame is processed in place; the rest of
// it is the picture. Every plane is allocated exactly as long as its record says, so a byte read
// or written past a plane is caught by the address checker. A record that covers its size must be
// processed (status 0) without touching the bytes past each output row; any other must be refused
// with status 2 and the output left as it was.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_library.h"
#include "zyn_native_vbg.h"

namespace {

constexpr uint32_t kMaxSide = 16384;   // the largest side a frame may have
constexpr uint32_t kFuzzedSide = 400;  // sides are drawn from 0 .. kFuzzedSide - 1
constexpr uint8_t kUntouched = 0xA5;   // what every output byte holds before the call

ZynNativeHandle instance = nullptr;

// Reads the input front to back; zeros once it is used up.
class Reader {
  public:
    Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
    uint32_t u16() { return byte() | (static_cast<uint32_t>(byte()) << 8); }
    const uint8_t* rest() const { return data_ + std::min(at_, size_); }
    size_t restSize() const { return size_ - std::min(at_, size_); }

  private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

struct Plane {
    std::unique_ptr<uint8_t[]> bytes;
    size_t size = 0;
    uint32_t rowBytes = 0;  // bytes of each row that belong to the picture
    uint32_t stride = 0;
    uint32_t rows = 0;
};

// A frame record over planes of exactly stride x rows bytes each.
struct FrameUnderTest {
    ZynNativeInputFrame record{};
    std::array<Plane, 3> planes;
    bool usable = false;  // the record covers its size as the frame contract asks
};

uint32_t FormatOf(uint8_t selector, uint8_t raw) {
    switch (selector & 3) {
        case 0:
            return ZYN_FORMAT_NV12;
        case 1:
        case 2:
            return ZYN_FORMAT_I420;
        default:
            return raw;  // any code; only 1 and 2 are formats
    }
}

FrameUnderTest MakeFrame(Reader& in, uint32_t width, uint32_t height, uint32_t format,
                         bool shortStride, int missingPlane) {
    FrameUnderTest f;
    f.record.width = width;
    f.record.height = height;
    f.record.format = format;
    const uint32_t cw = (width + 1) / 2;
    const uint32_t ch = (height + 1) / 2;
    const bool nv12 = format == ZYN_FORMAT_NV12;
    const uint32_t planeCount = nv12 ? 2 : 3;
    const std::array<uint32_t, 3> rowBytes = {width, nv12 ? 2 * cw : cw, cw};
    const std::array<uint32_t, 3> rows = {height, ch, ch};
    bool covered = width >= 1 && height >= 1 && width <= kMaxSide && height <= kMaxSide &&
                   (format == ZYN_FORMAT_NV12 || format == ZYN_FORMAT_I420);
    const int shortPlane = shortStride ? in.byte() % planeCount : -1;
    for (uint32_t p = 0; p < 3; ++p) {
        const uint32_t pad = in.byte() % 33;
        Plane& plane = f.planes[p];
        plane.rowBytes = rowBytes[p];
        plane.rows = rows[p];
        plane.stride = rowBytes[p] + pad;
        if (static_cast<int>(p) == shortPlane) {
            plane.stride = rowBytes[p] > 0 ? rowBytes[p] - 1 - std::min(pad, rowBytes[p] - 1) : 0;
            covered = covered && plane.stride >= rowBytes[p];
        }
        plane.size = static_cast<size_t>(plane.stride) * plane.rows;
        plane.bytes.reset(new uint8_t[plane.size]);
    }
    uint8_t* pointers[3] = {f.planes[0].bytes.get(), f.planes[1].bytes.get(),
                            f.planes[2].bytes.get()};
    if (missingPlane >= 0 && missingPlane < static_cast<int>(planeCount)) {
        pointers[missingPlane] = nullptr;
        covered = false;
    }
    f.record.plane0 = pointers[0];
    f.record.stride0 = f.planes[0].stride;
    f.record.plane1 = pointers[1];
    f.record.stride1 = f.planes[1].stride;
    if (!nv12) {
        f.record.plane2 = pointers[2];
        f.record.stride2 = f.planes[2].stride;
    } else {
        // NV12 has no third plane; its fields carry whatever the host left there.
        f.record.plane2 = nullptr;
        f.record.stride2 = in.byte();
    }
    f.usable = covered;
    return f;
}

void FillFrom(FrameUnderTest& f, const uint8_t* bytes, size_t count) {
    for (Plane& plane : f.planes) {
        for (size_t i = 0; i < plane.size; ++i) {
            plane.bytes[i] = count > 0 ? bytes[i % count] : 128;
        }
    }
}

void FillWith(FrameUnderTest& f, uint8_t value) {
    for (Plane& plane : f.planes) {
        if (plane.size > 0) {
            std::memset(plane.bytes.get(), value, plane.size);
        }
    }
}

// Whether every byte of the output's planes still holds kUntouched, or (picturesOnly) only the
// padding after each row.
bool Untouched(const FrameUnderTest& f, bool paddingOnly) {
    for (const Plane& plane : f.planes) {
        for (size_t i = 0; i < plane.size; ++i) {
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
    if (ZynNativeVideoProcessingCreateInstance(
            R"({"processingMode": 8, "effects": [{"name": "blur"}, )"
            R"({"name": "touchUp", "touchUpSigma": "0.5"}]})",
            &instance) != ZYN_STATUS_SUCCESS ||
        instance == nullptr) {
        std::fprintf(stderr, "process_frame_fuzz: the instance could not be made\n");
        std::abort();
    }
    // The instance lives as long as the process; it is destroyed on the way out.
    std::atexit([] {
        ZynNativeVideoProcessingDestroyInstance(&instance);
        ZynNativeVideoProcessingShutdownInstance();
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    const uint8_t flags = in.byte();
    const uint8_t rawFormats = in.byte();
    const uint32_t width = in.u16() % kFuzzedSide;
    const uint32_t height = in.u16() % kFuzzedSide;
    const uint32_t inFormat = FormatOf(flags, rawFormats & 0x0F);
    const uint32_t outFormat = FormatOf(flags >> 2, rawFormats >> 4);
    const bool otherOutputSize = (flags & 0x10) != 0;
    const bool shortStride = (flags & 0x20) != 0;
    const uint8_t missing = in.byte();
    // A missing plane in one of the two records, one time in eight.
    const int missingIn = (flags & 0x40) != 0 && (missing & 7) == 0 ? (missing >> 3) % 3 : -1;
    const int missingOut = (flags & 0x80) != 0 && (missing & 7) == 1 ? (missing >> 3) % 3 : -1;
    uint32_t outWidth = width;
    uint32_t outHeight = height;
    if (otherOutputSize) {
        outWidth = in.u16() % kFuzzedSide;
        outHeight = in.u16() % kFuzzedSide;
    }
    const bool shortIn = shortStride && (missing & 0x80) == 0;
    const bool shortOut = shortStride && !shortIn;

    FrameUnderTest input = MakeFrame(in, width, height, inFormat, shortIn, missingIn);
    FrameUnderTest output = MakeFrame(in, outWidth, outHeight, outFormat, shortOut, missingOut);
    FillFrom(input, in.rest(), in.restSize());
    FillWith(output, kUntouched);

    const bool expectProcessed =
        input.usable && output.usable && outWidth == width && outHeight == height;
    // Now and then a usable frame is processed in place: the output record is the input's.
    if (expectProcessed && (missing & 0x40) != 0) {
        const uint32_t status =
            ZynNativeVideoProcessingProcessFrame(&instance, &input.record, &input.record);
        if (status != ZYN_STATUS_SUCCESS) {
            __builtin_trap();
        }
        return 0;
    }
    const uint32_t status =
        ZynNativeVideoProcessingProcessFrame(&instance, &input.record, &output.record);
    if (expectProcessed) {
        if (status != ZYN_STATUS_SUCCESS || !Untouched(output, true)) {
            __builtin_trap();
        }
    } else if (status != ZYN_STATUS_FRAME_FAILED || !Untouched(output, false)) {
        __builtin_trap();
    }
    return 0;
}
