#include "media/background_image.h"

#include <new>

#include "config/vbg_settings.h"
#include "util/log.h"
#include "util/text.h"

namespace VBG {

namespace {

// Animated GIFs: the picture type code of VBGSettings::imageOrVideoType.
constexpr uint32_t kAnimatedPictureType = 3;
// Display time of an animation frame whose stored delay is 0.
constexpr uint32_t kZeroDelayMs = 50;

enum DataSource : uint32_t { kDiskFile = 1, kInMemory = 2 };

}  // namespace

BackgroundImage::BackgroundImage(const VBGSettings& settings,
                                 std::chrono::milliseconds videoPauseAfter)
    : settings_(settings),
      videoPauseAfter_(videoPauseAfter),
      animated_(settings.imageOrVideoType == kAnimatedPictureType) {
    if (settings_.bt != BtVideo) {
        loadPicture();
    }
    ZLOG_INFO("VBG::BackgroundImage::BackgroundImage", "Constructed. HR:0x{0:X}", addr(this));
}

BackgroundImage::~BackgroundImage() {
    stopVideoFilePlayback();
    ZLOG_INFO("VBG::BackgroundImage::~BackgroundImage", "Destroyed. HR:0x{0:X}", addr(this));
}

void BackgroundImage::loadPicture() {
    Media::MediaSource source;
    if (settings_.imageOrVideoDataSource == kDiskFile) {
        const std::string path = Text::FieldToUtf8(settings_.backgroundImageFile, ZYN_PATH_CHARS);
        if (path.empty()) {
            ZLOG_ERROR("VBG::BackgroundImage::BackgroundImage", "File path is invalid");
            return;
        }
        source = Media::MediaSource::File(path);
    } else if (settings_.imageOrVideoDataSource == kInMemory) {
        source = Media::MediaSource::Memory(settings_.pData, settings_.dataSize);
    } else {
        ZLOG_ERROR("VBG::BackgroundImage::BackgroundImage", "Unknown Bitmap source, load failed");
        return;
    }
    try {
        auto picture = std::make_unique<Media::DecodedPicture>();
        const int status = Media::DecodePicture(source, animated_, *picture);
        if (status != 0) {
            ZLOG_ERROR("VBG::BackgroundImage::BackgroundImage",
                       "Bitmap from imagefile failed in BackgroundImage constructor, status: {}",
                       status);
            return;
        }
        picture_ = std::move(picture);
    } catch (const std::bad_alloc&) {
        ZLOG_ERROR("VBG::BackgroundImage::BackgroundImage",
                   "Bitmap from imagefile failed in BackgroundImage constructor ptrBitmap_ = "
                   "nullptr");
    }
}

const uint8_t* BackgroundImage::lockAndGetCropAndScaledArgbBuffer(int width, int height) {
    if (width <= 0 || height <= 0) {
        ZLOG_ERROR("VBG::BackgroundImage::lockAndGetCropAndScaledArgbBuffer",
                   "Invalid background size {}x{}", width, height);
        return nullptr;
    }
    if (settings_.bt == BtVideo) {
        const uint32_t state = playbackState();
        if (state == 0 || state == 2 || state == 3) {
            return lockVideoFrame(width, height);
        }
    }
    if (!picture_) {
        ZLOG_ERROR("VBG::BackgroundImage::lockAndGetCropAndScaledArgbBuffer",
                   "Bitmap from imagefile empty, invalid scenario");
        return nullptr;
    }
    const Media::PictureFrame& shown = animated_ ? nextAnimationFrame() : picture_->frames.front();

    const size_t bytes = static_cast<size_t>(width) * height * 4;
    if (width != cachedWidth_ && height != cachedHeight_) {
        cachedWidth_ = width;
        cachedHeight_ = height;
        crop_ = Media::CenteredCrop(picture_->width, picture_->height, width, height);
        argbCache_.assign(bytes, kBackgroundGrey);
    } else if (argbCache_.size() != bytes) {
        // One side changed: the crop rectangle stays as it is, and it is scaled to the size
        // asked for, so the buffer always holds width x height pixels.
        argbCache_.resize(bytes, kBackgroundGrey);
    }
    if (!Media::ScaleCropToArgb(shown.argb.data(), picture_->width * 4, crop_, argbCache_.data(),
                                width, height)) {
        ZLOG_ERROR("VBG::BackgroundImage::lockAndGetCropAndScaledArgbBuffer",
                   "Scaling the background to {}x{} failed", width, height);
    }
    return argbCache_.data();
}

const Media::PictureFrame& BackgroundImage::nextAnimationFrame() {
    const auto& frames = picture_->frames;
    const uint32_t selected = currentFrame_ < frames.size() ? currentFrame_ : 0;
    frameShownAt_ = std::chrono::steady_clock::now();
    const uint32_t stored = frames[selected].delayCentiseconds;
    frameDelayMs_ = stored == 0 ? kZeroDelayMs : stored * 10;
    currentFrame_ = static_cast<uint32_t>((selected + 1) % frames.size());
    return frames[selected];
}

const uint8_t* BackgroundImage::lockVideoFrame(int width, int height) {
    if (!frameLock_.owns_lock()) {
        frameLock_ = std::unique_lock<std::mutex>(frameMutex_);
    }
    if (width != cachedWidth_ || height != cachedHeight_) {
        // Grey until the playback delivers its frame at the new size, which it does at once.
        cachedWidth_ = width;
        cachedHeight_ = height;
        argbCache_.assign(static_cast<size_t>(width) * height * 4, kBackgroundGrey);
    }
    newVideoFrame_ = false;
    // Asked once the cache has the new size, so the frame the playback hands over at once fits
    // it (it waits for the frame lock until the engine is done with this buffer).
    playback_->RequestFrame(width, height);
    return argbCache_.data();
}

void BackgroundImage::unlockVideoFrame() {
    if (frameLock_.owns_lock()) {
        frameLock_.unlock();
    }
}

void BackgroundImage::deliverVideoFrame(std::vector<uint8_t>& frame, int width, int height) {
    std::lock_guard<std::mutex> lock(frameMutex_);
    if (width != cachedWidth_ || height != cachedHeight_ || frame.size() != argbCache_.size()) {
        return;  // made for a size the engine no longer uses
    }
    argbCache_.swap(frame);
    newVideoFrame_ = true;
}

bool BackgroundImage::hasNewFrame() {
    if (settings_.bt == BtVideo) {
        if (playback_) {
            playback_->RequestFrame();
        }
        return newVideoFrame_.load();
    }
    if (picture_ && animated_ && picture_->frames.size() >= 2) {
        const auto shownFor = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - frameShownAt_);
        return shownFor.count() > static_cast<int64_t>(frameDelayMs_);
    }
    return false;
}

