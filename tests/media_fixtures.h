// Test media made on the spot with the ffmpeg command-line tool, and small helpers shared by the
// background source suites.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "config/vbg_settings.h"
#include "util/text.h"
#include "zyn_native_vbg.h"

namespace zyn_test {

// Runs the ffmpeg tool with `arguments`; true when it succeeded.
inline bool RunFfmpeg(const std::string& arguments) {
    const std::string command =
        "ffmpeg -hide_banner -loglevel error -nostdin -y " + arguments + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

// Sets the delays (hundredths of a second) stored in the Graphic Control Extensions of a GIF,
// one per frame in order, by walking the file's block structure. Returns how many were set.
inline size_t SetGifDelays(std::string& gif, const std::vector<uint16_t>& delays) {
    auto byte = [&gif](size_t at) { return static_cast<uint8_t>(gif[at]); };
    size_t at = 13;
    if (gif.size() < at || gif.compare(0, 4, "GIF8") != 0) {
        return 0;
    }
    if (byte(10) & 0x80) {
        at += size_t{3} << ((byte(10) & 0x07) + 1);
    }
    auto skipSubBlocks = [&] {
        while (at < gif.size() && byte(at) != 0) {
            at += byte(at) + 1;
        }
        ++at;
    };
    size_t set = 0;
    while (at < gif.size() && byte(at) != 0x3B) {
        if (byte(at) == 0x21) {
            if (byte(at + 1) == 0xF9 && set < delays.size()) {
                gif[at + 4] = static_cast<char>(delays[set] & 0xFF);
                gif[at + 5] = static_cast<char>(delays[set] >> 8);
                ++set;
            }
            at += 2;
            skipSubBlocks();
        } else if (byte(at) == 0x2C) {
            const uint8_t packed = byte(at + 9);
            at += 10;
            if (packed & 0x80) {
                at += size_t{3} << ((packed & 0x07) + 1);
            }
            ++at;  // LZW minimum code size
            skipSubBlocks();
        } else {
            return 0;  // not a block this walker knows
        }
    }
    return set;
}

inline VBGSettings PictureSettings(uint32_t type) {
    VBGSettings settings = VBG::DefaultVBGSettings();
    settings.bt = VBG::BtImage;
    settings.imageOrVideoType = type;
    return settings;
}

inline VBGSettings FileSettings(uint32_t bt, uint32_t type, const std::filesystem::path& file) {
    VBGSettings settings = PictureSettings(type);
    settings.bt = bt;
    settings.imageOrVideoDataSource = 1;
    VBG::Text::CopyToField(settings.backgroundImageFile, ZYN_PATH_CHARS, file.string(),
                           ZYN_PATH_CHARS - 1);
    return settings;
}

inline VBGSettings MemorySettings(uint32_t bt, uint32_t type, const std::string& bytes) {
    VBGSettings settings = PictureSettings(type);
    settings.bt = bt;
    settings.imageOrVideoDataSource = 2;
    settings.pData = reinterpret_cast<const uint8_t*>(bytes.data());
    settings.dataSize = static_cast<uint32_t>(bytes.size());
    return settings;
}

// Threads of this process right now. A first thread is started and joined once before the first
// count: a sanitizer runtime starts a helper thread of its own at the first thread creation, and
// it must not be counted as one of the library's.
inline size_t ThreadCount() {
    static const bool runtimeThreadsStarted = [] {
        std::thread([] {}).join();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return true;
    }();
    (void)runtimeThreadsStarted;
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/task")) {
        ++count;
    }
    return count;
}

// Polls `condition` every millisecond until it holds or `timeout` passes; returns its last value.
inline bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// The colour an ARGB pixel (B, G, R, A bytes) is closest to among the pure test colours.
inline char ColourAt(const uint8_t* argb, int stride, int x, int y) {
    const uint8_t* p = argb + static_cast<size_t>(y) * stride + static_cast<size_t>(x) * 4;
    const bool b = p[0] > 160;
    const bool g = p[1] > 160;
    const bool r = p[2] > 160;
    if (r && g && !b)
        return 'y';
    if (r && !g && !b)
        return 'r';
    if (!r && g && !b)
        return 'g';
    if (!r && !g && b)
        return 'b';
    if (!r && !g && !b && p[0] < 60 && p[1] < 60 && p[2] < 60)
        return 'k';
    return '?';
}

}  // namespace zyn_test
