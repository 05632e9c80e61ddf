// Picture and video backgrounds without the playback thread: real decoding of generated pictures
// from files and memory, the centred crop and its reuse, animated GIF timing, the size limits,
// and every kind of unusable picture and video.
#include "media/background_image.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
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

constexpr uint32_t kPng = 1, kGif = 3, kMp4 = 4;

std::shared_ptr<BackgroundImage> Picture(const std::string& name, uint32_t type = kPng) {
    return std::make_shared<BackgroundImage>(MediaSettings(VBG::BtImage, type, Media(name)));
}

// rgb.gif with a logical screen (the canvas its frames are drawn on) of width x height.
std::string GifDeclaring(uint16_t width, uint16_t height) {
    const char size[] = {char(width), char(width >> 8), char(height), char(height >> 8)};
    return zyn_test::WriteMedia(fmt::format("{}x{}.gif", width, height),
                                MediaBytes("rgb.gif").replace(6, 4, size, 4));
}

// The centre pixel of a width x height ARGB picture is `rgb`, give or take 3 per channel.
void ExpectCentre(const std::vector<uint8_t>& argb, int width, int height, uint32_t rgb) {
    const uint8_t* p = &argb[(height / 2 * width + width / 2) * 4];
    EXPECT_NEAR(p[2], rgb >> 16, 3);
    EXPECT_NEAR(p[1], rgb >> 8 & 0xFF, 3);
    EXPECT_NEAR(p[0], rgb & 0xFF, 3);
}

TEST(BackgroundPicture, CroppedAroundItsCentreAndRecroppedOnlyWhenBothSidesChange) {
    zyn_test::LogCapture log;
    auto image = Picture("wide.png");
    const auto self = VBG::addr(image.get());
    // 640x480 of 1920x1080 cuts off the red and blue side bands; the yellow band (108 of 1080
    // rows) covers the top 48 of 480 rows. When only one side changes the rectangle is kept and
    // stretched to the whole size. 800x360 is wider than 16:9: all columns, rows 108-971.
    const struct {
        int w, h;
        std::vector<int> crop;
        std::vector<std::pair<int, int>> points;
        const char* colours;
    } steps[] = {{640, 480, {240, 0, 1440, 1080}, {{0, 60}, {639, 479}, {0, 0}, {639, 46}}, "ggyy"},
                 {800, 480, {240, 0, 1440, 1080}, {{0, 240}, {799, 479}}, "gg"},
                 {800, 360, {0, 108, 1920, 864}, {{0, 180}, {799, 180}, {400, 0}}, "rbg"}};
    for (const auto& s : steps) {
        const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(s.w, s.h);
        ASSERT_NE(argb, nullptr);
        const VBG::Media::CropRect crop = image->cropRect();
        EXPECT_EQ((std::vector<int>{crop.x, crop.y, crop.width, crop.height}), s.crop) << s.w;
        std::string colours;
        for (const auto& [x, y] : s.points) {
            colours += ColourAt(argb, s.w * 4, x, y);
        }
        EXPECT_EQ(colours, s.colours) << s.w << "x" << s.h;
        EXPECT_FALSE(image->hasNewFrame());  // a still picture never changes
    }
    image.reset();
    EXPECT_TRUE(log.has(spdlog::level::info, fmt::format("Constructed. HR:0x{0:X}", self)));
    EXPECT_TRUE(log.has(spdlog::level::info, fmt::format("Destroyed. HR:0x{0:X}", self)));
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
    // From memory; the same bytes from a file, given as a still picture, show the first frame only.
    auto image = std::make_shared<BackgroundImage>(MediaSettings(VBG::BtImage, kGif, "", &gif));
    zyn_test::WriteMedia("delays.gif", gif);
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
    auto still = Picture("delays.gif", kPng);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ColourAt(still->lockAndGetCropAndScaledArgbBuffer(64, 48), 64 * 4, 32, 24), 'r');
        EXPECT_FALSE(still->hasNewFrame());
    }
}

