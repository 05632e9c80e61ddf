// Frame sizes at the edges of what the frame record allows, through the process-frame export, for
// NV12 and I420. Every size from 1 x 1 up to 16384 on each side is processed, odd sizes and sizes
// smaller than the model's included; a record that does not describe a usable frame (a zero side,
// a side above 16384, a missing plane, a stride shorter than its row or above 2^31 - 1, a plane
// above 2^31 - 1 bytes) is refused with status 2 and an error record that names the size, the
// output is left as it was and a waiting feedback request records the next frame instead; so is
// an output of an unknown format. Every plane here is
// allocated exactly as long as the record says, touching an inaccessible page at its end or at
// its start, so that one byte read or written outside a plane faults.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine_test_support.h"
#include "support/log_capture.h"

using namespace engine_test;
using zyn_test::LogCapture;

namespace {

// Bytes placed directly after or directly before an inaccessible page.
class GuardedBytes {
  public:
    GuardedBytes(size_t size, bool guardAtEnd) : size_(size) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t dataPages = std::max<size_t>(1, (size + page - 1) / page);
        mapped_ = (dataPages + 2) * page;
        // Pages never written cost nothing: a plane of gigabytes can be described and read.
        void* base = mmap(nullptr, mapped_, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (base == MAP_FAILED) {
            throw std::runtime_error("mmap failed");
        }
        base_ = static_cast<uint8_t*>(base);
        if (mprotect(base_, page, PROT_NONE) != 0 ||
            mprotect(base_ + (dataPages + 1) * page, page, PROT_NONE) != 0) {
            munmap(base_, mapped_);
            throw std::runtime_error("mprotect failed");
        }
        data_ = guardAtEnd ? base_ + (dataPages + 1) * page - size : base_ + page;
    }
    ~GuardedBytes() { munmap(base_, mapped_); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    uint8_t* data() { return data_; }
    size_t size() const { return size_; }

  private:
    size_t size_;
    size_t mapped_ = 0;
    uint8_t* base_ = nullptr;
    uint8_t* data_ = nullptr;
};

// A frame whose planes have no row padding (unless strides are given) and are exactly as long
// as stride x rows.
class GuardedFrame {
  public:
    GuardedFrame(uint32_t width, uint32_t height, uint32_t format, bool guardAtEnd,
                 std::vector<uint32_t> strides = {})
        : width_(width), height_(height), format_(format) {
        const uint32_t cw = (width + 1) / 2;
        const uint32_t ch = (height + 1) / 2;
        const bool nv12 = format == ZYN_FORMAT_NV12;
        rowBytes_ =
            nv12 ? std::vector<uint32_t>{width, 2 * cw} : std::vector<uint32_t>{width, cw, cw};
        rows_ = nv12 ? std::vector<uint32_t>{height, ch} : std::vector<uint32_t>{height, ch, ch};
        strides_ = strides.empty() ? rowBytes_ : strides;
        for (size_t p = 0; p < rowBytes_.size(); ++p) {
            planes_.push_back(std::make_unique<GuardedBytes>(
                static_cast<size_t>(strides_[p]) * rows_[p], guardAtEnd));
        }
    }

    ZynNativeInputFrame record() {
        ZynNativeInputFrame r{};
        r.width = width_;
        r.height = height_;
        r.format = format_;
        r.plane0 = planes_[0]->data();
        r.stride0 = strides_[0];
        r.plane1 = planes_[1]->data();
        r.stride1 = strides_[1];
        if (planes_.size() == 3) {
            r.plane2 = planes_[2]->data();
            r.stride2 = strides_[2];
        }
        return r;
    }

    // Every byte of every plane, padding included.
    void fillBytes(uint8_t value) {
        for (auto& plane : planes_) {
            std::memset(plane->data(), value, plane->size());
        }
    }
    // Flat picture: luma y, chroma u and v.
    void fill(uint8_t y, uint8_t u, uint8_t v) {
        fillBytes(0);
        for (uint32_t r = 0; r < rows_[0]; ++r) {
            std::memset(planes_[0]->data() + static_cast<size_t>(r) * strides_[0], y, rowBytes_[0]);
        }
        for (uint32_t r = 0; r < rows_[1]; ++r) {
            uint8_t* row = planes_[1]->data() + static_cast<size_t>(r) * strides_[1];
            if (format_ == ZYN_FORMAT_NV12) {
                for (uint32_t c = 0; c < rowBytes_[1]; c += 2) {
                    row[c] = u;
                    row[c + 1] = v;
                }
            } else {
                std::memset(row, u, rowBytes_[1]);
                std::memset(planes_[2]->data() + static_cast<size_t>(r) * strides_[2], v,
                            rowBytes_[2]);
            }
        }
    }

