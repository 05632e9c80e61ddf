#include "filters/touchup_simd.h"

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "filters/kernel_level.h"
#include "filters/touchup_reference.h"

ZYN_TARGET_BEGIN("avx2,fma")

namespace VBG {
namespace TouchUpKernels {

namespace {

constexpr int kLanes = 8;

// Quotients whose fraction lies within this distance of a whole number are recomputed in double.
// The float estimate is within 3e-6 (relative) of the exact quotient (two sums of 25 positive
// terms and a division, each rounding by at most 2^-24: 25 + 24 + 1 roundings), i.e. within
// 7.6e-4 for quotients up to 255, and the double sums of the portable filter are within 1e-11;
// a fraction of at least 1/512 from either whole number therefore truncates to the same value
// in all three.
constexpr float kSafeFraction = 1.0f / 512.0f;

// One neighbour row, columns x - 2 .. x + 9 (c0 .. c11) as 32-bit integers; window k
// (dx = k - 2) is columns ck .. ck+7.
struct IntRow {
    __m256i c0to7;
    __m256i c4to11;

    explicit IntRow(const uint8_t* row)
        : c0to7(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row)))),
          c4to11(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + 4)))) {
    }

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
};

// The same row also as doubles, for the exact sums.
struct WideRow : IntRow {
    __m256d a;   // c0..c3
    __m256d b;   // c4..c7
    __m256d c;   // c8..c11
    __m256d ab;  // c2..c5
    __m256d bc;  // c6..c9

    explicit WideRow(const uint8_t* row)
        : IntRow(row),
          a(_mm256_cvtepi32_pd(_mm256_castsi256_si128(c0to7))),
          b(_mm256_cvtepi32_pd(_mm256_castsi256_si128(c4to11))),
          c(_mm256_cvtepi32_pd(_mm256_extracti128_si256(c4to11, 1))),
          ab(_mm256_permute2f128_pd(a, b, 0x21)),
          bc(_mm256_permute2f128_pd(b, c, 0x21)) {}

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

// Float sums of eight pixels: an estimate of the quotient.
struct FloatSums {
    using Row = IntRow;
    __m256 weighted;
    __m256 total;

    FloatSums() : weighted(_mm256_setzero_ps()), total(_mm256_setzero_ps()) {}

    void add(__m256 w, const Row& row, int k) {
        weighted = _mm256_fmadd_ps(w, _mm256_cvtepi32_ps(row.ints(k)), weighted);
        total = _mm256_add_ps(total, w);
    }
};

// Double sums of eight pixels, in the portable filter's order: its exact result.
struct DoubleSums {
    using Row = WideRow;
    __m256d weightedLo;
    __m256d weightedHi;
    __m256d totalLo;
    __m256d totalHi;

    DoubleSums()
        : weightedLo(_mm256_setzero_pd()),
          weightedHi(_mm256_setzero_pd()),
          totalLo(_mm256_setzero_pd()),
          totalHi(_mm256_setzero_pd()) {}

