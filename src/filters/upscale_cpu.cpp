#include "filters/upscale_cpu.h"

#include <libyuv/scale.h>

#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define ZYN_UPSCALE_AVX2 1
#endif

namespace VBG {

namespace {

constexpr int kGroup = 16;  // destination columns per vector step
constexpr int kHalf = 8;    // columns whose source pixels one 16-byte load covers
// One source row is copied with this many spare bytes, so that every 16-byte load of a group
// stays inside the copy.
constexpr int kRowPad = 32;

// libyuv's step for enlargements: the first and last output pixels land exactly on the first and
// last source pixels, in 16.16 fixed point, truncated.
int EnlargeStep(int source, int destination) {
    return static_cast<int>(((static_cast<int64_t>(source) << 16) - 0x00010001) /
                            (destination - 1));
}

// The column filter's arithmetic for one pixel: a 7-bit weight f on the right-hand pixel, 128 - f
// on the left, rounded.
inline uint8_t FilterColumn(const uint8_t* row, int x) {
    const int xi = x >> 16;
    const int f = (x >> 9) & 0x7f;
    return static_cast<uint8_t>(((128 - f) * row[xi] + f * row[xi + 1] + 64) >> 7);
}

// The row filter's arithmetic for one pixel: an 8-bit weight yf on the lower row, rounded.
inline uint8_t FilterRow(uint8_t top, uint8_t bottom, int yf) {
    return static_cast<uint8_t>((top * (256 - yf) + bottom * yf + 128) >> 8);
}

#if ZYN_UPSCALE_AVX2

ZYN_TARGET_BEGIN("avx2")

// Filters one (padded) source row across into `out`, dstWidth columns starting at x = 0.
// Pixels are made signed (x ^ 0x80 is x - 128) so that the unsigned weights, which reach 128, can
// be multiplied with them in one instruction; 0x4040 adds back 128 * 128 and the rounding 64.
void FilterRowAcrossAvx2(const uint8_t* row, const int32_t* starts, const uint8_t* shuffles,
                         const uint8_t* weights, int groups, uint8_t* out, int dstWidth, int dx) {
    const __m256i sign = _mm256_set1_epi8(static_cast<char>(0x80));
    const __m256i bias = _mm256_set1_epi16(0x4040);
    for (int g = 0; g < groups; ++g) {
        const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + starts[2 * g]));
        const __m128i hi =
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + starts[2 * g + 1]));
        __m256i pairs = _mm256_set_m128i(hi, lo);
        pairs = _mm256_shuffle_epi8(
            pairs, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(shuffles + 32 * g)));
        pairs = _mm256_xor_si256(pairs, sign);
        __m256i sums = _mm256_maddubs_epi16(
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(weights + 32 * g)), pairs);
        sums = _mm256_srli_epi16(_mm256_add_epi16(sums, bias), 7);
        const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(sums, sums), 0x08);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + kGroup * g),
                         _mm256_castsi256_si128(packed));
    }
    for (int c = groups * kGroup; c < dstWidth; ++c) {
        out[c] = FilterColumn(row, c * dx);
    }
}

// One output row between two filtered rows, yf / 256 of the way to the lower one. libyuv copies
// the upper row for yf 0 and averages (rounding up) for yf 128; the general formula gives the
// same bytes for both.
void FilterRowsDownAvx2(const uint8_t* top, const uint8_t* bottom, uint8_t* out, int width,
                        int yf) {
    if (yf == 0) {
        std::memcpy(out, top, static_cast<size_t>(width));
        return;
    }
    const __m256i sign = _mm256_set1_epi8(static_cast<char>(0x80));
    const __m256i bias = _mm256_set1_epi16(static_cast<short>(0x8080));
    const __m256i weights = _mm256_set1_epi16(static_cast<short>(((yf & 0xff) << 8) | (256 - yf)));
    int c = 0;
    for (; c + 32 <= width; c += 32) {
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(top + c));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bottom + c));
        const __m256i lo = _mm256_xor_si256(_mm256_unpacklo_epi8(a, b), sign);
        const __m256i hi = _mm256_xor_si256(_mm256_unpackhi_epi8(a, b), sign);
        const __m256i sumLo =
            _mm256_srli_epi16(_mm256_add_epi16(_mm256_maddubs_epi16(weights, lo), bias), 8);
        const __m256i sumHi =
            _mm256_srli_epi16(_mm256_add_epi16(_mm256_maddubs_epi16(weights, hi), bias), 8);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + c), _mm256_packus_epi16(sumLo, sumHi));
    }
    for (; c < width; ++c) {
        out[c] = FilterRow(top[c], bottom[c], yf);
    }
}

ZYN_TARGET_END

#endif  // ZYN_UPSCALE_AVX2

}  // namespace

PlaneUpscaler::PlaneUpscaler(KernelLevel level) {
#if ZYN_UPSCALE_AVX2
    vector_ = SupportedKernelLevel(level) == KernelLevel::Avx2;
#else
    (void)level;
#endif
}

bool PlaneUpscaler::OwnPath(int srcWidth, int srcHeight, int dstWidth, int dstHeight) {
    // libyuv's own enlargement by bilinear rows: both sides grow, neither source side is a single
    // pixel, and it is not the exact doubling that libyuv serves with a 3:1 kernel.
    const bool doubling = (dstWidth + 1) / 2 == srcWidth && (dstHeight + 1) / 2 == srcHeight;
    return srcWidth >= 2 && srcHeight >= 2 && srcWidth < 32768 && dstWidth > srcWidth &&
           dstHeight > srcHeight && !doubling;
}

