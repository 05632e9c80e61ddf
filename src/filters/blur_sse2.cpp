// SSE2 instantiation of the vector blur kernels (blur_vector_body.h).
#include "filters/blur_simd.h"

#if defined(__x86_64__) || defined(__i386__)

#include <emmintrin.h>

#include "filters/blur_reference.h"

namespace VBG {
namespace BlurKernels {

namespace {

#include "filters/box_line_walk.h"

// A 16-byte chunk as two vectors of eight 16-bit lanes.
struct Ops {
    struct Sum {
        __m128i lo;
        __m128i hi;
    };
    struct Magic {
        __m128i multiplier;
        __m128i shift;
    };
    using Float = __m128;

    static Sum Zero() { return {_mm_setzero_si128(), _mm_setzero_si128()}; }
    static Sum Load(const uint8_t* p) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i zero = _mm_setzero_si128();
        return {_mm_unpacklo_epi8(bytes, zero), _mm_unpackhi_epi8(bytes, zero)};
    }
    static Sum Add(Sum a, Sum b) { return {_mm_add_epi16(a.lo, b.lo), _mm_add_epi16(a.hi, b.hi)}; }
    static Sum Sub(Sum a, Sum b) { return {_mm_sub_epi16(a.lo, b.lo), _mm_sub_epi16(a.hi, b.hi)}; }
    static Sum And(Sum a, Sum b) { return {_mm_and_si128(a.lo, b.lo), _mm_and_si128(a.hi, b.hi)}; }
    // All ones in the bytes whose weight is below kPersonWeight.
    static __m128i KeptBytes(const uint8_t* weights) {
        const __m128i w = _mm_loadu_si128(reinterpret_cast<const __m128i*>(weights));
        const __m128i limit = _mm_set1_epi8(static_cast<char>(kPersonWeight - 1));
        return _mm_cmpeq_epi8(_mm_min_epu8(w, limit), w);
    }
    static Sum Kept(const uint8_t* weights) {
        const __m128i kept = KeptBytes(weights);
        return {_mm_unpacklo_epi8(kept, kept), _mm_unpackhi_epi8(kept, kept)};
    }
    static Magic PrepareMagic(DivisorMagic m) {
        return {_mm_set1_epi16(static_cast<short>(m.multiplier)), _mm_cvtsi32_si128(m.shift)};
    }
    static void StoreQuotient(uint8_t* dst, Sum s, const Magic& m) {
        const __m128i lo = _mm_srl_epi16(_mm_mulhi_epu16(s.lo, m.multiplier), m.shift);
        const __m128i hi = _mm_srl_epi16(_mm_mulhi_epu16(s.hi, m.multiplier), m.shift);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_packus_epi16(lo, hi));
    }
    static Float Broadcast(float f) { return _mm_set1_ps(f); }

    // Applies `op` to the 16 lanes as floats and stores the truncated results as bytes.
    template <class Op>
    static __m128i FloatLanes(Sum s, Op op) {
        const __m128i zero = _mm_setzero_si128();
        const __m128i q0 = _mm_cvttps_epi32(op(_mm_cvtepi32_ps(_mm_unpacklo_epi16(s.lo, zero)), 0));
        const __m128i q1 = _mm_cvttps_epi32(op(_mm_cvtepi32_ps(_mm_unpackhi_epi16(s.lo, zero)), 1));
        const __m128i q2 = _mm_cvttps_epi32(op(_mm_cvtepi32_ps(_mm_unpacklo_epi16(s.hi, zero)), 2));
        const __m128i q3 = _mm_cvttps_epi32(op(_mm_cvtepi32_ps(_mm_unpackhi_epi16(s.hi, zero)), 3));
        return _mm_packus_epi16(_mm_packs_epi32(q0, q1), _mm_packs_epi32(q2, q3));
    }
    static void StoreScaled(uint8_t* dst, Sum s, Float scale) {
        const __m128i q = FloatLanes(s, [scale](__m128 v, int) { return _mm_mul_ps(v, scale); });
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), q);
    }
    static void StoreDivided(uint8_t* dst, Sum s, Float divisor) {
        const __m128i q =
            FloatLanes(s, [divisor](__m128 v, int) { return _mm_div_ps(v, divisor); });
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), q);
    }
    // Lanes whose own weight is below kPersonWeight take sum / taken (their own pixel is in
    // their window, so taken >= 1 there); the others keep their source byte.
    static void StoreMaskedMean(uint8_t* dst, Sum sum, Sum taken, const uint8_t* src,
                                const uint8_t* weights) {
        const __m128i one = _mm_set1_epi16(1);
        const Sum divisor = {_mm_max_epi16(taken.lo, one), _mm_max_epi16(taken.hi, one)};
        const __m128i zero = _mm_setzero_si128();
        const __m128 d[4] = {_mm_cvtepi32_ps(_mm_unpacklo_epi16(divisor.lo, zero)),
                             _mm_cvtepi32_ps(_mm_unpackhi_epi16(divisor.lo, zero)),
                             _mm_cvtepi32_ps(_mm_unpacklo_epi16(divisor.hi, zero)),
                             _mm_cvtepi32_ps(_mm_unpackhi_epi16(divisor.hi, zero))};
        const __m128i mean =
            FloatLanes(sum, [&d](__m128 v, int part) { return _mm_div_ps(v, d[part]); });
        const __m128i kept = KeptBytes(weights);
        const __m128i source = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst),
                         _mm_or_si128(_mm_and_si128(kept, mean), _mm_andnot_si128(kept, source)));
    }
};

#include "filters/blur_vector_body.h"

}  // namespace

void BlurPlane_SSE2(uint8_t* plane, int width, int height, const int radii[3],
                    const VectorBlurScratch& scratch) {
    BlurSingleChannel(plane, nullptr, width, height, radii, scratch);
}

void BlurPlaneMasked_SSE2(uint8_t* plane, const uint8_t* mask, int width, int height,
                          const int radii[3], const VectorBlurScratch& scratch) {
    BlurSingleChannel(plane, mask, width, height, radii, scratch);
}

void BlurArgb_SSE2(uint8_t* pixels, int width, int height, const int radii[3],
                   const VectorBlurScratch& scratch) {
    BlurFourChannel(pixels, width, height, radii, scratch);
}

}  // namespace BlurKernels
}  // namespace VBG

#endif
