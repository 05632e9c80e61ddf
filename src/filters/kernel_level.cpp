#include "filters/kernel_level.h"

namespace VBG {

namespace {

bool CpuRuns(KernelLevel level) {
#if defined(__x86_64__) || defined(__i386__)
    switch (level) {
        case KernelLevel::Portable:
            return true;
        case KernelLevel::Sse2:
            return __builtin_cpu_supports("sse2");
        case KernelLevel::Avx2:
            return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    }
    return false;
#else
    return level == KernelLevel::Portable;
#endif
}

}  // namespace

const char* KernelLevelName(KernelLevel level) {
    switch (level) {
        case KernelLevel::Portable:
            return "portable";
        case KernelLevel::Sse2:
            return "sse2";
        case KernelLevel::Avx2:
            return "avx2";
    }
    return "unknown";
}

KernelLevel SupportedKernelLevel(KernelLevel requested) {
    if (requested == KernelLevel::Avx2 && CpuRuns(KernelLevel::Avx2)) {
        return KernelLevel::Avx2;
    }
    if (requested != KernelLevel::Portable && CpuRuns(KernelLevel::Sse2)) {
        return KernelLevel::Sse2;
    }
    return KernelLevel::Portable;
}

KernelLevel BestKernelLevel() {
#if defined(ZYN_FORCE_PORTABLE) && ZYN_FORCE_PORTABLE
    return KernelLevel::Portable;
#else
    return SupportedKernelLevel(KernelLevel::Avx2);
#endif
}

}  // namespace VBG
