// Heap allocations per frame once an instance is warm: none may come from the library's own code.
// The C allocation functions are replaced; while frames are measured, each allocation on the frame
// thread is recorded with its call stack and counts unless its first caller outside the C and C++
// runtimes is libyuv or ONNX Runtime. Skipped in sanitizer builds, which replace the allocator.
#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>

#include "engine_test_support.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZYN_ALLOCATION_HOOKS 0
#else
#define ZYN_ALLOCATION_HOOKS 1
#endif

namespace {

constexpr int kMaxRecords = 8192, kMaxDepth = 24;
void* g_stacks[kMaxRecords][kMaxDepth];
int g_depths[kMaxRecords];
std::atomic<int> g_count{0};
thread_local bool t_tracking = false;

[[maybe_unused]] void note() {  // records the call of a hook on a tracked thread
    if (t_tracking) {
        t_tracking = false;  // backtrace may allocate
        const int i = g_count.fetch_add(1);
        if (i < kMaxRecords) {
            g_depths[i] = backtrace(g_stacks[i], kMaxDepth);
        }
        t_tracking = true;
    }
}

}  // namespace

#if ZYN_ALLOCATION_HOOKS
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);

void* malloc(size_t size) {
    return note(), __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    return note(), __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size) {
    return note(), __libc_realloc(pointer, size);
}
void* memalign(size_t alignment, size_t size) {
    return note(), __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
    return note(), __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) {
    note();
    *out = __libc_memalign(alignment, size);
    return *out == nullptr ? ENOMEM : 0;
}
}
#endif

namespace {

using namespace engine_test;

// The library's own allocations among those of the measured calls, one caller a line.
const std::string kHooks = " malloc calloc realloc memalign aligned_alloc posix_memalign ";
std::string Own(const std::function<void()>& body) {
    g_count = 0;
    t_tracking = true;
    body();
    t_tracking = false;
    std::map<std::string, int> owners;
    for (int i = 0; i < std::min(g_count.load(), kMaxRecords); ++i) {
        for (int f = 1; f < g_depths[i]; ++f) {
            Dl_info info{};
            const std::string module =
                dladdr(g_stacks[i][f], &info) != 0 && info.dli_fname ? info.dli_fname : "?";
            const std::string symbol = info.dli_sname != nullptr ? info.dli_sname : "";
            if (kHooks.find(" " + symbol + " ") == kHooks.npos &&
                module.find("libc.so") == module.npos && module.find("libstdc++") == module.npos &&
                module.find("libgcc") == module.npos) {
                if (module.find("libyuv") == module.npos &&
                    module.find("onnxruntime") == module.npos) {
                    ++owners[symbol.empty() ? module : symbol];
                }
                break;
            }
        }
    }
    std::string text;
    for (const auto& [caller, n] : owners) {
        text += "  " + std::to_string(n) + " x " + caller + "\n";
    }
    return text;
}

class EngineAllocation : public testing::Test {
  protected:
    void SetUp() override {
        if (!ZYN_ALLOCATION_HOOKS) {
            GTEST_SKIP() << "sanitizer builds replace the allocator";
        }
        void* warm[4];
        backtrace(warm, 4);  // the unwinder loads on first use
    }
};

}  // namespace

TEST_F(EngineAllocation, TheCounterSeesAnAllocationOfTheLibrary) {
    // An allocation made in this program's code counts against the library.
    void* volatile p = nullptr;
    const std::string own = Own([&] { p = std::malloc(64); });
    std::free(p);
    EXPECT_EQ(0u, own.find("  1 x ")) << own;  // one allocation, one caller
    EXPECT_EQ(1, std::count(own.begin(), own.end(), '\n')) << own;
    EXPECT_NE("", Own([] { delete new std::string(100, 'x'); }));
}

TEST_F(EngineAllocation, WarmFramesAllocateNothingOfTheLibrarysOwn) {
    WritePicture("alloc_green.png", 320, 180, "green");
    const std::string underlay =
        Layered("underlay", R"("weathermanUnderlayMode": "0")", "0.5", "0.1");
    const uint32_t nv12 = ZYN_FORMAT_NV12, i420 = ZYN_FORMAT_I420;
    const struct {
        std::string config;
        uint32_t w, h, in, out;
    } cases[] = {{BlurConfig(), 1280, 720, nv12, nv12},
                 {BackgroundConfig("alloc_green.png"), 640, 360, i420, i420},
                 {BlurAndTouchUpConfig("0.05"), 321, 181, nv12, i420},
                 {TouchUpConfig("0.05"), 640, 360, i420, nv12},
                 // Presentation frames: a 640 x 360 camera under a 1280 x 720 slide.
                 {underlay, 1280, 720, nv12, nv12}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.config);
        Instance instance(c.config);
        const bool presenter = c.config == underlay;
        auto in = AstronautFrame(presenter ? 640 : c.w, presenter ? 360 : c.h, c.in);
        Frame out(c.w, c.h, c.out), slide(c.w, c.h, c.in);
        slide.fill(235, 128, 128);
        ASSERT_EQ(0u, instance.run(*in, out, 8, presenter ? &slide : nullptr));
        uint32_t status = 0;
        EXPECT_EQ("",
                  Own([&] { status = instance.run(*in, out, 10, presenter ? &slide : nullptr); }));
        EXPECT_EQ(0u, status);
    }
}
