// Effect configuration texts through the create and update exports: the input is the create text,
// optionally followed by a NUL byte and the update text. Each instance made here is destroyed
// here. Statuses and handles must agree with each other whatever the text: a create leaves a
// handle exactly when it reports success or a rejected presenter update, and a failed update
// always takes the instance away. An instance that survives processes one small frame, so that
// the settings it was given are applied too.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_library.h"
#include "zyn_native_vbg.h"

namespace {

// One 64 x 36 NV12 frame in and out: mid grey.
uint32_t ProcessOneFrame(ZynNativeHandle* handle) {
    constexpr uint32_t w = 64, h = 36;
    static std::vector<uint8_t> in(w * h * 3 / 2, 128);
    static std::vector<uint8_t> out(w * h * 3 / 2, 0);
    ZynNativeInputFrame i{};
    i.width = w;
    i.height = h;
    i.format = ZYN_FORMAT_NV12;
    i.plane0 = in.data();
    i.stride0 = w;
    i.plane1 = in.data() + w * h;
    i.stride1 = w;
    ZynNativeInputFrame o = i;
    o.plane0 = out.data();
    o.plane1 = out.data() + w * h;
    return ZynNativeVideoProcessingProcessFrame(handle, &i, &o);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zyn_fuzz::InitLibraryOnce();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    const size_t split = strnlen(text, size);
    const std::string createText(text, split);
    const bool hasUpdate = split < size;
    const std::string updateText = hasUpdate ? std::string(text + split + 1, size - split - 1) : "";

    ZynNativeHandle handle = nullptr;
    const uint32_t created = ZynNativeVideoProcessingCreateInstance(createText.c_str(), &handle);
    switch (created) {
        case ZYN_STATUS_SUCCESS:
        case ZYN_STATUS_UPDATE_REJECTED:
            if (handle == nullptr) {
                __builtin_trap();  // the stored selection is fresh: success makes an instance
            }
            break;
        case ZYN_STATUS_FEEDBACK_ONLY:
        case ZYN_STATUS_CONFIG_FAILED:
        case ZYN_STATUS_NOT_SUPPORTED:
            if (handle != nullptr) {
                __builtin_trap();
            }
            return 0;
        default:
            __builtin_trap();
    }
    if (hasUpdate) {
        const uint32_t updated =
            ZynNativeVideoProcessingUpdateInstance(&handle, updateText.c_str());
        if (updated > ZYN_STATUS_UPDATE_REJECTED || updated == ZYN_STATUS_FEEDBACK_ONLY ||
            (updated == ZYN_STATUS_SUCCESS) != (handle != nullptr)) {
            __builtin_trap();
        }
    }
    // Feedback would write files named by the text's id; frames are left out then.
    if (handle != nullptr && createText.find("feedback") == std::string::npos &&
        updateText.find("feedback") == std::string::npos) {
        const uint32_t status = ProcessOneFrame(&handle);
        if (status != ZYN_STATUS_SUCCESS && status != ZYN_STATUS_FRAME_FAILED) {
            __builtin_trap();
        }
    }
    ZynNativeVideoProcessingDestroyInstance(&handle);
    if (handle != nullptr) {
        __builtin_trap();
    }
    return 0;
}
