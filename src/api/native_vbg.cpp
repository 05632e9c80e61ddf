// The twenty exported functions. Nothing is thrown across this boundary: every exception is
// caught here, written to the log and answered with the nearest status.
#include <atomic>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>

#include "config/config_parser.h"
#include "config/vbg_settings.h"
#include "diag/spdlog_init.h"
#include "engine/virtual_background.h"
#include "gpu/d3d12_utils.h"
#include "ml/vbg_ml_processing.h"
#include "selection/processing_type_evaluator.h"
#include "util/bounded_json.h"
#include "util/log.h"
#include "util/zyn_utils.h"
#include "zyn_native_vbg.h"

using VBG::VirtualBackground;
namespace Utils = VBG::Utils;

namespace {

// Serialises every call of the older interface except the version and support queries.
std::mutex apiMutex;

// The picture-decoding subsystem needs no start-up here; the token only records that the newer
// interface has started it (non-zero while started).
std::atomic<uintptr_t> pictureSubsystemToken{0};

constexpr uint32_t kInitialWidth = 640;
constexpr uint32_t kInitialHeight = 360;

const char kSupportedEffects[] =
    R"({"effects": ["blur","background","touchUp", "weatherman", "feedback"]})";

VirtualBackground* engineOf(ZynNativeHandle* handle) {
    return handle == nullptr ? nullptr : static_cast<VirtualBackground*>(*handle);
}

void logException(const char* function, const char* what) {
    ZLOG_ERROR(function, "{}", what);
}

// Runs `body`, turning any exception into a log record and `failure`.
template <typename Result, typename Body>
Result guarded(const char* function, Result failure, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::exception& e) {
        try {
            logException(function, e.what());
        } catch (...) {
        }
    } catch (...) {
        try {
            logException(function, "unknown exception");
        } catch (...) {
        }
    }
    return failure;
}

template <typename Body>
void guardedVoid(const char* function, Body&& body) noexcept {
    guarded<int>(function, 0, [&] {
        body();
        return 0;
    });
}

std::string productVersionText() {
    std::string name, version;
    ZynNativeVersion record{};
    try {
        if (Utils::GetProductAndVersion(name, version, record)) {
            return version;
        }
    } catch (const std::exception&) {
    }
    return {};
}

bool readVersion(ZynNativeVersion& out) {
    std::string name, version;
    try {
        return Utils::GetProductAndVersion(name, version, out);
    } catch (const std::exception& e) {
        logException("ZynNativeVbgGetVersion", e.what());
        return false;
    }
}

// Shared creation routine of both creates.
uint32_t createInstanceImpl(const ZynNativeConfig& config, ZynNativeHandle* handle) {
    VBGSettings settings = VBG::DefaultVBGSettings();
    if (!VBG::D3D12Utils::ConvertToVBGSettings(config, settings)) {
        return ZYN_STATUS_CONFIG_FAILED;
    }
    const std::string version = productVersionText();
    uint32_t error = 0;
    VirtualBackground* engine =
        VirtualBackground::createZynNative(settings, error, kInitialWidth, kInitialHeight);
    if (engine != nullptr) {
        *handle = engine;
        ZLOG_INFO("ZynNativeVbgCreateInstanceImpl",
                  "ZYNNativeVbg created successfully, process id: {0}, thread id: {1}, object: "
                  "0x{2:X}, version: {3}",
                  Utils::ProcessId(), Utils::ThreadId(), VBG::addr(engine), version);
        return ZYN_STATUS_SUCCESS;
    }
    ZLOG_INFO("ZynNativeVbgCreateInstanceImpl",
              "ZYNNativeVbg create failed, process id: {0}, thread id: {1}, error code: {2}, "
              "version: {3}",
              Utils::ProcessId(), Utils::ThreadId(), error, version);
    *handle = nullptr;
    // Stays 0 when the automatic path failed before any attempt: hosts test the handle too.
    return error;
}

