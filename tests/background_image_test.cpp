// Picture backgrounds: decoding from files and memory, the centred crop and its reuse, animated
// GIF timing, and every kind of unusable input.
#include "media/background_image.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "media/picture_decoder.h"
#include "media_fixtures.h"
#include "support/log_capture.h"
#include "support/test_paths.h"
#include "util/log.h"

namespace {

using namespace std::chrono_literals;
using VBG::BackgroundImage;
using zyn_test::ColourAt;
using zyn_test::FileSettings;
using zyn_test::MemorySettings;

constexpr uint32_t kPng = 1;
constexpr uint32_t kJpeg = 2;
constexpr uint32_t kGif = 3;
constexpr const char* kDecodeFailed =
    "Bitmap from imagefile failed in BackgroundImage constructor, status: ";
constexpr const char* kNoBitmap = "Bitmap from imagefile empty, invalid scenario";

uint32_t Crc32(const std::string& bytes, size_t from, size_t to) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = from; i < to; ++i) {
        crc ^= static_cast<uint8_t>(bytes[i]);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    return ~crc;
}

// A valid PNG whose header declares width x height (its pixel data stays that of a tiny picture).
std::string PngDeclaring(std::string png, uint32_t width, uint32_t height) {
    auto put32 = [&png](size_t at, uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            png[at + i] = static_cast<char>(value >> (24 - 8 * i));
        }
    };
    put32(16, width);
    put32(20, height);
    put32(29, Crc32(png, 12, 29));
    return png;
}

class BackgroundPictureTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = std::make_unique<zyn_test::TempDir>("zyn-picture");
        // 1920x1080: red columns 0-239, blue columns 1680-1919, green between with a yellow band
        // over rows 0-107, so that the position of a crop shows in its pixels.
        ASSERT_TRUE(zyn_test::RunFfmpeg(
            "-f lavfi -i color=c=0x00FF00:s=1920x1080 -vf "
            "\"format=rgb24,drawbox=x=0:y=0:w=240:h=1080:color=0xFF0000:t=fill,"
            "drawbox=x=1680:y=0:w=240:h=1080:color=0x0000FF:t=fill,"
            "drawbox=x=240:y=0:w=1440:h=108:color=0xFFFF00:t=fill\" -frames:v 1 " +
            Path("wide.png")));
        ASSERT_TRUE(
            zyn_test::RunFfmpeg("-f lavfi -i testsrc2=s=320x240 -frames:v 1 " + Path("scene.png")));
        ASSERT_TRUE(
            zyn_test::RunFfmpeg("-f lavfi -i testsrc2=s=320x240 -frames:v 1 " + Path("scene.jpg")));
        ASSERT_TRUE(
            zyn_test::RunFfmpeg("-f lavfi -i color=c=red:s=16x16 -frames:v 1 " + Path("tiny.png")));
        // Three frames: red, green, blue.
        ASSERT_TRUE(zyn_test::RunFfmpeg(
            "-f lavfi -i \"color=c=black:s=64x48:r=10,geq=r='if(eq(N\\,0)\\,255\\,0)':"
            "g='if(eq(N\\,1)\\,255\\,0)':b='if(eq(N\\,2)\\,255\\,0)'\" -frames:v 3 " +
            Path("rgb.gif")));
        ASSERT_TRUE(zyn_test::RunFfmpeg("-f lavfi -i testsrc2=s=64x48:r=10:d=0.3 -c:v mpeg4 " +
                                        Path("clip.mp4")));
    }
    static void TearDownTestSuite() { dir_.reset(); }

    static std::string Path(const std::string& name) { return (*dir_ / name).string(); }
    static std::string Bytes(const std::string& name) { return zyn_test::ReadFile(Path(name)); }

    // The three-frame GIF with the given stored delays, written to `name`.
    static std::string GifWithDelays(const std::string& name, std::vector<uint16_t> delays) {
        std::string gif = Bytes("rgb.gif");
        EXPECT_EQ(zyn_test::SetGifDelays(gif, delays), delays.size());
        zyn_test::WriteFile(Path(name), gif);
        return Path(name);
    }

    static std::unique_ptr<zyn_test::TempDir> dir_;
};

