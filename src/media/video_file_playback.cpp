#include "media/video_file_playback.h"

#include <exception>
#include <system_error>

#include "media/argb_crop.h"
#include "util/log.h"

namespace VBG {

namespace {

uint64_t PackSize(int width, int height) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(width)) << 32) |
           static_cast<uint32_t>(height);
}

}  // namespace

VideoFilePlayback::VideoFilePlayback(const Media::MediaSource& source, uint8_t playbackOptions,
                                     std::weak_ptr<VideoFrameSink> sink,
                                     std::chrono::milliseconds pauseAfter)
    : description_(source.inMemory ? source.describe() : source.path),
      playbackOptions_(playbackOptions),
      sink_(std::move(sink)),
      pauseAfter_(pauseAfter) {
    ZLOG_INFO("VBG::VideoFilePlayback::VideoFilePlayback", "File Path: {0}, this: 0x{1:X}",
              description_, addr(this));
}

std::shared_ptr<VideoFilePlayback> VideoFilePlayback::Create(const Media::MediaSource& source,
                                                             uint8_t playbackOptions,
                                                             std::weak_ptr<VideoFrameSink> sink,
                                                             std::chrono::milliseconds pauseAfter) {
    std::shared_ptr<VideoFilePlayback> playback(
        new VideoFilePlayback(source, playbackOptions, std::move(sink), pauseAfter));
    playback->frame_.reset(av_frame_alloc());
    if (!playback->frame_) {
        return nullptr;
    }
    // A video that cannot be played is not an error of the configuration: the background is then
    // empty. The cause was logged by the decoder; the playback stays failed, so that nothing
    // opens the file again for every frame.
    auto decoder = std::make_unique<Media::VideoDecoder>();
    if (decoder->open(source) < 0) {
        playback->openFailed_ = true;
        playback->state_ = PlaybackState::Failed;
        return playback;
    }
    playback->frameRate_ = av_q2d(decoder->frameRate());
    playback->framePeriod_ = decoder->framePeriod();
    playback->decoder_ = std::move(decoder);
    return playback;
}

VideoFilePlayback::~VideoFilePlayback() {
    Cleanup();
}

bool VideoFilePlayback::Start() {
    std::lock_guard<std::mutex> lock(threadMutex_);
    if (threadRunning_.load()) {
        ZLOG_INFO("VBG::VideoFilePlayback::Start", "Already Playback Running");
        return true;
    }
    if (openFailed_ && !stopRequested_.load()) {
        return true;  // nothing to play; the cause was logged when the video was opened
    }
    if (stopRequested_.load() || !decoder_ || state_.load() == PlaybackState::Failed) {
        ZLOG_ERROR("VBG::VideoFilePlayback::Start",
                   "Playback of {} cannot start once it has stopped or failed, this: 0x{:X}",
                   description_, addr(this));
        return false;
    }
    {
        // A fresh playback counts as requested now, so that it does not pause at once.
        std::lock_guard<std::mutex> request(requestMutex_);
        lastRequest_ = std::chrono::steady_clock::now();
    }
    threadRunning_ = true;
    try {
        thread_ = std::thread(&VideoFilePlayback::ThreadMain, shared_from_this());
    } catch (const std::system_error& error) {
        threadRunning_ = false;
        ZLOG_ERROR("VBG::VideoFilePlayback::Start", "Playback failed to start. Future Status:{0}",
                   error.code().value());
        return false;
    }
    return true;
}

void VideoFilePlayback::Cleanup() {
    {
        std::lock_guard<std::mutex> wake(wakeMutex_);
        stopRequested_ = true;
    }
    wakeCondition_.notify_all();
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(threadMutex_);
        thread = std::move(thread_);
    }
    if (thread.joinable()) {
        if (thread.get_id() == std::this_thread::get_id()) {
            // Called from the playback thread itself (its consumer went away while it handed
            // over a frame): it sees the stop request and ends once this call returns. Its own
            // reference keeps this object alive until then.
            thread.detach();
            state_ = PlaybackState::Stopped;
            return;
        }
        thread.join();
    }
    decoder_.reset();
    state_ = PlaybackState::Stopped;
}

