#include "engine/virtual_background.h"

#include <sys/utsname.h>

#include <cstdio>
#include <string>

#include "util/log.h"
#include "util/zyn_utils.h"

namespace VBG {

VirtualBackground* VirtualBackground::createZynNative(const VBGSettings& settings, uint32_t& error,
                                                      uint32_t /*width*/, uint32_t /*height*/) {
    // No engine implementation is linked yet: every processing type fails to initialise.
    ZLOG_ERROR("VBG::VirtualBackground::createZynNative", "No engine for processing type {}",
               settings.pt);
    error = ZYN_STATUS_CONFIG_FAILED;
    return nullptr;
}

VirtualBackground* VirtualBackground::createAutoZynNative(const VBGSettings& settings,
                                                          uint32_t& error, uint32_t width,
                                                          uint32_t height) {
    return createZynNative(settings, error, width, height);
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