std::unique_ptr<zyn_test::TempDir> BackgroundPictureTest::dir_;

TEST_F(BackgroundPictureTest, WidePictureIsCroppedAroundItsCentreToTheFrameAspect) {
    zyn_test::LogCapture log;
    const void* address = nullptr;
    {
        auto image =
            std::make_shared<BackgroundImage>(FileSettings(VBG::BtImage, kPng, Path("wide.png")));
        address = image.get();
        ASSERT_TRUE(image->hasPicture());
        const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(640, 480);
        ASSERT_NE(argb, nullptr);

        const VBG::Media::CropRect crop = image->cropRect();
        EXPECT_EQ(crop.x, 240);
        EXPECT_EQ(crop.y, 0);
        EXPECT_EQ(crop.width, 1440);
        EXPECT_EQ(crop.height, 1080);
        // The red and blue side bands are cut off exactly; the yellow band (108 of 1080 rows)
        // covers the top 48 of 480 rows.
        const int stride = 640 * 4;
        for (int y : {60, 240, 479}) {
            EXPECT_EQ(ColourAt(argb, stride, 0, y), 'g') << "row " << y;
            EXPECT_EQ(ColourAt(argb, stride, 639, y), 'g') << "row " << y;
        }
        EXPECT_EQ(ColourAt(argb, stride, 0, 0), 'y');
        EXPECT_EQ(ColourAt(argb, stride, 639, 46), 'y');
        EXPECT_EQ(ColourAt(argb, stride, 320, 50), 'g');
        EXPECT_FALSE(image->hasNewFrame());  // a still picture never changes
    }
    EXPECT_TRUE(
        log.has(spdlog::level::info, fmt::format("Constructed. HR:0x{0:X}", VBG::addr(address))));
    EXPECT_TRUE(
        log.has(spdlog::level::info, fmt::format("Destroyed. HR:0x{0:X}", VBG::addr(address))));
}

TEST_F(BackgroundPictureTest, CropIsRecomputedOnlyWhenWidthAndHeightBothChange) {
    auto image =
        std::make_shared<BackgroundImage>(FileSettings(VBG::BtImage, kPng, Path("wide.png")));
    ASSERT_NE(image->lockAndGetCropAndScaledArgbBuffer(640, 480), nullptr);

    // Width only: 800x480 would crop 1800 columns from x = 60 (into the red band); the old
    // 1440-column rectangle is kept and stretched to the new size instead.
    const uint8_t* wider = image->lockAndGetCropAndScaledArgbBuffer(800, 480);
    ASSERT_NE(wider, nullptr);
    EXPECT_EQ(image->cropRect().x, 240);
    EXPECT_EQ(image->cropRect().width, 1440);
    EXPECT_EQ(ColourAt(wider, 800 * 4, 0, 240), 'g');
    EXPECT_EQ(ColourAt(wider, 800 * 4, 799, 479), 'g');  // the whole 800x480 is written

    // Height only (the remembered size is still 640x480).
    const uint8_t* lower = image->lockAndGetCropAndScaledArgbBuffer(640, 360);
    ASSERT_NE(lower, nullptr);
    EXPECT_EQ(image->cropRect().width, 1440);
    EXPECT_EQ(image->cropRect().height, 1080);
    EXPECT_EQ(ColourAt(lower, 640 * 4, 0, 200), 'g');

    // Both: 800x360 is wider than 16:9, so the whole width is used and rows 108-971 are kept.
    const uint8_t* both = image->lockAndGetCropAndScaledArgbBuffer(800, 360);
    ASSERT_NE(both, nullptr);
    const VBG::Media::CropRect crop = image->cropRect();
    EXPECT_EQ(crop.x, 0);
    EXPECT_EQ(crop.y, 108);
    EXPECT_EQ(crop.width, 1920);
    EXPECT_EQ(crop.height, 864);
    EXPECT_EQ(ColourAt(both, 800 * 4, 0, 180), 'r');
    EXPECT_EQ(ColourAt(both, 800 * 4, 799, 180), 'b');
    EXPECT_EQ(ColourAt(both, 800 * 4, 400, 0), 'g');  // the yellow band is above the crop
}

