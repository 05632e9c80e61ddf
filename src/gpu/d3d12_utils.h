// Graphics adapter selection and GPU availability. This platform has no Direct3D 12: no adapter is
// ever found, so every GPU path reports that no GPU is present and the CPU path is used.
#pragma once

#include <cstdint>
#include <string>

namespace VBG::D3D12Utils {

// Opaque adapter; none exists on this platform.
struct Adapter;

// Returns the first usable hardware adapter, or null (with its log record).
Adapter* GetHardwareAdapter();

// True when a usable GPU exists; logs why not otherwise.
bool IsGpuAvailable();

// Debug name of a renderer resource key; "None" for keys without a name.
std::string ResourceName(uint32_t key);

// Name of a background type: "None", "Blur", "Image", "Video", else "Unknown".
std::string BackgroundTypeName(uint32_t bt);

}  // namespace VBG::D3D12Utils
