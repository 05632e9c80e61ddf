// Video backgrounds without the playback thread: decoding and looping of short clips in each
// container, damaged clips, and every kind of unplayable input.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "media/background_image.h"
#include "media/picture_decoder.h"
#include "media/video_decoder.h"
#include "media_fixtures.h"
#include "support/log_capture.h"
#include "support/test_paths.h"

namespace {

using VBG::BackgroundImage;
using zyn_test::FileSettings;
using zyn_test::MemorySettings;

constexpr uint32_t kMp4 = 4;

uint64_t Fnv1a(const std::vector<uint8_t>& bytes) {
    uint64_t hash = 1469598103934665603ull;
    for (uint8_t b : bytes) {
        hash = (hash ^ b) * 1099511628211ull;
    }
    return hash;
}

class VideoMediaTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = std::make_unique<zyn_test::TempDir>("zyn-video");
        // Five frames at 10 frames per second: half a second.
        const std::string clip = "-f lavfi -i testsrc2=s=160x120:r=10:d=0.5 ";
        ASSERT_TRUE(
            zyn_test::RunFfmpeg(clip + "-c:v libx264 -pix_fmt yuv420p " + Path("short.mp4")));
        ASSERT_TRUE(zyn_test::RunFfmpeg(clip + "-c:v libvpx " + Path("short.webm")));
        ASSERT_TRUE(zyn_test::RunFfmpeg(clip + "-c:v libtheora " + Path("short.ogv")));
        ASSERT_TRUE(zyn_test::RunFfmpeg(
            "-f lavfi -i testsrc2=s=160x120:r=10:d=2 -c:v libx264 -pix_fmt yuv420p "
            "-movflags +faststart " +
            Path("long.mp4")));
        ASSERT_TRUE(zyn_test::RunFfmpeg("-f lavfi -i sine=d=0.5 -c:a aac " + Path("audio.mp4")));
        ASSERT_TRUE(zyn_test::RunFfmpeg(
            "-f lavfi -i color=c=red:s=20000x16:r=5:d=0.2 -c:v mjpeg -pix_fmt yuvj420p " +
            Path("wide.mkv")));
        ASSERT_TRUE(zyn_test::RunFfmpeg("-f lavfi -i color=c=red:s=16x16 -frames:v 1 " +
                                        Path("picture.png")));
    }
    static void TearDownTestSuite() { dir_.reset(); }

    static std::string Path(const std::string& name) { return (*dir_ / name).string(); }
    static std::string Bytes(const std::string& name) { return zyn_test::ReadFile(Path(name)); }

    // ARGB hashes of the next `count` frames.
    static std::vector<uint64_t> DecodeHashes(VBG::Media::VideoDecoder& decoder, int count) {
        VBG::Media::FramePtr frame(av_frame_alloc());
        VBG::Media::ArgbConverter converter;
        std::vector<uint64_t> hashes;
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(decoder.nextFrame(frame.get()), 0) << "frame " << i;
            std::vector<uint8_t> argb(static_cast<size_t>(frame->width) * frame->height * 4);
            EXPECT_EQ(converter.convert(frame.get(), argb.data(), frame->width * 4), 0);
            hashes.push_back(Fnv1a(argb));
        }
        return hashes;
    }

    static std::unique_ptr<zyn_test::TempDir> dir_;
};

std::unique_ptr<zyn_test::TempDir> VideoMediaTest::dir_;

TEST_F(VideoMediaTest, ShortClipsLoopFrameForFrameInEveryContainer) {
    const std::string mp4Bytes = Bytes("short.mp4");
    std::vector<uint64_t> fromFile;
    for (const auto& source :
         {VBG::Media::MediaSource::File(Path("short.mp4")),
          VBG::Media::MediaSource::File(Path("short.webm")),
          VBG::Media::MediaSource::File(Path("short.ogv")),
          VBG::Media::MediaSource::Memory(reinterpret_cast<const uint8_t*>(mp4Bytes.data()),
                                          mp4Bytes.size())}) {
        SCOPED_TRACE(source.describe());
        VBG::Media::VideoDecoder decoder;
        ASSERT_EQ(decoder.open(source), 0);
        EXPECT_EQ(decoder.width(), 160);
        EXPECT_EQ(decoder.height(), 120);
        EXPECT_EQ(decoder.framePeriod(), std::chrono::milliseconds(100));

        const std::vector<uint64_t> hashes = DecodeHashes(decoder, 15);
        ASSERT_EQ(hashes.size(), 15u);
        // Five different pictures, then the same five again and again: the end of the clip is
        // followed directly by its first frame.
        for (size_t i = 0; i < 5; ++i) {
            for (size_t j = i + 1; j < 5; ++j) {
                EXPECT_NE(hashes[i], hashes[j]) << i << " " << j;
            }
        }
        for (size_t i = 5; i < hashes.size(); ++i) {
            EXPECT_EQ(hashes[i], hashes[i - 5]) << "frame " << i;
        }
        EXPECT_EQ(decoder.loops(), 2u);
        if (source.inMemory) {
            EXPECT_EQ(hashes, fromFile);
        } else if (fromFile.empty()) {
            fromFile = hashes;
        }
    }
}

