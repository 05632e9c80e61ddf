#include "engine/virtual_background.h"

#include <sys/utsname.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>

#include "engine/virtual_background_impl_cpu_yuv.h"
#include "engine/virtual_background_impl_gpu.h"
#include "selection/processing_type.h"
#include "selection/processing_type_evaluator.h"
#include "selection/pt_config_init.h"
#include "util/log.h"
#include "util/zyn_utils.h"

namespace VBG {

namespace {

std::atomic<VirtualBackground::EngineMaker> engineMaker{nullptr};

VirtualBackground* makeEngine(uint32_t pt) {
    if (const VirtualBackground::EngineMaker maker = engineMaker.load()) {
        return maker(pt);
    }
    switch (pt) {
        case PtGPU:
        case PtOpenVinoCpuPPGPU:
        case PtOpenVinoGpuPPGPU:
        case PtOnnxRuntimeDMLPPGPU:
            return new VirtualBackgroundImplGPU(pt);
        default:
            return new VirtualBackgroundImplYuv(pt);
    }
}

}  // namespace

void VirtualBackground::SetEngineMakerForTesting(EngineMaker maker) {
    engineMaker.store(maker);
}

VirtualBackground* VirtualBackground::createZynNative(const VBGSettings& settings, uint32_t& error,
                                                      uint32_t width, uint32_t height) {
    if (settings.pt == PtAuto) {
        VirtualBackground* automatic = createAutoZynNative(settings, error, width, height);
        if (automatic == nullptr) {
            ZLOG_ERROR("VBG::VirtualBackground::createZynNative", "createAutoZynNative failed");
        }
        return automatic;
    }
    // Owned until init has succeeded: an engine whose init fails or throws is freed.
    std::unique_ptr<VirtualBackground> engine(makeEngine(settings.pt));
    const int result = engine->init(settings, width, height);
    if (result == 0) {
        return engine.release();
    }
    error = result == 1 ? ZYN_STATUS_NOT_SUPPORTED : ZYN_STATUS_CONFIG_FAILED;
    return nullptr;
}

VirtualBackground* VirtualBackground::createAutoZynNative(const VBGSettings& settings,
                                                          uint32_t& error, uint32_t width,
                                                          uint32_t height) {
    constexpr const char* fn = "VBG::VirtualBackground::createAutoZynNative";
    // The selection the evaluator program stored in the file cache folder.
    const ProcessingTypeInitializer& selection =
        ProcessingTypeInitializer::GetInstance(ConfigParser::FileCachePath());
    ProcessingTypeDetails details = selection.GetSelectedProcessingTypeDetails();
    if (!details.isValid) {
        // Nothing usable stored yet: the evaluation started at library initialisation may still
        // write it. An evaluation that ends between the check and the wait ends the wait at once.
        if (!ProcessingTypeEvaluator::IsEvaluationRunning()) {
            ZLOG_INFO(fn,
                      "Process Evaluation is not initialised and not running, possibly no "
                      "processing types are supported");
            return nullptr;
        }
        if (!ProcessingTypeEvaluator::WaitForEvaluationToComplete()) {
            ZLOG_INFO(fn, "Evaluation process is taking too much time to complete");
            return nullptr;
        }
        ZLOG_INFO(fn, "Evaluation process is now complete, now proceed to creation of VBG object");
        details = selection.GetSelectedProcessingTypeDetails();
    }

    if (details.type != PtAuto) {
        VBGSettings selected = settings;
        selected.pt = details.type;
        // The stored type is always tried at the initial size, whatever size was asked for.
        VirtualBackground* engine = createZynNative(selected, error, 640, 360);
        if (engine != nullptr) {
            ZLOG_INFO(fn, "Selected processing type: {}", ProcessingTypeName(details.type));
            return engine;
        }
        ZLOG_WARN(fn, "Selected processing type: {} failed for some reason, fallback to auto logic",
                  ProcessingTypeName(details.type));
    } else {
        ZLOG_INFO(fn, "Selected processing type is auto, fallback to auto logic");
    }

    if (settings.pt != PtAuto) {
        ZLOG_INFO(fn, "Processing type is not auto!");
        return nullptr;
    }
    for (const ProcessingType type : AutomaticSelectionOrder()) {
        VBGSettings candidate = settings;
        candidate.pt = type;
        VirtualBackground* engine = createZynNative(candidate, error, width, height);
        if (engine != nullptr) {
            ZLOG_INFO(fn, "Selected processing type: {}", ProcessingTypeName(type));
            return engine;
        }
    }
    ZLOG_INFO(fn, "All processing types exhausted, requires investigation!");
    return nullptr;
}

bool VirtualBackground::ZynNativeVbgIsSupported() {
    // The CPU path needs nothing beyond the x86-64 baseline the library is built for; the kernel
    // release is logged for diagnosis.
    utsname name{};
    if (uname(&name) != 0) {
        Utils::DebugOutput("Failed to initialize RtlGetVersion");
        return false;
    }
    unsigned major = 0, minor = 0, build = 0;
    std::sscanf(name.release, "%u.%u.%u", &major, &minor, &build);
    Utils::DebugOutput(std::string("Version is: ") + name.release);
    ZLOG_INFO("VBG::VirtualBackground::ZynNativeVbgIsSupported", "OS info: {}.{}.{}", major, minor,
              build);
    return true;
}

}  // namespace VBG