TEST_F(BackgroundPictureTest, PictureFromMemoryEqualsPictureFromFile) {
    for (const auto& [name, type] : std::vector<std::pair<std::string, uint32_t>>{
             {"scene.png", kPng}, {"scene.jpg", kJpeg}, {"rgb.gif", kGif}}) {
        SCOPED_TRACE(name);
        const std::string bytes = Bytes(name);
        auto fromFile =
            std::make_shared<BackgroundImage>(FileSettings(VBG::BtImage, type, Path(name)));
        auto fromMemory =
            std::make_shared<BackgroundImage>(MemorySettings(VBG::BtImage, type, bytes));
        const uint8_t* a = fromFile->lockAndGetCropAndScaledArgbBuffer(200, 150);
        const uint8_t* b = fromMemory->lockAndGetCropAndScaledArgbBuffer(200, 150);
        ASSERT_NE(a, nullptr);
        ASSERT_NE(b, nullptr);
        const size_t size = 200 * 150 * 4;
        EXPECT_TRUE(std::equal(a, a + size, b));
        // Picture content, not the grey of an empty background.
        EXPECT_TRUE(std::any_of(a, a + size, [](uint8_t v) { return v != VBG::kBackgroundGrey; }));
    }
}

TEST_F(BackgroundPictureTest, AnimatedGifShowsEachFrameForItsStoredDelay) {
    const std::string gif = GifWithDelays("delays.gif", {0, 7, 25});
    auto image = std::make_shared<BackgroundImage>(FileSettings(VBG::BtImage, kGif, gif));
    EXPECT_TRUE(image->hasNewFrame());  // nothing shown yet
    const struct {
        char colour;
        uint32_t delayMs;
    } expected[] = {{'r', 50}, {'g', 70}, {'b', 250}, {'r', 50}};
    for (const auto& frame : expected) {
        const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(64, 48);
        ASSERT_NE(argb, nullptr);
        EXPECT_EQ(ColourAt(argb, 64 * 4, 32, 24), frame.colour);
        EXPECT_EQ(image->frameDelayMs(), frame.delayMs);
    }

    // The same GIF given as a still picture shows its first frame only.
    VBGSettings still = FileSettings(VBG::BtImage, kPng, gif);
    auto stillImage = std::make_shared<BackgroundImage>(still);
    for (int i = 0; i < 2; ++i) {
        const uint8_t* argb = stillImage->lockAndGetCropAndScaledArgbBuffer(64, 48);
        ASSERT_NE(argb, nullptr);
        EXPECT_EQ(ColourAt(argb, 64 * 4, 32, 24), 'r');
        EXPECT_FALSE(stillImage->hasNewFrame());
    }
}

TEST_F(BackgroundPictureTest, ZeroDelayAdvancesEveryFiftyMilliseconds) {
    const std::string gif = GifWithDelays("zero.gif", {0, 0, 0});
    auto image = std::make_shared<BackgroundImage>(FileSettings(VBG::BtImage, kGif, gif));
    const char colours[] = {'r', 'g', 'b', 'r', 'g'};
    for (char colour : colours) {
        const uint8_t* argb = image->lockAndGetCropAndScaledArgbBuffer(64, 48);
        const auto shown = std::chrono::steady_clock::now();
        ASSERT_NE(argb, nullptr);
        EXPECT_EQ(ColourAt(argb, 64 * 4, 10, 10), colour);
        EXPECT_EQ(image->frameDelayMs(), 50u);
        ASSERT_TRUE(zyn_test::WaitFor([&] { return image->hasNewFrame(); }, 1000ms));
        const auto elapsed = std::chrono::steady_clock::now() - shown;
        EXPECT_GT(elapsed, 50ms);
        EXPECT_LT(elapsed, 250ms);
    }
}

