// Feedback writer: file names, contents, the JSON index and the one-request-at-a-time rule.
#include <gtest/gtest.h>
#include <libyuv.h>
#include <rapidjson/document.h>

#include <filesystem>
#include <string>
#include <vector>

#include "diag/feedback_writer.h"
#include "support/log_capture.h"
#include "support/test_paths.h"

using VBG::FeedbackWriter;
using zyn_test::LogCapture;
using zyn_test::ReadFile;
using zyn_test::TempDir;

namespace {

// A small I420 frame with a gradient, its planes padded to show that strides are honoured.
struct I420Frame {
    static constexpr uint32_t kW = 6, kH = 4, kStrideY = 8, kStrideC = 5;
    std::vector<uint8_t> y = std::vector<uint8_t>(kStrideY * kH, 0xEE);
    std::vector<uint8_t> u = std::vector<uint8_t>(kStrideC * kH / 2, 0xEE);
    std::vector<uint8_t> v = std::vector<uint8_t>(kStrideC * kH / 2, 0xEE);
    ZynNativeInputFrame record{};
    I420Frame() {
        for (uint32_t r = 0; r < kH; ++r) {
            for (uint32_t c = 0; c < kW; ++c) {
                y[r * kStrideY + c] = static_cast<uint8_t>(30 + 20 * c + 5 * r);
            }
        }
        for (uint32_t r = 0; r < kH / 2; ++r) {
            for (uint32_t c = 0; c < kW / 2; ++c) {
                u[r * kStrideC + c] = static_cast<uint8_t>(100 + 10 * c);
                v[r * kStrideC + c] = static_cast<uint8_t>(160 - 10 * r);
            }
        }
        record = ZynNativeInputFrame{kW,       kH,       ZYN_FORMAT_I420, y.data(), kStrideY,
                                     u.data(), kStrideC, v.data(),        kStrideC, 0.0f};
    }
    std::string argb() const {
        std::string out(kW * kH * 4, '\0');
        libyuv::I420ToARGB(y.data(), kStrideY, u.data(), kStrideC, v.data(), kStrideC,
                           reinterpret_cast<uint8_t*>(out.data()), kW * 4, kW, kH);
        return out;
    }
};

// The same picture as NV12.
struct Nv12Frame {
    std::vector<uint8_t> y, uv;
    ZynNativeInputFrame record{};
    explicit Nv12Frame(const I420Frame& src) {
        y.assign(I420Frame::kW * I420Frame::kH, 0);
        uv.assign(I420Frame::kW * I420Frame::kH / 2, 0);
        libyuv::I420ToNV12(src.y.data(), I420Frame::kStrideY, src.u.data(), I420Frame::kStrideC,
                           src.v.data(), I420Frame::kStrideC, y.data(), I420Frame::kW, uv.data(),
                           I420Frame::kW, I420Frame::kW, I420Frame::kH);
        record = ZynNativeInputFrame{
            I420Frame::kW, I420Frame::kH, ZYN_FORMAT_NV12, y.data(), I420Frame::kW,
            uv.data(),     I420Frame::kW, nullptr,         0,        0.0f};
    }
};

rapidjson::Document readIndex(const std::filesystem::path& path) {
    rapidjson::Document doc;
    doc.Parse(ReadFile(path).c_str());
    return doc;
}

void expectEntry(const rapidjson::Document& index, const char* tag, const std::string& file,
                 int width, int height) {
    ASSERT_TRUE(index.HasMember(tag)) << tag;
    const auto& entry = index[tag];
    EXPECT_EQ(file, entry["filename"].GetString());
    EXPECT_EQ(width, entry["width"].GetInt());
    EXPECT_EQ(height, entry["height"].GetInt());
}

}  // namespace

