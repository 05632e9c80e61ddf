#include "diag/feedback_writer.h"

#include <libyuv.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <fcntl.h>

#include <filesystem>
#include <vector>

#include "util/file_access.h"
#include "util/log.h"

namespace VBG {

bool FeedbackWriter::Start(const std::string& folder, const std::string& id) {
    if (isActive()) {
        ZLOG_ERROR("VBG::FeedbackWriter::Start", "FeedbackWriter in progress with id {}", id_);
        return false;
    }
    ZLOG_INFO("VBG::FeedbackWriter::Start", "FeedbackWriter::Start id: {}", id);
    folder_ = folder;
    id_ = id;
    index_ = std::make_unique<rapidjson::Document>();
    index_->SetObject();
    return true;
}

void FeedbackWriter::WriteFramesToFile(const ZynNativeInputFrame* raw,
                                       const ZynNativeInputFrame* final) {
    ZLOG_INFO("VBG::FeedbackWriter::WriteFramesToFile",
              "FeedbackWriter::WriteFramesToFile raw: {0} x {1}, final: {2} x {3}",
              raw != nullptr ? raw->width : 0, raw != nullptr ? raw->height : 0,
              final != nullptr ? final->width : 0, final != nullptr ? final->height : 0);
    writeFrame("raw", raw);
    writeFrame("final", final);
}

void FeedbackWriter::WriteCurrentMaskToFile(const uint8_t* mask, uint32_t width, uint32_t height) {
    ZLOG_INFO("VBG::FeedbackWriter::WriteCurrentMaskToFile",
              "FeedbackWriter::WriteCurrentMaskToFile {0} x {1}", width, height);
    writeFile("currentMask", mask, static_cast<size_t>(width) * height, width, height);
}

void FeedbackWriter::WritePreviousMaskToFile(const uint8_t* mask, uint32_t width, uint32_t height) {
    ZLOG_INFO("VBG::FeedbackWriter::WritePreviousMaskToFile",
              "FeedbackWriter::WritePreviousMaskToFile {0} x {1}", width, height);
    writeFile("previousMask", mask, static_cast<size_t>(width) * height, width, height);
}

void FeedbackWriter::writeFrame(const char* tag, const ZynNativeInputFrame* frame) {
    if (frame == nullptr || frame->width == 0 || frame->height == 0) {
        return;
    }
    const uint32_t w = frame->width;
    const uint32_t h = frame->height;
    std::vector<uint8_t> argb(static_cast<size_t>(w) * h * 4);
    int rc = -1;
    if (frame->format == ZYN_FORMAT_NV12) {
        rc = libyuv::NV12ToARGB(frame->plane0, static_cast<int>(frame->stride0), frame->plane1,
                                static_cast<int>(frame->stride1), argb.data(),
                                static_cast<int>(w * 4), static_cast<int>(w), static_cast<int>(h));
    } else if (frame->format == ZYN_FORMAT_I420) {
        rc = libyuv::I420ToARGB(frame->plane0, static_cast<int>(frame->stride0), frame->plane1,
                                static_cast<int>(frame->stride1), frame->plane2,
                                static_cast<int>(frame->stride2), argb.data(),
                                static_cast<int>(w * 4), static_cast<int>(w), static_cast<int>(h));
    }
    if (rc != 0) {
        return;  // other formats write nothing
    }
    writeFile(tag, argb.data(), argb.size(), w, h);
}

void FeedbackWriter::writeFile(const char* tag, const uint8_t* data, size_t size, uint32_t width,
                               uint32_t height) {
    if (!isActive() || data == nullptr) {
        return;
    }
    const std::string name = std::string(tag) + id_ + ".bin";
    auto& alloc = index_->GetAllocator();
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("filename", rapidjson::Value(name.c_str(), alloc), alloc);
    entry.AddMember("width", width, alloc);
    entry.AddMember("height", height, alloc);
    index_->AddMember(rapidjson::Value(tag, alloc), entry, alloc);
    writeOwnerOnly(name, data, size);
}

void FeedbackWriter::writeOwnerOnly(const std::string& name, const void* data, size_t size) {
    // Dumps hold camera pictures: owner-only files, never written through a link. A failure is
    // logged and the request goes on.
    const std::string path = (std::filesystem::u8path(folder_) / name).u8string();
    std::string why;
    const Files::UniqueFd fd = Files::CreateOwnerOnly(path, O_TRUNC, why);
    if (!fd || !Files::WriteAll(fd.get(), data, size)) {
        ZLOG_ERROR("VBG::FeedbackWriter::writeOwnerOnly", "Feedback file {} not written: {}", path,
                   fd ? std::string("write failed") : why);
    }
}

void FeedbackWriter::End() {
    if (index_) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        index_->Accept(writer);
        writeOwnerOnly(id_ + ".json", buffer.GetString(), buffer.GetSize());
    }
    const std::string id = id_;
    folder_.clear();
    id_.clear();
    index_.reset();
    ZLOG_INFO("VBG::FeedbackWriter::End", "FeedbackWriter::End {0}", id);
}

}  // namespace VBG
