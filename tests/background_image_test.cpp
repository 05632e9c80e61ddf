// Picture and video backgrounds without the playback thread: real decoding of generated pictures
// and clips from files and memory, the centred crop and its reuse, animated GIF timing, the size
// limits, looping in every container, colour conversion, and every kind of unusable input.
#include "media/background_image.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "media/picture_decoder.h"
#include "media/video_decoder.h"
#include "media_fixtures.h"
#include "support/log_capture.h"
#include "util/log.h"

namespace {

using namespace std::chrono_literals;
using VBG::BackgroundImage;
using VBG::Media::DecodePicture;
using VBG::Media::MediaSource;
using zyn_test::ColourAt;
using zyn_test::Media;
using zyn_test::MediaBytes;
using zyn_test::MediaSettings;

constexpr uint32_t kPng = 1, kJpeg = 2, kGif = 3, kMp4 = 4;
constexpr const char* kDecodeFailed =
    "Bitmap from imagefile failed in BackgroundImage constructor, status: ";
constexpr const char* kNoBitmap = "Bitmap from imagefile empty, invalid scenario";

std::shared_ptr<BackgroundImage> Picture(const std::string& name, uint32_t type = kPng) {
    return std::make_shared<BackgroundImage>(MediaSettings(VBG::BtImage, type, Media(name)));
}

// tiny.png with a header that declares width x height (its CRC made to match).
std::string PngDeclaring(uint32_t width, uint32_t height) {
    std::string png = MediaBytes("tiny.png");
    auto put32 = [&png](size_t at, uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            png[at + i] = static_cast<char>(value >> (24 - 8 * i));
        }
    };
    put32(16, width);
    put32(20, height);
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 12; i < 29; ++i) {
        crc ^= static_cast<uint8_t>(png[i]);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    put32(29, ~crc);
    return png;
}

// ARGB hashes of the next `count` frames of `decoder`.
std::vector<uint64_t> DecodeHashes(VBG::Media::VideoDecoder& decoder, int count) {
    VBG::Media::FramePtr frame(av_frame_alloc());
    VBG::Media::ArgbConverter converter;
    std::vector<uint64_t> hashes;
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(decoder.nextFrame(frame.get()), 0) << "frame " << i;
        std::vector<uint8_t> argb(static_cast<size_t>(frame->width) * frame->height * 4);
        EXPECT_EQ(converter.convert(frame.get(), argb.data(), frame->width * 4), 0);
        hashes.push_back(zyn_test::Fnv1a(argb.data(), argb.size()));
    }
    return hashes;
}

TEST(BackgroundPicture, CroppedAroundItsCentreAndRecroppedOnlyWhenBothSidesChange) {
    zyn_test::LogCapture log;
    const void* address = nullptr;
    {
        auto image = Picture("wide.png");
        address = image.get();
        // 640x480 of 1920x1080 keeps 1440 columns from 240: the red and blue side bands are cut
        // off; the yellow band (108 of 1080 rows) covers the top 48 of 480 rows.
        const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(640, 480);
        ASSERT_NE(argb, nullptr);
        const VBG::Media::CropRect crop = image->cropRect();
        EXPECT_EQ((std::vector<int>{crop.x, crop.y, crop.width, crop.height}),
                  (std::vector<int>{240, 0, 1440, 1080}));
        EXPECT_EQ(std::string({ColourAt(argb, 2560, 0, 60), ColourAt(argb, 2560, 639, 479),
                               ColourAt(argb, 2560, 0, 0), ColourAt(argb, 2560, 639, 46)}),
                  "ggyy");
        EXPECT_FALSE(image->hasNewFrame());  // a still picture never changes
        // One side changed: the 1440-column rectangle is kept and stretched to the whole size.
        argb = image->lockAndGetCropAndScaledArgbBuffer(800, 480);
        EXPECT_EQ(image->cropRect().width, 1440);
        EXPECT_EQ(std::string({ColourAt(argb, 3200, 0, 240), ColourAt(argb, 3200, 799, 479)}),
                  "gg");
        argb = image->lockAndGetCropAndScaledArgbBuffer(640, 360);
        EXPECT_EQ(image->cropRect().height, 1080);
        // Both: 800x360 is wider than 16:9, so the whole width and rows 108-971 are kept.
        argb = image->lockAndGetCropAndScaledArgbBuffer(800, 360);
        const VBG::Media::CropRect both = image->cropRect();
        EXPECT_EQ((std::vector<int>{both.x, both.y, both.width, both.height}),
                  (std::vector<int>{0, 108, 1920, 864}));
        EXPECT_EQ(std::string({ColourAt(argb, 3200, 0, 180), ColourAt(argb, 3200, 799, 180),
                               ColourAt(argb, 3200, 400, 0)}),
                  "rbg");
    }
    const auto self = VBG::addr(address);
    EXPECT_TRUE(log.has(spdlog::level::info, fmt::format("Constructed. HR:0x{0:X}", self)));
    EXPECT_TRUE(log.has(spdlog::level::info, fmt::format("Destroyed. HR:0x{0:X}", self)));
}

