// The effect settings record that the engines consume, built from the native configuration.
#pragma once

#include <string>

#include "zyn_native_vbg.h"

namespace VBG {

// Background types (VBGSettings::bt).
enum BackgroundType : uint32_t { BtNone = 0, BtBlur = 1, BtImage = 2, BtVideo = 3 };

// A record with its defaults: pt 9 (automatic), decoded video frames kept in CPU memory
// (playbackOptions 2), everything else zero.
VBGSettings DefaultVBGSettings();

namespace D3D12Utils {

// Fills `settings` (pre-filled with the defaults by the caller) from `config`; false when the
// processing mode, the background source or the file format cannot be used.
bool ConvertToVBGSettings(const ZynNativeConfig& config, VBGSettings& settings);

// Writes the record to the log in one info record.
void PrintVBGSettings(const VBGSettings& settings);

}  // namespace D3D12Utils
}  // namespace VBG