    // A float weight times a luma value is exact in double, so the fused multiply-add rounds
    // exactly as the portable filter's multiply and add do.
    void add(__m256 w, const Row& row, int k) {
        const __m256d wLo = _mm256_cvtps_pd(_mm256_castps256_ps128(w));
        const __m256d wHi = _mm256_cvtps_pd(_mm256_extractf128_ps(w, 1));
        weightedLo = _mm256_fmadd_pd(wLo, row.low(k), weightedLo);
        weightedHi = _mm256_fmadd_pd(wHi, row.high(k), weightedHi);
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
inline __m256 LookUp(__m256i values, __m256i n, const float* tap) {
    const __m256i d = _mm256_abs_epi32(_mm256_sub_epi32(values, n));
    // The masked form with every lane enabled is the plain gather, spelled so that no lane of
    // the destination starts undefined.
    const __m256 all = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    return _mm256_mask_i32gather_ps(_mm256_setzero_ps(), tap, d, all, 4);
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
    float* weights;  // [kDownwardTaps][columns]
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

// Where the weights of one neighbour row's five taps come from.
enum class Weights {
    Kept,             // the pair weights the row above kept (upward taps)
    LookedUp,         // the table (upward taps without kept weights, and the pixel's own row)
    LookedUpAndKept,  // the table, kept for the rows below (downward taps)
};

// Adds the five taps dx = -2..2 of neighbour row `row` (pointing at column x - 2) to `sums`.
// `tap` is the table slice of dx = -2; `kept` points at the kept weights of tap dx = -2 of this
// row's pixels' neighbours (Kept) or where to keep this row's weights (LookedUpAndKept, when
// not null), one tap `keptStep` floats after the other; `center` marks the pixel's own row.
template <Weights kFrom, class Sums>
inline void AddRow(Sums& sums, __m256i values, const uint8_t* row, const float* tap, float* kept,
                   ptrdiff_t keptStep, bool center) {
    const typename Sums::Row n(row);
#pragma GCC unroll 5
    for (int k = 0; k < kTapSide; ++k, tap += kLevels) {
        __m256 w;
        if (kFrom == Weights::Kept) {
            w = _mm256_loadu_ps(kept + k * keptStep);
        } else if (center && k == 2) {
            w = _mm256_set1_ps(*tap);  // the pixel itself: difference 0 in every lane
        } else {
            w = LookUp(values, n.ints(k), tap);
            if (kFrom == Weights::LookedUpAndKept && kept != nullptr) {
                _mm256_storeu_ps(kept + k * keptStep, w);
            }
        }
        sums.add(w, n, k);
    }
}

// Runs the 25 taps of pixels x .. x + 7 of luma row y in the portable filter's order
// (dy = -2..2, dx = -2..2). The weights of the upward taps come from the rows above when
// `reuse`, otherwise from the table; the weights of the downward taps are kept for the rows
// below when `keep`.
template <class Sums>
inline void RunTaps(Sums& sums, const uint8_t* center, ptrdiff_t srcStride, __m256i values, int y,
                    int x, const float* table, const SharedPairWeights& shared, bool reuse,
                    bool keep) {
    const ptrdiff_t columns = shared.columns;
#pragma GCC unroll 1
    for (int dy = -2; dy <= 2; ++dy) {
        const uint8_t* row = center + dy * srcStride - 2;
        const float* tap = table + TableIndex(dy, -2, 0);
        if (dy < 0 && reuse) {
            // Pixel (y, x + i) and its neighbour (y + dy, x + i + dx): the neighbour kept the
            // pair's weight as its downward tap (-dy, -dx), at its own column x + i + dx. Going
            // from dx to dx + 1 steps one column right and one downward tap back.
            float* kept = RowOf(shared, y + dy).weights + DownwardTap(-dy, 2) * columns + (x - 2);
            AddRow<Weights::Kept>(sums, values, row, tap, kept, 1 - columns, false);
        } else if (dy <= 0) {
            AddRow<Weights::LookedUp>(sums, values, row, tap, nullptr, 0, dy == 0);
        } else {
            float* own =
                keep ? RowOf(shared, y).weights + DownwardTap(dy, -2) * columns + x : nullptr;
            AddRow<Weights::LookedUpAndKept>(sums, values, row, tap, own, columns, false);
        }
    }
}

// Filters pixels x .. x + 7 of luma row y and writes lanes [first, last) of them. The float sums
// give the result unless a quotient lies too close to a whole number for its float error;
// then the eight pixels are summed again in double, exactly as the portable filter does.
inline void FilterEight(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstRow, int y, int x,
                        int first, int last, const float* table, const SharedPairWeights& shared) {
    const uint8_t* center = src + static_cast<ptrdiff_t>(y) * srcStride + x;
    const __m256i values =
        _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(center)));
    const bool reuse =
        Stamped(RowOf(shared, y - 2).stamps, x - 2, PairWeightStamp(shared.frame, y - 2)) &&
        Stamped(RowOf(shared, y - 1).stamps, x - 2, PairWeightStamp(shared.frame, y - 1));

    FloatSums estimate;
    RunTaps(estimate, center, srcStride, values, y, x, table, shared, reuse, true);
    const __m256 quotient = _mm256_div_ps(estimate.weighted, estimate.total);
    const __m256 whole = _mm256_round_ps(quotient, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
    const __m256 fraction = _mm256_sub_ps(quotient, whole);
    const __m256 unsafe =
        _mm256_or_ps(_mm256_cmp_ps(fraction, _mm256_set1_ps(kSafeFraction), _CMP_LT_OQ),
                     _mm256_cmp_ps(fraction, _mm256_set1_ps(1.0f - kSafeFraction), _CMP_GT_OQ));
    __m128i bytes;
    if (_mm256_movemask_ps(unsafe) == 0) {
        const __m256i q = _mm256_cvttps_epi32(whole);
        bytes = _mm_packus_epi16(
            _mm_packs_epi32(_mm256_castsi256_si128(q), _mm256_extracti128_si256(q, 1)),
            _mm_setzero_si128());
    } else {
        DoubleSums exact;
        RunTaps(exact, center, srcStride, values, y, x, table, shared, reuse, false);
        bytes = exact.result();
    }

    const __m256i stamp =
        _mm256_set1_epi64x(static_cast<long long>(PairWeightStamp(shared.frame, y)));
    uint64_t* stamps = RowOf(shared, y).stamps;
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(stamps + x), stamp);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(stamps + x + 4), stamp);
    StoreLanes(dstRow + x, bytes, first, last);
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
        // The upper row first: the lower one reads the weights it keeps.
        FilterRunRow(src, srcStride, dst, dstStride, width, row, first, last + 2, table, shared);
        FilterRunRow(src, srcStride, dst, dstStride, width, row + 1, first, last + 2, table,
                     shared);
        i = j;
    }
}

}  // namespace TouchUpKernels
}  // namespace VBG

ZYN_TARGET_END

#endif