TEST(BackgroundPicture, EachFormatIsDecodedWithinItsLimitsAndOnlyFromARegularFile) {
    const std::string png = Media("tiny.png"), jpeg = Media("colour.jpg"), gif = Media("rgb.gif");
    const std::string link = Media("link.png"), text = zyn_test::WriteMedia("text.png", "text\n");
    const auto pngSize = int64_t(MediaBytes("tiny.png").size());
    std::error_code exists;
    std::filesystem::create_symlink(png, link, exists);
    const struct {
        std::string file;
        char limit;  // the limit set to `value`: side, frames, bytes of frames, file bytes
        int64_t value;
        int rc, frames;
        uint32_t centre;     // RGB of the first frame's centre
        std::string record;  // part of the one record, or WxH of a refused size
    } cases[] = {
        // By default 16384 pixels per side and 64 Mi (67108864) pixels in all, read from each
        // format's header before decoding.
        {GifDeclaring(16385, 16), 0, 0, AVERROR(E2BIG), 0, 0, "16385x16"},
        {GifDeclaring(16, 16385), 0, 0, AVERROR(E2BIG), 0, 0, "16x16385"},
        {GifDeclaring(16384, 4097), 0, 0, AVERROR(E2BIG), 0, 0, "16384x4097"},
        {GifDeclaring(16384, 48), 0, 0, 0, 3, 0, ""},
        {png, 's', 15, AVERROR(E2BIG), 0, 0, "16x16"},
        // JPEG is full-range BT.601: with the wrong range each channel is off by 10 or more.
        {jpeg, 's', 63, AVERROR(E2BIG), 0, 0, "64x48"},
        {jpeg, 0, 0, 0, 1, 0xC83C64, ""},
        {gif, 's', 127, AVERROR(E2BIG), 0, 0, "128x48"},
        {gif, 0, 0, 0, 3, 0xFF0000, ""},
        // Animations keep the frames within budget (256 MiB by default; a 128x48 frame: 24576 B).
        {gif, 'f', 2, 0, 2, 0xFF0000, "first 2 frames (limits: 2 frames, 268435456 bytes)"},
        {gif, 'b', 24676, 0, 1, 0xFF0000, "first 1 frames (limits: 1024 frames, 24676 bytes)"},
        {png, 'F', pngSize, 0, 1, 0xFF0000, ""},
        {png, 'F', pngSize - 1, AVERROR(E2BIG), 0, 0, "larger than " + std::to_string(pngSize - 1)},
        {link, 0, 0, AVERROR(ELOOP), 0, 0, "it is a symbolic link"},
        {Media("fifo.png"), 0, 0, AVERROR(EINVAL), 0, 0, "it is not a regular file"},
        {text, 0, 0, AVERROR_INVALIDDATA, 0, 0, "holds no PNG, JPEG or GIF picture"},
    };
    EXPECT_TRUE(zyn_test::RunsWithoutBlockingOnFifo(Media("fifo.png"), [&] {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.file + " " + (c.limit != 0 ? c.limit : '-'));
            zyn_test::LogCapture log;
            VBG::Media::PictureLimits limits;
            limits.maxSide = c.limit == 's' ? int(c.value) : limits.maxSide;
            limits.maxFrames = c.limit == 'f' ? size_t(c.value) : limits.maxFrames;
            limits.maxTotalBytes = c.limit == 'b' ? size_t(c.value) : limits.maxTotalBytes;
            limits.maxFileBytes = c.limit == 'F' ? uint64_t(c.value) : limits.maxFileBytes;
            VBG::Media::DecodedPicture picture;
            const auto source = MediaSource::File(c.file);
            EXPECT_EQ(DecodePicture(source, true, picture, limits), c.rc);
            std::string record = c.record;
            if (c.rc == AVERROR(E2BIG) && c.limit != 'F') {
                record = fmt::format(
                    "Picture of {} from {} refused: the limits are {} pixels per "
                    "side and 67108864 pixels in all",
                    record, source.describe(), c.limit == 's' ? c.value : 16384);
            }
            EXPECT_TRUE(record.empty() || log.countContaining(record) == 1u) << log.dump();
            EXPECT_EQ(log.countAt(spdlog::level::err), c.rc < 0 ? 1u : 0u) << log.dump();
            EXPECT_EQ(picture.frames.size(), size_t(c.frames)) << log.dump();
            if (c.centre != 0 && !picture.frames.empty()) {
                ExpectCentre(picture.frames[0].argb, picture.width, picture.height, c.centre);
            }
        }
    }));
}

TEST(BackgroundVideo, FullRangeBt709IsConvertedWithItsOwnMatrixAndRange) {
    // Read with the BT.601 matrix red would be off by about 12, with the wrong range every
    // channel by 10 or more.
    VBG::Media::VideoDecoder decoder;
    ASSERT_EQ(decoder.open(MediaSource::File(Media("bt709_full.mp4"))), 0);
    EXPECT_EQ(std::make_pair(decoder.width(), decoder.height()), std::make_pair(64, 48));
    VBG::Media::FramePtr frame(av_frame_alloc());
    ASSERT_EQ(decoder.nextFrame(frame.get()), 0);
    std::vector<uint8_t> argb(64 * 48 * 4);
    ASSERT_EQ(VBG::Media::ArgbConverter().convert(frame.get(), argb.data(), 64 * 4), 0);
    ExpectCentre(argb, 64, 48, 0xC83C64);
}

