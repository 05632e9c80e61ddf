#include "filters/reduce_cpu.h"

#include <libyuv/scale.h>

#include <algorithm>
#include <cstddef>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define ZYN_REDUCE_AVX2 1
#endif

namespace VBG {

namespace {

constexpr int kLanes = 8;     // output pixels per vector step
constexpr int kColumns = 16;  // source columns per vector step of the row sums

// libyuv's box step: source pixels per output pixel in 16.16 fixed point, truncated.
int BoxStep(int source, int destination) {
    return static_cast<int>((static_cast<int64_t>(source) << 16) / destination);
}

#if ZYN_REDUCE_AVX2

ZYN_TARGET_BEGIN("avx2")

// totals[x + 1] = totals[x] + the sum of column x over `rows` rows, modulo 2^16: the difference
// of two totals is exact for any box whose sum fits in 16 bits.
void RunningTotalsAvx2(const uint8_t* src, ptrdiff_t stride, int rows, int width,
                       uint16_t* totals) {
    totals[0] = 0;
    __m256i carry = _mm256_setzero_si256();
    int x = 0;
    for (; x + kColumns <= width; x += kColumns) {
        __m256i sums = _mm256_setzero_si256();
        for (int k = 0; k < rows; ++k) {
            sums = _mm256_add_epi16(
                sums, _mm256_cvtepu8_epi16(
                          _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + k * stride + x))));
        }
        // Running totals within each 8-column half, then the lower half's total into the upper.
        sums = _mm256_add_epi16(sums, _mm256_slli_si256(sums, 2));
        sums = _mm256_add_epi16(sums, _mm256_slli_si256(sums, 4));
        sums = _mm256_add_epi16(sums, _mm256_slli_si256(sums, 8));
        const __m256i lowerTotal = _mm256_shuffle_epi32(_mm256_shufflehi_epi16(sums, 0xff), 0xff);
        sums = _mm256_add_epi16(sums, _mm256_permute2x128_si256(lowerTotal, lowerTotal, 0x08));
        sums = _mm256_add_epi16(sums, carry);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(totals + x + 1), sums);
        carry = _mm256_set1_epi16(static_cast<short>(totals[x + kColumns]));
    }
    for (; x < width; ++x) {
        int sum = 0;
        for (int k = 0; k < rows; ++k) {
            sum += src[k * stride + x];
        }
        totals[x + 1] = static_cast<uint16_t>(totals[x] + sum);
    }
}

// Output pixel i: (box sum x scale) >> 16, the box sum being the difference of the totals at the
// box's edges.
void BoxColumnsAvx2(const uint16_t* totals, const int32_t* starts, const int32_t* ends,
                    const int32_t* scales, int width, uint8_t* out) {
    const __m256i low = _mm256_set1_epi32(0xffff);
    const int* base = reinterpret_cast<const int*>(totals);
    int i = 0;
    for (; i + kLanes <= width; i += kLanes) {
        // 32-bit gathers at 16-bit positions: the low half is the total wanted.
        const __m256i e = _mm256_i32gather_epi32(
            base, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(ends + i)), 2);
        const __m256i s = _mm256_i32gather_epi32(
            base, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(starts + i)), 2);
        const __m256i sum = _mm256_and_si256(_mm256_sub_epi32(e, s), low);
        const __m256i v = _mm256_srli_epi32(
            _mm256_mullo_epi32(sum,
                               _mm256_loadu_si256(reinterpret_cast<const __m256i*>(scales + i))),
            16);
        const __m128i words =
            _mm_packus_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + i), _mm_packus_epi16(words, words));
    }
    for (; i < width; ++i) {
        const int sum = static_cast<uint16_t>(totals[ends[i]] - totals[starts[i]]);
        out[i] = static_cast<uint8_t>((sum * scales[i]) >> 16);
    }
}

ZYN_TARGET_END

#endif  // ZYN_REDUCE_AVX2

}  // namespace

PlaneReducer::PlaneReducer(KernelLevel level) {
#if ZYN_REDUCE_AVX2
    vector_ = SupportedKernelLevel(level) == KernelLevel::Avx2;
#else
    (void)level;
#endif
}