TEST(BackgroundPicture, FromMemoryEqualsFromFile) {
    for (const auto& [name, type] : std::vector<std::pair<std::string, uint32_t>>{
             {"scene.png", kPng}, {"scene.jpg", kJpeg}, {"rgb.gif", kGif}}) {
        SCOPED_TRACE(name);
        const std::string bytes = MediaBytes(name);
        auto fromMemory =
            std::make_shared<BackgroundImage>(MediaSettings(VBG::BtImage, type, "", &bytes));
        auto fromFile = Picture(name, type);
        const uint8_t* a = fromFile->lockAndGetCropAndScaledArgbBuffer(200, 150);
        const uint8_t* b = fromMemory->lockAndGetCropAndScaledArgbBuffer(200, 150);
        ASSERT_TRUE(a != nullptr && b != nullptr);
        EXPECT_TRUE(std::equal(a, a + 200 * 150 * 4, b));
        // Picture content, not the grey (208) of an empty background.
        EXPECT_TRUE(std::any_of(a, a + 200 * 150 * 4, [](uint8_t v) { return v != 208; }));
    }
}

TEST(BackgroundPicture, AnimatedGifShowsEachFrameForItsStoredDelay) {
    // Stored delays in hundredths of a second: 0 stands for 50 ms.
    std::string gif = MediaBytes("rgb.gif");
    const uint16_t delays[] = {0, 7, 25};
    size_t set = 0;
    for (size_t at = gif.find("\x21\xF9\x04"); at != std::string::npos && set < 3;
         at = gif.find("\x21\xF9\x04", at + 1), ++set) {
        gif[at + 4] = static_cast<char>(delays[set]);
    }
    ASSERT_EQ(set, 3u);
    const std::string path = zyn_test::WriteMedia("delays.gif", gif);
    auto image = Picture("delays.gif", kGif);
    EXPECT_TRUE(image->hasNewFrame());  // nothing shown yet
    for (const auto& [colour, delayMs] :
         std::vector<std::pair<char, int>>{{'r', 50}, {'g', 70}, {'b', 250}, {'r', 50}}) {
        const auto shown = std::chrono::steady_clock::now();
        const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(64, 48);
        ASSERT_NE(argb, nullptr);
        EXPECT_EQ(ColourAt(argb, 64 * 4, 32, 24), colour);
        EXPECT_EQ(image->frameDelayMs(), static_cast<uint32_t>(delayMs));
        ASSERT_TRUE(zyn_test::WaitFor([&] { return image->hasNewFrame(); }, 1000ms));
        const auto elapsed = std::chrono::steady_clock::now() - shown;
        EXPECT_GE(elapsed, std::chrono::milliseconds(delayMs));
        EXPECT_LT(elapsed, std::chrono::milliseconds(delayMs + 200));
    }
    // The same GIF given as a still picture shows its first frame only.
    auto still = Picture("delays.gif", kPng);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ColourAt(still->lockAndGetCropAndScaledArgbBuffer(64, 48), 64 * 4, 32, 24), 'r');
        EXPECT_FALSE(still->hasNewFrame());
    }
}

