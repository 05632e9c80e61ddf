#include "engine/virtual_background_impl.h"

#include <libyuv.h>

#include <cstring>
#include <exception>
#include <string>

#include "config/vbg_settings.h"
#include "engine/frame_record.h"
#include "filters/blur_cpu.h"
#include "media/background_image.h"
#include "selection/processing_type.h"
#include "util/log.h"
#include "util/text.h"
#include "util/zyn_utils.h"

namespace VBG {
namespace {

constexpr int32_t kEFail = static_cast<int32_t>(0x80004005u);
// Shown where no background picture is available on the ARGB path.
constexpr uint8_t kNoBackgroundGrey = 208;
// ARGB path: mask values from this up keep the camera pixel.
constexpr uint8_t kArgbMaskThreshold = 128;
// Strengths of the ARGB path's blurs.
constexpr float kArgbMaskBlurStrength = 3.0f;
constexpr float kArgbFrameBlurStrength = 5.0f;

bool sameBackground(const VBGSettings& a, const VBGSettings& b) {
    return a.bt == b.bt &&
           std::memcmp(a.backgroundImageFile, b.backgroundImageFile,
                       sizeof(a.backgroundImageFile)) == 0 &&
           a.imageOrVideoDataSource == b.imageOrVideoDataSource && a.pData == b.pData &&
           a.dataSize == b.dataSize;
}

}  // namespace

VirtualBackgroundImpl::VirtualBackgroundImpl(uint32_t processingType_)
    : processingType(processingType_),
      settings(),
      pendingSettings(),
      weathermanSettings(DefaultWeathermanSettings()),
      pendingWeathermanSettings(DefaultWeathermanSettings()) {
    settings.pt = PtAuto;
    pendingSettings.pt = PtAuto;
    ZLOG_INFO("VBG::VirtualBackgroundImpl::VirtualBackgroundImpl", "Constructed. HR:0x{0:X}",
              addr(this));
}

VirtualBackgroundImpl::~VirtualBackgroundImpl() {
    if (backgroundImage) {
        backgroundImage->stopVideoFilePlayback();
    }
    ZLOG_INFO("VBG::VirtualBackgroundImpl::~VirtualBackgroundImpl", "Destroyed. HR:0x{0:X}",
              addr(this));
}

int VirtualBackgroundImpl::init(const VBGSettings& newSettings, uint32_t /*width*/,
                                uint32_t /*height*/) {
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::init";
    ZLOG_INFO(fn, "VirtualBackgroundImpl::init performed");
    {
        std::lock_guard<std::mutex> lock(pendingMutex_);
        settings = newSettings;
        pendingSettings = newSettings;
    }
    if (!createMLProcessing()) {
        ZLOG_ERROR(fn, "createMLProcessing failed");
        return 2;
    }
    if (!initBackgroundImage(settings)) {
        ZLOG_ERROR(fn, "initBackgroundImage failed");
        return 2;
    }
    return 0;
}

bool VirtualBackgroundImpl::createMLProcessing() {
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::createMLProcessing";
    if (processingType == PtReserved || processingType >= PtAuto) {
        ZLOG_ERROR(fn, "Unknown processing type called {}", ProcessingTypeName(processingType));
        return false;
    }
    const auto [backend, ok] = GetVBGMLProcessingInstance(
        processingType, Text::FieldToUtf8(settings.fileCachePath, ZYN_PATH_CHARS),
        Text::FieldToUtf8(settings.modelFilePath, ZYN_PATH_CHARS));
    if (!ok || backend == nullptr) {
        return false;
    }
    mlBackend = backend;
    mlProcessing = backend.get();
    mlState = backend->createState();
    return mlState != nullptr;
}

bool VirtualBackgroundImpl::updateWeatherman(const ZynNativeWeathermanSettings& newSettings) {
    // The room picture is decoded here, on the caller's thread, so that the output size is known
    // before the first presentation frame; the frame thread swaps it in with the settings. Its
    // load is the presenter reset's step, and its records carry that function's name.
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::resetWeatherman";
    presentationStats.clearFirstFrameLogged();
    std::shared_ptr<const Media::DecodedPicture> picture;
    const bool room = newSettings.mode == 3 || newSettings.mode == 4;
    if (room) {
        const char16_t* field = newSettings.mode == 3 ? newSettings.newsroomBackgroundFile
                                                      : newSettings.conferenceroomBackgroundFile;
        const std::string path = Text::FieldToUtf8(field, ZYN_PATH_CHARS);
        auto decoded = std::make_shared<Media::DecodedPicture>();
        const int status = Media::DecodePicture(Media::MediaSource::File(path), false, *decoded);
        if (status != 0) {
            ZLOG_ERROR(fn, "Bitmap load failed with error: {}", status);
        } else if (decoded->frames.empty() || decoded->width <= 0 || decoded->height <= 0) {
            ZLOG_ERROR(fn, "Bitmap load failed with error: bitmap_ = nullptr");
        } else {
            picture = std::move(decoded);
        }
    }
    {
        std::lock_guard<std::mutex> lock(pendingMutex_);
        pendingWeathermanSettings = newSettings;
        if (room) {
            pendingPresentationBitmap_ = std::move(picture);
            pendingBitmapStaged_ = true;
        }
        weathermanUpdateRequested.store(true);
    }
    return true;
}

bool VirtualBackgroundImpl::update(const VBGSettings& newSettings) {
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::update";
    try {
        ZLOG_INFO(fn, "Update request received");
        D3D12Utils::PrintVBGSettings(newSettings);
        videoStats.clearFirstFrameLogged();
        std::lock_guard<std::mutex> lock(pendingMutex_);
        if (sameBackground(newSettings, settings)) {
            const bool wasOn = (settings.effects & ZYN_EFFECT_TOUCHUP) != 0;
            const bool isOn = (newSettings.effects & ZYN_EFFECT_TOUCHUP) != 0;
            bool touchUpOnly = true;
            if (wasOn && isOn && newSettings.touchUpSigma != settings.touchUpSigma) {
                ZLOG_INFO(fn, "Processing change in touchup sigma values");
            } else if (wasOn && !isOn) {
                ZLOG_INFO(fn, "TouchUp is disabled");
            } else if (!wasOn && isOn) {
                ZLOG_INFO(fn, "TouchUp is enabled");
            } else {
                touchUpOnly = false;
            }
            if (touchUpOnly) {
                backgroundResetRequired.store(false);
            }
        } else {
            // A background change must not be taken for a touch-up change because a touch-up-only
            // update is still waiting: the rebuild covers both.
            backgroundResetRequired.store(true);
        }
        pendingSettings = newSettings;
        if (newSettings.pt == PtAuto) {
            pendingSettings.pt = settings.pt;
        }
        ++pendingSequence_;
        vbgUpdateRequested.store(true);
        weathermanUpdateRequested.store(true);
        return true;
    } catch (const HResultError& e) {
        ZLOG_ERROR(fn, "update failed. HR:{0:X} , message: {1}", static_cast<uint32_t>(e.code()),
                   e.what());
    } catch (const std::exception& e) {
        ZLOG_ERROR(fn, "update failed. HR:{0:X} , message: {1}", static_cast<uint32_t>(kEFail),
                   e.what());
    }
    return false;
}

bool VirtualBackgroundImpl::takePendingSettings(VBGSettings& out, uint64_t& sequence,
                                                bool& resetRequired) {
    if (!vbgUpdateRequested.load()) {
        return false;
    }
    std::lock_guard<std::mutex> lock(pendingMutex_);
    out = pendingSettings;
    sequence = pendingSequence_;
    resetRequired = backgroundResetRequired.load();
    return true;
}

void VirtualBackgroundImpl::commitPendingSettings(const VBGSettings& applied, uint64_t sequence) {
    std::lock_guard<std::mutex> lock(pendingMutex_);
    settings = applied;
    if (sequence == pendingSequence_) {
        vbgUpdateRequested.store(false);
        backgroundResetRequired.store(true);
    }
}

void VirtualBackgroundImpl::applyPendingWeatherman() {
    if (!weathermanUpdateRequested.load()) {
        return;
    }
    std::lock_guard<std::mutex> lock(pendingMutex_);
    weathermanSettings = pendingWeathermanSettings;
    if (pendingBitmapStaged_) {
        presentationBitmap = std::move(pendingPresentationBitmap_);
        pendingPresentationBitmap_.reset();
        pendingBitmapStaged_ = false;
    }
    weathermanUpdateRequested.store(false);
}

bool VirtualBackgroundImpl::processVideoFrame(const ZynNativeInputFrame* input,
                                              ZynNativeInputFrame* output) {
    videoStats.mark(FrameStats::FrameStart);
    if (mlProcessing == nullptr || mlState == nullptr || input == nullptr || output == nullptr) {
        return false;
    }
    if (!initProcessing()) {
        ZLOG_ERROR("VBG::VirtualBackgroundImpl::processVideoFrame", "initProcessing failed");
        return false;
    }
    // A refused record is never read, by the frame or by a feedback dump; a feedback request
    // waits for the next usable frame.
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::processVideoFrame";
    if (!CheckFrameRecord(fn, "input", input) || !CheckFrameRecord(fn, "output", output)) {
        return false;
    }
    const bool feedback = feedbackRequested_.load();
    const bool withMask = settings.bt != BtNone;
    if (feedback) {
        feedbackBeforeFrame(withMask);
    }
    const bool result = processVideoFrameInternal(input, output);
    if (feedback) {
        // The frames of a failed call are not dumped: the engine may have refused them.
        feedbackAfterFrame(result ? input : nullptr, result ? output : nullptr, withMask);
    }
    videoStats.mark(FrameStats::FrameEnd);
    output->processingTime = static_cast<float>(videoStats.current(FrameStats::Total));
    return result;
}

void VirtualBackgroundImpl::releaseCallback(void* callback, void (*release)(void*)) {
    if (callback != nullptr && release != nullptr) {
        release(callback);
    }
}

bool VirtualBackgroundImpl::processPresentationFrame(const ZynNativeInputFrame* frames,
                                                     ZynNativeInputFrame* output) {
    presentationStats.mark(FrameStats::FrameStart);
    if (mlProcessing == nullptr || mlState == nullptr || frames == nullptr || output == nullptr) {
        return false;
    }
    if (!initProcessing()) {
        ZLOG_ERROR("VBG::VirtualBackgroundImpl::processPresentationFrame", "initProcessing failed");
        return false;
    }
    const ZynNativeInputFrame* camera = &frames[0];
    const ZynNativeInputFrame* presentation = &frames[1];
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::processPresentationFrame";
    if (!CheckFrameRecord(fn, "camera", camera) ||
        !CheckFrameRecord(fn, "presentation", presentation) ||
        !CheckFrameRecord(fn, "output", output)) {
        return false;
    }
    const bool feedback = feedbackRequested_.load();
    if (feedback) {
        feedbackBeforeFrame(true);
    }
    const bool result = processPresentationFrameInternal(camera, presentation, output);
    if (feedback) {
        feedbackAfterFrame(result ? presentation : nullptr, result ? output : nullptr, true);
    }
    presentationStats.mark(FrameStats::FrameEnd);
    output->processingTime = static_cast<float>(presentationStats.current(FrameStats::Total));
    return result;
}

bool VirtualBackgroundImpl::getOutputFrameSize(uint32_t* width, uint32_t* height) {
    std::lock_guard<std::mutex> lock(pendingMutex_);
    // A presenter update not yet applied by a frame already decides the size the host must
    // allocate for the next presentation frame.
    const bool pending = weathermanUpdateRequested.load();
    const int32_t mode = pending ? pendingWeathermanSettings.mode : weathermanSettings.mode;
    const auto& bitmap =
        pending && pendingBitmapStaged_ ? pendingPresentationBitmap_ : presentationBitmap;
    if ((mode != 3 && mode != 4) || !bitmap) {
        return false;
    }
    if (width != nullptr) {
        *width = static_cast<uint32_t>(bitmap->width);
    }
    if (height != nullptr) {
        *height = static_cast<uint32_t>(bitmap->height);
    }
    return true;
}

int32_t VirtualBackgroundImpl::unsupportedOperation() {
    return kEFail;
}

int32_t VirtualBackgroundImpl::noOperation() {
    return 0;
}

void VirtualBackgroundImpl::shutdown() {
    if (backgroundImage) {
        backgroundImage->stopVideoFilePlayback();
    }
    backgroundImage.reset();
}

bool VirtualBackgroundImpl::updateFeedback(const ZynFeedbackSettings& feedback) {
    // One request records the next frame: Start here, the frame's writes and End on the frame
    // thread. A request made while one is still waiting is refused by the writer.
    std::lock_guard<std::mutex> lock(engineMutex);
    if (!feedbackWriter.Start(feedback.folder, feedback.id)) {
        return false;
    }
    feedbackRequested_.store(true);
    return true;
}

void VirtualBackgroundImpl::feedbackBeforeFrame(bool writeMask) {
    std::lock_guard<std::mutex> lock(engineMutex);
    if (!feedbackWriter.isActive()) {
        return;
    }
    if (writeMask) {
        mlProcessing->updateStateMask(mlState.get());
    }
    feedbackWriter.WritePreviousMaskToFile(writeMask ? usedModelMask() : nullptr, mlState->width,
                                           mlState->height);
}

void VirtualBackgroundImpl::feedbackAfterFrame(const ZynNativeInputFrame* raw,
                                               const ZynNativeInputFrame* final, bool writeMask) {
    std::lock_guard<std::mutex> lock(engineMutex);
    if (feedbackWriter.isActive()) {
        feedbackWriter.WriteFramesToFile(raw, final);
        if (writeMask) {
            mlProcessing->updateStateMask(mlState.get());
        }
        feedbackWriter.WriteCurrentMaskToFile(writeMask ? usedModelMask() : nullptr, mlState->width,
                                              mlState->height);
        feedbackWriter.End();
    }
    feedbackRequested_.store(false);
}

const uint8_t* VirtualBackgroundImpl::usedModelMask() const {
    // Before the first masked frame the backend's own mask stands for it: all zero.
    return modelMaskBuffer ? modelMaskBuffer.get() : mlState->mask.get();
}

const char* VirtualBackgroundImpl::getFrameProcessingStats(uint32_t* width, uint32_t* height,
                                                           uint32_t* type) {
    if (width != nullptr) {
        *width = frameWidth;
    }
    if (height != nullptr) {
        *height = frameHeight;
    }
    if (type != nullptr) {
        *type = processingType;
    }
    return weathermanSettings.mode == -1 ? videoStats.report() : presentationStats.report();
}

bool VirtualBackgroundImpl::processVideoFrame(uint8_t* argb, uint32_t width, uint32_t height,
                                              uint32_t* flagOut, bool isPresentation) {
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::processVideoFrame";
    FrameStats& stats = isPresentation ? presentationStats : videoStats;
    stats.mark(FrameStats::PreDone);
    try {
        if (!mlProcessing->runModel(argb, width, height, mlState.get())) {
            ZLOG_ERROR(fn, "CPU VBG MP processing failed");
            return false;
        }
        stats.mark(FrameStats::InferenceDone);
        if (flagOut != nullptr) {
            *flagOut = 0;
        }
        applyMask(argb, width, height);
        return true;
    } catch (const HResultError& e) {
        ZLOG_ERROR(fn, "processVideoFrame failed. HR:{0:X} , message: {1}",
                   static_cast<uint32_t>(e.code()), e.what());
    } catch (const std::exception& e) {
        ZLOG_ERROR(fn, "processVideoFrame failed. HR:{0:X} , message: {1}",
                   static_cast<uint32_t>(kEFail), e.what());
    }
    return false;
}

void VirtualBackgroundImpl::applyMask(uint8_t* argb, uint32_t width, uint32_t height) {
    const uint32_t mw = mlState->width;
    const uint32_t mh = mlState->height;
    if (!maskBuffer) {
        maskBuffer.ensure(static_cast<size_t>(width) * height);
        maskBlur = std::make_unique<Blur>(mw, mh, kArgbMaskBlurStrength);
    }
    if (!backgroundArgbBuffer) {
        loadBackgroundImage(width, height);
    }
    const uint8_t* background = backgroundArgbBuffer.get();
    if (settings.bt == BtBlur) {
        if (!frameBlur) {
            frameBlur = std::make_unique<Blur>(width, height, kArgbFrameBlurStrength);
        }
        frameBlur->blurArgb(argb, width, height);
        background = argb;
    }
    // The backend's mask stays as it came out of the model; the blur works on a copy.
    uint8_t* modelMask = modelMaskBuffer.ensure(static_cast<size_t>(mw) * mh);
    std::memcpy(modelMask, mlState->mask.get(), static_cast<size_t>(mw) * mh);
    maskBlur->blur(modelMask, mw, mh);
    libyuv::ScalePlane(modelMask, static_cast<int>(mw), static_cast<int>(mw), static_cast<int>(mh),
                       maskBuffer.get(), static_cast<int>(width), static_cast<int>(width),
                       static_cast<int>(height), libyuv::kFilterBilinear);
    if (background == argb) {
        return;  // the blurred frame is its own background: the whole frame ends blurred
    }
    const uint8_t* mask = maskBuffer.get();
    const size_t pixels = static_cast<size_t>(width) * height;
    for (size_t i = 0; i < pixels; ++i) {
        if (mask[i] < kArgbMaskThreshold) {
            std::memcpy(argb + i * 4, background + i * 4, 4);
        }
    }
}

bool VirtualBackgroundImpl::initBackgroundImage(const VBGSettings& s) {
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::initBackgroundImage";
    // The player of the picture being replaced stops before the new source starts.
    if (backgroundImage) {
        backgroundImage->stopVideoFilePlayback();
    }
    if (s.bt == BtImage || s.bt == BtVideo) {
        backgroundImage = std::make_shared<BackgroundImage>(s);
        if (!backgroundImage->initVideoFilePlayback(0, 0)) {
            ZLOG_ERROR(fn, "initVideoFilePlayback failed, some invalid scenario");
            return false;
        }
    } else {
        backgroundImage.reset();
    }
    return true;
}

void VirtualBackgroundImpl::loadBackgroundImage(uint32_t width, uint32_t height) {
    const size_t bytes = static_cast<size_t>(width) * height * 4;
    uint8_t* dst = backgroundArgbBuffer.ensure(bytes);
    std::memset(dst, kNoBackgroundGrey, bytes);
    if ((settings.bt != BtImage && settings.bt != BtVideo) || !backgroundImage) {
        return;
    }
    const uint8_t* picture = backgroundImage->lockAndGetCropAndScaledArgbBuffer(
        static_cast<int>(width), static_cast<int>(height));
    if (picture != nullptr) {
        libyuv::ARGBCopy(picture, static_cast<int>(width * 4), dst, static_cast<int>(width * 4),
                         static_cast<int>(width), static_cast<int>(height));
    } else {
        ZLOG_ERROR("VBG::VirtualBackgroundImpl::loadBackgroundImage",
                   "tempBackgroundArgbBuffer is invalid, some invalid scenario");
    }
    backgroundImage->unlockVideoFrame();
}

void VirtualBackgroundImpl::loadBackgroundPresentationImage() {
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::loadBackgroundPresentationImage";
    if (!presentationBitmap || presentationBitmap->frames.empty()) {
        ZLOG_ERROR(fn, "Bitmap object is not present");
        return;
    }
    const int w = presentationBitmap->width;
    const int h = presentationBitmap->height;
    const size_t bytes = static_cast<size_t>(w) * h * 4;
    uint8_t* dst = roomPictureArgbBuffer.ensure(bytes);
    std::memset(dst, kNoBackgroundGrey, bytes);
    const auto& argb = presentationBitmap->frames.front().argb;
    if (argb.size() < bytes) {
        ZLOG_ERROR(fn, "Bitmap LockBits failed.");
        return;
    }
    libyuv::ARGBCopy(argb.data(), w * 4, dst, w * 4, w, h);
}

bool VirtualBackgroundImpl::resetSize(uint32_t width, uint32_t height) {
    if (backgroundImage && !backgroundImage->resetVideoFilePlayback()) {
        ZLOG_ERROR("VBG::VirtualBackgroundImpl::resetSize", "resetVideoFilePlayback failed");
        return false;
    }
    frameWidth = width;
    frameHeight = height;
    argbFrame.ensure(static_cast<size_t>(width) * height * 4);
    // Everything made for the old size is made again on first use.
    backgroundArgbBuffer.reset();
    maskBuffer.reset();
    frameBlur.reset();
    return true;
}

bool VirtualBackgroundImpl::initZynNativeInputFrame(const ZynNativeInputFrame* input) {
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::initZynNativeInputFrame";
    if (!argbFrame || input->width != frameWidth || input->height != frameHeight) {
        if (!resetSize(input->width, input->height)) {
            ZLOG_ERROR(fn, "Frame: Res={}x{} format={} resetSize failed", input->width,
                       input->height, input->format);
            return false;
        }
        ZLOG_INFO(fn, "Frame: Res={}x{} format={}", input->width, input->height, input->format);
    }
    if (!ConvertZynNativeInputFrameToARGB(input, argbFrame.get())) {
        ZLOG_ERROR(fn, "ConvertZynNativeInputFrameToARGB failed");
        return false;
    }
    return true;
}

bool VirtualBackgroundImpl::ConvertZynNativeInputFrameToARGB(const ZynNativeInputFrame* input,
                                                             uint8_t* dst) {
    const int w = static_cast<int>(input->width);
    const int h = static_cast<int>(input->height);
    switch (input->format) {
        case ZYN_FORMAT_NV12:
            return libyuv::NV12ToARGB(input->plane0, static_cast<int>(input->stride0),
                                      input->plane1, static_cast<int>(input->stride1), dst, w * 4,
                                      w, h) == 0;
        case ZYN_FORMAT_I420:
            return libyuv::I420ToARGB(input->plane0, static_cast<int>(input->stride0),
                                      input->plane1, static_cast<int>(input->stride1),
                                      input->plane2, static_cast<int>(input->stride2), dst, w * 4,
                                      w, h) == 0;
        default:
            ZLOG_ERROR("VBG::VirtualBackgroundImpl::ConvertZynNativeInputFrameToARGB",
                       "Unknown input frame format: {}", input->format);
            return false;
    }
}

bool VirtualBackgroundImpl::convertArgbToOutputFrame(const uint8_t* argb,
                                                     ZynNativeInputFrame* output) {
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::processVideoFrameInternal";
    // The ARGB path writes the frame at the size it was given; another output size is not a
    // layout it can produce.
    if (output->width != frameWidth || output->height != frameHeight) {
        ZLOG_ERROR(fn, "Unsupported output frame format: {}", output->format);
        return false;
    }
    const int w = static_cast<int>(frameWidth);
    const int h = static_cast<int>(frameHeight);
    switch (output->format) {
        case ZYN_FORMAT_NV12:
            return libyuv::ARGBToNV12(argb, w * 4, output->plane0,
                                      static_cast<int>(output->stride0), output->plane1,
                                      static_cast<int>(output->stride1), w, h) == 0;
        case ZYN_FORMAT_I420:
            return libyuv::ARGBToI420(argb, w * 4, output->plane0,
                                      static_cast<int>(output->stride0), output->plane1,
                                      static_cast<int>(output->stride1), output->plane2,
                                      static_cast<int>(output->stride2), w, h) == 0;
        default:
            ZLOG_ERROR(fn, "Unknown output frame format requested: {}", output->format);
            return false;
    }
}

bool VirtualBackgroundImpl::processVideoFrameInternal(const ZynNativeInputFrame* input,
                                                      ZynNativeInputFrame* output) {
    constexpr const char* fn = "VBG::VirtualBackgroundImpl::processVideoFrameInternal";
    // Pending settings: a background change rebuilds the source and every buffer, a touch-up
    // change needs nothing on this path.
    VBGSettings next;
    uint64_t sequence = 0;
    bool resetRequired = false;
    if (takePendingSettings(next, sequence, resetRequired)) {
        if (resetRequired) {
            if (!initBackgroundImage(next)) {
                ZLOG_ERROR(fn, "initBackgroundImage failed");
                return false;
            }
            commitPendingSettings(next, sequence);
            releaseBuffers(false);
        } else {
            commitPendingSettings(next, sequence);
        }
    }
    applyPendingWeatherman();
    if (!initZynNativeInputFrame(input)) {
        ZLOG_ERROR(fn, "initZynNativeInputFrame failed");
        return false;
    }
    uint32_t flag = 0;
    if (!processVideoFrame(argbFrame.get(), frameWidth, frameHeight, &flag, false)) {
        ZLOG_ERROR(fn, "Internal processVideoFrame failed");
        return false;
    }
    return convertArgbToOutputFrame(argbFrame.get(), output);
}

bool VirtualBackgroundImpl::processPresentationFrameInternal(const ZynNativeInputFrame*,
                                                             const ZynNativeInputFrame*,
                                                             ZynNativeInputFrame*) {
    return false;
}

void VirtualBackgroundImpl::releaseBuffers(bool dropBackground) {
    maskBuffer.reset();
    backgroundArgbBuffer.reset();
    frameBlur.reset();
    maskBlur.reset();
    argbFrame.reset();
    roomPictureArgbBuffer.reset();
    frameWidth = 0;
    frameHeight = 0;
    if (dropBackground) {
        if (backgroundImage) {
            backgroundImage->stopVideoFilePlayback();
        }
        backgroundImage.reset();
    }
}

void VirtualBackgroundImpl::resetWeatherman() {
    presenterFrameCounter = kPresenterCheckInterval;
    presenterLayout = weathermanSettings.reserved == 2 ? 2 : 1;
    presenterWorkBuffer0.reset();
    presenterWorkBuffer1.reset();
    roomPictureArgbBuffer.reset();
}

void VirtualBackgroundImpl::resetPresentationSize(uint32_t width, uint32_t height) {
    presentationWidth = width;
    presentationHeight = height;
    presentationArgbBuffer.ensure(static_cast<size_t>(width) * height * 4);
}

bool VirtualBackgroundImpl::initProcessing() {
    return true;
}

uint32_t VirtualBackgroundImpl::getPresentationData(const uint8_t* luma, int stride, uint32_t width,
                                                    uint32_t height) {
    ++presenterFrameCounter;
    if (presenterFrameCounter <= kPresenterCheckInterval) {
        return lastPresentationLuma_;
    }
    presenterFrameCounter = 0;
    // Mean luma of the presentation on a grid of every 4th pixel of every 4th row: enough to tell
    // a light slide from a dark one at a small fraction of a frame's cost.
    uint64_t sum = 0;
    uint64_t count = 0;
    for (uint32_t y = 0; y < height; y += kPresentationSampleStep) {
        const uint8_t* row = luma + static_cast<size_t>(y) * stride;
        for (uint32_t x = 0; x < width; x += kPresentationSampleStep) {
            sum += row[x];
            ++count;
        }
    }
    lastPresentationLuma_ = count == 0 ? 0 : static_cast<uint32_t>(sum / count);
    presenterLayout = lastPresentationLuma_ < kDarkPresentationLuma ? 2 : 1;
    return lastPresentationLuma_;
}

}  // namespace VBG
