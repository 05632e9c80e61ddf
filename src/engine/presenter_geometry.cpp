#include "engine/presenter_geometry.h"

#include <algorithm>

namespace VBG {

float PresenterScale(const ZynNativeWeathermanSettings& settings, uint32_t backgroundWidth,
                     uint32_t cameraWidth) {
    const float bw = static_cast<float>(backgroundWidth);
    const float cw = static_cast<float>(cameraWidth);
    switch (settings.mode) {
        case PresenterOverlay:
            return settings.overlaySize;
        case PresenterUnderlay:
            return settings.underlaySize;
        case PresenterNewsroom:
            return cameraWidth == 0 ? 0.0f : bw * (0.1f * settings.newsroomSize + 0.3f) / cw;
        case PresenterConferenceroom:
            return cameraWidth == 0 ? 0.0f : bw * (0.13f * settings.conferenceroomSize + 0.4f) / cw;
        default:
            return 0.0f;
    }
}

int32_t PresenterWidth(uint32_t cameraWidth, float scale) {
    const float scaled = static_cast<float>(cameraWidth) * scale;
    // The width is a 28-bit signed field: larger values wrap. Out-of-range floats are clamped
    // before the conversion so that it stays defined.
    const float clamped = std::clamp(scaled, -2147483648.0f, 2147483520.0f);
    const uint32_t bits = static_cast<uint32_t>(static_cast<int32_t>(clamped)) & 0x0FFFFFFFu;
    return (bits & 0x08000000u) != 0 ? static_cast<int32_t>(bits | 0xF0000000u)
                                     : static_cast<int32_t>(bits);
}

int32_t PresenterHeight(int32_t width, uint32_t cameraWidth, uint32_t cameraHeight) {
    if (cameraWidth == 0) {
        return 0;
    }
    const int64_t h =
        static_cast<int64_t>(width) * cameraHeight / static_cast<int64_t>(cameraWidth);
    return static_cast<int32_t>(h) & ~1;
}

bool LayeredCameraViewport(const ZynNativeWeathermanSettings& settings, uint32_t cw, uint32_t ch,
                           uint32_t pw, uint32_t ph, Viewport& camera) {
    if (settings.mode != PresenterOverlay && settings.mode != PresenterUnderlay) {
        return false;
    }
    if (cw == 0 || ch == 0 || pw == 0 || ph == 0) {
        return false;
    }
    const bool overlay = settings.mode == PresenterOverlay;
    const float scale = PresenterScale(settings, 0, cw);
    const float fx = overlay ? settings.overlayOffsetX : settings.underlayOffsetX;
    const float fy = overlay ? settings.overlayOffsetY : settings.underlayOffsetY;
    const int32_t w = PresenterWidth(cw, scale);
    const int32_t h = PresenterHeight(w, cw, ch);
    const int64_t dx = (static_cast<int64_t>(pw) - w) / 2;
    const int64_t dy = (static_cast<int64_t>(ph) - h) / 2;
    camera = Viewport{};
    camera.x = static_cast<float>(static_cast<int64_t>(static_cast<float>(dx) + pw * fx));
    camera.y = static_cast<float>(static_cast<int64_t>(static_cast<float>(dy) + ph * fy));
    camera.width = static_cast<float>(w);
    camera.height = static_cast<float>(h);
    return true;
}

bool RoomViewports(const ZynNativeWeathermanSettings& settings, uint32_t backgroundWidth,
                   uint32_t cw, uint32_t ch, uint32_t pw, uint32_t ph, uint32_t ow, uint32_t oh,
                   Viewport& camera, Viewport& presentation) {
    presentation = Viewport{0, 0, 0, 0, 0, 0};
    const bool newsroom = settings.mode == PresenterNewsroom;
    const bool conference = settings.mode == PresenterConferenceroom;
    if ((!newsroom && !conference) || cw == 0 || ch == 0 || pw == 0 || ph == 0 || ow == 0 ||
        oh == 0) {
        return false;
    }
    const int64_t OW = ow, OH = oh, PW = pw, PH = ph;
    const float scale = PresenterScale(settings, backgroundWidth, cw);
    const int32_t w = PresenterWidth(cw, scale);
    const int32_t he = PresenterHeight(w, cw, ch);
    const bool presenterRight = newsroom && settings.newsroomPosition == 1;

    camera = Viewport{};
    if (conference) {
        camera.x = 100.0f;
        camera.y = static_cast<float>(OH - he - 33);
    } else {
        camera.x = presenterRight ? static_cast<float>(OW - w) : 0.0f;
        camera.y = static_cast<float>(OH - he);
    }
    camera.width = static_cast<float>(w);
    camera.height = static_cast<float>(he);

    const float f =
        conference ? 0.75f : std::min(0.2f * settings.newsroomPresentationSize + 0.7f, 0.9f);
    int64_t rw = static_cast<int64_t>(static_cast<float>(ow) * f);
    int64_t rh = static_cast<int64_t>(static_cast<float>(oh) * f);
    if (rw <= 0 || rh <= 0) {
        return false;
    }
    // The margins of 2 and 8 pixels differ on purpose.
    int64_t x = presenterRight ? 2 : OW - rw - 8;
    int64_t y = 10;
    if ((PW * 100) / PH < (rw * 100) / rh) {
        const int64_t fitted = (PW * rh) / PH;  // too wide: narrow it
        if (conference) {
            x += (rw - fitted) / 2;
        } else if (!presenterRight) {
            x = OW - fitted - 2;
        }
        rw = fitted;
    } else {
        const int64_t fitted = (rw * PH) / PW;  // too high: lower it
        if (conference) {
            y = (rh - fitted) / 2 + 10;
        }
        rh = fitted;
    }
    presentation = Viewport{static_cast<float>(x),
                            static_cast<float>(y),
                            static_cast<float>(rw),
                            static_cast<float>(rh),
                            0.0f,
                            1.0f};
    return true;
}

}  // namespace VBG
