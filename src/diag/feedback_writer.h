// Writes what an engine saw and produced for one feedback request: the raw and final frames in
// ARGB, the current and previous masks, and a JSON index naming them with their sizes.
#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <memory>
#include <string>

#include "zyn_native_vbg.h"

namespace VBG {

class FeedbackWriter {
  public:
    // Refused (false) while a request is in progress.
    bool Start(const std::string& folder, const std::string& id);
    void WriteFramesToFile(const ZynNativeInputFrame* raw, const ZynNativeInputFrame* final);
    void WriteCurrentMaskToFile(const uint8_t* mask, uint32_t width, uint32_t height);
    void WritePreviousMaskToFile(const uint8_t* mask, uint32_t width, uint32_t height);
    // Writes the index and ends the request.
    void End();

    // A request is in progress.
    bool isActive() const { return !folder_.empty() && !id_.empty(); }
    const std::string& id() const { return id_; }

  private:
    void writeFrame(const char* tag, const ZynNativeInputFrame* frame);
    void writeFile(const char* tag, const uint8_t* data, size_t size, uint32_t width,
                   uint32_t height);
    void writeOwnerOnly(const std::string& name, const void* data, size_t size);

    std::string folder_;
    std::string id_;
    std::unique_ptr<rapidjson::Document> index_;
};

}  // namespace VBG
