// Effect configuration texts through the create and update exports (the create text, optionally a
// NUL byte and the update text): a create leaves a handle exactly when it reports success or a
// rejected presenter update (or success without a stored selection), a failed update always takes
// the instance away, and a surviving instance processes a camera and a presentation frame.
#include <rapidjson/document.h>

#include <cstring>
#include <set>
#include <vector>

#include "fuzz_library.h"
#include "util/bounded_json.h"

namespace {

namespace fs = std::filesystem;
using zyn_fuzz::Require;

// An NV12 frame of w x h over its own planes, filled with one byte.
struct Nv12Frame {
    Nv12Frame(uint32_t w, uint32_t h, uint8_t fill)
        : bytes(size_t{w} * h + 2 * ((w + 1) / 2) * ((h + 1) / 2), fill),
          record{w, h, 1, bytes.data(), w, &bytes[size_t{w} * h], (w + 1) / 2 * 2, nullptr, 0, 0} {}
    std::vector<uint8_t> bytes;
    ZynNativeInputFrame record;
};

// A camera frame alone, then with a presentation into an output of the size the instance asks.
void ProcessFrames(ZynNativeHandle* handle) {
    static Nv12Frame camera(64, 36, 128), out(64, 36, 0), presentation(64, 36, 200);
    // Each frame is processed (0) or refused (2).
    Require((ZynNativeVideoProcessingProcessFrame(handle, &camera.record, &out.record) | 2) == 2);
    uint32_t ow = 64, oh = 36;
    if (ZynNativeVideoProcessingGetOutputFrameSize(handle, &ow, &oh) &&
        (ow == 0 || oh == 0 || ow > 4096 || oh > 4096)) {
        return;  // the seed pictures are small; a size a host could not allocate is not asked
    }
    Nv12Frame output(ow, oh, 0);
    const ZynNativeInputFrame frames[2] = {camera.record, presentation.record};
    Require((ZynNativeVideoProcessingProcessPresentationFrame(handle, frames, &output.record) |
             2) == 2);
}

// Whether the text's feedback dump name is not a plain file name (it could leave the scratch).
bool UnsafeId(const std::string& text) {
    rapidjson::Document doc;
    if (VBG::Json::ParseText(text.c_str(), doc) != VBG::Json::ParseResult::Ok || !doc.IsObject() ||
        !doc.HasMember("id") || !doc["id"].IsString()) {
        return false;
    }
    const std::string id(doc["id"].GetString(), doc["id"].GetStringLength());
    return id.empty() || id.size() > 64 || id[0] == '.' ||
           id.find_first_not_of(
               "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") !=
               std::string::npos;
}

std::set<fs::path> CacheFiles() {
    return {fs::directory_iterator(zyn_fuzz::CacheFolder()), fs::directory_iterator()};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zyn_fuzz::InitLibraryOnce();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::set<fs::path> initialFiles = CacheFiles();
    const char* text = reinterpret_cast<const char*>(data);
    const size_t split = strnlen(text, size);
    const std::string createText(text, split);
    const bool hasUpdate = split < size;
    const std::string updateText = hasUpdate ? std::string(text + split + 1, size - split - 1) : "";

    ZynNativeHandle handle = nullptr;
    const uint32_t created = ZynNativeVideoProcessingCreateInstance(createText.c_str(), &handle);
    Require(created <= ZYN_STATUS_NOT_SUPPORTED && created != ZYN_STATUS_FRAME_FAILED);
    const bool keeps = created == ZYN_STATUS_SUCCESS || created == ZYN_STATUS_UPDATE_REJECTED;
    Require(keeps == (handle != nullptr) ||
            (created == ZYN_STATUS_SUCCESS && zyn_fuzz::NoStoredSelection()));
    if (handle == nullptr) {
        return 0;
    }
    if (hasUpdate) {
        const uint32_t updated =
            ZynNativeVideoProcessingUpdateInstance(&handle, updateText.c_str());
        Require(updated <= ZYN_STATUS_UPDATE_REJECTED && updated != ZYN_STATUS_FEEDBACK_ONLY &&
                (updated == ZYN_STATUS_SUCCESS) == (handle != nullptr));
    }
    if (handle != nullptr && !UnsafeId(createText) && !UnsafeId(updateText)) {
        ProcessFrames(&handle);
    }
    ZynNativeVideoProcessingDestroyInstance(&handle);
    Require(handle == nullptr);
    // Feedback dumps are removed, and the stored selection written again.
    bool removed = false;
    for (const fs::path& path : CacheFiles()) {
        std::error_code ec;
        removed = (initialFiles.count(path) == 0 && fs::remove_all(path, ec) > 0) || removed;
    }
    if (removed) {
        zyn_fuzz::StoreFreshSelection();
    }
    return 0;
}
