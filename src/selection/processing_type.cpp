#include "selection/processing_type.h"

#include <array>
#include <utility>

namespace VBG {
namespace {

// Named types in the order a name is looked up; 7 has no name.
constexpr std::array<std::pair<ProcessingType, const char*>, 9> kNames = {{
    {PtCPU, "CPU"},
    {PtGPU, "GPU"},
    {PtOnnxRuntimeCpu, "OnnxRuntimeCpu"},
    {PtOpenVinoCpu, "OpenVinoCpu"},
    {PtOpenVinoCpuPPGPU, "OpenVinoCpuPPGPU"},
    {PtOpenVinoGpuPPCPU, "OpenVinoGpuPPCPU"},
    {PtOpenVinoGpuPPGPU, "OpenVinoGpuPPGPU"},
    {PtOnnxRuntimeDMLPPGPU, "OnnxRuntimeDMLPPGPU"},
    {PtAuto, "Auto"},
}};

}  // namespace

std::string ProcessingTypeName(uint32_t type) {
    for (const auto& [value, name] : kNames) {
        if (value == type) {
            return name;
        }
    }
    return "Unknown";
}

ProcessingType ProcessingTypeFromName(const std::string& name) {
    for (const auto& [value, text] : kNames) {
        if (name == text) {
            return value;
        }
    }
    return PtAuto;
}

const AutomaticOrder& AutomaticSelectionOrder() {
    // A constant array: nothing is destroyed at process exit, so the evaluation thread may still
    // walk it while the exit hooks run.
    static constexpr AutomaticOrder kOrder = {PtOpenVinoGpuPPGPU, PtOnnxRuntimeDMLPPGPU,
                                              PtOpenVinoCpuPPGPU, PtOpenVinoCpu, PtOnnxRuntimeCpu};
    return kOrder;
}

}  // namespace VBG