TEST(BackgroundPicture, UnusablePicturesGiveOneRecordAndNoBackground) {
    const std::string scene = MediaBytes("scene.png"), empty;
    zyn_test::WriteMedia("empty.png", "");
    zyn_test::WriteMedia("text.png", "this is not a picture\n");
    zyn_test::WriteMedia("truncated.png", scene.substr(0, scene.size() / 3));
    zyn_test::WriteMedia("movie.png", MediaBytes("short.mp4"));
    zyn_test::WriteMedia("wide16385.png", PngDeclaring(16385, 16));
    zyn_test::WriteMedia("over64M.png", PngDeclaring(16384, 4097));
    VBGSettings noSource = MediaSettings(VBG::BtImage, kPng, Media("scene.png"));
    noSource.imageOrVideoDataSource = 0;
    VBGSettings zeroSize = MediaSettings(VBG::BtImage, kPng, "", &scene);
    zeroSize.dataSize = 0;
    const struct {
        std::string file;  // or the settings below
        VBGSettings settings;
        const char* record;  // exact message, or the start of the status message
    } cases[] = {
        {"missing.png", {}, kDecodeFailed},
        {"empty.png", {}, kDecodeFailed},
        {"text.png", {}, kDecodeFailed},
        {"truncated.png", {}, kDecodeFailed},
        {"movie.png", {}, kDecodeFailed},
        {"wide16385.png", {}, kDecodeFailed},
        {"over64M.png", {}, kDecodeFailed},
        {"", zeroSize, kDecodeFailed},
        {"", MediaSettings(VBG::BtImage, kPng, "", &empty), kDecodeFailed},
        {"", MediaSettings(VBG::BtImage, kPng, ""), "File path is invalid"},
        {"", noSource, "Unknown Bitmap source, load failed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file + c.record);
        zyn_test::LogCapture log;
        auto image = std::make_shared<BackgroundImage>(
            c.file.empty() ? c.settings : MediaSettings(VBG::BtImage, kPng, Media(c.file)));
        EXPECT_FALSE(image->hasPicture());
        EXPECT_EQ(log.countContaining(c.record), 1u) << log.dump();
        EXPECT_EQ(log.count(std::string(kDecodeFailed) + "0"), 0u);
        EXPECT_EQ(image->lockAndGetCropAndScaledArgbBuffer(64, 48), nullptr);
        EXPECT_TRUE(log.has(spdlog::level::err, kNoBitmap));
        EXPECT_FALSE(image->hasNewFrame());
    }
}

TEST(BackgroundPicture, SizeLimitsAreCheckedBeforeDecoding) {
    // 16384 pixels per side and 64 Mi (67108864) pixels in all.
    const struct {
        uint32_t width, height;
        bool refused;
    } sizes[] = {{16385, 16, true}, {16, 16385, true}, {16384, 4097, true}, {16384, 16, false}};
    VBG::Media::DecodedPicture picture;
    for (const auto& s : sizes) {
        zyn_test::LogCapture log;
        const std::string path =
            zyn_test::WriteMedia("declared.png", PngDeclaring(s.width, s.height));
        const int status = DecodePicture(MediaSource::File(path), false, picture);
        EXPECT_EQ(status == AVERROR(E2BIG), s.refused) << s.width << "x" << s.height;
        EXPECT_EQ(log.count(fmt::format("Picture of {}x{} from {} refused: the limits are 16384 "
                                        "pixels per side and 67108864 pixels in all",
                                        s.width, s.height, MediaSource::File(path).describe())),
                  s.refused ? 1u : 0u)
            << log.dump();
    }
    // The same rules with smaller limits, for each format's header.
    for (const char* name : {"scene.png", "scene.jpg", "rgb.gif"}) {
        SCOPED_TRACE(name);
        const auto source = MediaSource::File(Media(name));
        VBG::Media::PictureLimits side, pixels;
        side.maxSide = 63;
        pixels.maxPixels = 64 * 48 - 1;
        EXPECT_EQ(DecodePicture(source, true, picture, side), AVERROR(E2BIG));
        EXPECT_EQ(DecodePicture(source, true, picture, pixels), AVERROR(E2BIG));
        EXPECT_EQ(DecodePicture(source, true, picture), 0);
    }
    // Animations keep the frames within their frame and memory budget.
    zyn_test::LogCapture log;
    VBG::Media::PictureLimits frames, bytes;
    frames.maxFrames = 2;
    bytes.maxTotalBytes = 64 * 48 * 4 + 100;
    const auto gif = MediaSource::File(Media("rgb.gif"));
    for (const auto& [limits, kept] : {std::pair{VBG::Media::PictureLimits(), size_t{3}},
                                       std::pair{frames, size_t{2}}, std::pair{bytes, size_t{1}}}) {
        ASSERT_EQ(DecodePicture(gif, true, picture, limits), 0);
        EXPECT_EQ(picture.frames.size(), kept);
    }
    EXPECT_EQ(log.countContaining("keeps its first"), 2u) << log.dump();
}

// Background files are opened only as regular files, never through a link, and pictures only up
// to their size limit: a FIFO in the cache folder must not block the caller.
TEST(BackgroundPicture, OnlyRegularFilesWithinTheirSizeAreOpened) {
    std::filesystem::create_symlink(Media("scene.png"), Media("link.png"));
    std::filesystem::create_symlink(Media("short.mp4"), Media("link.mp4"));
    VBG::Media::DecodedPicture picture;
    VBG::Media::MediaInput input;
    const auto video = VBG::Media::ContainerKind::Video;
    EXPECT_NE(DecodePicture(MediaSource::File(Media("link.png")), false, picture), 0);
    EXPECT_LT(input.open(MediaSource::File(Media("link.mp4")), video), 0);
    EXPECT_EQ(input.open(MediaSource::File(Media("short.mp4")), video), 0);
    VBG::Media::PictureLimits limits;
    limits.maxFileBytes = MediaBytes("scene.png").size();
    const auto scene = MediaSource::File(Media("scene.png"));
    EXPECT_EQ(DecodePicture(scene, false, picture, limits), 0);
    limits.maxFileBytes -= 1;
    EXPECT_EQ(DecodePicture(scene, false, picture, limits), AVERROR(E2BIG));
    int status = 0;
    EXPECT_TRUE(zyn_test::RunsWithoutBlockingOnFifo(Media("fifo.png"), [&] {
        status = DecodePicture(MediaSource::File(Media("fifo.png")), false, picture);
    }));
    EXPECT_NE(status, 0);
    EXPECT_TRUE(zyn_test::RunsWithoutBlockingOnFifo(Media("fifo.mp4"), [&] {
        status = input.open(MediaSource::File(Media("fifo.mp4")), video);
    }));
    EXPECT_LT(status, 0);
}

TEST(BackgroundVideo, ShortClipsLoopFrameForFrameInEveryContainer) {
    const std::string mp4 = MediaBytes("short.mp4");
    std::vector<uint64_t> fromFile;
    for (const auto& source :
         {MediaSource::File(Media("short.mp4")), MediaSource::File(Media("short.webm")),
          MediaSource::File(Media("short.ogv")),
          MediaSource::Memory(reinterpret_cast<const uint8_t*>(mp4.data()), mp4.size())}) {
        SCOPED_TRACE(source.describe());
        VBG::Media::VideoDecoder decoder;
        ASSERT_EQ(decoder.open(source), 0);
        EXPECT_EQ(decoder.width() * 1000 + decoder.height(), 160120);
        EXPECT_EQ(decoder.framePeriod(), 100ms);
        // Five different pictures, then the same five again: the end of the clip is followed
        // directly by its first frame.
        const std::vector<uint64_t> hashes = DecodeHashes(decoder, 15);
        EXPECT_EQ(std::set<uint64_t>(hashes.begin(), hashes.begin() + 5).size(), 5u);
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
    // A truncated clip loops over the frames it holds, in whole passes of several frames.
    const std::string full = MediaBytes("long.mp4");
    zyn_test::WriteMedia("truncated.mp4", full.substr(0, full.size() * 6 / 10));
    VBG::Media::VideoDecoder decoder;
    ASSERT_EQ(decoder.open(MediaSource::File(Media("truncated.mp4"))), 0);
    EXPECT_EQ(DecodeHashes(decoder, 40).size(), 40u);
    EXPECT_GE(decoder.loops(), 1u);
    EXPECT_LT(decoder.loops(), 40u);
}

TEST(BackgroundVideo, ConversionFollowsEachFramesColourMatrixAndRange) {
    // R 200 G 60 B 100, stored losslessly with each matrix and range. Read with the wrong matrix,
    // red would be off by about 12; with the wrong range, every channel by 10 or more.
    const std::string colour = "-f lavfi -i color=c=0xC83C64:s=64x48:r=10:d=0.3 ";
    auto expectColour = [](const uint8_t* argb) {
        EXPECT_NEAR(argb[2], 200, 3);
        EXPECT_NEAR(argb[1], 60, 3);
        EXPECT_NEAR(argb[0], 100, 3);
    };
    for (const char* tags : {"bt601:tv -colorspace smpte170m -color_range tv",
                             "bt709:tv -colorspace bt709 -color_range tv",
                             "bt709:pc -colorspace bt709 -color_range pc"}) {
        SCOPED_TRACE(tags);
        const std::string t = tags;
        const std::string path = Media("colour.mp4");
        ASSERT_TRUE(zyn_test::RunFfmpeg(
            colour + "-vf \"format=rgb24,scale=out_color_matrix=" + t.substr(0, 5) + ":out_range=" +
            t.substr(6, 2) + ",format=yuv420p\" " + t.substr(9) + " -c:v libx264 -qp 0 " + path));
        VBG::Media::VideoDecoder decoder;
        ASSERT_EQ(decoder.open(MediaSource::File(path)), 0);
        VBG::Media::FramePtr frame(av_frame_alloc());
        ASSERT_EQ(decoder.nextFrame(frame.get()), 0);
        std::vector<uint8_t> argb(64 * 48 * 4);
        ASSERT_EQ(VBG::Media::ArgbConverter().convert(frame.get(), argb.data(), 64 * 4), 0);
        expectColour(&argb[(24 * 64 + 32) * 4]);
    }
    // JPEG: full-range BT.601.
    ASSERT_TRUE(zyn_test::RunFfmpeg(colour + "-frames:v 1 -q:v 1 " + Media("colour.jpg")));
    VBG::Media::DecodedPicture picture;
    ASSERT_EQ(DecodePicture(MediaSource::File(Media("colour.jpg")), false, picture), 0);
    expectColour(&picture.frames[0].argb[(24 * 64 + 32) * 4]);
}

TEST(BackgroundVideo, UnplayableVideosAreAcceptedWithOneRecordAndNoFrames) {
    const std::string shortBytes = MediaBytes("short.mp4");
    zyn_test::WriteMedia("empty.mp4", "");
    zyn_test::WriteMedia("text.mp4", "not a video at all\n");
    zyn_test::WriteMedia("picture.mp4", MediaBytes("tiny.png"));
    // The index of this file sits at its end: its first half has none.
    zyn_test::WriteMedia("no_index.mp4", shortBytes.substr(0, shortBytes.size() / 2));
    VBGSettings zeroSize = MediaSettings(VBG::BtVideo, kMp4, "", &shortBytes);
    zeroSize.dataSize = 0;
    VBGSettings noSource = MediaSettings(VBG::BtVideo, kMp4, Media("short.mp4"));
    noSource.imageOrVideoDataSource = 0;
    auto file = [](const std::string& name) { return MediaSettings(VBG::BtVideo, 7, Media(name)); };
    const struct {
        VBGSettings settings;
        std::string record;  // part of the one error record, which names the cause
        bool accepted;       // a player is made, which plays nothing
    } cases[] = {
        {file("missing.mp4"), "Cannot open file '" + Media("missing.mp4") + "'", true},
        {file("empty.mp4"), "Cannot open file", true},
        {file("text.mp4"), "Cannot open file", true},
        {file("picture.mp4"), "Cannot open file", true},
        {file("no_index.mp4"), "Cannot open file", true},
        {file("audio.mp4"), "No video stream in file '" + Media("audio.mp4") + "'", true},
        {file("wide.mkv"), "Video of 20000x16 in file '" + Media("wide.mkv") + "' refused", true},
        {file("archival.mkv"),
         "Video codec 'ffv1' of file '" + Media("archival.mkv") + "' is not accepted", true},
        {zeroSize, "No data to decode in memory data of 0 bytes", true},
        {MediaSettings(VBG::BtVideo, kMp4, ""), "File path is invalid", false},
        {noSource, "Data Source is invalid 0", false},
    };
    const size_t threads = zyn_test::ThreadCount();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.record);
        zyn_test::LogCapture log;
        auto image = std::make_shared<BackgroundImage>(c.settings);
        EXPECT_EQ(image->initVideoFilePlayback(64, 48), c.accepted);
        EXPECT_EQ(log.countAt(spdlog::level::err, c.record), 1u) << log.dump();
        EXPECT_EQ(log.countAt(spdlog::level::err), 1u) << log.dump();
        // Opened once: starting and the reset for a new frame size neither fail nor try again.
        EXPECT_EQ(image->startVideoFilePlayback(), c.accepted);
        EXPECT_EQ(image->resetVideoFilePlayback(), c.accepted);
        EXPECT_EQ(log.countAt(spdlog::level::err), c.accepted ? 1u : 3u) << log.dump();
        EXPECT_EQ(image->playbackState(), c.accepted ? 1u : 4u);
        EXPECT_EQ(image->lockAndGetCropAndScaledArgbBuffer(64, 48), nullptr);
        EXPECT_TRUE(log.has(spdlog::level::err, kNoBitmap));
        EXPECT_FALSE(image->hasNewFrame());
        image->unlockVideoFrame();  // nothing is held: must not fail
        EXPECT_EQ(zyn_test::ThreadCount(), threads);
    }
}

TEST(BackgroundVideo, PicturesHaveNoPlaybackAndVideosNeedASharedOwner) {
    auto image = Picture("tiny.png");
    EXPECT_TRUE(image->initVideoFilePlayback(64, 48));
    EXPECT_TRUE(image->resetVideoFilePlayback());
    EXPECT_TRUE(image->startVideoFilePlayback());
    EXPECT_EQ(image->playback(), nullptr);
    EXPECT_EQ(image->playbackState(), 4u);
    EXPECT_NE(image->lockAndGetCropAndScaledArgbBuffer(64, 48), nullptr);
    zyn_test::LogCapture log;
    BackgroundImage video(MediaSettings(VBG::BtVideo, kMp4, Media("short.mp4")));
    EXPECT_FALSE(video.initVideoFilePlayback(64, 48));
    EXPECT_EQ(log.countContaining("must be owned by a shared pointer"), 1u);
}

}  // namespace
