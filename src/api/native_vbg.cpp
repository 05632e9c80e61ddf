// The twenty exported functions. Nothing is thrown across this boundary: every exception is
// caught here, written to the log and answered with the nearest status.
#include <atomic>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "api/instance_registry.h"
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

using VBG::InstanceRegistry;
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

// The host's handle variable is read on the frame thread while a control thread may write it (a
// rejected update writes null there): both sides use atomic accesses.
void* loadHandle(ZynNativeHandle* handle) {
    return handle == nullptr ? nullptr : __atomic_load_n(handle, __ATOMIC_ACQUIRE);
}

void storeHandle(ZynNativeHandle* handle, void* value) {
    if (handle != nullptr) {
        __atomic_store_n(handle, value, __ATOMIC_RELEASE);
    }
}

// The engine behind the handle, pinned for the length of the call.
InstanceRegistry::Pin pinOf(ZynNativeHandle* handle) {
    return InstanceRegistry::Acquire(loadHandle(handle));
}

// An engine made by a create and not yet handed to the host: freed as the destroys free it.
struct EngineDeleter {
    void operator()(VirtualBackground* engine) const noexcept {
        try {
            engine->shutdown();
        } catch (...) {
        }
        delete engine;
    }
};
using EnginePtr = std::unique_ptr<VirtualBackground, EngineDeleter>;

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

// Shared creation routine of both creates. Once the configuration is converted the handle holds
// null until publish() writes the new instance, so that a create that fails or throws from here on
// leaves it null; `engine` owns what was made until then.
uint32_t createInstanceImpl(const ZynNativeConfig& config, ZynNativeHandle* handle,
                            EnginePtr& engine) {
    VBGSettings settings = VBG::DefaultVBGSettings();
    if (!VBG::D3D12Utils::ConvertToVBGSettings(config, settings)) {
        return ZYN_STATUS_CONFIG_FAILED;
    }
    storeHandle(handle, nullptr);
    engine.reset();
    const std::string version = productVersionText();
    uint32_t error = 0;
    engine.reset(
        VirtualBackground::createZynNative(settings, error, kInitialWidth, kInitialHeight));
    if (engine) {
        ZLOG_INFO("ZynNativeVbgCreateInstanceImpl",
                  "ZYNNativeVbg created successfully, process id: {0}, thread id: {1}, object: "
                  "0x{2:X}, version: {3}",
                  Utils::ProcessId(), Utils::ThreadId(), VBG::addr(engine.get()), version);
        return ZYN_STATUS_SUCCESS;
    }
    ZLOG_INFO("ZynNativeVbgCreateInstanceImpl",
              "ZYNNativeVbg create failed, process id: {0}, thread id: {1}, error code: {2}, "
              "version: {3}",
              Utils::ProcessId(), Utils::ThreadId(), error, version);
    // Stays 0 when the automatic path failed before any attempt: hosts test the handle too.
    return error;
}

// Makes a created engine live and writes its handle value; 3 when no more instances fit.
uint32_t publish(const char* function, EnginePtr& engine, ZynNativeHandle* handle,
                 uint32_t status) {
    if (!engine) {
        return status;
    }
    void* value = InstanceRegistry::Register(engine.get());
    if (value == nullptr) {
        ZLOG_ERROR(function, "No more than {} instances can be live at once",
                   InstanceRegistry::kCapacity);
        engine.reset();
        return ZYN_STATUS_CONFIG_FAILED;
    }
    engine.release();
    storeHandle(handle, value);
    return status;
}

// Update routine of the older interface (also the effects branch of the newer update).
uint32_t updateInstanceImpl(const InstanceRegistry::Pin& engine, const ZynNativeConfig& config) {
    VBGSettings settings = VBG::DefaultVBGSettings();
    if (!VBG::D3D12Utils::ConvertToVBGSettings(config, settings)) {
        ZLOG_ERROR("ZynNativeVbgUpdateInstanceImpl", "ConvertToVBGSettings failed");
        return ZYN_STATUS_CONFIG_FAILED;
    }
    if (!engine) {
        ZLOG_ERROR("ZynNativeVbgUpdateInstanceImpl", "update called without a live instance");
        return ZYN_STATUS_CONFIG_FAILED;
    }
    if (!engine->update(settings)) {
        ZLOG_ERROR("ZynNativeVbgUpdateInstanceImpl", "update failed");
        return ZYN_STATUS_UPDATE_REJECTED;
    }
    return ZYN_STATUS_SUCCESS;
}