    // The largest distance of any picture byte from the flat picture (y, u, v).
    int maxDistanceFrom(uint8_t y, uint8_t u, uint8_t v) const {
        int worst = 0;
        auto visit = [&worst](const uint8_t* row, uint32_t count, uint32_t step, uint8_t want) {
            for (uint32_t c = 0; c < count; c += step) {
                worst = std::max(worst, std::abs(static_cast<int>(row[c]) - want));
            }
        };
        for (uint32_t r = 0; r < rows_[0]; ++r) {
            visit(planes_[0]->data() + static_cast<size_t>(r) * strides_[0], rowBytes_[0], 1, y);
        }
        for (uint32_t r = 0; r < rows_[1]; ++r) {
            const uint8_t* row = planes_[1]->data() + static_cast<size_t>(r) * strides_[1];
            if (format_ == ZYN_FORMAT_NV12) {
                visit(row, rowBytes_[1], 2, u);
                visit(row + 1, rowBytes_[1] - 1, 2, v);
            } else {
                visit(row, rowBytes_[1], 1, u);
                visit(planes_[2]->data() + static_cast<size_t>(r) * strides_[2], rowBytes_[2], 1,
                      v);
            }
        }
        return worst;
    }

    // Whether every byte of every plane still holds `value`.
    bool allBytesAre(uint8_t value) const {
        for (const auto& plane : planes_) {
            for (size_t i = 0; i < plane->size(); ++i) {
                if (plane->data()[i] != value) {
                    return false;
                }
            }
        }
        return true;
    }

  private:
    uint32_t width_, height_, format_;
    std::vector<uint32_t> rowBytes_, rows_, strides_;
    std::vector<std::unique_ptr<GuardedBytes>> planes_;
};

constexpr Yuv kGrey{128, 128, 128};
constexpr uint8_t kUntouched = 0x5A;

uint32_t Process(Instance& instance, GuardedFrame& in, GuardedFrame& out) {
    ZynNativeInputFrame i = in.record();
    ZynNativeInputFrame o = out.record();
    return ZynNativeVideoProcessingProcessFrame(instance.handle(), &i, &o);
}

std::string SizeText(uint32_t w, uint32_t h) {
    return std::to_string(w) + "x" + std::to_string(h);
}

struct SizeCase {
    uint32_t width, height;
};

// Odd sides, the smallest frames, sizes below the model's 256 x 144 in either direction, a
// narrow tall frame, and a large one.
const SizeCase kSizes[] = {{1, 1},    {2, 2},     {1, 2},      {2, 1},     {3, 5},
                           {5, 3},    {17, 9},    {100, 60},   {255, 143}, {143, 255},
                           {16, 300}, {641, 361}, {4096, 2160}};

class FrameSizes : public testing::TestWithParam<uint32_t> {
  protected:
    static void SetUpTestSuite() {
        Library::Get();
        WritePicture("sizes_green.png", 320, 180, "green");
    }

