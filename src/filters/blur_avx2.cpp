// AVX2 instantiation of the vector blur kernels (blur_vector_body.h). Only the code after the
// instruction-set switch is compiled for AVX2, and all of it is local to this file or reached
// through the three entry points below, which run only on processors that have AVX2.
#include "filters/blur_simd.h"

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "filters/blur_reference.h"
#include "filters/kernel_level.h"

ZYN_TARGET_BEGIN("avx2")

namespace VBG {
namespace BlurKernels {

namespace {

#include "filters/box_line_walk.h"

// A 16-byte chunk as one vector of sixteen 16-bit lanes.
struct Ops {
    using Sum = __m256i;
    struct Magic {
        __m256i multiplier;
        __m128i shift;
    };
    using Float = __m256;

    static Sum Zero() { return _mm256_setzero_si256(); }
    static Sum Load(const uint8_t* p) {
        return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
    }
    static Sum Add(Sum a, Sum b) { return _mm256_add_epi16(a, b); }
    static Sum Sub(Sum a, Sum b) { return _mm256_sub_epi16(a, b); }
    static Sum And(Sum a, Sum b) { return _mm256_and_si256(a, b); }
    static __m128i KeptBytes(const uint8_t* weights) {
        const __m128i w = _mm_loadu_si128(reinterpret_cast<const __m128i*>(weights));
        const __m128i limit = _mm_set1_epi8(static_cast<char>(kPersonWeight - 1));
        return _mm_cmpeq_epi8(_mm_min_epu8(w, limit), w);
    }
    static Sum Kept(const uint8_t* weights) { return _mm256_cvtepi8_epi16(KeptBytes(weights)); }
    static Magic PrepareMagic(DivisorMagic m) {
        return {_mm256_set1_epi16(static_cast<short>(m.multiplier)), _mm_cvtsi32_si128(m.shift)};
    }
    static __m128i PackBytes(__m256i words) {
        return _mm_packus_epi16(_mm256_castsi256_si128(words), _mm256_extracti128_si256(words, 1));
    }
    static void StoreQuotient(uint8_t* dst, Sum s, const Magic& m) {
        const __m256i q = _mm256_srl_epi16(_mm256_mulhi_epu16(s, m.multiplier), m.shift);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), PackBytes(q));
    }
    static Float Broadcast(float f) { return _mm256_set1_ps(f); }

    static __m256 LowFloats(Sum s) {
        return _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(_mm256_castsi256_si128(s)));
    }
    static __m256 HighFloats(Sum s) {
        return _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(_mm256_extracti128_si256(s, 1)));
    }
    // Truncates two vectors of eight floats (each at most 255) to 16 bytes.
    static __m128i TruncateToBytes(__m256 lo, __m256 hi) {
        const __m256i a = _mm256_cvttps_epi32(lo);
        const __m256i b = _mm256_cvttps_epi32(hi);
        const __m128i wa =
            _mm_packs_epi32(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
        const __m128i wb =
            _mm_packs_epi32(_mm256_castsi256_si128(b), _mm256_extracti128_si256(b, 1));
        return _mm_packus_epi16(wa, wb);
    }
    static void StoreScaled(uint8_t* dst, Sum s, Float scale) {
        const __m128i q = TruncateToBytes(_mm256_mul_ps(LowFloats(s), scale),
                                          _mm256_mul_ps(HighFloats(s), scale));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), q);
    }
    static void StoreDivided(uint8_t* dst, Sum s, Float divisor) {
        const __m128i q = TruncateToBytes(_mm256_div_ps(LowFloats(s), divisor),
                                          _mm256_div_ps(HighFloats(s), divisor));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), q);
    }
    // Lanes whose own weight is below kPersonWeight take sum / taken (their own pixel is in
    // their window, so taken >= 1 there); the others keep their source byte.
    static void StoreMaskedMean(uint8_t* dst, Sum sum, Sum taken, const uint8_t* src,
                                const uint8_t* weights) {
        const Sum divisor = _mm256_max_epi16(taken, _mm256_set1_epi16(1));
        const __m128i mean = TruncateToBytes(_mm256_div_ps(LowFloats(sum), LowFloats(divisor)),
                                             _mm256_div_ps(HighFloats(sum), HighFloats(divisor)));
        const __m128i source = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst),
                         _mm_blendv_epi8(source, mean, KeptBytes(weights)));
    }
};

#include "filters/blur_vector_body.h"

}  // namespace

void BlurPlane_AVX2(uint8_t* plane, int width, int height, const int radii[3],
                    const VectorBlurScratch& scratch) {
    BlurSingleChannel(plane, nullptr, width, height, radii, scratch);
}

void BlurPlaneMasked_AVX2(uint8_t* plane, const uint8_t* mask, int width, int height,
                          const int radii[3], const VectorBlurScratch& scratch) {
    BlurSingleChannel(plane, mask, width, height, radii, scratch);
}

void BlurArgb_AVX2(uint8_t* pixels, int width, int height, const int radii[3],
                   const VectorBlurScratch& scratch) {
    BlurFourChannel(pixels, width, height, radii, scratch);
}

}  // namespace BlurKernels
}  // namespace VBG

ZYN_TARGET_END

#endif