void VideoFilePlayback::RequestFrame(int width, int height) {
    if (width > 0 && height > 0) {
        const uint64_t size = PackSize(width, height);
        if (requestedSize_.exchange(size) != size) {
            // The playback thread hands over the frame in hand at the new size at once; it reads
            // the size under the wake mutex, so this wakes it whether or not it waits yet.
            { std::lock_guard<std::mutex> wake(wakeMutex_); }
            wakeCondition_.notify_all();
        }
    }
    RequestFrame();
}

void VideoFilePlayback::RequestFrame() {
    bool wasPaused = false;
    {
        std::lock_guard<std::mutex> request(requestMutex_);
        lastRequest_ = std::chrono::steady_clock::now();
        wasPaused = paused_;
    }
    if (wasPaused) {
        {
            std::lock_guard<std::mutex> wake(wakeMutex_);
            resumeFlag_ = 1;
        }
        wakeCondition_.notify_all();
    }
}

void VideoFilePlayback::FrameConsumed() {
    ++framesConsumed_;
    RequestFrame();
}

void VideoFilePlayback::SetAuxiliaryConsumer(AuxiliaryConsumer consumer) {
    std::lock_guard<std::mutex> lock(threadMutex_);
    if (threadRunning_.load()) {
        ZLOG_WARN("VBG::VideoFilePlayback::SetAuxiliaryConsumer",
                  "Playback already running; the auxiliary consumer is not changed, this: 0x{:X}",
                  addr(this));
        return;
    }
    auxiliaryConsumer_ = std::move(consumer);
}

void VideoFilePlayback::ThreadMain(std::shared_ptr<VideoFilePlayback> self) {
    self->RunFilePlayback();
    self->threadRunning_ = false;
    // `self` may be the last reference: nothing touches the object after this point.
}

void VideoFilePlayback::RunFilePlayback() {
    ZLOG_INFO("VBG::VideoFilePlayback::RunFilePlayback", "Video Playback Started! this: 0x{0:X}",
              addr(this));
    if (!stopRequested_.load()) {
        state_ = PlaybackState::Running;
    }
    bool failed = false;
    try {
        // The first frame is decoded at once, so that the background appears with the first
        // camera frames; then one frame per period of the video's frame rate, on an absolute
        // schedule so that the rate does not drift.
        auto next = std::chrono::steady_clock::now();
        while (!stopRequested_.load()) {
            if (!DecodeTick()) {
                failed = true;
                break;
            }
            next += framePeriod_;
            const auto now = std::chrono::steady_clock::now();
            if (PauseWhenIdle()) {
                next = std::chrono::steady_clock::now();
            } else if (next + framePeriod_ < now) {
                // More than a frame behind (a slow machine or a long decode): go on from now
                // rather than decoding a burst of late frames.
                next = now;
            }
            if (!WaitForNextFrame(next)) {
                failed = true;
                break;
            }
        }
    } catch (const std::exception& error) {
        ZLOG_ERROR("VBG::VideoFilePlayback::RunFilePlayback",
                   "Video playback of {} failed: {}, this: 0x{:X}", description_, error.what(),
                   addr(this));
        failed = true;
    }
    if (failed) {
        state_ = PlaybackState::Failed;
    }
    ZLOG_INFO("VBG::VideoFilePlayback::RunFilePlayback", "Video Playback Stopped! this: 0x{0:X}",
              addr(this));
}

bool VideoFilePlayback::DecodeTick() {
    AVFrame* frame = frame_.get();
    if (decoder_->nextFrame(frame) < 0) {
        ZLOG_ERROR("VBG::VideoFilePlayback::DecodeTick",
                   "Video decoding of {} cannot go on, this: 0x{:X}", description_, addr(this));
        return false;
    }
    sourceConverted_ = false;
    if ((playbackOptions_ & kPlaybackAuxiliaryOutput) != 0 && auxiliaryConsumer_ != nullptr) {
        if (!ConvertSourceFrame()) {
            return false;
        }
        auxiliaryConsumer_(sourceArgb_.data(), frame->width, frame->height);
    }
    return DeliverFrame();
}