void PlaneUpscaler::prepare(int srcWidth, int srcHeight, int dstWidth, int dstHeight) {
    if (srcWidth == srcWidth_ && srcHeight == srcHeight_ && dstWidth == dstWidth_ &&
        dstHeight == dstHeight_) {
        return;
    }
    srcWidth_ = srcWidth;
    srcHeight_ = srcHeight;
    dstWidth_ = dstWidth;
    dstHeight_ = dstHeight;
    dx_ = EnlargeStep(srcWidth, dstWidth);
    dy_ = EnlargeStep(srcHeight, dstHeight);
    const int groups = dstWidth / kGroup;
    groupStart_.assign(static_cast<size_t>(groups) * 2, 0);
    groupShuffle_.assign(static_cast<size_t>(groups) * 32, 0);
    groupWeights_.assign(static_cast<size_t>(groups) * 32, 0);
    for (int g = 0; g < groups; ++g) {
        for (int half = 0; half < 2; ++half) {
            const int first = g * kGroup + half * kHalf;
            const int start = (first * dx_) >> 16;
            groupStart_[2 * g + half] = start;
            for (int k = 0; k < kHalf; ++k) {
                const int x = (first + k) * dx_;
                // Within 7 of the start: the step is below one source pixel.
                const int offset = (x >> 16) - start;
                const int f = (x >> 9) & 0x7f;
                const size_t at = static_cast<size_t>(g) * 32 + half * 16 + 2 * k;
                groupShuffle_[at] = static_cast<uint8_t>(offset);
                groupShuffle_[at + 1] = static_cast<uint8_t>(offset + 1);
                groupWeights_[at] = static_cast<uint8_t>(128 - f);
                groupWeights_[at + 1] = static_cast<uint8_t>(f);
            }
        }
    }
    sourceRow_.assign(static_cast<size_t>(srcWidth) + kRowPad, 0);
    rows_.assign(static_cast<size_t>(dstWidth) * 2, 0);
    filtered_[0] = rows_.data();
    filtered_[1] = rows_.data() + dstWidth;
    filteredRow_[0] = filteredRow_[1] = -1;
}

void PlaneUpscaler::scale(const uint8_t* src, int srcStride, int srcWidth, int srcHeight,
                          uint8_t* dst, int dstStride, int dstWidth, int dstHeight) {
    if (!scaleRows(src, srcStride, srcWidth, srcHeight, dst, dstStride, dstWidth, dstHeight, 0,
                   dstHeight)) {
        libyuv::ScalePlane(src, srcStride, srcWidth, srcHeight, dst, dstStride, dstWidth, dstHeight,
                           libyuv::kFilterBilinear);
    }
}

bool PlaneUpscaler::scaleRows(const uint8_t* src, int srcStride, int srcWidth, int srcHeight,
                              uint8_t* dst, int dstStride, int dstWidth, int dstHeight,
                              int firstRow, int rowCount) {
    if (!ownRows(srcWidth, srcHeight, dstWidth, dstHeight) || firstRow < 0 || rowCount < 0 ||
        rowCount > dstHeight - firstRow) {
        return false;
    }
#if ZYN_UPSCALE_AVX2
    prepare(srcWidth, srcHeight, dstWidth, dstHeight);
    // The two filtered rows of the band before serve this one only when it carries on from it.
    if (src != filteredSource_ || firstRow != nextRow_) {
        filteredRow_[0] = filteredRow_[1] = -1;
    }
    filteredSource_ = src;
    nextRow_ = firstRow + rowCount;
    const int groups = dstWidth / kGroup;
    auto filterInto = [&](int slot, int sourceRow) {
        std::memcpy(sourceRow_.data(), src + static_cast<ptrdiff_t>(sourceRow) * srcStride,
                    static_cast<size_t>(srcWidth));
        FilterRowAcrossAvx2(sourceRow_.data(), groupStart_.data(), groupShuffle_.data(),
                            groupWeights_.data(), groups, filtered_[slot], dstWidth, dx_);
        filteredRow_[slot] = sourceRow;
    };
    // Output row j lies between source rows y >> 16 and the one below, y = j * dy; the step
    // keeps y below the last row, so the row below always exists.
    int y = firstRow * dy_;
    for (int j = 0; j < rowCount; ++j, y += dy_) {
        const int yi = y >> 16;
        if (filteredRow_[0] != yi) {
            if (filteredRow_[1] == yi) {
                std::swap(filtered_[0], filtered_[1]);
                std::swap(filteredRow_[0], filteredRow_[1]);
            } else {
                filterInto(0, yi);
            }
        }
        if (filteredRow_[1] != yi + 1) {
            filterInto(1, yi + 1);
        }
        FilterRowsDownAvx2(filtered_[0], filtered_[1], dst + static_cast<ptrdiff_t>(j) * dstStride,
                           dstWidth, (y >> 8) & 255);
    }
    return true;
#else
    (void)src, (void)srcStride, (void)dst, (void)dstStride;
    return false;
#endif
}

}  // namespace VBG
