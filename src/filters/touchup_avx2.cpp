#include "filters/touchup_simd.h"

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "filters/touchup_reference.h"

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2,fma"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2,fma")
#endif

namespace VBG {
namespace TouchUpKernels {

namespace {

constexpr int kLanes = 8;

// Running sums of eight pixels: sum(W * n) and sum(W), each as two vectors of four doubles.
struct Sums {
    __m256d weightedLo;
    __m256d weightedHi;
    __m256d totalLo;
    __m256d totalHi;

    Sums()
        : weightedLo(_mm256_setzero_pd()),
          weightedHi(_mm256_setzero_pd()),
          totalLo(_mm256_setzero_pd()),
          totalHi(_mm256_setzero_pd()) {}

    // Adds one tap whose eight weights are wLo, wHi and neighbours nLo, nHi.
    void addWeights(__m256d wLo, __m256d wHi, __m256d nLo, __m256d nHi) {
        weightedLo = _mm256_fmadd_pd(wLo, nLo, weightedLo);
        weightedHi = _mm256_fmadd_pd(wHi, nHi, weightedHi);
        totalLo = _mm256_add_pd(totalLo, wLo);
        totalHi = _mm256_add_pd(totalHi, wHi);
    }

    // Eight truncated quotients in the low eight bytes.
    __m128i result() const {
        const __m128i qLo = _mm256_cvttpd_epi32(_mm256_div_pd(weightedLo, totalLo));
        const __m128i qHi = _mm256_cvttpd_epi32(_mm256_div_pd(weightedHi, totalHi));
        return _mm_packus_epi16(_mm_packs_epi32(qLo, qHi), _mm_setzero_si128());
    }
};

// The eight weights of one tap: `values` are the eight pixels and `n` their neighbours at the
// tap's offset, as 32-bit integers; `tap` is the tap's slice of the table.
inline void LookUp(__m256i values, __m256i n, const float* tap, __m256d& wLo, __m256d& wHi) {
    const __m256i d = _mm256_abs_epi32(_mm256_sub_epi32(values, n));
    // The masked form with every lane enabled is the plain gather, spelled so that no lane of
    // the destination starts undefined.
    const __m256 all = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    const __m256 w = _mm256_mask_i32gather_ps(_mm256_setzero_ps(), tap, d, all, 4);
    wLo = _mm256_cvtps_pd(_mm256_castps256_ps128(w));
    wHi = _mm256_cvtps_pd(_mm256_extractf128_ps(w, 1));
}

// Writes lanes [first, last) of the eight result bytes to out.
inline void StoreLanes(uint8_t* out, __m128i bytes, int first, int last) {
    if (first == 0 && last == kLanes) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out), bytes);
        return;
    }
    const __m128i lane = _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const __m128i write =
        _mm_and_si128(_mm_cmpgt_epi8(lane, _mm_set1_epi8(static_cast<char>(first - 1))),
                      _mm_cmplt_epi8(lane, _mm_set1_epi8(static_cast<char>(last))));
    const __m128i old = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(out));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_blendv_epi8(old, bytes, write));
}

// Where the shared pair weights of one luma row live.
struct SharedRow {
    double* weights;  // [kDownwardTaps][columns]
    uint64_t* stamps;
};

inline SharedRow RowOf(const SharedPairWeights& shared, int y) {
    const ptrdiff_t slot = y % 3;
    return {shared.weights + slot * kDownwardTaps * static_cast<ptrdiff_t>(shared.columns),
            shared.stamps + slot * static_cast<ptrdiff_t>(shared.columns)};
}

// Index of the downward tap (dy, dx), dy = 1, 2, among the shared weights.
inline ptrdiff_t DownwardTap(int dy, int dx) {
    return (dy - 1) * kTapSide + (dx + 2);
}

// Whether columns [x, x + 12) of the shared row carry `stamp`.
inline bool Stamped(const uint64_t* stamps, int x, uint64_t stamp) {
    const __m256i want = _mm256_set1_epi64x(static_cast<long long>(stamp));
    const __m256i* p = reinterpret_cast<const __m256i*>(stamps + x);
    const __m256i same =
        _mm256_and_si256(_mm256_and_si256(_mm256_cmpeq_epi64(_mm256_loadu_si256(p), want),
                                          _mm256_cmpeq_epi64(_mm256_loadu_si256(p + 1), want)),
                         _mm256_cmpeq_epi64(_mm256_loadu_si256(p + 2), want));
    return _mm256_movemask_epi8(same) == -1;
}

// One neighbour row, columns x - 2 .. x + 9 (c0 .. c11), widened once to 32-bit integers and to
// doubles; window k (dx = k - 2) is columns ck .. ck+7, a shift of these.
struct NeighbourRow {
    __m256i c0to7;
    __m256i c4to11;
    __m256d a;   // c0..c3
    __m256d b;   // c4..c7
    __m256d c;   // c8..c11
    __m256d ab;  // c2..c5
    __m256d bc;  // c6..c9

