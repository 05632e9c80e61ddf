// Effect configuration texts through the create and update exports: the input is the create text,
// optionally followed by a NUL byte and the update text. Each instance made here is destroyed
// here. Statuses and handles must agree with each other whatever the text: a create leaves a
// handle exactly when it reports success or a rejected presenter update, and a failed update
// always takes the instance away. An instance that survives processes one small camera frame and
// one presentation frame, so that the settings it was given (feedback requests included) are
// applied too. With ZYN_FUZZ_NO_SELECTION=1 there is no stored selection, and a create in
// automatic mode may also succeed without an instance.
#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "fuzz_library.h"
#include "util/bounded_json.h"
#include "zyn_native_vbg.h"

namespace {

// An NV12 frame of w x h over its own planes, filled with one byte.
struct Nv12Frame {
    Nv12Frame(uint32_t w, uint32_t h, uint8_t fill)
        : bytes(static_cast<size_t>(w) * h + 2 * ((w + 1) / 2) * ((h + 1) / 2), fill) {
        record.width = w;
        record.height = h;
        record.format = ZYN_FORMAT_NV12;
        record.plane0 = bytes.data();
        record.stride0 = w;
        record.plane1 = bytes.data() + static_cast<size_t>(w) * h;
        record.stride1 = 2 * ((w + 1) / 2);
    }
    std::vector<uint8_t> bytes;
    ZynNativeInputFrame record{};
};

void ExpectFrameStatus(uint32_t status) {
    if (status != ZYN_STATUS_SUCCESS && status != ZYN_STATUS_FRAME_FAILED) {
        __builtin_trap();
    }
}

// One 64 x 36 camera frame, then one presentation frame: camera and a 64 x 36 presentation into
// an output of the size the instance asks for (the room picture) or of the presentation's size.
void ProcessFrames(ZynNativeHandle* handle) {
    static Nv12Frame camera(64, 36, 128);
    static Nv12Frame out(64, 36, 0);
    ExpectFrameStatus(ZynNativeVideoProcessingProcessFrame(handle, &camera.record, &out.record));

    static Nv12Frame presentation(64, 36, 200);
    uint32_t ow = 64, oh = 36;
    if (ZynNativeVideoProcessingGetOutputFrameSize(handle, &ow, &oh) &&
        (ow == 0 || oh == 0 || ow > 4096 || oh > 4096)) {
        return;  // the seed pictures are small; a size the host could not allocate is not asked
    }
    Nv12Frame output(ow, oh, 0);
    const ZynNativeInputFrame frames[2] = {camera.record, presentation.record};
    ExpectFrameStatus(
        ZynNativeVideoProcessingProcessPresentationFrame(handle, frames, &output.record));
}

// Feedback dumps are named by the text's "id" (the update's, or the create's).
enum class FeedbackId { None, Plain, Other };
FeedbackId FeedbackIdOf(const std::string& text) {
    rapidjson::Document doc;
    // Read as the library reads it: up to the first NUL.
    if (VBG::Json::ParseText(text.c_str(), doc) != VBG::Json::ParseResult::Ok || !doc.IsObject()) {
        return FeedbackId::None;  // nothing the library would read either
    }
    const auto id = doc.FindMember("id");
    if (id == doc.MemberEnd() || !id->value.IsString()) {
        return FeedbackId::None;
    }
    const std::string name(id->value.GetString(), id->value.GetStringLength());
    if (name.empty() || name.size() > 64 || name[0] == '.') {
        return FeedbackId::Other;
    }
    for (const char c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!plain) {
            return FeedbackId::Other;
        }
    }
    return FeedbackId::Plain;
}

// Removes what feedback dumps left in the cache folder and restores the stored selection (the
// index of an id "PT_CONFIG" replaces it), so that neither the disk nor later inputs see them.
void CleanCacheFolder(const std::set<std::string>& keep) {
    namespace fs = std::filesystem;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(zyn_fuzz::CacheFolder(), ec)) {
        if (keep.count(entry.path().filename().string()) == 0) {
            fs::remove_all(entry.path(), ec);
        }
    }
    if (!zyn_fuzz::NoStoredSelection()) {
        zyn_fuzz::WriteText(zyn_fuzz::CacheFolder() / "PT_CONFIG.json", zyn_fuzz::FreshSelection());
    }
}

std::set<std::string> InitialCacheFiles() {
    std::set<std::string> names;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(zyn_fuzz::CacheFolder(), ec)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zyn_fuzz::InitLibraryOnce();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::set<std::string> initialCacheFiles = InitialCacheFiles();
    const char* text = reinterpret_cast<const char*>(data);
    const size_t split = strnlen(text, size);
    const std::string createText(text, split);
    const bool hasUpdate = split < size;
    const std::string updateText = hasUpdate ? std::string(text + split + 1, size - split - 1) : "";

    ZynNativeHandle handle = nullptr;
    const uint32_t created = ZynNativeVideoProcessingCreateInstance(createText.c_str(), &handle);
    switch (created) {
        case ZYN_STATUS_SUCCESS:
            if (handle == nullptr && !zyn_fuzz::NoStoredSelection()) {
                __builtin_trap();  // the stored selection is fresh: success makes an instance
            }
            break;
        case ZYN_STATUS_UPDATE_REJECTED:
            if (handle == nullptr) {
                __builtin_trap();
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
    if (handle == nullptr) {
        return 0;
    }
    if (hasUpdate) {
        const uint32_t updated =
            ZynNativeVideoProcessingUpdateInstance(&handle, updateText.c_str());
        if (updated > ZYN_STATUS_UPDATE_REJECTED || updated == ZYN_STATUS_FEEDBACK_ONLY ||
            (updated == ZYN_STATUS_SUCCESS) != (handle != nullptr)) {
            __builtin_trap();
        }
    }
    // Frames are processed unless a dump could be named by something other than a plain file
    // name (and so land outside the scratch folder).
    const FeedbackId createId = FeedbackIdOf(createText);
    const FeedbackId updateId = FeedbackIdOf(updateText);
    const bool framesProcessed =
        handle != nullptr && createId != FeedbackId::Other && updateId != FeedbackId::Other;
    if (framesProcessed) {
        ProcessFrames(&handle);
    }
    ZynNativeVideoProcessingDestroyInstance(&handle);
    if (handle != nullptr) {
        __builtin_trap();
    }
    if (framesProcessed && (createId == FeedbackId::Plain || updateId == FeedbackId::Plain)) {
        CleanCacheFolder(initialCacheFiles);
    }
    return 0;
}