TEST_F(BackgroundPictureTest, UnusablePicturesGiveARecordAndNoBackground) {
    zyn_test::WriteFile(Path("empty.png"), "");
    zyn_test::WriteFile(Path("text.png"), "this is not a picture\n");
    const std::string scene = Bytes("scene.png");
    zyn_test::WriteFile(Path("truncated.png"), scene.substr(0, scene.size() / 3));
    zyn_test::WriteFile(Path("movie.png"), Bytes("clip.mp4"));
    zyn_test::WriteFile(Path("wide20000.png"), PngDeclaring(Bytes("tiny.png"), 20000, 16));
    zyn_test::WriteFile(Path("square8200.png"), PngDeclaring(Bytes("tiny.png"), 8200, 8200));
    static const std::string kEmptyBytes;
    static const std::string kSceneBytes = scene;

    VBGSettings noPath = FileSettings(VBG::BtImage, kPng, "");
    VBGSettings noSource = FileSettings(VBG::BtImage, kPng, Path("scene.png"));
    noSource.imageOrVideoDataSource = 0;
    VBGSettings zeroSize = MemorySettings(VBG::BtImage, kPng, kSceneBytes);
    zeroSize.dataSize = 0;
    const struct {
        const char* name;
        VBGSettings settings;
        const char* record;  // exact message, or the start of the status message
    } cases[] = {
        {"missing file", FileSettings(VBG::BtImage, kPng, Path("missing.png")), kDecodeFailed},
        {"empty file", FileSettings(VBG::BtImage, kPng, Path("empty.png")), kDecodeFailed},
        {"text file", FileSettings(VBG::BtImage, kPng, Path("text.png")), kDecodeFailed},
        {"truncated file", FileSettings(VBG::BtImage, kPng, Path("truncated.png")), kDecodeFailed},
        {"video named .png", FileSettings(VBG::BtImage, kPng, Path("movie.png")), kDecodeFailed},
        {"20000 pixels wide", FileSettings(VBG::BtImage, kPng, Path("wide20000.png")),
         kDecodeFailed},
        {"over 64 Mpixel", FileSettings(VBG::BtImage, kPng, Path("square8200.png")), kDecodeFailed},
        {"memory of size 0", zeroSize, kDecodeFailed},
        {"empty memory", MemorySettings(VBG::BtImage, kPng, kEmptyBytes), kDecodeFailed},
        {"empty path", noPath, "File path is invalid"},
        {"no source", noSource, "Unknown Bitmap source, load failed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        zyn_test::LogCapture log;
        auto image = std::make_shared<BackgroundImage>(c.settings);
        EXPECT_FALSE(image->hasPicture());
        EXPECT_EQ(log.countContaining(c.record), 1u) << log.dump();
        EXPECT_EQ(log.count(std::string(kDecodeFailed) + "0"), 0u);
        EXPECT_EQ(image->lockAndGetCropAndScaledArgbBuffer(64, 48), nullptr);
        EXPECT_TRUE(log.has(spdlog::level::err, kNoBitmap));
        EXPECT_FALSE(image->hasNewFrame());
    }
}

TEST_F(BackgroundPictureTest, OversizedPicturesAreRefusedBeforeDecoding) {
    // Each test may run in a process of its own: the declared size is made here too.
    zyn_test::WriteFile(Path("wide20000.png"), PngDeclaring(Bytes("tiny.png"), 20000, 16));
    zyn_test::LogCapture log;
    VBG::Media::DecodedPicture picture;
    const auto source = VBG::Media::MediaSource::File(Path("wide20000.png"));
    EXPECT_EQ(VBG::Media::DecodePicture(source, false, picture), AVERROR(E2BIG));
    EXPECT_TRUE(picture.frames.empty());
    EXPECT_EQ(log.count(fmt::format("Picture of 20000x16 from {} refused: the limits are 16384 "
                                    "pixels per side and 67108864 pixels in all",
                                    source.describe())),
              1u)
        << log.dump();

    // The same rules with smaller limits, for each format's header.
    for (const char* name : {"scene.png", "scene.jpg", "rgb.gif"}) {
        SCOPED_TRACE(name);
        VBG::Media::PictureLimits side;
        side.maxSide = 63;
        EXPECT_EQ(VBG::Media::DecodePicture(VBG::Media::MediaSource::File(Path(name)), true,
                                            picture, side),
                  AVERROR(E2BIG));
        VBG::Media::PictureLimits pixels;
        pixels.maxPixels = 64 * 48 - 1;
        EXPECT_EQ(VBG::Media::DecodePicture(VBG::Media::MediaSource::File(Path(name)), true,
                                            picture, pixels),
                  AVERROR(E2BIG));
        EXPECT_EQ(
            VBG::Media::DecodePicture(VBG::Media::MediaSource::File(Path(name)), true, picture), 0);
    }
}

// Background files are opened only as regular files, never through a link, and pictures only up
// to their size limit: a FIFO in the cache folder must not block the caller.
TEST_F(BackgroundPictureTest, OnlyRegularFilesAreOpenedAndPicturesWithinTheirSize) {
    using VBG::Media::MediaSource;
    std::filesystem::create_symlink(Path("scene.png"), Path("link.png"));
    std::filesystem::create_symlink(Path("clip.mp4"), Path("link.mp4"));
    VBG::Media::DecodedPicture picture;
    VBG::Media::MediaInput input;
    EXPECT_NE(VBG::Media::DecodePicture(MediaSource::File(Path("link.png")), false, picture), 0);
    EXPECT_LT(input.open(MediaSource::File(Path("link.mp4")), VBG::Media::ContainerKind::Video), 0);
    EXPECT_EQ(input.open(MediaSource::File(Path("clip.mp4")), VBG::Media::ContainerKind::Video), 0);

    VBG::Media::PictureLimits limits;
    limits.maxFileBytes = Bytes("scene.png").size();
    EXPECT_EQ(
        VBG::Media::DecodePicture(MediaSource::File(Path("scene.png")), false, picture, limits), 0);
    limits.maxFileBytes -= 1;
    EXPECT_EQ(
        VBG::Media::DecodePicture(MediaSource::File(Path("scene.png")), false, picture, limits),
        AVERROR(E2BIG));

    int status = 0;
    EXPECT_TRUE(zyn_test::RunsWithoutBlockingOnFifo(Path("fifo.png"), [&] {
        status = VBG::Media::DecodePicture(MediaSource::File(Path("fifo.png")), false, picture);
    }));
    EXPECT_NE(status, 0);
    EXPECT_TRUE(zyn_test::RunsWithoutBlockingOnFifo(Path("fifo.mp4"), [&] {
        status = input.open(MediaSource::File(Path("fifo.mp4")), VBG::Media::ContainerKind::Video);
    }));
    EXPECT_LT(status, 0);
}

TEST_F(BackgroundPictureTest, AnimationsKeepTheFramesWithinTheirBudget) {
    const auto source = VBG::Media::MediaSource::File(Path("rgb.gif"));
    VBG::Media::DecodedPicture picture;
    ASSERT_EQ(VBG::Media::DecodePicture(source, true, picture), 0);
    EXPECT_EQ(picture.frames.size(), 3u);

    zyn_test::LogCapture log;
    VBG::Media::PictureLimits frames;
    frames.maxFrames = 2;
    ASSERT_EQ(VBG::Media::DecodePicture(source, true, picture, frames), 0);
    EXPECT_EQ(picture.frames.size(), 2u);
    VBG::Media::PictureLimits bytes;
    bytes.maxTotalBytes = 64 * 48 * 4 + 100;
    ASSERT_EQ(VBG::Media::DecodePicture(source, true, picture, bytes), 0);
    EXPECT_EQ(picture.frames.size(), 1u);
    EXPECT_EQ(log.countContaining("keeps its first"), 2u) << log.dump();
}

}  // namespace