// Update routine of the older interface (also the effects branch of the newer update).
uint32_t updateInstanceImpl(ZynNativeHandle* handle, const ZynNativeConfig& config) {
    VBGSettings settings = VBG::DefaultVBGSettings();
    if (!VBG::D3D12Utils::ConvertToVBGSettings(config, settings)) {
        ZLOG_ERROR("ZynNativeVbgUpdateInstanceImpl", "ConvertToVBGSettings failed");
        return ZYN_STATUS_CONFIG_FAILED;
    }
    VirtualBackground* engine = engineOf(handle);
    if (engine == nullptr) {
        ZLOG_ERROR("ZynNativeVbgUpdateInstanceImpl", "update called without an instance");
        return ZYN_STATUS_CONFIG_FAILED;
    }
    if (!engine->update(settings)) {
        ZLOG_ERROR("ZynNativeVbgUpdateInstanceImpl", "update failed");
        return ZYN_STATUS_UPDATE_REJECTED;
    }
    return ZYN_STATUS_SUCCESS;
}

void destroyInstance(ZynNativeHandle* handle) {
    VirtualBackground* engine = engineOf(handle);
    ZLOG_INFO("ZynNativeVideoProcessingDestroyInstance",
              "DestroyInstance, process id: {0}, thread id: {1}, object: 0x{2:X}",
              Utils::ProcessId(), Utils::ThreadId(), VBG::addr(engine));
    if (engine != nullptr) {
        engine->shutdown();
        delete engine;
    }
    if (handle != nullptr) {
        *handle = nullptr;
    }
    ZLOG_INFO("ZynNativeVideoProcessingDestroyInstance",
              "DestroyInstance done, process id: {0}, thread id: {1}", Utils::ProcessId(),
              Utils::ThreadId());
}

void destroySharedObjects() {
    // The inference backend shared by every engine; the renderer has no process-wide objects on
    // this platform.
    VBG::DestroyVBGMLProcessingInstance();
}

uint32_t processFrame(const char* function, ZynNativeHandle* handle, const ZynNativeInputFrame* in,
                      ZynNativeInputFrame* out) {
    VirtualBackground* engine = engineOf(handle);
    if (engine == nullptr || in == nullptr || out == nullptr) {
        ZLOG_ERROR(function, "processVideoFrame called without an instance or a frame record");
        return ZYN_STATUS_FRAME_FAILED;
    }
    return engine->processVideoFrame(in, out) ? ZYN_STATUS_SUCCESS : ZYN_STATUS_FRAME_FAILED;
}

}  // namespace

ZYN_API bool ZynNativeVideoProcessingInit(const char* configPath) {
    constexpr const char* fn = "ZynNativeVideoProcessingInit";
    try {
        ZLOG_INFO(fn, "ZynNativeVideoProcessingInit called with {} on thread {}",
                  configPath != nullptr ? configPath : "(null)", Utils::ThreadId());
        if (!VBG::ConfigParser::SetConfig(configPath)) {
            Utils::DebugOutput("ConfigParser::InitConfig failed!");
            return false;
        }
        logger::InitLogger(VBG::ConfigParser::LogPath());
        VBG::ProcessingTypeEvaluator::StartEvaluation();
        return true;
    } catch (const std::exception& e) {
        // The logger may not exist yet: the debugger output always gets the text.
        Utils::DebugOutput(e.what());
        try {
            logException(fn, e.what());
        } catch (...) {
        }
    } catch (...) {
        Utils::DebugOutput("ZynNativeVideoProcessingInit: unknown exception");
    }
    return false;
}

ZYN_API ZynNativeVersion ZynNativeVbgGetVersion(void) {
    return guarded<ZynNativeVersion>("ZynNativeVbgGetVersion", ZynNativeVersion{}, [] {
        ZynNativeVersion version{};
        if (!readVersion(version)) {
            version = ZynNativeVersion{};
        }
        return version;
    });
}

ZYN_API bool ZynNativeVideoProcessingGetVersion(ZynNativeVersion* out) {
    return guarded<bool>("ZynNativeVideoProcessingGetVersion", false, [&] {
        if (out == nullptr) {
            return false;
        }
        ZynNativeVersion version{};
        if (!readVersion(version)) {
            return false;
        }
        *out = version;
        return true;
    });
}

ZYN_API bool ZynNativeVbgIsSupported(void) {
    return guarded<bool>("ZynNativeVbgIsSupported", false,
                         [] { return VirtualBackground::ZynNativeVbgIsSupported(); });
}