TEST_F(VideoMediaTest, ConversionFollowsEachFramesColourMatrixAndRange) {
    // One colour, R 200 G 60 B 100, stored losslessly with each matrix and range. Read with the
    // wrong matrix, red would be off by about 12; with the wrong range, every channel by 10 or
    // more.
    const std::string colour = "-f lavfi -i color=c=0xC83C64:s=64x48:r=10:d=0.3 ";
    const struct {
        const char* name;
        const char* matrix;
        const char* range;
        const char* tag;
    } encodings[] = {
        {"bt601.mp4", "bt601", "tv", "-colorspace smpte170m -color_range tv"},
        {"bt709.mp4", "bt709", "tv", "-colorspace bt709 -color_range tv"},
        {"bt709_full.mp4", "bt709", "pc", "-colorspace bt709 -color_range pc"},
    };
    auto expectColour = [](const uint8_t* argb) {
        EXPECT_NEAR(argb[2], 200, 3);
        EXPECT_NEAR(argb[1], 60, 3);
        EXPECT_NEAR(argb[0], 100, 3);
    };
    for (const auto& e : encodings) {
        SCOPED_TRACE(e.name);
        ASSERT_TRUE(zyn_test::RunFfmpeg(colour + "-vf \"format=rgb24,scale=out_color_matrix=" +
                                        e.matrix + ":out_range=" + e.range + ",format=yuv420p\" " +
                                        e.tag + " -c:v libx264 -qp 0 " + Path(e.name)));
        VBG::Media::VideoDecoder decoder;
        ASSERT_EQ(decoder.open(VBG::Media::MediaSource::File(Path(e.name))), 0);
        VBG::Media::FramePtr frame(av_frame_alloc());
        ASSERT_EQ(decoder.nextFrame(frame.get()), 0);
        std::vector<uint8_t> argb(64 * 48 * 4);
        VBG::Media::ArgbConverter converter;
        ASSERT_EQ(converter.convert(frame.get(), argb.data(), 64 * 4), 0);
        expectColour(&argb[(24 * 64 + 32) * 4]);
    }
    // JPEG: full-range BT.601.
    ASSERT_TRUE(zyn_test::RunFfmpeg(colour + "-frames:v 1 -q:v 1 " + Path("colour.jpg")));
    VBG::Media::DecodedPicture picture;
    ASSERT_EQ(VBG::Media::DecodePicture(VBG::Media::MediaSource::File(Path("colour.jpg")), false,
                                        picture),
              0);
    expectColour(&picture.frames[0].argb[(24 * 64 + 32) * 4]);
}

TEST_F(VideoMediaTest, TruncatedClipLoopsOverTheFramesItHolds) {
    const std::string full = Bytes("long.mp4");
    zyn_test::WriteFile(Path("truncated.mp4"), full.substr(0, full.size() * 6 / 10));
    VBG::Media::VideoDecoder decoder;
    ASSERT_EQ(decoder.open(VBG::Media::MediaSource::File(Path("truncated.mp4"))), 0);
    const std::vector<uint64_t> hashes = DecodeHashes(decoder, 40);
    EXPECT_EQ(hashes.size(), 40u);
    EXPECT_GE(decoder.loops(), 1u);
    EXPECT_LT(decoder.loops(), 40u);  // whole passes of several frames, not a frame per pass
}

