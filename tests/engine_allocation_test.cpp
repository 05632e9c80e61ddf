// Heap allocations per frame once an instance is warm: none may come from the library's own code.
//
// This program replaces the C allocation functions: while a frame is measured, every allocation
// made on the frame thread is recorded with its call stack. An allocation counts as the library's
// own unless the first caller outside the C and C++ runtimes is libyuv or ONNX Runtime. Both make
// small allocations inside some of their calls (libyuv's scalers and blends take row buffers
// from the heap on every call, ONNX Runtime's Run its bookkeeping); those are reported, not
// failed. Sanitizer builds bring their own allocator, so the suite is skipped there.
#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "engine_test_support.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZYN_ALLOCATION_HOOKS 0
#else
#define ZYN_ALLOCATION_HOOKS 1
#endif

namespace {

constexpr int kMaxRecords = 8192;
constexpr int kMaxDepth = 24;

struct Allocation {
    void* frames[kMaxDepth];
    int depth;
};

Allocation g_records[kMaxRecords];
std::atomic<int> g_recordCount{0};
thread_local bool t_tracking = false;
thread_local bool t_inHook = false;

void noteAllocation() {
    if (!t_tracking || t_inHook) {
        return;
    }
    t_inHook = true;
    const int index = g_recordCount.fetch_add(1);
    if (index < kMaxRecords) {
        g_records[index].depth = backtrace(g_records[index].frames, kMaxDepth);
    }
    t_inHook = false;
}

}  // namespace

#if ZYN_ALLOCATION_HOOKS
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);

void* malloc(size_t size) {
    noteAllocation();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    noteAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size) {
    noteAllocation();
    return __libc_realloc(pointer, size);
}
void* memalign(size_t alignment, size_t size) {
    noteAllocation();
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
    noteAllocation();
    return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) {
    noteAllocation();
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr) {
        return ENOMEM;
    }
    *out = p;
    return 0;
}
}
#endif

namespace {

using namespace engine_test;

struct Counts {
    int library = 0;
    int libyuv = 0;
    int onnxRuntime = 0;
    std::map<std::string, int> libraryCallers;  // symbol or module of the library's allocations
};

std::string moduleOf(void* address, std::string* symbol) {
    Dl_info info{};
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        return "?";
    }
    if (symbol != nullptr) {
        *symbol = info.dli_sname != nullptr ? info.dli_sname : info.dli_fname;
    }
    return info.dli_fname;
}

bool isRuntime(const std::string& module) {
    return module.find("libc.so") != std::string::npos ||
           module.find("libstdc++") != std::string::npos ||
           module.find("libgcc") != std::string::npos;
}

// Who asked for each recorded allocation: the first frame past the hook and the runtimes.
Counts classify(int count) {
    Counts counts;
    const int n = std::min(count, kMaxRecords);
    Dl_info self{};
    dladdr(reinterpret_cast<void*>(&noteAllocation), &self);
    for (int i = 0; i < n; ++i) {
        std::string owner = "?";
        std::string symbol;
        for (int f = 1; f < g_records[i].depth; ++f) {
            Dl_info info{};
            // The hook functions live in this program, as does the library's code: skip frames
            // of the hook itself by their symbol names.
            if (dladdr(g_records[i].frames[f], &info) != 0 && info.dli_sname != nullptr &&
                (std::strcmp(info.dli_sname, "malloc") == 0 ||
                 std::strcmp(info.dli_sname, "calloc") == 0 ||
                 std::strcmp(info.dli_sname, "realloc") == 0 ||
                 std::strcmp(info.dli_sname, "memalign") == 0 ||
                 std::strcmp(info.dli_sname, "aligned_alloc") == 0 ||
                 std::strcmp(info.dli_sname, "posix_memalign") == 0)) {
                continue;
            }
            const std::string module = moduleOf(g_records[i].frames[f], &symbol);
            if (isRuntime(module)) {
                continue;
            }
            owner = module;
            break;
        }
        if (owner.find("libyuv") != std::string::npos) {
            ++counts.libyuv;
        } else if (owner.find("libonnxruntime") != std::string::npos) {
            ++counts.onnxRuntime;
        } else {
            ++counts.library;
            ++counts.libraryCallers[symbol.empty() ? owner : symbol];
        }
    }
    return counts;
}

template <typename Body>
Counts measure(Body&& body) {
    g_recordCount = 0;
    t_tracking = true;
    body();
    t_tracking = false;
    return classify(g_recordCount.load());
}

std::string describe(const Counts& c) {
    std::string text;
    for (const auto& [caller, n] : c.libraryCallers) {
        text += "  " + std::to_string(n) + " x " + caller + "\n";
    }
    return text;
}

constexpr int kWarm = 8;
constexpr int kMeasured = 10;

