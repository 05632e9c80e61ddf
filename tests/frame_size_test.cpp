// Frame records at the edges of what the process-frame export allows, NV12 and I420: every size
// from 1 x 1 up is processed, a record that describes no usable frame is refused with status 2 and
// an error record, its output untouched. Every plane touches an inaccessible page at one end.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "engine_test_support.h"
#include "support/log_capture.h"

using namespace engine_test;
using zyn_test::LogCapture;

namespace {

// A frame whose planes have no row padding (unless strides are given), each exactly stride x rows
// long, directly after or before an inaccessible page. Never-written pages cost nothing, so a
// plane of gigabytes can be described.
class GuardedFrame {
  public:
    GuardedFrame(uint32_t width, uint32_t height, uint32_t format, bool guardAtEnd,
                 std::vector<uint32_t> strides = {})
        : record_{}, nv12_(format == ZYN_FORMAT_NV12) {
        const uint32_t cw = (width + 1) / 2, ch = (height + 1) / 2;
        rowBytes_ =
            nv12_ ? std::vector<uint32_t>{width, 2 * cw} : std::vector<uint32_t>{width, cw, cw};
        strides_ = strides.empty() ? rowBytes_ : strides;
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        for (size_t p = 0; p < rowBytes_.size(); ++p) {
            rows_.push_back(p == 0 ? height : ch);
            sizes_.push_back(static_cast<size_t>(strides_[p]) * rows_[p]);
            const size_t dataPages = std::max<size_t>(1, (sizes_[p] + page - 1) / page);
            maps_.push_back((dataPages + 2) * page);
            auto* base =
                static_cast<uint8_t*>(mmap(nullptr, maps_[p], PROT_READ | PROT_WRITE,
                                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
            EXPECT_NE(MAP_FAILED, base);
            mprotect(base, page, PROT_NONE);
            mprotect(base + (dataPages + 1) * page, page, PROT_NONE);
            bases_.push_back(base);
            planes_.push_back(guardAtEnd ? base + (dataPages + 1) * page - sizes_[p] : base + page);
        }
        uint8_t* const v = nv12_ ? nullptr : planes_[2];
        const uint32_t vStride = nv12_ ? 0 : strides_[2];
        record_ = {width,      height,      format, planes_[0], strides_[0],
                   planes_[1], strides_[1], v,      vStride,    0.0f};
    }
    ~GuardedFrame() {
        for (size_t p = 0; p < bases_.size(); ++p) {
            munmap(bases_[p], maps_[p]);
        }
    }
    ZynNativeInputFrame& record() { return record_; }

    // Sets every byte of every plane, padding included, to `value`; or tells whether each is.
    bool bytes(uint8_t value, bool set) {
        bool all = true;
        for (size_t p = 0; p < planes_.size(); ++p) {
            std::fill_n(planes_[p], set ? sizes_[p] : 0, value);
            all = all && std::all_of(planes_[p], planes_[p] + sizes_[p],
                                     [value](uint8_t b) { return b == value; });
        }
        return all;
    }
    // A flat picture, padding 0; or, with `check`, the largest distance of a picture byte from it.
    int flat(uint8_t y, uint8_t u, uint8_t v, bool check = false) {
        int worst = 0;
        for (size_t p = 0; p < planes_.size(); ++p) {
            for (uint32_t r = 0; r < rows_[p]; ++r) {
                uint8_t* row = planes_[p] + static_cast<size_t>(r) * strides_[p];
                for (uint32_t c = 0; c < (check ? rowBytes_[p] : strides_[p]); ++c) {
                    const uint8_t want = c >= rowBytes_[p] ? 0
                                         : p == 0          ? y
                                         : p == 2          ? v
                                         : nv12_ && c % 2  ? v
                                                           : u;
                    worst = std::max(worst, std::abs(row[c] - want));
                    row[c] = check ? row[c] : want;
                }
            }
        }
        return worst;
    }

  private:
    ZynNativeInputFrame record_;
    bool nv12_;
    std::vector<uint32_t> rowBytes_, rows_, strides_;
    std::vector<size_t> sizes_, maps_;
    std::vector<uint8_t*> bases_, planes_;
};

constexpr Yuv kGrey{128, 128, 128};
constexpr uint8_t kUntouched = 0x5A;

uint32_t Process(Instance& instance, GuardedFrame& in, GuardedFrame& out) {
    return ZynNativeVideoProcessingProcessFrame(instance.handle(), &in.record(), &out.record());
}

class FrameSizes : public testing::TestWithParam<uint32_t> {
  protected:
    static void SetUpTestSuite() { WritePicture("sizes_green.png", 320, 180, "green"); }
};

}  // namespace

TEST_P(FrameSizes, EverySizeFromOneByOneUpIsProcessedWithinItsPlanes) {
    const uint32_t format = GetParam();
    // The green a flat grey frame becomes with the picture background at an ordinary size: no
    // person in the frame, so the picture everywhere.
    Instance picture(BackgroundConfig("sizes_green.png"));
    Frame grey(640, 360, format), ordinary(640, 360, format);
    grey.fill(kGrey.y, kGrey.u, kGrey.v);
    ASSERT_EQ(0u, picture.run(grey, ordinary, 2));
    const Yuv green{ordinary.lumaAt(320, 180), ordinary.uAt(320, 180), ordinary.vAt(320, 180)};
    ASSERT_LT(green.u, 118) << "the picture did not replace the grey frame";
    ASSERT_LT(green.v, 118);

    Instance blurAndTouchUp(BlurAndTouchUpConfig("0.3"));
    // Odd sides, the smallest frames, sizes below the model's 256 x 144 in either direction, a
    // narrow tall frame, and a large one.
    const uint32_t sizes[][2] = {{1, 1},    {2, 2},     {1, 2},      {2, 1},     {3, 5},
                                 {5, 3},    {17, 9},    {100, 60},   {255, 143}, {143, 255},
                                 {16, 300}, {641, 361}, {4096, 2160}};
    for (const auto& size : sizes) {
        for (const bool guardAtEnd : {true, false}) {
            SCOPED_TRACE(testing::Message() << size[0] << "x" << size[1] << ", guard at the "
                                            << (guardAtEnd ? "end" : "start"));
            GuardedFrame in(size[0], size[1], format, guardAtEnd);
            GuardedFrame out(size[0], size[1], format, guardAtEnd);
            in.flat(kGrey.y, kGrey.u, kGrey.v);
            for (int frame = 0; frame < 2; ++frame) {
                out.bytes(kUntouched, true);
                ASSERT_EQ(0u, Process(picture, in, out));
                EXPECT_LE(out.flat(green.y, green.u, green.v, true), 1);
                out.bytes(kUntouched, true);
                ASSERT_EQ(0u, Process(blurAndTouchUp, in, out));
                // Blurring a flat frame and smoothing skin it does not have changes nothing.
                EXPECT_LE(out.flat(kGrey.y, kGrey.u, kGrey.v, true), 1);
            }
        }
    }
}

TEST_P(FrameSizes, RecordsThatDoNotDescribeAUsableFrameAreRefusedAndNameTheSize) {
    const uint32_t format = GetParam();
    const bool nv12 = format == ZYN_FORMAT_NV12;
    const auto strides = [nv12](uint32_t y, uint32_t u, uint32_t v) {
        return nv12 ? std::vector<uint32_t>{y, u} : std::vector<uint32_t>{y, u, v};
    };
    const std::string otherSize = "Output frame 32x36 does not match the input frame 64x36";
    const std::string unknownOut = "Unknown output frame format: 7";
    const std::string unknownIn = "Unknown input frame format: 9";
    const struct {
        std::string what;
        uint32_t width, height;
        std::vector<uint32_t> strides;  // empty: exact strides
        int missingPlane;               // -1: none
        bool inOutput;
        std::string record;  // the error record; empty: "Unusable <input|output> frame: WxH ..."
        uint32_t outputFormat = 0;  // 0: as the input
    } cases[] = {
        {"zero width", 0, 36, {}, -1, false, ""},
        {"zero height", 64, 0, {}, -1, false, ""},
        {"zero width of the output", 0, 36, {}, -1, true, ""},
        {"a side above 16384", 16385, 2, {}, -1, false, ""},
        {"no luma plane", 64, 36, {}, 0, false, ""},
        {"no chroma plane", 64, 36, {}, 1, false, ""},
        {"no chroma plane in the output", 64, 36, {}, 1, true, ""},
        // One byte short of the row; for NV12 at an odd width the chroma row is width + 1 bytes.
        {"short luma stride", 63, 35, strides(62, 64, 32), -1, false, ""},
        {"short chroma stride", 63, 35, strides(63, 63, 31), -1, false, ""},
        {"short output luma stride", 64, 36, strides(63, 64, 32), -1, true, ""},
        // A stride that is negative as an int, and a plane of more than 2^31 - 1 bytes.
        {"luma stride of 2^31", 64, 1, strides(0x80000000u, 64, 32), -1, false, ""},
        {"luma plane of 2^31 bytes", 64, 2, strides(0x40000000u, 64, 32), -1, false, ""},
        {"an output of another size", 32, 36, {}, -1, true, otherSize},
        // Refused before anything is written: a luma row at the width would reach the guard.
        {"an output of an unknown format", 64, 36, {63, 32, 32}, -1, true, unknownOut, 7},
        {"an input of an unknown format", 64, 36, {10, 10, 10}, 0, false, unknownIn, 9}};
    const fs::path cache = Library::Get().cache();
    int n = 0;
    for (const std::string& config : {BlurConfig(), TouchUpConfig("0.3")}) {
        Instance instance(config);
        GuardedFrame goodIn(64, 36, format, true);
        goodIn.flat(kGrey.y, kGrey.u, kGrey.v);
        for (const auto& c : cases) {
            SCOPED_TRACE(config + ": " + c.what);
            LogCapture log;
            const uint32_t badFormat = c.outputFormat != 0 ? uint32_t{ZYN_FORMAT_I420} : format;
            GuardedFrame bad(c.width, c.height, badFormat, true, c.strides);
            GuardedFrame partner(64, 36, format, true);
            // The other record of the pair is usable: a grey input, or an output whose bytes
            // must stay as they are.
            (c.inOutput ? bad : partner).bytes(kUntouched, true);
            if (c.inOutput) {
                partner.flat(kGrey.y, kGrey.u, kGrey.v);
            } else if (c.strides.empty() || c.strides[0] < 0x40000000u) {
                bad.bytes(kGrey.y, true);  // its strides may be short; huge planes stay unwritten
            }
            ZynNativeInputFrame& b = bad.record();
            b.plane0 = c.missingPlane == 0 ? nullptr : b.plane0;
            b.plane1 = c.missingPlane == 1 ? nullptr : b.plane1;
            b.format = c.outputFormat != 0 ? c.outputFormat : b.format;
            // A feedback request waiting for a frame reads nothing of a refused one.
            const std::string id = "refused" + std::to_string(format) + "-" + std::to_string(n++);
            ASSERT_EQ(0u, instance.update(R"({"feedback": true, "id": ")" + id + "\"}"));
            EXPECT_EQ(
                2u, c.inOutput ? Process(instance, partner, bad) : Process(instance, bad, partner));
            EXPECT_FALSE(fs::exists(cache / ("raw" + id + ".bin")));
            const std::string record =
                !c.record.empty()
                    ? c.record
                    : "Unusable " + std::string(c.inOutput ? "output" : "input") +
                          " frame: " + std::to_string(c.width) + "x" + std::to_string(c.height) +
                          " format=" + std::to_string(format);
            EXPECT_EQ(1u, log.countContaining(record)) << log.dump();
            EXPECT_TRUE((c.inOutput ? bad : partner).bytes(kUntouched, false)) << "output written";
            // The instance goes on with the next usable frame, which the request records when
            // the refused record was unusable (a refused format or size ends the request).
            GuardedFrame goodOut(64, 36, format, true);
            EXPECT_EQ(0u, Process(instance, goodIn, goodOut));
            EXPECT_EQ(c.record.empty(), fs::exists(cache / ("final" + id + ".bin")));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, FrameSizes, testing::Values(ZYN_FORMAT_NV12, ZYN_FORMAT_I420),
                         [](const testing::TestParamInfo<uint32_t>& info) {
                             return std::string(info.param == ZYN_FORMAT_NV12 ? "NV12" : "I420");
                         });