ZYN_API const char* ZynNativeVideoProcessingGetSupportedEffects(void) {
    return guarded<const char*>("ZynNativeVideoProcessingGetSupportedEffects", "", [] {
        if (!VirtualBackground::ZynNativeVbgIsSupported()) {
            return "";
        }
        // Asked for its log records only; effects do not depend on a GPU.
        (void)VBG::D3D12Utils::IsGpuAvailable();
        return kSupportedEffects;
    });
}

ZYN_API uint32_t ZynNativeVbgCreateInstance(const ZynNativeConfig* config,
                                            ZynNativeHandle* handle) {
    constexpr const char* fn = "ZynNativeVbgCreateInstance";
    return guarded<uint32_t>(fn, ZYN_STATUS_CONFIG_FAILED, [&]() -> uint32_t {
        if (config == nullptr || handle == nullptr) {
            ZLOG_ERROR(fn, "create called without a configuration or a handle");
            return ZYN_STATUS_CONFIG_FAILED;
        }
        std::lock_guard<std::mutex> lock(apiMutex);
        return createInstanceImpl(*config, handle);
    });
}

ZYN_API uint32_t ZynNativeVideoProcessingCreateInstance(const char* jsonConfig,
                                                        ZynNativeHandle* handle) {
    constexpr const char* fn = "ZynNativeVideoProcessingCreateInstance";
    return guarded<uint32_t>(fn, ZYN_STATUS_CONFIG_FAILED, [&]() -> uint32_t {
        if (handle == nullptr) {
            ZLOG_ERROR(fn, "create called without a handle");
            return ZYN_STATUS_CONFIG_FAILED;
        }
        if (pictureSubsystemToken.load() == 0) {
            pictureSubsystemToken.store(1);
            ZLOG_INFO(fn, "GdiPlusToken: {}", pictureSubsystemToken.load());
        }
        ZynNativeConfig config = VBG::DefaultZynNativeConfig();
        ZynNativeWeathermanSettings weatherman = VBG::DefaultWeathermanSettings();
        VBG::ZynFeedbackSettings feedback;
        const VBG::ConfigSections found =
            VBG::ConfigParser::ConvertToZynNativeConfig(jsonConfig, config, weatherman, feedback);
        if (!found.feedback && !found.weatherman && !found.effects) {
            ZLOG_ERROR(fn, "ConvertToZynNativeConfig failed");
            return ZYN_STATUS_CONFIG_FAILED;
        }
        if (!found.effects && !found.weatherman) {
            ZLOG_ERROR(fn, "Feedback constraint passed in create instance");
            return ZYN_STATUS_FEEDBACK_ONLY;
        }
        uint32_t status = createInstanceImpl(config, handle);
        if (status == ZYN_STATUS_NOT_SUPPORTED && config.processingMode == 1) {
            ZLOG_INFO(fn, "GPU not supported, switching to CPU");
            config.processingMode = 2;
            status = createInstanceImpl(config, handle);
        }
        if (status == ZYN_STATUS_SUCCESS && found.weatherman) {
            if (!engineOf(handle)->updateWeatherman(weatherman)) {
                ZLOG_ERROR("ZynNativeWeathermanUpdateInstance", "Weatherman update failed");
                status = ZYN_STATUS_UPDATE_REJECTED;
            }
        }
        ZLOG_INFO(fn, "ZYNNativeVideoProcessing created with status {}", status);
        return status;
    });
}

ZYN_API uint32_t ZynNativeVbgUpdateInstance(ZynNativeHandle* handle,
                                            const ZynNativeConfig* config) {
    constexpr const char* fn = "ZynNativeVbgUpdateInstance";
    return guarded<uint32_t>(fn, ZYN_STATUS_CONFIG_FAILED, [&]() -> uint32_t {
        if (config == nullptr) {
            ZLOG_ERROR(fn, "update called without a configuration");
            return ZYN_STATUS_CONFIG_FAILED;
        }
        std::lock_guard<std::mutex> lock(apiMutex);
        return updateInstanceImpl(handle, *config);
    });
}

