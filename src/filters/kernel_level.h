// Which implementation of a pixel kernel a filter object runs. Every filter keeps a portable
// kernel beside its optimised twins and picks one set when it is made; all of them give the same
// bytes, so the choice only changes the speed.
#pragma once

// Compiles the functions between ZYN_TARGET_BEGIN(features) and ZYN_TARGET_END for those
// instruction-set features ("avx2", "avx2,fma") whatever the build's own target; they are called
// only where BestKernelLevel says the processor has them. GCC and clang spell it differently.
#define ZYN_PRAGMA(text) _Pragma(#text)
#if defined(__clang__)
#define ZYN_TARGET_BEGIN(features) \
    ZYN_PRAGMA(clang attribute push(__attribute__((target(features))), apply_to = function))
#define ZYN_TARGET_END ZYN_PRAGMA(clang attribute pop)
#else
#define ZYN_TARGET_BEGIN(features) ZYN_PRAGMA(GCC push_options) ZYN_PRAGMA(GCC target(features))
#define ZYN_TARGET_END ZYN_PRAGMA(GCC pop_options)
#endif

namespace VBG {

enum class KernelLevel {
    Portable,  // plain C++, the arithmetic written out step by step
    Sse2,      // 128-bit integer and float vectors (every x86-64 processor)
    Avx2,      // AVX2 with FMA: 256-bit vectors, gathers, fused multiply-add
};

const char* KernelLevelName(KernelLevel level);

// The fastest level this processor runs. A build with ZYN_FORCE_PORTABLE=1 always gets Portable.
KernelLevel BestKernelLevel();

// `requested` if this processor can run it, else the best level below it. Ignores
// ZYN_FORCE_PORTABLE, so that the optimised kernels can still be compared with the portable ones.
KernelLevel SupportedKernelLevel(KernelLevel requested);

}  // namespace VBG
