// "PT_CONFIG.json", the stored processing-type selection: arbitrary bytes in the file of a scratch
// folder, read by ProcessingTypeInitializer, and the age check of what was read. A selection is
// valid exactly when it names a type other than Auto; its age check reads the stored time as a
// decimal integer (or raises the two documented errors), and a selection is elapsed once 721 whole
// hours have passed, without overflow at the ends of the time range.
#include <spdlog/spdlog.h>
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>

#include "selection/pt_config_init.h"

namespace {

namespace fs = std::filesystem;

const fs::path& Folder() {
    static const fs::path folder = [] {
        std::string pattern = (fs::temp_directory_path() / "zynfuzz_pt.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        std::atexit([] {
            std::error_code ec;
            fs::remove_all(Folder(), ec);
        });
        return fs::path(pattern);
    }();
    return folder;
}

constexpr int64_t kLimitSeconds = 720 * 3600;

// The stored time as std::stoll reads it; false when it raises.
bool StoredSeconds(const std::string& text, int64_t& seconds) {
    try {
        seconds = std::stoll(text);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    spdlog::set_level(spdlog::level::off);
    (void)Folder();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    {
        std::ofstream out(Folder() / "PT_CONFIG.json", std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    const VBG::ProcessingTypeInitializer reader(Folder().string());
    const VBG::ProcessingTypeDetails details = reader.GetSelectedProcessingTypeDetails();
    if (details.isValid != (details.type != VBG::PtAuto)) {
        __builtin_trap();
    }
    if (details.type > VBG::PtAuto || details.type == VBG::PtReserved) {
        __builtin_trap();
    }
    int64_t stored = 0;
    const bool readable = StoredSeconds(details.selectedTime, stored);
    try {
        (void)details.isElapsed();
        if (!readable) {
            __builtin_trap();  // a time std::stoll refuses must raise
        }
    } catch (const std::invalid_argument& e) {
        if (readable || std::string(e.what()) != "invalid stoll argument") {
            __builtin_trap();
        }
        return 0;
    } catch (const std::out_of_range& e) {
        if (readable || std::string(e.what()) != "stoll argument out of range") {
            __builtin_trap();
        }
        return 0;
    }
    // Exactly 720 hours is fresh, one second more is elapsed, the future is fresh.
    if (stored <= std::numeric_limits<int64_t>::max() - kLimitSeconds - 3600) {
        if (details.isElapsed(stored + kLimitSeconds) ||
            details.isElapsed(stored + kLimitSeconds + 3599) ||
            !details.isElapsed(stored + kLimitSeconds + 3600)) {
            __builtin_trap();
        }
    }
    if (stored > std::numeric_limits<int64_t>::min() + 1 && details.isElapsed(stored - 1)) {
        __builtin_trap();
    }
    // The ends of the range decide by the sign of the true difference.
    const int64_t lowest = std::numeric_limits<int64_t>::min();
    const int64_t highest = std::numeric_limits<int64_t>::max();
    if (stored < 0 && !details.isElapsed(highest)) {
        __builtin_trap();
    }
    if (stored > 0 && details.isElapsed(lowest)) {
        __builtin_trap();
    }
    return 0;
}