class EngineAllocation : public testing::Test {
  protected:
    void SetUp() override {
        if (!ZYN_ALLOCATION_HOOKS) {
            GTEST_SKIP() << "sanitizer builds replace the allocator";
        }
        Library::Get();
        void* warm[4];
        backtrace(warm, 4);  // the unwinder loads on first use
    }

    // Runs frames of one configuration and checks the warm ones.
    void expectNoOwnAllocations(const std::string& name, const std::string& config, uint32_t w,
                                uint32_t h, uint32_t inFormat, uint32_t outFormat) {
        SCOPED_TRACE(name);
        Instance instance(config);
        ASSERT_EQ(0u, instance.status());
        auto in = AstronautFrame(w, h, inFormat);
        Frame out(w, h, outFormat);
        for (int i = 0; i < kWarm; ++i) {
            ASSERT_EQ(0u, instance.process(*in, out));
        }
        bool ok = true;
        const Counts counts = measure([&] {
            for (int i = 0; i < kMeasured; ++i) {
                ok = instance.process(*in, out) == 0u && ok;
            }
        });
        EXPECT_TRUE(ok);
        EXPECT_EQ(0, counts.library) << describe(counts);
        RecordProperty(name + "_libyuv_per_frame", std::to_string(counts.libyuv / kMeasured));
        RecordProperty(name + "_onnxruntime_per_frame",
                       std::to_string(counts.onnxRuntime / kMeasured));
        std::printf(
            "%-22s allocations per warm frame: library %.1f, libyuv %.1f, ONNX Runtime %.1f\n",
            name.c_str(), counts.library / double(kMeasured), counts.libyuv / double(kMeasured),
            counts.onnxRuntime / double(kMeasured));
    }
};

}  // namespace

TEST_F(EngineAllocation, TheCounterSeesAnAllocationOfTheLibrary) {
    // The measurement must be able to fail: an allocation made here, in this program's code,
    // counts against the library.
    void* volatile p = nullptr;
    const Counts counts = measure([&] { p = std::malloc(64); });
    std::free(p);
    EXPECT_EQ(1, counts.library) << describe(counts);
    const Counts cxx = measure([&] { delete new std::string(100, 'x'); });
    EXPECT_GE(cxx.library, 1);
}

TEST_F(EngineAllocation, WarmFramesAllocateNothingOfTheLibrarysOwn) {
    WritePicture("alloc_green.png", 320, 180, "green");
    expectNoOwnAllocations("blur_nv12_720p", BlurConfig(), 1280, 720, ZYN_FORMAT_NV12,
                           ZYN_FORMAT_NV12);
    expectNoOwnAllocations("picture_i420_360p", BackgroundConfig("alloc_green.png"), 640, 360,
                           ZYN_FORMAT_I420, ZYN_FORMAT_I420);
    expectNoOwnAllocations("blur_touchup_nv12_odd", BlurAndTouchUpConfig("0.05"), 321, 181,
                           ZYN_FORMAT_NV12, ZYN_FORMAT_I420);
    expectNoOwnAllocations("touchup_only_i420", TouchUpConfig("0.05"), 640, 360, ZYN_FORMAT_I420,
                           ZYN_FORMAT_NV12);
}

TEST_F(EngineAllocation, WarmPresentationFramesAllocateNothingOfTheLibrarysOwn) {
    Instance instance(
        R"({"processingMode": 2, "effects": [{"name": "weatherman", "mode": "underlay", )"
        R"("weathermanSize": "0.5", "weathermanOffsetX": "0.1", "weathermanOffsetY": "0", )"
        R"("weathermanUnderlayMode": "0"}]})");
    ASSERT_EQ(0u, instance.status());
    auto camera = AstronautFrame(640, 360, ZYN_FORMAT_NV12);
    Frame slide(1280, 720, ZYN_FORMAT_NV12);
    slide.fill(235, 128, 128);
    Frame out(1280, 720, ZYN_FORMAT_NV12);
    auto present = [&] {
        ZynNativeInputFrame frames[2] = {camera->record(), slide.record()};
        ZynNativeInputFrame o = out.record();
        return ZynNativeVideoProcessingProcessPresentationFrame(instance.handle(), frames, &o);
    };
    for (int i = 0; i < kWarm; ++i) {
        ASSERT_EQ(0u, present());
    }
    bool ok = true;
    const Counts counts = measure([&] {
        for (int i = 0; i < kMeasured; ++i) {
            ok = present() == 0u && ok;
        }
    });
    EXPECT_TRUE(ok);
    EXPECT_EQ(0, counts.library) << describe(counts);
    std::printf("%-22s allocations per warm frame: library %.1f, libyuv %.1f, ONNX Runtime %.1f\n",
                "underlay_nv12_720p", counts.library / double(kMeasured),
                counts.libyuv / double(kMeasured), counts.onnxRuntime / double(kMeasured));
}
