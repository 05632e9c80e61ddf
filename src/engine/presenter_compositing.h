// Pixel work of the presenter ("weatherman") layouts on the CPU: where the presenter lands inside
// the composed frame, and the alpha with which it is drawn in each layout.
//
// Layouts:
// - "overlay": the segmented presenter over the presentation, its mask scaled by
//   "weathermanAlpha" (0 invisible .. 1 opaque).
// - "underlay": the presenter behind the presentation. The underlay mode picks how the
//   presentation covers the presenter:
//     0 keyed: the presentation's own background (its light area on a light presentation, its
//       dark area on a dark one; presenterLayout 1 or 2) lets the presenter through, while text
//       and graphics stay in front of the presenter;
//     1 translucent: the whole presentation is drawn at half opacity over the presenter.
//   Any other value is taken as 0.
// - "newsroom" / "conferenceroom": the room picture, the presentation in its rectangle and the
//   presenter at his place in front of both, at full opacity.
#pragma once

#include <cstddef>
#include <cstdint>

namespace VBG::Presenter {

enum UnderlayVariant : int32_t { UnderlayKeyed = 0, UnderlayTranslucent = 1 };

// A w x h picture placed at (x, y) in an area of areaWidth x areaHeight, after rounding x and y
// down to even (so that chroma samples line up): the visible part, starting at (x, y) in the area
// and at (srcX, srcY) in the picture. False when nothing is visible.
struct Placement {
    int x = 0;
    int y = 0;
    int srcX = 0;
    int srcY = 0;
    int width = 0;
    int height = 0;
};
bool ClipPlacement(int64_t x, int64_t y, int64_t width, int64_t height, int areaWidth,
                   int areaHeight, Placement& out);

// alpha = mask scaled by opacity (clamped to 0..1), rounded.
void ScaleAlpha(const uint8_t* mask, uint8_t* alpha, size_t count, float opacity);

// How much of the presenter shows through a presentation pixel of this luma in the keyed
// underlay, 0..255: layout 1 (light presentation) passes luma from 200 up and blocks below 160;
// layout 2 (dark presentation) passes luma up to 50 and blocks from 90 up; linear in between.
uint8_t SeeThroughWeight(uint8_t luma, uint32_t layout);

// Presenter alpha of the underlay: the mask, limited by the variant's view through the
// presentation (presentationY: the presentation's luma under the presenter, same geometry).
void UnderlayAlpha(const uint8_t* mask, int maskStride, const uint8_t* presentationY,
                   int presentationStride, uint8_t* alpha, int alphaStride, int width, int height,
                   int32_t variant, uint32_t layout);

}  // namespace VBG::Presenter