TEST_F(VideoMediaTest, UnplayableVideosAreAcceptedWithOneRecordAndNoFrames) {
    zyn_test::WriteFile(Path("empty.mp4"), "");
    zyn_test::WriteFile(Path("text.mp4"), "not a video at all\n");
    zyn_test::WriteFile(Path("picture.mp4"), Bytes("picture.png"));
    const std::string shortBytes = Bytes("short.mp4");
    // The index of this file sits at its end: its first half has none.
    zyn_test::WriteFile(Path("no_index.mp4"), shortBytes.substr(0, shortBytes.size() / 2));
    // A lossless archival codec: decodable, but no codec a background video is made with.
    ASSERT_TRUE(zyn_test::RunFfmpeg("-f lavfi -i testsrc2=s=64x48:r=10:d=0.3 -c:v ffv1 " +
                                    Path("archival.mkv")));

    VBGSettings zeroSize = MemorySettings(VBG::BtVideo, kMp4, shortBytes);
    zeroSize.dataSize = 0;
    VBGSettings noSource = FileSettings(VBG::BtVideo, kMp4, Path("short.mp4"));
    noSource.imageOrVideoDataSource = 0;
    const struct {
        const char* name;
        VBGSettings settings;
        std::string record;  // part of the one error record, which names the cause
        bool accepted;       // a player is made, which plays nothing
    } cases[] = {
        {"missing file", FileSettings(VBG::BtVideo, kMp4, Path("missing.mp4")),
         "Cannot open file '" + Path("missing.mp4") + "'", true},
        {"empty file", FileSettings(VBG::BtVideo, kMp4, Path("empty.mp4")), "Cannot open file",
         true},
        {"text file", FileSettings(VBG::BtVideo, kMp4, Path("text.mp4")), "Cannot open file", true},
        {"picture named .mp4", FileSettings(VBG::BtVideo, kMp4, Path("picture.mp4")),
         "Cannot open file", true},
        {"no index", FileSettings(VBG::BtVideo, kMp4, Path("no_index.mp4")), "Cannot open file",
         true},
        {"audio only", FileSettings(VBG::BtVideo, kMp4, Path("audio.mp4")),
         "No video stream in file '" + Path("audio.mp4") + "'", true},
        {"20000 pixels wide", FileSettings(VBG::BtVideo, 7, Path("wide.mkv")),
         "Video of 20000x16 in file '" + Path("wide.mkv") + "' refused", true},
        {"codec not accepted", FileSettings(VBG::BtVideo, 7, Path("archival.mkv")),
         "Video codec 'ffv1' of file '" + Path("archival.mkv") + "' is not accepted", true},
        {"memory of size 0", zeroSize, "No data to decode in memory data of 0 bytes", true},
        {"empty path", FileSettings(VBG::BtVideo, kMp4, ""), "File path is invalid", false},
        {"no source", noSource, "Data Source is invalid 0", false},
    };
    const size_t threads = zyn_test::ThreadCount();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        zyn_test::LogCapture log;
        auto image = std::make_shared<BackgroundImage>(c.settings);
        EXPECT_EQ(image->initVideoFilePlayback(64, 48), c.accepted);
        EXPECT_EQ(log.countAt(spdlog::level::err, c.record), 1u) << log.dump();
        EXPECT_EQ(log.countAt(spdlog::level::err), 1u) << log.dump();
        // Opened once: starting and the reset for a new frame size neither fail nor try again.
        EXPECT_EQ(image->startVideoFilePlayback(), c.accepted);
        EXPECT_EQ(image->resetVideoFilePlayback(), c.accepted);
        if (c.accepted) {
            EXPECT_EQ(log.countAt(spdlog::level::err), 1u) << log.dump();
        }
        EXPECT_EQ(image->playbackState(), c.accepted ? 1u : 4u);
        EXPECT_EQ(image->lockAndGetCropAndScaledArgbBuffer(64, 48), nullptr);
        EXPECT_TRUE(log.has(spdlog::level::err, "Bitmap from imagefile empty, invalid scenario"));
        EXPECT_FALSE(image->hasNewFrame());
        image->unlockVideoFrame();  // nothing is held: must not fail
        EXPECT_EQ(zyn_test::ThreadCount(), threads);
    }
}

TEST_F(VideoMediaTest, PictureBackgroundsHaveNoPlayback) {
    auto image =
        std::make_shared<BackgroundImage>(FileSettings(VBG::BtImage, 1, Path("picture.png")));
    EXPECT_TRUE(image->initVideoFilePlayback(64, 48));
    EXPECT_TRUE(image->resetVideoFilePlayback());
    EXPECT_TRUE(image->startVideoFilePlayback());
    EXPECT_EQ(image->playback(), nullptr);
    EXPECT_EQ(image->playbackState(), 4u);
    EXPECT_NE(image->lockAndGetCropAndScaledArgbBuffer(64, 48), nullptr);
}

TEST_F(VideoMediaTest, VideoNeedsASharedOwner) {
    zyn_test::LogCapture log;
    BackgroundImage image(FileSettings(VBG::BtVideo, kMp4, Path("short.mp4")));
    EXPECT_FALSE(image.initVideoFilePlayback(64, 48));
    EXPECT_EQ(log.countContaining("must be owned by a shared pointer"), 1u);
}

}  // namespace
