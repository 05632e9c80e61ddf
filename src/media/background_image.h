// The background source of an engine whose background is a picture (bt 2) or a video (bt 3).
//
// A picture (PNG, JPEG, GIF) is decoded once; an animated GIF steps through its frames by their
// own delays. A video is played by a VideoFilePlayback on a thread of its own, which hands its
// frames in through deliverVideoFrame. Either way the engine gets the background centre-cropped
// to the frame's aspect ratio and scaled to the frame size, in ARGB (B, G, R, A bytes).
//
// Video frame lock: for a video, lockAndGetCropAndScaledArgbBuffer returns with the frame mutex
// held whenever it returns a buffer (playback states 0, 2 and 3), so that the playback thread
// cannot replace the frame while the engine reads it. The engine reads the buffer, then calls
// unlockVideoFrame (which does nothing when no lock is held, so it is always safe to call) and,
// after converting a video frame, videoFrameConsumed. It must not call anything else on this
// object, nor stop or reset the playback, while it holds the lock.
//
// Threads: every member is called on the engine's frame thread, except deliverVideoFrame (the
// playback thread).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "media/argb_crop.h"
#include "media/picture_decoder.h"
#include "media/video_file_playback.h"
#include "zyn_native_vbg.h"

namespace VBG {

// Grey of the parts of a background that no picture covers.
constexpr uint8_t kBackgroundGrey = 208;

// Must be owned by a std::shared_ptr: a video's playback refers back to it.
class BackgroundImage : public VideoFrameSink,
                        public std::enable_shared_from_this<BackgroundImage> {
  public:
    // Decodes the picture of a picture background at once; a video is opened by
    // initVideoFilePlayback. `videoPauseAfter` is the idle time after which video decoding
    // pauses; only tests change it.
    explicit BackgroundImage(
        const VBGSettings& settings,
        std::chrono::milliseconds videoPauseAfter = VideoFilePlayback::kDefaultPauseAfter);
    ~BackgroundImage() override;
    BackgroundImage(const BackgroundImage&) = delete;
    BackgroundImage& operator=(const BackgroundImage&) = delete;

    // The background at width x height (ARGB, stride width x 4), or nullptr (logged) when there is
    // none. Picture: the crop rectangle is worked out again only when both the width and the
    // height differ from the previous call; a change of one side alone keeps the old rectangle
    // and scales it to the new size. An animated picture moves on to its next frame on every
    // call. Video: the latest frame the playback delivered at this size (grey until the first
    // one); the frame mutex stays locked (see above).
    const uint8_t* lockAndGetCropAndScaledArgbBuffer(int width, int height);
    // Releases the video frame lock if this thread holds it.
    void unlockVideoFrame();

    // Whether the background has changed since it was last fetched: a video frame arrived, or
    // the shown frame of an animated picture has had its time. For a video this also counts as
    // a frame request, so that a playback paused while no frames were processed resumes.
    bool hasNewFrame();

    // Video only (both return true at once for a picture): opens the video and makes its
    // playback, replacing any previous one. A non-zero size is the frame size to deliver. False
    // only for an empty path or an unknown data source: a video that cannot be played gives a
    // failed playback (its cause logged once) and the engine's empty background.
    bool initVideoFilePlayback(int width, int height);
    // Stops the playback and makes a new one at the current size, from the start of the video;
    // keeps a playback whose video could not be opened, which is never opened again.
    bool resetVideoFilePlayback();
    // Starts the playback thread of the current playback; true for a picture.
    bool startVideoFilePlayback();
    // Stops the playback and drops it.
    void stopVideoFilePlayback();
    // Tells the playback that the engine has used the frame it fetched.
    void videoFrameConsumed();

    // 0 created, 1 failed, 2 running, 3 paused, 4 stopped or no playback (PlaybackState).
    uint32_t playbackState() const;
    // VBGSettings::bt: 2 picture, 3 video.
    uint32_t backgroundType() const { return settings_.bt; }
    // Whether a picture was decoded (never for a video).
    bool hasPicture() const { return picture_ != nullptr; }
    // Display time of the animation frame shown last, in milliseconds.
    uint32_t frameDelayMs() const { return frameDelayMs_; }
    // The crop rectangle in use, in picture pixels.
    Media::CropRect cropRect() const { return crop_; }
    // The current playback, or nullptr.
    std::shared_ptr<VideoFilePlayback> playback() const { return playback_; }

    // VideoFrameSink: takes a frame of the size last asked for.
    void deliverVideoFrame(std::vector<uint8_t>& frame, int width, int height) override;

  private:
    void loadPicture();
    const uint8_t* lockVideoFrame(int width, int height);
    // Selects the frame to show and sets its display time.
    const Media::PictureFrame& nextAnimationFrame();

    const VBGSettings settings_;
    const std::chrono::milliseconds videoPauseAfter_;
    const bool animated_;

    std::unique_ptr<Media::DecodedPicture> picture_;
    uint32_t currentFrame_ = 0;
    uint32_t frameDelayMs_ = 0;
    std::chrono::steady_clock::time_point frameShownAt_{};

    int cachedWidth_ = 0;
    int cachedHeight_ = 0;
    Media::CropRect crop_;

    // argbCache, cachedWidth and cachedHeight of a video are shared with the playback thread
    // under frameMutex_.
    std::mutex frameMutex_;
    std::unique_lock<std::mutex> frameLock_;
    std::vector<uint8_t> argbCache_;
    std::atomic<bool> newVideoFrame_{false};
    std::shared_ptr<VideoFilePlayback> playback_;
};

}  // namespace VBG