TEST(FeedbackWriter, OneRequestWritesTaggedFilesAndTheirIndex) {
    TempDir dir("feedback");
    LogCapture log;
    I420Frame raw;
    Nv12Frame final(raw);
    const std::vector<uint8_t> current = {1, 2, 3, 4, 5, 6};
    const std::vector<uint8_t> previous = {9, 8, 7, 6, 5, 4};

    FeedbackWriter writer;
    ASSERT_TRUE(writer.Start(dir.str(), "abc"));
    EXPECT_TRUE(log.contains("FeedbackWriter::Start id: abc"));
    writer.WritePreviousMaskToFile(previous.data(), 3, 2);
    writer.WriteFramesToFile(&raw.record, &final.record);
    writer.WriteCurrentMaskToFile(current.data(), 2, 3);
    writer.End();

    EXPECT_TRUE(log.contains("FeedbackWriter::WriteFramesToFile raw: 6 x 4, final: 6 x 4"));
    EXPECT_TRUE(log.contains("FeedbackWriter::WriteCurrentMaskToFile 2 x 3"));
    EXPECT_TRUE(log.contains("FeedbackWriter::WritePreviousMaskToFile 3 x 2"));
    EXPECT_TRUE(log.contains("FeedbackWriter::End abc"));

    // The tag first, the id after it without a separator.
    const std::string argb = raw.argb();
    EXPECT_EQ(argb, ReadFile(dir / "rawabc.bin"));
    std::string finalArgb(argb.size(), '\0');
    libyuv::NV12ToARGB(final.y.data(), 6, final.uv.data(), 6,
                       reinterpret_cast<uint8_t*>(finalArgb.data()), 24, 6, 4);
    EXPECT_EQ(finalArgb, ReadFile(dir / "finalabc.bin"));
    EXPECT_EQ(std::string(current.begin(), current.end()), ReadFile(dir / "currentMaskabc.bin"));
    EXPECT_EQ(std::string(previous.begin(), previous.end()), ReadFile(dir / "previousMaskabc.bin"));

    const rapidjson::Document index = readIndex(dir / "abc.json");
    ASSERT_TRUE(index.IsObject());
    EXPECT_EQ(4u, index.MemberCount());
    expectEntry(index, "raw", "rawabc.bin", 6, 4);
    expectEntry(index, "final", "finalabc.bin", 6, 4);
    expectEntry(index, "currentMask", "currentMaskabc.bin", 2, 3);
    expectEntry(index, "previousMask", "previousMaskabc.bin", 3, 2);
    EXPECT_FALSE(writer.isActive());
}

TEST(FeedbackWriter, ASecondStartIsRefusedUntilTheFirstRequestEnds) {
    TempDir dir("feedback");
    LogCapture log;
    FeedbackWriter writer;
    ASSERT_TRUE(writer.Start(dir.str(), "first"));
    EXPECT_FALSE(writer.Start(dir.str(), "second"));
    EXPECT_TRUE(log.has(spdlog::level::err, "FeedbackWriter in progress with id first"));
    EXPECT_EQ("first", writer.id());
    writer.End();
    EXPECT_TRUE(std::filesystem::exists(dir / "first.json"));

    ASSERT_TRUE(writer.Start(dir.str(), "second"));
    writer.End();
    EXPECT_TRUE(std::filesystem::exists(dir / "second.json"));
    EXPECT_EQ("{}", ReadFile(dir / "second.json"));
}

TEST(FeedbackWriter, FramesOfAnUnknownFormatWriteNothing) {
    TempDir dir("feedback");
    I420Frame raw;
    ZynNativeInputFrame odd = raw.record;
    odd.format = 3;
    FeedbackWriter writer;
    ASSERT_TRUE(writer.Start(dir.str(), "x"));
    writer.WriteFramesToFile(&odd, &raw.record);
    writer.End();
    EXPECT_FALSE(std::filesystem::exists(dir / "rawx.bin"));
    EXPECT_TRUE(std::filesystem::exists(dir / "finalx.bin"));
    const rapidjson::Document index = readIndex(dir / "x.json");
    EXPECT_FALSE(index.HasMember("raw"));
    EXPECT_TRUE(index.HasMember("final"));
}

// Dumps hold camera pictures: readable by the owner only, and never written through a link that
// an entry of the folder already holds.
TEST(FeedbackWriter, DumpsAreOwnerOnlyAndNoLinkIsFollowed) {
    TempDir dir("feedback");
    TempDir elsewhere("feedback-target");
    zyn_test::WriteFile(elsewhere / "victim", "keep");
    std::filesystem::create_symlink(elsewhere / "victim", dir / "rawl.bin");
    std::filesystem::create_symlink(elsewhere / "victim", dir / "l.json");
    zyn_test::WriteFile(dir / "finall.bin", "older dump");
    std::filesystem::permissions(dir / "finall.bin", std::filesystem::perms::all);
    I420Frame raw;
    const std::vector<uint8_t> mask(6, 7);
    FeedbackWriter writer;
    ASSERT_TRUE(writer.Start(dir.str(), "l"));
    writer.WriteFramesToFile(&raw.record, &raw.record);
    writer.WriteCurrentMaskToFile(mask.data(), 3, 2);
    writer.End();
    EXPECT_EQ("keep", ReadFile(elsewhere / "victim"));
    EXPECT_EQ(raw.argb(), ReadFile(dir / "finall.bin"));
    for (const char* name : {"finall.bin", "currentMaskl.bin"}) {
        EXPECT_EQ(0600u, zyn_test::PermissionBits(dir / name)) << name;
    }
}