// Ends the instance behind the handle once the calls in flight with it have returned, and writes
// null to the handle. A handle whose instance is already gone only gets the null.
void retireInstance(ZynNativeHandle* handle) {
    EnginePtr engine(InstanceRegistry::Retire(loadHandle(handle)));
    engine.reset();
    storeHandle(handle, nullptr);
}

void destroyInstance(ZynNativeHandle* handle) {
    ZLOG_INFO("ZynNativeVideoProcessingDestroyInstance",
              "DestroyInstance, process id: {0}, thread id: {1}, object: 0x{2:X}",
              Utils::ProcessId(), Utils::ThreadId(),
              VBG::addr(InstanceRegistry::Peek(loadHandle(handle))));
    retireInstance(handle);
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
    const InstanceRegistry::Pin engine = pinOf(handle);
    if (!engine || in == nullptr || out == nullptr) {
        ZLOG_ERROR(function, "processVideoFrame called without a live instance or a frame record");
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
        EnginePtr engine;
        const uint32_t status = createInstanceImpl(*config, handle, engine);
        return publish(fn, engine, handle, status);
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
        EnginePtr engine;
        uint32_t status = createInstanceImpl(config, handle, engine);
        if (status == ZYN_STATUS_NOT_SUPPORTED && config.processingMode == 1) {
            ZLOG_INFO(fn, "GPU not supported, switching to CPU");
            config.processingMode = 2;
            status = createInstanceImpl(config, handle, engine);
        }
        // The automatic path may give up with status 0 and no engine: nothing to set up then.
        if (status == ZYN_STATUS_SUCCESS && engine && found.weatherman) {
            if (!engine->updateWeatherman(weatherman)) {
                ZLOG_ERROR("ZynNativeWeathermanUpdateInstance", "Weatherman update failed");
                status = ZYN_STATUS_UPDATE_REJECTED;
            }
        }
        // The instance becomes visible to the host only now: if anything above threw, the engine
        // is freed on the way out and the handle stays null.
        status = publish(fn, engine, handle, status);
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
        return updateInstanceImpl(pinOf(handle), *config);
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
        const InstanceRegistry::Pin engine = pinOf(handle);
        // Exactly one branch runs: presenter settings take precedence over effects, effects over
        // feedback.
        if (found.weatherman) {
            if (!engine) {
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
            return updateInstanceImpl(engine, config);
        }
        if (found.feedback) {
            if (!engine) {
                return ZYN_STATUS_FRAME_FAILED;
            }
            return engine->updateFeedback(feedback) ? ZYN_STATUS_SUCCESS : ZYN_STATUS_FRAME_FAILED;
        }
        return ZYN_STATUS_CONFIG_FAILED;
    });
    // A failed update always costs the host its instance (the pin above is released by now; the
    // destroy waits for the frames in flight).
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
        const InstanceRegistry::Pin engine = pinOf(handle);
        if (!engine || frames == nullptr || out == nullptr) {
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
        const InstanceRegistry::Pin engine = pinOf(handle);
        return engine && engine->getOutputFrameSize(width, height);
    });
}

ZYN_API const char* ZynNativeVideoProcessingGetFrameProcessingStats(ZynNativeHandle* handle,
                                                                    uint32_t* frameWidth,
                                                                    uint32_t* frameHeight,
                                                                    uint32_t* processingType) {
    return guarded<const char*>("ZynNativeVideoProcessingGetFrameProcessingStats", "", [&] {
        const InstanceRegistry::Pin engine = pinOf(handle);
        if (!engine) {
            return "";
        }
        return engine->getFrameProcessingStats(frameWidth, frameHeight, processingType);
    });
}

ZYN_API void ZynNativeVbgDestroyInstance(ZynNativeHandle* handle) {
    constexpr const char* fn = "ZynNativeVbgDestroyInstance";
    guardedVoid(fn, [&] {
        std::lock_guard<std::mutex> lock(apiMutex);
        // The message's words predate the deletion below; both are kept as they are.
        ZLOG_INFO(fn,
                  "ZYNNativeVbg destroyed was called, but object not deleted, process id: {0}, "
                  "thread id: {1}, object: 0x{2:X}",
                  Utils::ProcessId(), Utils::ThreadId(),
                  VBG::addr(InstanceRegistry::Peek(loadHandle(handle))));
        retireInstance(handle);
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
        if (InstanceRegistry::Register(engine, true) == nullptr) {
            ZLOG_ERROR(fn, "No more than {} engines of this export can be live at once",
                       InstanceRegistry::kBareCapacity);
            delete engine;
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
    // Only an engine this export made and did not free yet is deleted, once the calls in flight
    // with it have returned; any other value is left alone.
    guardedVoid("ZynNativeInternalDestroy", [&] { delete InstanceRegistry::Retire(object); });
}