    // The flat green that a flat grey camera frame becomes with the picture background, as a
    // frame of an ordinary size shows it: no person in the frame, so the picture everywhere.
    static Yuv GreenAtOrdinarySize(uint32_t format) {
        Instance instance(BackgroundConfig("sizes_green.png"));
        EXPECT_EQ(0u, instance.status());
        Frame in(640, 360, format);
        in.fill(kGrey.y, kGrey.u, kGrey.v);
        Frame out(640, 360, format);
        EXPECT_EQ(0u, instance.process(in, out));
        EXPECT_EQ(0u, instance.process(in, out));
        return Yuv{out.lumaAt(320, 180), out.uAt(320, 180), out.vAt(320, 180)};
    }
};

}  // namespace

TEST_P(FrameSizes, EverySizeFromOneByOneUpIsProcessedWithinItsPlanes) {
    const uint32_t format = GetParam();
    const Yuv green = GreenAtOrdinarySize(format);
    // Green has little blue and little red: both chroma values below neutral.
    ASSERT_LT(green.u, 118) << "the picture did not replace the grey frame";
    ASSERT_LT(green.v, 118);

    Instance picture(BackgroundConfig("sizes_green.png"));
    Instance blurAndTouchUp(BlurAndTouchUpConfig("0.3"));
    ASSERT_TRUE(picture.valid());
    ASSERT_TRUE(blurAndTouchUp.valid());
    for (const SizeCase& c : kSizes) {
        for (const bool guardAtEnd : {true, false}) {
            SCOPED_TRACE(SizeText(c.width, c.height) +
                         (guardAtEnd ? ", planes end at a guard" : ", planes start at a guard"));
            GuardedFrame in(c.width, c.height, format, guardAtEnd);
            in.fill(kGrey.y, kGrey.u, kGrey.v);
            GuardedFrame out(c.width, c.height, format, guardAtEnd);
            for (int frame = 0; frame < 2; ++frame) {
                out.fillBytes(kUntouched);
                ASSERT_EQ(0u, Process(picture, in, out));
                EXPECT_LE(out.maxDistanceFrom(green.y, green.u, green.v), 1);
                out.fillBytes(kUntouched);
                ASSERT_EQ(0u, Process(blurAndTouchUp, in, out));
                // Blurring a flat frame and smoothing skin it does not have changes nothing.
                EXPECT_LE(out.maxDistanceFrom(kGrey.y, kGrey.u, kGrey.v), 1);
            }
        }
    }
}

TEST_P(FrameSizes, RecordsThatDoNotDescribeAUsableFrameAreRefusedAndNameTheSize) {
    const uint32_t format = GetParam();
    const bool nv12 = format == ZYN_FORMAT_NV12;
    Instance instance(BlurConfig());
    ASSERT_TRUE(instance.valid());

    struct Refused {
        std::string what;
        uint32_t width, height;
        std::vector<uint32_t> strides;  // empty: exact strides
        int missingPlane;               // -1: none
        bool inOutput;
        bool hugePlanes = false;  // gigabytes of zero pages, left unwritten
    };
    // Strides one byte short of their row: luma, and chroma (for NV12 at an odd width the
    // interleaved row is width + 1 bytes, so a stride equal to the width is short).
    const std::vector<Refused> cases = {
        {"zero width", 0, 36, {}, -1, false},
        {"zero height", 64, 0, {}, -1, false},
        {"zero width of the output", 0, 36, {}, -1, true},
        {"a side above 16384", 16385, 2, {}, -1, false},
        {"no luma plane", 64, 36, {}, 0, false},
        {"no chroma plane", 64, 36, {}, 1, false},
        {"no chroma plane in the output", 64, 36, {}, 1, true},
        {"short luma stride", 63, 35,
         nv12 ? std::vector<uint32_t>{62, 64} : std::vector<uint32_t>{62, 32, 32}, -1, false},
        {"short chroma stride", 63, 35,
         nv12 ? std::vector<uint32_t>{63, 63} : std::vector<uint32_t>{63, 32, 31}, -1, false},
        {"short output luma stride", 64, 36,
         nv12 ? std::vector<uint32_t>{63, 64} : std::vector<uint32_t>{63, 32, 32}, -1, true},
        // A stride that is negative as an int, and a plane of more than 2^31 - 1 bytes.
        {"luma stride of 2^31", 64, 1,
         nv12 ? std::vector<uint32_t>{0x80000000u, 64} : std::vector<uint32_t>{0x80000000u, 32, 32},
         -1, false, true},
        {"luma plane of 2^31 bytes", 64, 2,
         nv12 ? std::vector<uint32_t>{0x40000000u, 64} : std::vector<uint32_t>{0x40000000u, 32, 32},
         -1, false, true},
    };
    const fs::path cache = Library::Get().cache();
    int n = 0;
    GuardedFrame goodIn(64, 36, format, true);
    goodIn.fill(kGrey.y, kGrey.u, kGrey.v);
    for (const Refused& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture log;
        GuardedFrame bad(c.width, c.height, format, true, c.strides);
        ZynNativeInputFrame badRecord = bad.record();
        if (c.missingPlane == 0) {
            badRecord.plane0 = nullptr;
        } else if (c.missingPlane == 1) {
            badRecord.plane1 = nullptr;
        }
        // The other record of the pair is usable: a grey input, or an output of bytes that must
        // stay as they are.
        GuardedFrame partner(64, 36, format, true);
        if (c.inOutput) {
            partner.fill(kGrey.y, kGrey.u, kGrey.v);
            bad.fillBytes(kUntouched);
        } else {
            partner.fillBytes(kUntouched);
            if (!c.hugePlanes) {
                bad.fillBytes(kGrey.y);  // its strides may be shorter than its rows
            }
        }
        ZynNativeInputFrame partnerRecord = partner.record();
        ZynNativeInputFrame& in = c.inOutput ? partnerRecord : badRecord;
        ZynNativeInputFrame& out = c.inOutput ? badRecord : partnerRecord;
        // A feedback request waiting for a frame reads nothing of a refused one: it records the
        // next usable frame.
        const std::string id = "refused" + std::to_string(format) + "-" + std::to_string(n++);
        ASSERT_EQ(0u,
                  ZynNativeVideoProcessingUpdateInstance(
                      instance.handle(), ("{\"feedback\": true, \"id\": \"" + id + "\"}").c_str()));
        EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(instance.handle(), &in, &out));
        EXPECT_FALSE(fs::exists(cache / ("raw" + id + ".bin")));
        const std::string role = c.inOutput ? "output" : "input";
        EXPECT_EQ(
            1u, log.countContaining("Unusable " + role + " frame: " + SizeText(c.width, c.height) +
                                    " format=" + std::to_string(format)))
            << log.dump();
        EXPECT_TRUE(c.inOutput ? bad.allBytesAre(kUntouched) : partner.allBytesAre(kUntouched))
            << "the output was written";
        // The instance goes on with the next usable frame.
        GuardedFrame goodOut(64, 36, format, true);
        EXPECT_EQ(0u, Process(instance, goodIn, goodOut));
        EXPECT_TRUE(fs::exists(cache / ("raw" + id + ".bin")));
        EXPECT_EQ(64u * 36u * 4u, fs::file_size(cache / ("final" + id + ".bin")));
    }
}

