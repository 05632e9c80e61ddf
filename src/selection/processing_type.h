// Processing types: which inference engine runs the segmentation model, on which device, and
// whether the frame work around it ("PP") runs on the CPU or the GPU. The number is what
// VBGSettings carries in `pt` and what the stored selection names.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace VBG {

enum ProcessingType : uint32_t {
    PtCPU = 0,                  // CPU inference (ONNX Runtime here), CPU frame pipeline
    PtGPU = 1,                  // GPU inference, GPU frame pipeline
    PtOnnxRuntimeCpu = 2,       // ONNX Runtime on the CPU, CPU frame pipeline
    PtOpenVinoCpu = 3,          // OpenVINO CPU device, CPU frame pipeline
    PtOpenVinoCpuPPGPU = 4,     // OpenVINO CPU device, GPU frame pipeline
    PtOpenVinoGpuPPCPU = 5,     // OpenVINO GPU device, CPU frame pipeline
    PtOpenVinoGpuPPGPU = 6,     // OpenVINO GPU device, GPU frame pipeline
    PtReserved = 7,             // deliberately unused: no name, no backend, refused by the engines
    PtOnnxRuntimeDMLPPGPU = 8,  // ONNX Runtime with DirectML, GPU frame pipeline
    PtAuto = 9,                 // chosen at run time
};

// The name of a type; "Unknown" for 7 and for every value above 9.
std::string ProcessingTypeName(uint32_t type);

// Exact, case-sensitive lookup of a name; a name that matches none (including "Unknown" and "")
// gives PtAuto.
ProcessingType ProcessingTypeFromName(const std::string& name);

// The order in which automatic selection tries the types: 6, 8, 4, 3, 2. Types 0, 1 and 5 are never
// chosen automatically.
using AutomaticOrder = std::array<ProcessingType, 5>;
const AutomaticOrder& AutomaticSelectionOrder();

}  // namespace VBG