bool BackgroundImage::initVideoFilePlayback(int width, int height) {
    if (settings_.bt != BtVideo) {
        return true;
    }
    stopVideoFilePlayback();
    Media::MediaSource source;
    if (settings_.imageOrVideoDataSource == kDiskFile) {
        const std::string path = Text::FieldToUtf8(settings_.backgroundImageFile, ZYN_PATH_CHARS);
        if (path.empty()) {
            ZLOG_ERROR("VBG::BackgroundImage::initVideoFilePlayback", "File path is invalid");
            return false;
        }
        source = Media::MediaSource::File(path);
    } else if (settings_.imageOrVideoDataSource == kInMemory) {
        source = Media::MediaSource::Memory(settings_.pData, settings_.dataSize);
    } else {
        ZLOG_ERROR("VBG::BackgroundImage::initVideoFilePlayback", "Data Source is invalid {}",
                   settings_.imageOrVideoDataSource);
        return false;
    }
    std::weak_ptr<BackgroundImage> self = weak_from_this();
    if (self.expired()) {
        ZLOG_ERROR("VBG::BackgroundImage::initVideoFilePlayback",
                   "A video background must be owned by a shared pointer, this: 0x{:X}",
                   addr(this));
        return false;
    }
    playback_ = VideoFilePlayback::Create(source, settings_.playbackOptions, std::move(self),
                                          videoPauseAfter_);
    if (!playback_) {
        return false;
    }
    if (width > 0 && height > 0) {
        playback_->RequestFrame(width, height);
    }
    return true;
}

bool BackgroundImage::resetVideoFilePlayback() {
    if (settings_.bt != BtVideo) {
        return true;
    }
    if (playback_ && playback_->openFailed()) {
        return true;  // a video that could not be opened is not tried again for a new frame size
    }
    return initVideoFilePlayback(cachedWidth_, cachedHeight_);
}

bool BackgroundImage::startVideoFilePlayback() {
    if (settings_.bt != BtVideo) {
        return true;
    }
    if (!playback_) {
        ZLOG_ERROR("VBG::BackgroundImage::startVideoFilePlayback",
                   "No video playback to start, this: 0x{:X}", addr(this));
        return false;
    }
    return playback_->Start();
}

void BackgroundImage::stopVideoFilePlayback() {
    // The playback thread may be waiting for the frame lock to hand over a frame.
    unlockVideoFrame();
    if (playback_) {
        playback_->Cleanup();
        playback_.reset();
    }
}

void BackgroundImage::videoFrameConsumed() {
    if (playback_) {
        playback_->FrameConsumed();
    }
}

uint32_t BackgroundImage::playbackState() const {
    return static_cast<uint32_t>(playback_ ? playback_->State() : PlaybackState::Stopped);
}

}  // namespace VBG
