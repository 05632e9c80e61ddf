#include "engine/virtual_background_impl_cpu_yuv.h"

#include <libyuv.h>

#include <algorithm>
#include <cstring>
#include <exception>

#include "config/vbg_settings.h"
#include "engine/frame_record.h"
#include "engine/presenter_compositing.h"
#include "filters/blur_cpu.h"
#include "filters/touchup_cpu.h"
#include "filters/upscale_cpu.h"
#include "media/background_image.h"
#include "util/log.h"
#include "util/zyn_utils.h"

namespace VBG {
namespace {

constexpr const char* kFrameFn = "VBG::VirtualBackgroundImplYuv::processVideoFrameInternal";
constexpr const char* kPresenterFn =
    "VBG::VirtualBackgroundImplYuv::processPresentationFrameInternal";
constexpr int32_t kEFail = static_cast<int32_t>(0x80004005u);
// Blend kinds of overlayCameraFrameOnPresentation besides the underlay variants (0, 1).
constexpr int kPresenterOverlay = -1;
constexpr int kPresenterInRoom = -2;

// Smoothing of the model mask before its contrast curve and upscale.
constexpr float kMaskBlurStrength = 0.7f;
// The blurred background's strength is the model height over this.
constexpr float kBackgroundBlurDivisor = 36.0f;

int asInt(uint32_t value) {
    return static_cast<int>(value);
}

// The span [start, start + size) of a source side that lies under the visible span [from, from +
// count) of a picture `scaled` long made from it (`source` long): the enclosing source pixels,
// starting at an even one (chroma lines up), at least one pixel.
struct SourceWindow {
    int start = 0;
    int size = 0;
};
SourceWindow VisibleSource(int from, int count, int scaled, int source) {
    const int64_t first = static_cast<int64_t>(from) * source / scaled;
    const int64_t end =
        (static_cast<int64_t>(from + count) * source + scaled - 1) / scaled;  // rounded up
    SourceWindow window;
    window.start = static_cast<int>(first) & ~1;
    window.size = std::max(1, static_cast<int>(std::min<int64_t>(end, source)) - window.start);
    return window;
}

I420Planes planesOf(const ZynNativeInputFrame* frame) {
    I420Planes planes;
    planes.y = frame->plane0;
    planes.strideY = asInt(frame->stride0);
    planes.u = frame->plane1;
    planes.strideU = asInt(frame->stride1);
    planes.v = frame->plane2;
    planes.strideV = asInt(frame->stride2);
    return planes;
}

// Compared as addresses: a record of an unknown format (refused later) may have no luma plane,
// or a stride that does not cover its rows.
bool lumaPlanesOverlap(const ZynNativeInputFrame* a, const ZynNativeInputFrame* b) {
    if (a->plane0 == nullptr || b->plane0 == nullptr) {
        return false;
    }
    const uintptr_t a0 = reinterpret_cast<uintptr_t>(a->plane0);
    const uintptr_t a1 = a0 + static_cast<size_t>(a->stride0) * (a->height - 1) + a->width;
    const uintptr_t b0 = reinterpret_cast<uintptr_t>(b->plane0);
    const uintptr_t b1 = b0 + static_cast<size_t>(b->stride0) * (b->height - 1) + b->width;
    return a0 < b1 && b0 < a1;
}

bool writeI420ToFrame(const I420Planes& src, uint32_t width, uint32_t height,
                      ZynNativeInputFrame* output, const char* fn) {
    switch (output->format) {
        case ZYN_FORMAT_NV12:
            return libyuv::I420ToNV12(src.y, src.strideY, src.u, src.strideU, src.v, src.strideV,
                                      output->plane0, asInt(output->stride0), output->plane1,
                                      asInt(output->stride1), asInt(width), asInt(height)) == 0;
        case ZYN_FORMAT_I420:
            return libyuv::I420Copy(src.y, src.strideY, src.u, src.strideU, src.v, src.strideV,
                                    output->plane0, asInt(output->stride0), output->plane1,
                                    asInt(output->stride1), output->plane2, asInt(output->stride2),
                                    asInt(width), asInt(height)) == 0;
        default:
            ZLOG_ERROR(fn, "Unknown output frame format: {}", output->format);
            return false;
    }
}

}  // namespace

VirtualBackgroundImplYuv::VirtualBackgroundImplYuv(uint32_t processingType_)
    : VirtualBackgroundImpl(processingType_) {}

// The base destructor stops the background source and writes the "Destroyed" record.
VirtualBackgroundImplYuv::~VirtualBackgroundImplYuv() = default;

int VirtualBackgroundImplYuv::init(const VBGSettings& newSettings, uint32_t width,
                                   uint32_t height) {
    const int result = VirtualBackgroundImpl::init(newSettings, width, height);
    if (result != 0) {
        return result;
    }
    const size_t n = static_cast<size_t>(mlState->width) * mlState->height;
    modelYuvBuffer.ensure(I420BufferSize(mlState->width, mlState->height));
    modelArgbBuffer.ensure(n * 4);
    return 0;
}

bool VirtualBackgroundImplYuv::processVideoFrameInternal(const ZynNativeInputFrame* input,
                                                         ZynNativeInputFrame* output) {
    if (!CheckFrameRecord(kFrameFn, "input", input) ||
        !CheckFrameRecord(kFrameFn, "output", output)) {
        return false;
    }
    if (output->width != input->width || output->height != input->height) {
        ZLOG_ERROR(kFrameFn, "Output frame {}x{} does not match the input frame {}x{}",
                   output->width, output->height, input->width, input->height);
        return false;
    }
    // The planes of an output whose format is unknown are not described by its record: it is
    // refused before anything is written into them.
    if (output->format != ZYN_FORMAT_NV12 && output->format != ZYN_FORMAT_I420) {
        ZLOG_ERROR(kFrameFn, "Unknown output frame format: {}", output->format);
        return false;
    }
    if (!updateFrameSizeAndSettings(input->width, input->height)) {
        return false;
    }
    // Touch-up reads a neighbourhood of each pixel, so it cannot write the luma plane it reads:
    // an output that shares the input's luma memory gets a copy to read from.
    copyCameraLuma_ = touchUpEnabled() && lumaPlanesOverlap(input, output);
    if (settings.bt != BtNone) {
        if (!updateARGBBuffer(input, true)) {
            ZLOG_ERROR(kFrameFn, "updateARGBBuffer failed");
            return false;
        }
        if (!runMLModel(videoStats)) {
            ZLOG_ERROR(kFrameFn, "runMLModel failed");
            return false;
        }
        if (!composeFrame(output)) {
            ZLOG_ERROR(kFrameFn, "composeFrame failed");
            return false;
        }
    } else {
        if (!touchUpEnabled()) {
            ZLOG_ERROR(kFrameFn, "Internal processVideoFrame failed: Invalid config");
            return false;
        }
        if (!updateARGBBuffer(input, false)) {
            ZLOG_ERROR(kFrameFn, "updateARGBBuffer failed");
            return false;
        }
        if (!touchUpOnly(output)) {
            ZLOG_ERROR(kFrameFn, "touchUpOnly failed");
            return false;
        }
    }
    if (!updateOutputFrame(output)) {
        ZLOG_ERROR(kFrameFn, "updateOutputFrame failed");
        return false;
    }
    return true;
}

bool VirtualBackgroundImplYuv::updateFrameSizeAndSettings(uint32_t width, uint32_t height) {
    constexpr const char* fn = "VBG::VirtualBackgroundImplYuv::updateFrameSizeAndSettings";
    VBGSettings next;
    uint64_t sequence = 0;
    bool resetRequired = false;
    const bool pending = takePendingSettings(next, sequence, resetRequired);
    const bool sizeChanged = width != frameWidth || height != frameHeight;
    if (!pending && !sizeChanged) {
        return true;
    }
    if (pending && resetRequired && !initBackgroundImage(next)) {
        ZLOG_ERROR(kFrameFn, "initBackgroundImage failed");
        return false;
    }
    ZLOG_TRACE(fn, "Frame size changed from {}x{} -> {}x{} vbgUpdateRequested -> {}", frameWidth,
               frameHeight, width, height, pending);
    if (!sizeChanged && !resetRequired) {
        // Touch-up alone changed: only the touch-up filter is made again, with the new sigma.
        commitPendingSettings(next, sequence);
        touchUp.reset();
        return true;
    }
    if (backgroundImage && !backgroundImage->resetVideoFilePlayback()) {
        ZLOG_ERROR(fn, "resetVideoFilePlayback failed");
        return false;
    }
    if (pending) {
        commitPendingSettings(next, sequence);
    }
    releaseBuffers(false);
    frameWidth = width;
    frameHeight = height;
    touchUp.reset();
    if (settings.bt == BtVideo && backgroundImage && !backgroundImage->startVideoFilePlayback()) {
        ZLOG_ERROR(fn, "Failed to start video file playback thread");
    }
    return true;
}

bool VirtualBackgroundImplYuv::updateARGBBuffer(const ZynNativeInputFrame* input,
                                                bool makeModelInput) {
    const uint32_t w = input->width;
    const uint32_t h = input->height;
    switch (input->format) {
        case ZYN_FORMAT_I420:
            camera_ = planesOf(input);
            if (copyCameraLuma_) {
                const I420Planes copy =
                    I420InBuffer(inputYuvBuffer.ensure(I420BufferSize(w, h)), w, h);
                libyuv::I420Copy(camera_.y, camera_.strideY, camera_.u, camera_.strideU, camera_.v,
                                 camera_.strideV, copy.y, copy.strideY, copy.u, copy.strideU,
                                 copy.v, copy.strideV, asInt(w), asInt(h));
                camera_ = copy;
            }
            break;
        case ZYN_FORMAT_NV12: {
            camera_ = I420InBuffer(inputYuvBuffer.ensure(I420BufferSize(w, h)), w, h);
            if (copyCameraLuma_) {
                libyuv::CopyPlane(input->plane0, asInt(input->stride0), camera_.y, camera_.strideY,
                                  asInt(w), asInt(h));
            } else {
                // The luma plane is already planar: it is read where it is, only the interleaved
                // chroma is split.
                camera_.y = input->plane0;
                camera_.strideY = asInt(input->stride0);
            }
            libyuv::SplitUVPlane(input->plane1, asInt(input->stride1), camera_.u, camera_.strideU,
                                 camera_.v, camera_.strideV, ChromaSize(asInt(w)),
                                 ChromaSize(asInt(h)));
            break;
        }
        default:
            ZLOG_ERROR("VBG::VirtualBackgroundImplYuv::updateARGBBuffer",
                       "Unknown input frame format: {}", input->format);
            return false;
    }
    if (!makeModelInput) {
        return true;
    }
    const uint32_t mw = mlState->width;
    const uint32_t mh = mlState->height;
    const I420Planes model = I420InBuffer(modelYuvBuffer.get(), mw, mh);
    // libyuv's I420Scale with its box filter, plane by plane.
    modelReducer.scale(camera_.y, camera_.strideY, asInt(w), asInt(h), model.y, model.strideY,
                       asInt(mw), asInt(mh));
    modelReducer.scale(camera_.u, camera_.strideU, ChromaSize(asInt(w)), ChromaSize(asInt(h)),
                       model.u, model.strideU, ChromaSize(asInt(mw)), ChromaSize(asInt(mh)));
    modelReducer.scale(camera_.v, camera_.strideV, ChromaSize(asInt(w)), ChromaSize(asInt(h)),
                       model.v, model.strideV, ChromaSize(asInt(mw)), ChromaSize(asInt(mh)));
    libyuv::I420ToARGB(model.y, model.strideY, model.u, model.strideU, model.v, model.strideV,
                       modelArgbBuffer.get(), asInt(mw * 4), asInt(mw), asInt(mh));
    return true;
}

bool VirtualBackgroundImplYuv::runMLModel(FrameStats& stats) {
    stats.mark(FrameStats::PreDone);
    try {
        if (!mlProcessing->runModel(modelArgbBuffer.get(), mlState->width, mlState->height,
                                    mlState.get())) {
            ZLOG_ERROR("VBG::VirtualBackgroundImplYuv::runMLModel", "CPU VBG ML runMLModel failed");
            return false;
        }
        stats.mark(FrameStats::InferenceDone);
        return true;
    } catch (const HResultError& e) {
        Utils::processException(e, "runMLModel failed.");
    } catch (const std::exception& e) {
        Utils::processException(HResultError(kEFail, e.what()), "runMLModel failed.");
    }
    return false;
}

void VirtualBackgroundImplYuv::prepareModelMask() {
    const uint32_t mw = mlState->width;
    const uint32_t mh = mlState->height;
    const size_t n = static_cast<size_t>(mw) * mh;
    if (!maskBlur) {
        maskBlur = std::make_unique<Blur>(asInt(mw), asInt(mh), kMaskBlurStrength);
    }
    uint8_t* mask = modelMaskBuffer.ensure(n);
    std::memcpy(mask, mlState->mask.get(), n);
    maskBlur->blur(mask, asInt(mw), asInt(mh));
    for (size_t i = 0; i < n; ++i) {
        mask[i] = maskContrastTable[mask[i]];
    }
}

I420Planes VirtualBackgroundImplYuv::destinationPlanes(const ZynNativeInputFrame* output) {
    if (output->format == ZYN_FORMAT_I420) {
        return planesOf(output);
    }
    // NV12 out: luma goes straight into the output plane, chroma into outputYuvBuffer until it
    // is interleaved into the output by updateOutputFrame.
    I420Planes planes = I420InBuffer(
        outputYuvBuffer.ensure(I420BufferSize(frameWidth, frameHeight)), frameWidth, frameHeight);
    planes.y = output->plane0;
    planes.strideY = asInt(output->stride0);
    return planes;
}

bool VirtualBackgroundImplYuv::composeFrame(const ZynNativeInputFrame* output) {
    const int W = asInt(frameWidth);
    const int H = asInt(frameHeight);
    const int mw = asInt(mlState->width);
    const int mh = asInt(mlState->height);
    const int cw = ChromaSize(W);
    const int ch = ChromaSize(H);
    const int mcw = ChromaSize(mw);
    const int mch = ChromaSize(mh);
    const bool blur = settings.bt == BtBlur;
    // Where the vector upscaler serves every plane, the frame is enlarged and blended a band of
    // rows at a time (below); a blur made that way needs no background at the frame's size.
    const bool banded =
        maskUpscaler.ownRows(mw, mh, W, H) &&
        (!blur || (lumaUpscaler.ownRows(mw, mh, W, H) && chromaUpscaler.ownRows(mcw, mch, cw, ch)));
    if ((!blur || !banded) &&
        (!backgroundYuvBuffer || (backgroundImage && backgroundImage->hasNewFrame()))) {
        loadBackgroundImageInYuv(frameWidth, frameHeight);
    }
    prepareModelMask();
    const uint8_t* modelMask = modelMaskBuffer.get();
    const I420Planes model = I420InBuffer(modelYuvBuffer.get(), mlState->width, mlState->height);
    if (blur) {
        // The blurred background is made at model resolution; person pixels neither feed the
        // blur nor are replaced by it, so the person does not bleed into the background.
        const int hw = mw / 2;
        const int hh = mh / 2;
        if (!lumaBlur) {
            lumaBlur =
                std::make_unique<Blur>(mw, mh, static_cast<float>(mh) / kBackgroundBlurDivisor);
            chromaBlur =
                std::make_unique<Blur>(hw, hh, static_cast<float>(hh) / kBackgroundBlurDivisor);
            halfMaskBuffer.ensure(static_cast<size_t>(hw) * hh);
        }
        lumaBlur->setMask(modelMask);
        lumaBlur->blurMasked(model.y, mw, mh);
        libyuv::ScalePlane(modelMask, mw, mw, mh, halfMaskBuffer.get(), hw, hw, hh,
                           libyuv::kFilterBilinear);
        chromaBlur->setMask(halfMaskBuffer.get());
        chromaBlur->blurMasked(model.u, hw, hh);
        chromaBlur->blurMasked(model.v, hw, hh);
    }

    const I420Planes dst = destinationPlanes(output);
    I420Planes cameraPlanes = camera_;
    if (touchUpEnabled()) {
        if (!touchUp) {
            touchUp = std::make_unique<TouchUpCPU>(settings.touchUpSigma);
        }
        if (!touchUp->process(cameraPlanes.y, cameraPlanes.strideY, cameraPlanes.u,
                              cameraPlanes.strideU, cameraPlanes.v, cameraPlanes.strideV, dst.y,
                              dst.strideY, dst.u, dst.strideU, dst.v, dst.strideV, W, H)) {
            return false;
        }
        cameraPlanes = dst;  // blend in place over the smoothed frame
    }

    // The mask and the blurred background are enlarged bilinearly to the frame, plane by plane. A
    // frame smaller than the model is reached bilinearly too: libyuv's box average loses precision
    // over boxes of thousands of pixels (a 1 x 1 frame came out at about half its brightness), and
    // for a larger frame libyuv's box filter is its bilinear one. Made band by band, the enlarged
    // planes never exist at full size and a band stays in the cache from its making to its blend.
    const I420Planes background =
        backgroundYuvBuffer ? I420InBuffer(backgroundYuvBuffer.get(), frameWidth, frameHeight)
                            : I420Planes{};
    if (!banded) {
        uint8_t* mask = maskBuffer.ensure(static_cast<size_t>(W) * H);
        maskUpscaler.scale(modelMask, mw, mw, mh, mask, W, W, H);
        if (blur) {
            lumaUpscaler.scale(model.y, model.strideY, mw, mh, background.y, background.strideY, W,
                               H);
            chromaUpscaler.scale(model.u, model.strideU, mcw, mch, background.u, background.strideU,
                                 cw, ch);
            chromaUpscaler.scale(model.v, model.strideV, mcw, mch, background.v, background.strideV,
                                 cw, ch);
        }
        uint8_t* chromaAlpha =
            chromaAlphaBuffer.ensure(static_cast<size_t>(cw) * static_cast<size_t>(ch));
        BlendI420(cameraPlanes, background, mask, W, dst, chromaAlpha, W, H);
        return true;
    }
    // One band: its mask and chroma alpha, and for a blur its three background planes.
    constexpr int kBandChroma = kBandRows / 2;
    const size_t lumaBand = static_cast<size_t>(kBandRows) * W;
    const size_t chromaBand = static_cast<size_t>(kBandChroma) * cw;
    uint8_t* bandMask = bandBuffer.ensure(2 * lumaBand + 3 * chromaBand);
    uint8_t* bandAlpha = bandMask + lumaBand;
    const I420Planes bandBackground{bandAlpha + chromaBand,
                                    W,
                                    bandAlpha + chromaBand + lumaBand,
                                    cw,
                                    bandAlpha + 2 * chromaBand + lumaBand,
                                    cw};
    for (int y0 = 0; y0 < H; y0 += kBandRows) {
        const int rows = std::min(kBandRows, H - y0);
        const int c0 = y0 / 2;
        const int chromaRows = ChromaSize(y0 + rows) - c0;
        maskUpscaler.scaleRows(modelMask, mw, mw, mh, bandMask, W, W, H, y0, rows);
        if (blur) {
            lumaUpscaler.scaleRows(model.y, model.strideY, mw, mh, bandBackground.y, W, W, H, y0,
                                   rows);
            chromaUpscaler.scaleRows(model.u, model.strideU, mcw, mch, bandBackground.u, cw, cw, ch,
                                     c0, chromaRows);
            chromaVUpscaler.scaleRows(model.v, model.strideV, mcw, mch, bandBackground.v, cw, cw,
                                      ch, c0, chromaRows);
        }
        BlendI420(I420At(cameraPlanes, 0, y0), blur ? bandBackground : I420At(background, 0, y0),
                  bandMask, W, I420At(dst, 0, y0), bandAlpha, W, rows);
    }
    return true;
}

bool VirtualBackgroundImplYuv::touchUpOnly(const ZynNativeInputFrame* output) {
    const I420Planes dst = destinationPlanes(output);
    if (!touchUp) {
        touchUp = std::make_unique<TouchUpCPU>(settings.touchUpSigma);
    }
    return touchUp->process(camera_.y, camera_.strideY, camera_.u, camera_.strideU, camera_.v,
                            camera_.strideV, dst.y, dst.strideY, dst.u, dst.strideU, dst.v,
                            dst.strideV, asInt(frameWidth), asInt(frameHeight));
}

bool VirtualBackgroundImplYuv::updateOutputFrame(ZynNativeInputFrame* output) {
    switch (output->format) {
        case ZYN_FORMAT_NV12: {
            const I420Planes composed =
                I420InBuffer(outputYuvBuffer.get(), frameWidth, frameHeight);
            libyuv::MergeUVPlane(composed.u, composed.strideU, composed.v, composed.strideV,
                                 output->plane1, asInt(output->stride1),
                                 ChromaSize(asInt(frameWidth)), ChromaSize(asInt(frameHeight)));
            return true;
        }
        case ZYN_FORMAT_I420:
            return true;
        default:
            ZLOG_ERROR("VBG::VirtualBackgroundImplYuv::updateOutputFrame",
                       "Unknown output frame format: {}", output->format);
            return false;
    }
}

void VirtualBackgroundImplYuv::loadBackgroundImageInYuv(uint32_t width, uint32_t height) {
    uint8_t* buffer = backgroundYuvBuffer.ensure(I420BufferSize(width, height));
    if ((settings.bt != BtImage && settings.bt != BtVideo) || !backgroundImage) {
        return;
    }
    const uint8_t* picture =
        backgroundImage->lockAndGetCropAndScaledArgbBuffer(asInt(width), asInt(height));
    if (picture == nullptr) {
        backgroundImage->unlockVideoFrame();
        // No picture: the background stays as it is, all zero bytes when it was just made.
        ZLOG_ERROR("VBG::VirtualBackgroundImplYuv::loadBackgroundImageInYuv",
                   "tempBackgroundArgbBuffer is invalid, some invalid scenario");
        return;
    }
    const I420Planes dst = I420InBuffer(buffer, width, height);
    libyuv::ARGBToI420(picture, asInt(width * 4), dst.y, dst.strideY, dst.u, dst.strideU, dst.v,
                       dst.strideV, asInt(width), asInt(height));
    backgroundImage->unlockVideoFrame();
    if (settings.bt == BtVideo) {
        backgroundImage->videoFrameConsumed();
    }
}

void VirtualBackgroundImplYuv::releaseBuffers(bool dropBackground) {
    VirtualBackgroundImpl::releaseBuffers(dropBackground);
    backgroundYuvBuffer.reset();
    inputYuvBuffer.reset();
    outputYuvBuffer.reset();
    lumaBlur.reset();
    chromaBlur.reset();
    halfMaskBuffer.reset();
    chromaAlphaBuffer.reset();
    bandBuffer.reset();
}

// ---- Presenter compositing ----------------------------------------------------------------

void VirtualBackgroundImplYuv::resetWeatherman() {
    applyPendingWeatherman();
    VirtualBackgroundImpl::resetWeatherman();
    presentationYuvBuffer.reset();
    composedYuvBuffer.reset();
    roomBackgroundYuvBuffer.reset();
    presenterYuvBuffer.reset();
    presenterMaskBuffer.reset();
    presenterAlphaBuffer.reset();
    presenterChromaAlphaBuffer.reset();
}

void VirtualBackgroundImplYuv::updatePresentationFrameSize(uint32_t width, uint32_t height) {
    if (width == presentationWidth && height == presentationHeight) {
        return;
    }
    ZLOG_TRACE("VBG::VirtualBackgroundImplYuv::updatePresentationFrameSize",
               "Presentation Frame size changed from {}x{} -> {}x{}", presentationWidth,
               presentationHeight, width, height);
    presentationWidth = width;
    presentationHeight = height;
    resetWeatherman();
}

bool VirtualBackgroundImplYuv::processPresentationFrameInternal(
    const ZynNativeInputFrame* camera, const ZynNativeInputFrame* presentation,
    ZynNativeInputFrame* output) {
    if (!CheckFrameRecord(kPresenterFn, "camera", camera) ||
        !CheckFrameRecord(kPresenterFn, "presentation", presentation) ||
        !CheckFrameRecord(kPresenterFn, "output", output)) {
        return false;
    }
    if (weathermanUpdateRequested.load()) {
        resetWeatherman();
    }
    switch (weathermanSettings.mode) {
        case PresenterOverlay:
            return processPresentationFrameForOverlayAndUnderlay(camera, presentation, output, 0);
        case PresenterUnderlay:
            return processPresentationFrameForOverlayAndUnderlay(camera, presentation, output, 1);
        case PresenterNewsroom:
        case PresenterConferenceroom:
            return processPresentationFrameForNewsAndConferenceroom(camera, presentation, output);
        default:
            ZLOG_ERROR(kPresenterFn, "No presenter layout for mode {}", weathermanSettings.mode);
            return false;
    }
}

bool VirtualBackgroundImplYuv::initZynNativeInputPresentationFrame(
    const ZynNativeInputFrame* presentation, I420Planes& planes) {
    const uint32_t w = presentation->width;
    const uint32_t h = presentation->height;
    switch (presentation->format) {
        case ZYN_FORMAT_I420:
            planes = planesOf(presentation);
            return true;
        case ZYN_FORMAT_NV12:
            planes = I420InBuffer(presentationYuvBuffer.ensure(I420BufferSize(w, h)), w, h);
            return libyuv::NV12ToI420(presentation->plane0, asInt(presentation->stride0),
                                      presentation->plane1, asInt(presentation->stride1), planes.y,
                                      planes.strideY, planes.u, planes.strideU, planes.v,
                                      planes.strideV, asInt(w), asInt(h)) == 0;
        default:
            ZLOG_ERROR("VBG::VirtualBackgroundImplYuv::initZynNativeInputPresentationFrame",
                       "Unknown input frame format: {}", presentation->format);
            return false;
    }
}

bool VirtualBackgroundImplYuv::processPresentationFrameForOverlayAndUnderlay(
    const ZynNativeInputFrame* camera, const ZynNativeInputFrame* presentation,
    ZynNativeInputFrame* output, int underlay) {
    const uint32_t pw = presentation->width;
    const uint32_t ph = presentation->height;
    updatePresentationFrameSize(pw, ph);
    if (output->width != pw || output->height != ph) {
        ZLOG_ERROR(kPresenterFn, "Output frame {}x{} does not match the presentation frame {}x{}",
                   output->width, output->height, pw, ph);
        return false;
    }
    I420Planes source;
    if (!initZynNativeInputPresentationFrame(presentation, source)) {
        ZLOG_ERROR(kPresenterFn, "initZynNativeInputPresentationFrame failed");
        return false;
    }
    const I420Planes composed =
        I420InBuffer(composedYuvBuffer.ensure(I420BufferSize(pw, ph)), pw, ph);
    libyuv::I420Copy(source.y, source.strideY, source.u, source.strideU, source.v, source.strideV,
                     composed.y, composed.strideY, composed.u, composed.strideU, composed.v,
                     composed.strideV, asInt(pw), asInt(ph));
    getPresentationData(composed.y, composed.strideY, pw, ph);
    Viewport viewport;
    if (!LayeredCameraViewport(weathermanSettings, camera->width, camera->height, pw, ph,
                               viewport)) {
        ZLOG_ERROR(kPresenterFn, "overlayCameraFrameOnPresentation failed");
        return false;
    }
    int variant = kPresenterOverlay;
    if (underlay != 0) {
        variant = weathermanSettings.underlayMode == Presenter::UnderlayTranslucent
                      ? static_cast<int>(Presenter::UnderlayTranslucent)
                      : static_cast<int>(Presenter::UnderlayKeyed);
    }
    if (!overlayCameraFrameOnPresentation(camera, composed, pw, ph, viewport, variant)) {
        ZLOG_ERROR(kPresenterFn, "overlayCameraFrameOnPresentation failed");
        return false;
    }
    return writePresentationOutput(composed, pw, ph, output);
}

bool VirtualBackgroundImplYuv::processPresentationFrameForNewsAndConferenceroom(
    const ZynNativeInputFrame* camera, const ZynNativeInputFrame* presentation,
    ZynNativeInputFrame* output) {
    const uint32_t pw = presentation->width;
    const uint32_t ph = presentation->height;
    updatePresentationFrameSize(pw, ph);
    if (!presentationBitmap) {
        ZLOG_ERROR(kPresenterFn, "Bitmap object is not present");
        return false;
    }
    const uint32_t ow = static_cast<uint32_t>(presentationBitmap->width);
    const uint32_t oh = static_cast<uint32_t>(presentationBitmap->height);
    if (output->width != ow || output->height != oh) {
        ZLOG_ERROR(kPresenterFn, "Output frame {}x{} does not match the room picture {}x{}",
                   output->width, output->height, ow, oh);
        return false;
    }
    if (!roomBackgroundYuvBuffer) {
        loadBackgroundPresentationImage();
        if (!roomPictureArgbBuffer) {
            return false;
        }
        const I420Planes room =
            I420InBuffer(roomBackgroundYuvBuffer.ensure(I420BufferSize(ow, oh)), ow, oh);
        libyuv::ARGBToI420(roomPictureArgbBuffer.get(), asInt(ow * 4), room.y, room.strideY, room.u,
                           room.strideU, room.v, room.strideV, asInt(ow), asInt(oh));
    }
    I420Planes source;
    if (!initZynNativeInputPresentationFrame(presentation, source)) {
        ZLOG_ERROR(kPresenterFn, "initZynNativeInputPresentationFrame failed");
        return false;
    }
    const I420Planes room = I420InBuffer(roomBackgroundYuvBuffer.get(), ow, oh);
    const I420Planes composed =
        I420InBuffer(composedYuvBuffer.ensure(I420BufferSize(ow, oh)), ow, oh);
    libyuv::I420Copy(room.y, room.strideY, room.u, room.strideU, room.v, room.strideV, composed.y,
                     composed.strideY, composed.u, composed.strideU, composed.v, composed.strideV,
                     asInt(ow), asInt(oh));
    getPresentationData(source.y, source.strideY, pw, ph);

    Viewport cameraViewport;
    Viewport presentationViewport;
    if (!RoomViewports(weathermanSettings, ow, camera->width, camera->height, pw, ph, ow, oh,
                       cameraViewport, presentationViewport)) {
        ZLOG_ERROR(kPresenterFn, "getCameraAndPresentationViewport failed");
        return false;
    }
    // The presentation rectangle lies inside the picture for every size the layouts produce; on
    // a picture too small for it, the part that fits is filled (the presentation is scaled into
    // it rather than cut).
    Presenter::Placement slot;
    if (Presenter::ClipPlacement(static_cast<int64_t>(presentationViewport.x),
                                 static_cast<int64_t>(presentationViewport.y),
                                 static_cast<int64_t>(presentationViewport.width),
                                 static_cast<int64_t>(presentationViewport.height), asInt(ow),
                                 asInt(oh), slot)) {
        const I420Planes target = I420At(composed, slot.x, slot.y);
        libyuv::I420Scale(source.y, source.strideY, source.u, source.strideU, source.v,
                          source.strideV, asInt(pw), asInt(ph), target.y, target.strideY, target.u,
                          target.strideU, target.v, target.strideV, slot.width, slot.height,
                          libyuv::kFilterBox);
    }
    if (!overlayCameraFrameOnPresentation(camera, composed, ow, oh, cameraViewport,
                                          kPresenterInRoom)) {
        ZLOG_ERROR(kPresenterFn, "overlayCameraFrameOnPresentation failed");
        return false;
    }
    return writePresentationOutput(composed, ow, oh, output);
}

bool VirtualBackgroundImplYuv::overlayCameraFrameOnPresentation(const ZynNativeInputFrame* camera,
                                                                const I420Planes& composed,
                                                                uint32_t ow, uint32_t oh,
                                                                const Viewport& viewport,
                                                                int variant) {
    constexpr const char* fn = "VBG::VirtualBackgroundImplYuv::overlayCameraFrameOnPresentation";
    const int64_t w = static_cast<int64_t>(viewport.width);
    const int64_t h = static_cast<int64_t>(viewport.height);
    if (w > kMaxFrameSide || h > kMaxFrameSide) {
        ZLOG_ERROR(fn, "Presenter size {}x{} is out of range", w, h);
        return false;
    }
    Presenter::Placement place;
    if (!Presenter::ClipPlacement(static_cast<int64_t>(viewport.x),
                                  static_cast<int64_t>(viewport.y), w, h, asInt(ow), asInt(oh),
                                  place)) {
        return true;  // an empty presenter, or one placed wholly outside the frame: nothing to draw
    }
    // Segment the camera frame; pending effect settings and a new camera size apply here too.
    copyCameraLuma_ = false;  // the camera frame is only read here
    if (!updateFrameSizeAndSettings(camera->width, camera->height) ||
        !updateARGBBuffer(camera, true) || !runMLModel(presentationStats)) {
        return false;
    }
    prepareModelMask();
    // Only the visible part of the presenter is made: the part of the camera frame (and of the
    // model mask) under it is scaled to the visible size, so that the work buffers are bounded
    // by the output, whatever size the settings give the presenter. A presenter wholly inside
    // the output takes the whole frame, exactly as a full-size scale would.
    const int pw = static_cast<int>(w);
    const int ph = static_cast<int>(h);
    const int vw = place.width;
    const int vh = place.height;
    const int mw = asInt(mlState->width);
    const int mh = asInt(mlState->height);
    const SourceWindow cameraX = VisibleSource(place.srcX, vw, pw, asInt(camera->width));
    const SourceWindow cameraY = VisibleSource(place.srcY, vh, ph, asInt(camera->height));
    const SourceWindow maskX = VisibleSource(place.srcX, vw, pw, mw);
    const SourceWindow maskY = VisibleSource(place.srcY, vh, ph, mh);
    uint8_t* mask = presenterMaskBuffer.ensure(static_cast<size_t>(vw) * vh);
    libyuv::ScalePlane(modelMaskBuffer.get() + static_cast<size_t>(maskY.start) * mw + maskX.start,
                       mw, maskX.size, maskY.size, mask, vw, vw, vh, libyuv::kFilterBilinear);
    const I420Planes presenter =
        I420InBuffer(presenterYuvBuffer.ensure(
                         I420BufferSize(static_cast<uint32_t>(vw), static_cast<uint32_t>(vh))),
                     static_cast<uint32_t>(vw), static_cast<uint32_t>(vh));
    const I420Planes source = I420At(camera_, cameraX.start, cameraY.start);
    libyuv::I420Scale(source.y, source.strideY, source.u, source.strideU, source.v, source.strideV,
                      cameraX.size, cameraY.size, presenter.y, presenter.strideY, presenter.u,
                      presenter.strideU, presenter.v, presenter.strideV, vw, vh,
                      libyuv::kFilterBox);

    uint8_t* alpha = presenterAlphaBuffer.ensure(static_cast<size_t>(vw) * vh);
    const I420Planes under = I420At(composed, place.x, place.y);
    if (variant == kPresenterOverlay) {
        Presenter::ScaleAlpha(mask, alpha, static_cast<size_t>(vw) * vh,
                              weathermanSettings.overlayAlpha);
    } else if (variant >= 0) {
        Presenter::UnderlayAlpha(mask, vw, under.y, under.strideY, alpha, vw, vw, vh, variant,
                                 presenterLayout);
    } else {
        std::memcpy(alpha, mask, static_cast<size_t>(vw) * vh);
    }
    uint8_t* chromaAlpha = presenterChromaAlphaBuffer.ensure(static_cast<size_t>(ChromaSize(vw)) *
                                                             static_cast<size_t>(ChromaSize(vh)));
    BlendI420(presenter, under, alpha, vw, under, chromaAlpha, vw, vh);
    return true;
}

bool VirtualBackgroundImplYuv::writePresentationOutput(const I420Planes& composed, uint32_t ow,
                                                       uint32_t oh, ZynNativeInputFrame* output) {
    return writeI420ToFrame(composed, ow, oh, output, kPresenterFn);
}

}  // namespace VBG