bool VideoFilePlayback::ConvertSourceFrame() {
    if (sourceConverted_) {
        return true;
    }
    const AVFrame* frame = frame_.get();
    sourceArgb_.resize(static_cast<size_t>(frame->width) * frame->height * 4);
    if (converter_.convert(frame, sourceArgb_.data(), frame->width * 4) < 0) {
        return false;
    }
    sourceConverted_ = true;
    return true;
}

bool VideoFilePlayback::DeliverFrame() {
    const AVFrame* frame = frame_.get();
    const uint64_t size = requestedSize_.load();
    deliveredSize_ = size;
    const int targetWidth = static_cast<int>(size >> 32);
    const int targetHeight = static_cast<int>(size & 0xFFFFFFFFu);
    if (targetWidth <= 0 || targetHeight <= 0) {
        return true;  // nobody has asked for a size yet; the frame stays in hand until then
    }
    pendingFrame_.resize(static_cast<size_t>(targetWidth) * targetHeight * 4);
    if (!sourceConverted_ && frame->width == targetWidth && frame->height == targetHeight) {
        // A frame of the requested size is converted straight into the buffer handed over.
        if (converter_.convert(frame, pendingFrame_.data(), targetWidth * 4) < 0) {
            return false;
        }
    } else {
        if (!ConvertSourceFrame()) {
            return false;
        }
        const Media::CropRect crop =
            Media::CenteredCrop(frame->width, frame->height, targetWidth, targetHeight);
        if (!Media::ScaleCropToArgb(sourceArgb_.data(), frame->width * 4, crop,
                                    pendingFrame_.data(), targetWidth, targetHeight)) {
            ZLOG_ERROR("VBG::VideoFilePlayback::DeliverFrame",
                       "Scaling a {}x{} video frame to {}x{} failed, this: 0x{:X}", frame->width,
                       frame->height, targetWidth, targetHeight, addr(this));
            return false;
        }
    }
    // The consumer's owner stops the playback when it goes away; until then frames go nowhere.
    if (auto sink = sink_.lock()) {
        sink->deliverVideoFrame(pendingFrame_, targetWidth, targetHeight);
        ++framesDelivered_;
    }
    return true;
}

bool VideoFilePlayback::WaitForNextFrame(std::chrono::steady_clock::time_point next) {
    std::unique_lock<std::mutex> wake(wakeMutex_);
    for (;;) {
        const bool resized = wakeCondition_.wait_until(wake, next, [this] {
            return stopRequested_.load() || requestedSize_.load() != deliveredSize_;
        });
        if (!resized || stopRequested_.load()) {
            return true;
        }
        // Handed over without the wake mutex: the consumer may hold its frame lock while it asks.
        wake.unlock();
        if (!DeliverFrame()) {
            return false;
        }
        wake.lock();
    }
}

bool VideoFilePlayback::PauseWhenIdle() {
    const auto idle = [this] {
        return std::chrono::steady_clock::now() - lastRequest_ >= pauseAfter_;
    };
    {
        std::lock_guard<std::mutex> request(requestMutex_);
        if (!idle()) {
            return false;
        }
    }
    std::unique_lock<std::mutex> wake(wakeMutex_);
    if (stopRequested_.load()) {
        return false;  // Cleanup sets the stop request under the wake mutex
    }
    {
        // Checked again with the wake mutex held: a request from now on sees `paused_` and can
        // only set the resume flag once this thread waits.
        std::lock_guard<std::mutex> request(requestMutex_);
        if (!idle()) {
            return false;
        }
        paused_ = true;
    }
    resumeFlag_ = 0;
    state_ = PlaybackState::Paused;
    // Pausing is a step of the playback loop; its records carry the loop's name.
    ZLOG_INFO("VBG::VideoFilePlayback::RunFilePlayback", "Video Decode Paused! this: 0x{0:X}",
              addr(this));
    wakeCondition_.wait(wake, [this] { return resumeFlag_ != 0 || stopRequested_.load(); });
    {
        std::lock_guard<std::mutex> request(requestMutex_);
        paused_ = false;
    }
    if (stopRequested_.load()) {
        return true;
    }
    state_ = PlaybackState::Running;
    ZLOG_INFO("VBG::VideoFilePlayback::RunFilePlayback", "Video Decode Restarted! this: 0x{0:X}",
              addr(this));
    return true;
}

}  // namespace VBG
