// Which implementation of a pixel kernel a filter object runs. Every filter keeps a portable
// kernel beside its optimised twins and picks one set when it is made; all of them give the same
// bytes, so the choice only changes the speed.
#pragma once

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
