// "PT_CONFIG.json" read by ProcessingTypeInitializer and its age check: valid exactly when it names
// a type other than Auto; the time read as std::stoll reads it (or its two errors), elapsed once
// 721 whole hours have passed, without overflow at the ends of the range.
#include <limits>
#include <stdexcept>

#include "fuzz_library.h"
#include "selection/pt_config_init.h"

using zyn_fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zyn_fuzz::WriteText(zyn_fuzz::Scratch() / "PT_CONFIG.json",
                        std::string(reinterpret_cast<const char*>(data), size));
    const VBG::ProcessingTypeDetails details =
        VBG::ProcessingTypeInitializer(zyn_fuzz::Scratch().string())
            .GetSelectedProcessingTypeDetails();
    Require(details.isValid == (details.type != VBG::PtAuto));
    Require(details.type <= VBG::PtAuto && details.type != VBG::PtReserved);
    int64_t stored = 0;
    bool readable = true;
    try {
        stored = std::stoll(details.selectedTime);
    } catch (const std::exception&) {
        readable = false;
    }
    try {
        (void)details.isElapsed();
        Require(readable);
    } catch (const std::invalid_argument& e) {
        Require(!readable && std::string(e.what()) == "invalid stoll argument");
        return 0;
    } catch (const std::out_of_range& e) {
        Require(!readable && std::string(e.what()) == "stoll argument out of range");
        return 0;
    }
    // 720 hours (2,592,000 s) and 720 h 59 min 59 s are fresh, 721 hours elapsed, the future fresh.
    constexpr int64_t kHour = 3600, highest = std::numeric_limits<int64_t>::max();
    if (stored <= highest - 721 * kHour) {
        Require(!details.isElapsed(stored + 2592000) && !details.isElapsed(stored + 2595599) &&
                details.isElapsed(stored + 2595600));
    }
    Require(stored <= std::numeric_limits<int64_t>::min() + 1 || !details.isElapsed(stored - 1));
    // The ends of the range decide by the sign of the true difference.
    Require(stored >= 0 || details.isElapsed(highest));
    Require(stored <= 0 || !details.isElapsed(std::numeric_limits<int64_t>::min()));
    return 0;
}