ZYN_API uint32_t ZynNativeVideoProcessingUpdateInstance(ZynNativeHandle* handle,
                                                        const char* jsonConfig) {
    constexpr const char* fn = "ZynNativeVideoProcessingUpdateInstance";
    uint32_t status = guarded<uint32_t>(fn, ZYN_STATUS_CONFIG_FAILED, [&]() -> uint32_t {
        ZynNativeConfig config = VBG::DefaultZynNativeConfig();
        ZynNativeWeathermanSettings weatherman = VBG::DefaultWeathermanSettings();
        VBG::ZynFeedbackSettings feedback;
        const VBG::ConfigSections found =
            VBG::ConfigParser::ConvertToZynNativeConfig(jsonConfig, config, weatherman, feedback);
        VirtualBackground* engine = engineOf(handle);
        // Exactly one branch runs: presenter settings take precedence over effects, effects over
        // feedback.
        if (found.weatherman) {
            if (engine == nullptr) {
                ZLOG_ERROR(fn, "update called without an instance");
                return ZYN_STATUS_CONFIG_FAILED;
            }
            if (!engine->updateWeatherman(weatherman)) {
                ZLOG_ERROR("ZynNativeWeathermanUpdateInstance", "Weatherman update failed");
                return ZYN_STATUS_UPDATE_REJECTED;
            }
            return ZYN_STATUS_SUCCESS;
        }
        if (found.effects) {
            return updateInstanceImpl(handle, config);
        }
        if (found.feedback) {
            if (engine == nullptr) {
                return ZYN_STATUS_FRAME_FAILED;
            }
            return engine->updateFeedback(feedback) ? ZYN_STATUS_SUCCESS : ZYN_STATUS_FRAME_FAILED;
        }
        return ZYN_STATUS_CONFIG_FAILED;
    });
    // A failed update always costs the host its instance.
    if (status != ZYN_STATUS_SUCCESS) {
        guardedVoid(fn, [&] { destroyInstance(handle); });
    }
    guardedVoid(fn, [&] {
        // The conversion has already logged the configuration itself (once, escaped and cut
        // short); this record names only its length.
        const std::string config =
            jsonConfig == nullptr
                ? std::string("(null)")
                : "(" + std::to_string(strnlen(jsonConfig, VBG::Json::kMaxBytes + 1)) + " bytes)";
        ZLOG_INFO(fn, "ZYNNativeVideoProcessing updated with config {} on thread {} with result {}",
                  config, Utils::ThreadId(), status);
    });
    return status;
}

ZYN_API uint32_t ZynNativeVbgProcessFrame(ZynNativeHandle* handle, const ZynNativeInputFrame* in,
                                          ZynNativeInputFrame* out) {
    constexpr const char* fn = "ZynNativeVbgProcessFrame";
    return guarded<uint32_t>(fn, ZYN_STATUS_FRAME_FAILED, [&] {
        std::lock_guard<std::mutex> lock(apiMutex);
        return processFrame(fn, handle, in, out);
    });
}

ZYN_API uint32_t ZynNativeVideoProcessingProcessFrame(ZynNativeHandle* handle,
                                                      const ZynNativeInputFrame* in,
                                                      ZynNativeInputFrame* out) {
    constexpr const char* fn = "ZynNativeVideoProcessingProcessFrame";
    return guarded<uint32_t>(fn, ZYN_STATUS_FRAME_FAILED,
                             [&] { return processFrame(fn, handle, in, out); });
}

ZYN_API uint32_t ZynNativeVideoProcessingProcessPresentationFrame(ZynNativeHandle* handle,
                                                                  const ZynNativeInputFrame* frames,
                                                                  ZynNativeInputFrame* out) {
    constexpr const char* fn = "ZynNativeVideoProcessingProcessPresentationFrame";
    return guarded<uint32_t>(fn, ZYN_STATUS_FRAME_FAILED, [&]() -> uint32_t {
        VirtualBackground* engine = engineOf(handle);
        if (engine == nullptr || frames == nullptr || out == nullptr) {
            ZLOG_ERROR(fn, "processPresentationFrame called without an instance or a frame record");
            return ZYN_STATUS_FRAME_FAILED;
        }
        return engine->processPresentationFrame(frames, out) ? ZYN_STATUS_SUCCESS
                                                             : ZYN_STATUS_FRAME_FAILED;
    });
}

