// Plays a background video in a loop on a thread of its own and hands each new frame, cropped and
// scaled to the size the consumer asks for, to the consumer (the background image).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "media/ffmpeg_helpers.h"
#include "media/video_decoder.h"

namespace VBG {

// The receiving end of a video playback.
class VideoFrameSink {
  public:
    virtual ~VideoFrameSink() = default;
    // Offers a new frame of width x height ARGB pixels (stride width x 4), on the playback
    // thread. The sink takes it by swapping `frame` with its own buffer of the same size (which
    // the playback then reuses), or leaves it when it no longer wants that size.
    virtual void deliverVideoFrame(std::vector<uint8_t>& frame, int width, int height) = 0;
};

// Where a playback is in its life. The numbers are what BackgroundImage::playbackState reports.
enum class PlaybackState : uint32_t {
    Created = 0,  // video opened, thread not started yet
    Failed = 1,   // the video could not be opened, or the thread ended on a decoding error; no
                  // frame will come
    Running = 2,  // decoding at the video's frame rate
    Paused = 3,   // decoding suspended until the next frame request
    Stopped = 4,  // stopped by Cleanup (or no playback at all)
};

// Bits of VBGSettings::playbackOptions.
enum PlaybackOptionBits : uint8_t {
    // Every decoded frame also goes to the auxiliary consumer (SetAuxiliaryConsumer).
    kPlaybackAuxiliaryOutput = 1,
    // Decoded frames go to CPU memory. Always the case on this platform: there is no GPU copy.
    kPlaybackCpuCopy = 2,
};

class VideoFilePlayback : public std::enable_shared_from_this<VideoFilePlayback> {
  public:
    // Without a frame request for this long, the playback thread stops decoding until the next
    // request: a background nobody composes costs no decoding.
    static constexpr std::chrono::milliseconds kDefaultPauseAfter{11000};

    // Receives every decoded frame at the video's own size (ARGB, stride width x 4) on the
    // playback thread, before the consumer gets it.
    using AuxiliaryConsumer = std::function<void(const uint8_t* argb, int width, int height)>;

    // Opens the video. A video that cannot be played (its cause logged once, here) still gives a
    // playback, in the Failed state, that plays nothing and never tries again. The memory of a
    // memory source must stay valid while the playback lives. `pauseAfter` is the idle time
    // before decoding pauses; tests shorten it.
    static std::shared_ptr<VideoFilePlayback> Create(
        const Media::MediaSource& source, uint8_t playbackOptions,
        std::weak_ptr<VideoFrameSink> sink,
        std::chrono::milliseconds pauseAfter = kDefaultPauseAfter);

    ~VideoFilePlayback();
    VideoFilePlayback(const VideoFilePlayback&) = delete;
    VideoFilePlayback& operator=(const VideoFilePlayback&) = delete;

    // Starts the playback thread. A running thread is left alone ("Already Playback Running").
    // False when the thread cannot be started, after a decoding failure, or after Cleanup. A video
    // that could not be opened has nothing to start: true, and no thread.
    bool Start();
    // Stops the thread and waits for it (unless called on the playback thread itself, which
    // then ends on its own), then releases the decoder. Safe to call more than once.
    void Cleanup();

    // The consumer asks for frames of width x height. A new size gets the frame in hand at once,
    // so the first frame of the video is shown even when the size comes after it was decoded.
    // Every request counts as activity: it keeps the thread decoding and wakes a paused one.
    void RequestFrame(int width, int height);
    // Activity without a size change.
    void RequestFrame();
    // The consumer has taken the frame it was handed; counts as activity like a request.
    void FrameConsumed();

    PlaybackState State() const { return state_.load(); }
    // Whether the video could not be opened (the playback is then Failed for good).
    bool openFailed() const { return openFailed_; }
    uint8_t playbackOptions() const { return playbackOptions_; }
    // Frames per second the thread paces itself at.
    double frameRate() const { return frameRate_; }
    uint64_t framesDelivered() const { return framesDelivered_.load(); }
    uint64_t framesConsumed() const { return framesConsumed_.load(); }
    // Takes effect when set before Start; used only with kPlaybackAuxiliaryOutput.
    void SetAuxiliaryConsumer(AuxiliaryConsumer consumer);

  private:
    VideoFilePlayback(const Media::MediaSource& source, uint8_t playbackOptions,
                      std::weak_ptr<VideoFrameSink> sink, std::chrono::milliseconds pauseAfter);

    static void ThreadMain(std::shared_ptr<VideoFilePlayback> self);
    void RunFilePlayback();
    // Decodes one frame and hands it on. False when decoding cannot go on.
    bool DecodeTick();
    // Hands the frame in hand to the consumer at the size it asks for now, if it asks for one.
    bool DeliverFrame();
    // The frame in hand in ARGB at its own size, in sourceArgb_ (converted once per frame).
    bool ConvertSourceFrame();
    // Sleeps until `next`, meanwhile handing the frame in hand over again at every new size
    // asked for. False when that fails.
    bool WaitForNextFrame(std::chrono::steady_clock::time_point next);
    // Waits for a frame request when none came for pauseAfter_. False when stopped meanwhile.
    bool PauseWhenIdle();

    const std::string description_;
    const uint8_t playbackOptions_;
    const std::weak_ptr<VideoFrameSink> sink_;
    const std::chrono::milliseconds pauseAfter_;

    bool openFailed_ = false;
    double frameRate_ = 0.0;
    std::chrono::nanoseconds framePeriod_{0};

    // Used by the playback thread only once it runs; released by Cleanup.
    std::unique_ptr<Media::VideoDecoder> decoder_;
    Media::FramePtr frame_;
    Media::ArgbConverter converter_;
    std::vector<uint8_t> sourceArgb_;
    bool sourceConverted_ = false;
    uint64_t deliveredSize_ = 0;  // the size the frame in hand was last handed over at
    std::vector<uint8_t> pendingFrame_;
    AuxiliaryConsumer auxiliaryConsumer_;

    std::atomic<PlaybackState> state_{PlaybackState::Created};
    std::atomic<uint64_t> requestedSize_{0};  // width << 32 | height
    std::atomic<uint64_t> framesDelivered_{0};
    std::atomic<uint64_t> framesConsumed_{0};

    // Last frame request; `paused_` is true while the thread waits for one.
    std::mutex requestMutex_;
    std::chrono::steady_clock::time_point lastRequest_;
    bool paused_ = false;

    // Pacing sleeps and the pause wait; Cleanup wakes both at once.
    std::mutex wakeMutex_;
    std::condition_variable wakeCondition_;
    int resumeFlag_ = 0;
    std::atomic<bool> stopRequested_{false};

    std::mutex threadMutex_;
    std::thread thread_;
    std::atomic<bool> threadRunning_{false};
};

}  // namespace VBG