bool PlaneReducer::OwnPath(int srcWidth, int srcHeight, int dstWidth, int dstHeight) {
    if (dstWidth < 1 || dstHeight < 1 || srcWidth >= 32768 || dstWidth * 2 >= srcWidth ||
        dstHeight * 2 >= srcHeight) {
        return false;  // libyuv turns the box filter into its bilinear one, or there is no box
    }
    const bool quarter = dstWidth * 4 == srcWidth && dstHeight * 4 == srcHeight;
    const bool threeEighths = dstWidth * 8 == srcWidth * 3 && dstHeight * 8 == srcHeight * 3;
    // The widest box and the tallest, whole pixels rounded up: its sum must fit in 16 bits.
    const int64_t boxArea = (BoxStep(srcWidth, dstWidth) / 65536 + 1) *
                            static_cast<int64_t>(BoxStep(srcHeight, dstHeight) / 65536 + 1);
    return !quarter && !threeEighths && boxArea * 255 < 65536;
}

void PlaneReducer::prepare(int srcWidth, int srcHeight, int dstWidth, int dstHeight) {
    if (srcWidth == srcWidth_ && srcHeight == srcHeight_ && dstWidth == dstWidth_ &&
        dstHeight == dstHeight_) {
        return;
    }
    srcWidth_ = srcWidth;
    srcHeight_ = srcHeight;
    dstWidth_ = dstWidth;
    dstHeight_ = dstHeight;
    dx_ = BoxStep(srcWidth, dstWidth);
    dy_ = BoxStep(srcHeight, dstHeight);
    const size_t padded = static_cast<size_t>((dstWidth + kLanes - 1) / kLanes * kLanes);
    start_.assign(padded, 0);
    end_.assign(padded, 0);
    int x = 0;
    for (int i = 0; i < dstWidth; ++i) {
        start_[i] = x >> 16;
        x += dx_;
        end_[i] = start_[i] + std::max(1, (x >> 16) - start_[i]);
    }
    for (auto& table : scales_) {
        table.assign(padded, 0);
    }
    scalesHeight_[0] = scalesHeight_[1] = 0;
    // Two spare totals: a gather reads 32 bits at the last one.
    totals_.assign(static_cast<size_t>(srcWidth) + 2, 0);
}

const int32_t* PlaneReducer::scalesFor(int boxHeight) {
    for (int t = 0; t < 2; ++t) {
        if (scalesHeight_[t] == boxHeight) {
            return scales_[t].data();
        }
    }
    // A size pair has boxes of two heights at most; a third would replace the older table.
    const int t = scalesHeight_[0] == 0 ? 0 : 1;
    scalesHeight_[t] = boxHeight;
    for (int i = 0; i < dstWidth_; ++i) {
        scales_[t][i] = 65536 / ((end_[i] - start_[i]) * boxHeight);
    }
    return scales_[t].data();
}

void PlaneReducer::scale(const uint8_t* src, int srcStride, int srcWidth, int srcHeight,
                         uint8_t* dst, int dstStride, int dstWidth, int dstHeight) {
#if ZYN_REDUCE_AVX2
    if (vector_ && OwnPath(srcWidth, srcHeight, dstWidth, dstHeight)) {
        prepare(srcWidth, srcHeight, dstWidth, dstHeight);
        // Output row j sums source rows [y_j >> 16, y_j+1 >> 16), y_j = j * dy, as libyuv steps.
        const int lastY = srcHeight << 16;
        int y = 0;
        for (int j = 0; j < dstHeight; ++j) {
            const int top = y >> 16;
            y = std::min(y + dy_, lastY);
            const int rows = std::max(1, (y >> 16) - top);
            RunningTotalsAvx2(src + static_cast<ptrdiff_t>(top) * srcStride, srcStride, rows,
                              srcWidth, totals_.data());
            BoxColumnsAvx2(totals_.data(), start_.data(), end_.data(), scalesFor(rows), dstWidth,
                           dst + static_cast<ptrdiff_t>(j) * dstStride);
        }
        return;
    }
#endif
    libyuv::ScalePlane(src, srcStride, srcWidth, srcHeight, dst, dstStride, dstWidth, dstHeight,
                       libyuv::kFilterBox);
}

}  // namespace VBG