TEST_P(FrameSizes, AnOutputOfAnUnknownFormatIsRefusedBeforeAnythingIsWrittenIntoIt) {
    const uint32_t format = GetParam();
    GuardedFrame in(64, 36, format, true);
    in.fill(kGrey.y, kGrey.u, kGrey.v);
    for (const std::string& config : {BlurConfig(), TouchUpConfig("0.3")}) {
        SCOPED_TRACE(config);
        Instance instance(config);
        ASSERT_TRUE(instance.valid());
        LogCapture log;
        // Planes of a short stride: a luma row written at the frame's width would run into the
        // guard page.
        GuardedFrame out(64, 36, ZYN_FORMAT_I420, true, {63, 32, 32});
        out.fillBytes(kUntouched);
        ZynNativeInputFrame i = in.record();
        ZynNativeInputFrame o = out.record();
        o.format = 7;
        EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(instance.handle(), &i, &o));
        EXPECT_TRUE(log.has(spdlog::level::err, "Unknown output frame format: 7")) << log.dump();
        EXPECT_TRUE(out.allBytesAre(kUntouched)) << "the output was written";
    }
}

TEST_P(FrameSizes, AnInputOfAnUnknownFormatIsRefusedWhateverItsPlanes) {
    const uint32_t format = GetParam();
    Instance instance(BlurAndTouchUpConfig("0.3"));
    ASSERT_TRUE(instance.valid());
    LogCapture log;
    GuardedFrame in(64, 36, ZYN_FORMAT_I420, true, {10, 10, 10});
    in.fillBytes(kGrey.y);
    GuardedFrame out(64, 36, format, true);
    out.fillBytes(kUntouched);
    ZynNativeInputFrame i = in.record();
    ZynNativeInputFrame o = out.record();
    i.format = 9;
    i.plane0 = nullptr;
    EXPECT_EQ(2u, ZynNativeVideoProcessingProcessFrame(instance.handle(), &i, &o));
    EXPECT_TRUE(log.has(spdlog::level::err, "Unknown input frame format: 9")) << log.dump();
    EXPECT_TRUE(out.allBytesAre(kUntouched)) << "the output was written";
}

INSTANTIATE_TEST_SUITE_P(Formats, FrameSizes, testing::Values(ZYN_FORMAT_NV12, ZYN_FORMAT_I420),
                         [](const testing::TestParamInfo<uint32_t>& info) {
                             return std::string(info.param == ZYN_FORMAT_NV12 ? "NV12" : "I420");
                         });