    explicit NeighbourRow(const uint8_t* row)
        : c0to7(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row)))),
          c4to11(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + 4)))),
          a(_mm256_cvtepi32_pd(_mm256_castsi256_si128(c0to7))),
          b(_mm256_cvtepi32_pd(_mm256_castsi256_si128(c4to11))),
          c(_mm256_cvtepi32_pd(_mm256_extracti128_si256(c4to11, 1))),
          ab(_mm256_permute2f128_pd(a, b, 0x21)),
          bc(_mm256_permute2f128_pd(b, c, 0x21)) {}

    __m256i ints(int k) const {
        switch (k) {
            case 0:
                return c0to7;
            case 1:
                return _mm256_alignr_epi8(c4to11, c0to7, 4);
            case 2:
                return _mm256_alignr_epi8(c4to11, c0to7, 8);
            case 3:
                return _mm256_alignr_epi8(c4to11, c0to7, 12);
            default:
                return c4to11;
        }
    }
    __m256d low(int k) const {
        switch (k) {
            case 0:
                return a;
            case 1:
                return _mm256_shuffle_pd(a, ab, 0x5);
            case 2:
                return ab;
            case 3:
                return _mm256_shuffle_pd(ab, b, 0x5);
            default:
                return b;
        }
    }
    __m256d high(int k) const {
        switch (k) {
            case 0:
                return b;
            case 1:
                return _mm256_shuffle_pd(b, bc, 0x5);
            case 2:
                return bc;
            case 3:
                return _mm256_shuffle_pd(bc, c, 0x5);
            default:
                return c;
        }
    }
};

// Filters pixels x .. x + 7 of luma row y and writes lanes [first, last) of them. Each pixel
// takes its taps in the order dy = -2..2, dx = -2..2, as the portable filter does. The weights
// of the upward taps come from the rows above when those rows were filtered over the columns
// needed in this frame, otherwise from the table; the weights of the downward taps are kept for
// the rows below.
inline void FilterEight(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstRow, int y, int x,
                        int first, int last, const float* table, const SharedPairWeights& shared) {
    const uint8_t* center = src + static_cast<ptrdiff_t>(y) * srcStride + x;
    const __m256i values =
        _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(center)));
    const SharedRow own = RowOf(shared, y);
    const SharedRow above[2] = {RowOf(shared, y - 2), RowOf(shared, y - 1)};
    const bool reuse = Stamped(above[0].stamps, x - 2, PairWeightStamp(shared.frame, y - 2)) &&
                       Stamped(above[1].stamps, x - 2, PairWeightStamp(shared.frame, y - 1));
    Sums sums;
#pragma GCC unroll 5
    for (int dy = -2; dy <= 2; ++dy) {
        const NeighbourRow row(center + dy * srcStride - 2);
        const float* tap = table + TableIndex(dy, -2, 0);
#pragma GCC unroll 5
        for (int k = 0; k < kTapSide; ++k, tap += kLevels) {
            const int dx = k - 2;
            if (dy < 0 && reuse) {
                // Pixel (y, x + i) and its neighbour (y + dy, x + i + dx): the neighbour kept the
                // pair's weight as its downward tap (-dy, -dx), at its own column.
                const double* kept =
                    above[dy + 2].weights + DownwardTap(-dy, -dx) * shared.columns + (x + dx);
                sums.addWeights(_mm256_loadu_pd(kept), _mm256_loadu_pd(kept + 4), row.low(k),
                                row.high(k));
            } else if (dy == 0 && dx == 0) {
                // The pixel itself: difference 0, the same weight in every lane.
                const __m256d w = _mm256_set1_pd(*tap);
                sums.addWeights(w, w, row.low(k), row.high(k));
            } else {
                __m256d wLo;
                __m256d wHi;
                LookUp(values, row.ints(k), tap, wLo, wHi);
                sums.addWeights(wLo, wHi, row.low(k), row.high(k));
                if (dy > 0) {
                    double* keep = own.weights + DownwardTap(dy, dx) * shared.columns + x;
                    _mm256_storeu_pd(keep, wLo);
                    _mm256_storeu_pd(keep + 4, wHi);
                }
            }
        }
    }
    const __m256i stamp =
        _mm256_set1_epi64x(static_cast<long long>(PairWeightStamp(shared.frame, y)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(own.stamps + x), stamp);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(own.stamps + x + 4), stamp);
    StoreLanes(dstRow + x, sums.result(), first, last);
}

// Filters pixels [x0, x1) of luma row y. Skin blocks keep two pixels from the frame's sides,
// so x0 - 2 >= 2 and x1 + 2 <= width - 2.
void FilterRunRow(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, ptrdiff_t dstStride,
                  int width, int y, int x0, int x1, const float* table,
                  const SharedPairWeights& shared) {
    uint8_t* dstRow = dst + static_cast<ptrdiff_t>(y) * dstStride;
    int x = x0;
    for (; x1 - x >= kLanes; x += kLanes) {
        FilterEight(src, srcStride, dstRow, y, x, 0, kLanes, table, shared);
    }
    if (x == x1) {
        return;
    }
    if (x1 - kLanes - 2 >= 0) {
        // Eight pixels ending at the run's end; the lanes before x are left as they are.
        FilterEight(src, srcStride, dstRow, y, x1 - kLanes, x - (x1 - kLanes), kLanes, table,
                    shared);
    } else if (x + kLanes + 2 <= width) {
        // Eight pixels starting at x; the lanes past the run are not written.
        FilterEight(src, srcStride, dstRow, y, x, 0, x1 - x, table, shared);
    } else {
        for (; x < x1; ++x) {
            dstRow[x] = FilterPixel_C(src, srcStride, y, x, table);
        }
    }
}

}  // namespace

void FilterSkinBlocks_AVX2(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst,
                           ptrdiff_t dstStride, int width, int, const uint16_t* points,
                           size_t count, const float* table, SharedPairWeights& shared) {
    size_t i = 0;
    while (i < count) {
        const int row = points[2 * i];
        const int first = points[2 * i + 1];
        int last = first;
        size_t j = i + 1;
        while (j < count && points[2 * j] == row && points[2 * j + 1] == last + 2) {
            last += 2;
            ++j;
        }
        FilterRunRow(src, srcStride, dst, dstStride, width, row, first, last + 2, table, shared);
        FilterRunRow(src, srcStride, dst, dstStride, width, row + 1, first, last + 2, table,
                     shared);
        i = j;
    }
}

}  // namespace TouchUpKernels
}  // namespace VBG

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#endif