ZYN_API bool ZynNativeVideoProcessingGetOutputFrameSize(ZynNativeHandle* handle, uint32_t* width,
                                                        uint32_t* height) {
    return guarded<bool>("ZynNativeVideoProcessingGetOutputFrameSize", false, [&] {
        VirtualBackground* engine = engineOf(handle);
        return engine != nullptr && engine->getOutputFrameSize(width, height);
    });
}

ZYN_API const char* ZynNativeVideoProcessingGetFrameProcessingStats(ZynNativeHandle* handle,
                                                                    uint32_t* frameWidth,
                                                                    uint32_t* frameHeight,
                                                                    uint32_t* processingType) {
    return guarded<const char*>("ZynNativeVideoProcessingGetFrameProcessingStats", "", [&] {
        VirtualBackground* engine = engineOf(handle);
        if (engine == nullptr) {
            return "";
        }
        return engine->getFrameProcessingStats(frameWidth, frameHeight, processingType);
    });
}

ZYN_API void ZynNativeVbgDestroyInstance(ZynNativeHandle* handle) {
    constexpr const char* fn = "ZynNativeVbgDestroyInstance";
    guardedVoid(fn, [&] {
        std::lock_guard<std::mutex> lock(apiMutex);
        VirtualBackground* engine = engineOf(handle);
        // The message's words predate the deletion below; both are kept as they are.
        ZLOG_INFO(fn,
                  "ZYNNativeVbg destroyed was called, but object not deleted, process id: {0}, "
                  "thread id: {1}, object: 0x{2:X}",
                  Utils::ProcessId(), Utils::ThreadId(), VBG::addr(engine));
        if (engine != nullptr) {
            engine->shutdown();
            delete engine;
        }
        if (handle != nullptr) {
            *handle = nullptr;
        }
    });
}

ZYN_API void ZynNativeVideoProcessingDestroyInstance(ZynNativeHandle* handle) {
    guardedVoid("ZynNativeVideoProcessingDestroyInstance", [&] { destroyInstance(handle); });
}

ZYN_API void ZynNativeVbgShutdownInstance(void) {
    constexpr const char* fn = "ZynNativeVbgShutdownInstance";
    guardedVoid(fn, [&] {
        std::lock_guard<std::mutex> lock(apiMutex);
        ZLOG_INFO(fn, "ZynNativeVbgShutdownInstance begin");
        destroySharedObjects();
        ZLOG_INFO(fn, "ZynNativeVbgShutdownInstance end, process id: {0}, thread id: {1}",
                  Utils::ProcessId(), Utils::ThreadId());
    });
}

ZYN_API void ZynNativeVideoProcessingShutdownInstance(void) {
    constexpr const char* fn = "ZynNativeVideoProcessingShutdownInstance";
    guardedVoid(fn, [&] {
        ZLOG_INFO(fn, "ShutdownInstance begin");
        destroySharedObjects();
        if (pictureSubsystemToken.load() != 0) {
            pictureSubsystemToken.store(0);
        }
        ZLOG_INFO(fn, "ShutdownInstance end, process id: {0}, thread id: {1}", Utils::ProcessId(),
                  Utils::ThreadId());
    });
}

ZYN_API void* ZynNativeInternalCreate(const VBGSettings* settings) {
    constexpr const char* fn = "ZynNativeInternalCreate";
    return guarded<void*>(fn, nullptr, [&]() -> void* {
        if (settings == nullptr) {
            return nullptr;
        }
        uint32_t error = 0;
        VirtualBackground* engine =
            VirtualBackground::createZynNative(*settings, error, kInitialWidth, kInitialHeight);
        if (engine == nullptr) {
            return nullptr;
        }
        ZLOG_INFO(fn,
                  "ZynNativeInternalCreate created successfully, process id: {0}, object: "
                  "0x{1:X}, version: {2}",
                  Utils::ProcessId(), VBG::addr(engine), productVersionText());
        return engine;
    });
}

ZYN_API void ZynNativeInternalDestroy(void* object) {
    guardedVoid("ZynNativeInternalDestroy",
                [&] { delete static_cast<VirtualBackground*>(object); });
}