TEST(BackgroundVideo, UnusablePicturesAndVideosGiveOneRecordAndNoBackground) {
    const std::string clip = MediaBytes("short.mp4"), none;
    // The index of this file sits at its end: its first half has none.
    zyn_test::WriteMedia("no_index.mp4", clip.substr(0, clip.size() / 2));
    auto file = [](const std::string& name) {
        const bool video = name.find(".m") != std::string::npos;
        return MediaSettings(video ? VBG::BtVideo : VBG::BtImage, video ? kMp4 : kPng, Media(name));
    };
    VBGSettings noPicture = file("tiny.png"), noVideo = file("short.mp4");
    noPicture.imageOrVideoDataSource = noVideo.imageOrVideoDataSource = 0;
    VBGSettings noVideoBytes = MediaSettings(VBG::BtVideo, kMp4, "", &clip);
    noVideoBytes.dataSize = 0;
    const std::string failed =
        "Bitmap from imagefile failed in BackgroundImage constructor, status: ";
    const struct {
        VBGSettings settings;
        std::string record;  // part of the one error record, which names the cause
        uint32_t state;      // playback state: 1 a player that plays nothing, 4 none
    } cases[] = {
        {file("missing.png"), failed, 4},
        {MediaSettings(VBG::BtImage, kPng, "", &none), failed, 4},
        {MediaSettings(VBG::BtImage, kPng, ""), "File path is invalid", 4},
        {noPicture, "Unknown Bitmap source, load failed", 4},
        {file("missing.mp4"), "Cannot open file '" + Media("missing.mp4") + "'", 1},
        {file("no_index.mp4"), "Cannot open file", 1},
        {file("audio.mp4"), "No video stream in file '" + Media("audio.mp4") + "'", 1},
        {file("wide.mkv"), "Video of 20000x16 in file '" + Media("wide.mkv") + "' refused", 1},
        {file("archival.mkv"),
         "Video codec 'ffv1' of file '" + Media("archival.mkv") + "' is not accepted", 1},
        {noVideoBytes, "No data to decode in memory data of 0 bytes", 1},
        {MediaSettings(VBG::BtVideo, kMp4, ""), "File path is invalid", 0},
        {noVideo, "Data Source is invalid 0", 0},
    };
    const size_t threads = zyn_test::ThreadCount();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.record);
        zyn_test::LogCapture log;
        auto image = std::make_shared<BackgroundImage>(c.settings);
        EXPECT_FALSE(image->hasPicture());
        // A video is opened once: starting and the reset for a new frame size do not try again.
        // A picture background has no playback to make.
        EXPECT_EQ(image->initVideoFilePlayback(64, 48), c.state != 0);
        EXPECT_EQ(log.countAt(spdlog::level::err, c.record), 1u) << log.dump();
        const size_t errors = log.countAt(spdlog::level::err);
        EXPECT_TRUE(c.state == 4 || errors == 1u) << log.dump();
        EXPECT_EQ(image->startVideoFilePlayback(), c.state != 0);
        EXPECT_EQ(image->resetVideoFilePlayback(), c.state != 0);
        EXPECT_EQ(log.countAt(spdlog::level::err), errors + (c.state != 0 ? 0 : 2)) << log.dump();
        EXPECT_EQ(image->playbackState(), c.state == 1 ? 1u : 4u);
        EXPECT_EQ(image->lockAndGetCropAndScaledArgbBuffer(64, 48), nullptr);
        EXPECT_TRUE(log.has(spdlog::level::err, "Bitmap from imagefile empty, invalid scenario"));
        EXPECT_FALSE(image->hasNewFrame());
        EXPECT_EQ(zyn_test::ThreadCount(), threads);
    }
    zyn_test::LogCapture log;
    BackgroundImage notShared(file("short.mp4"));
    EXPECT_FALSE(notShared.initVideoFilePlayback(64, 48));
    EXPECT_EQ(log.countContaining("must be owned by a shared pointer"), 1u);
    EXPECT_EQ(Picture("tiny.png")->playback(), nullptr);
}

}  // namespace
