// Test media made on first use with the ffmpeg command-line tool, and small helpers shared by the
// background source suites.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <thread>

#include "config/vbg_settings.h"
#include "support/test_paths.h"
#include "util/text.h"
#include "zyn_native_vbg.h"

namespace zyn_test {

// Runs the ffmpeg tool with `arguments`; true when it succeeded.
inline bool RunFfmpeg(const std::string& arguments) {
    const std::string command =
        "ffmpeg -hide_banner -loglevel error -nostdin -y " + arguments + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

// The path of test medium `name` in this process's folder, made the first time it is asked for.
inline std::string Media(const std::string& name) {
    static const TempDir dir("zyn-media");
    // Three 128x48 frames at four frames per second: red, green and blue between black quarters.
    static const std::string kColours =
        "-f lavfi -i \"color=c=black:s=128x48:r=4,geq=r='if(eq(N\\,0)\\,255\\,0)':g='if(eq(N\\,1)"
        "\\,255\\,0)':b='if(eq(N\\,2)\\,255\\,0)',drawbox=w=32:h=48:color=black:t=fill,"
        "drawbox=x=96:w=32:h=48:color=black:t=fill\" -frames:v 3";
    static const std::map<std::string, std::string> recipes = {
        // 1920x1080: red columns 0-239, blue columns 1680-1919, green between with a yellow band
        // over rows 0-107, so that the position of a crop shows in its pixels.
        {"wide.png",
         "-f lavfi -i color=c=0x00FF00:s=1920x1080 -vf \"format=rgb24,"
         "drawbox=x=0:y=0:w=240:h=1080:color=0xFF0000:t=fill,drawbox=x=1680:y=0:w=240:h=1080:"
         "color=0x0000FF:t=fill,drawbox=x=240:y=0:w=1440:h=108:color=0xFFFF00:t=fill\" -frames:v "
         "1"},
        {"tiny.png", "-f lavfi -i color=c=red:s=16x16 -frames:v 1"},
        // R 200 G 60 B 100 stored losslessly, full range with the BT.709 matrix.
        {"bt709_full.mp4",
         "-f lavfi -i color=c=0xC83C64:s=64x48:r=10:d=0.3 -vf format=rgb24,scale=out_color_matrix="
         "bt709:out_range=pc,format=yuv420p -color_range pc -colorspace bt709 -c:v libx264 -qp 0"},
        {"colour.jpg", "-f lavfi -i color=c=0xC83C64:s=64x48 -frames:v 1 -q:v 1"},
        {"short.mp4", "-f lavfi -i testsrc2=s=160x120:r=10:d=0.5 -c:v libx264 -pix_fmt yuv420p"},
        {"audio.mp4", "-f lavfi -i sine=d=0.5 -c:a aac"},
        {"wide.mkv", "-f lavfi -i color=c=red:s=20000x16:r=5:d=0.2 -c:v mjpeg -pix_fmt yuvj420p"},
        // A lossless archival codec: decodable, but no codec a background video is made with.
        {"archival.mkv", "-f lavfi -i testsrc2=s=64x48:r=10:d=0.3 -c:v ffv1"},
        {"rgb.gif", kColours},
        {"colours.mp4", kColours + " -c:v libx264 -pix_fmt yuv420p"},
        {"colours.webm", kColours + " -c:v libvpx"},
        {"colours.ogv", kColours + " -c:v libtheora"},
    };
    const std::filesystem::path path = dir / name;
    const auto recipe = recipes.find(name);
    if (recipe != recipes.end() && !std::filesystem::exists(path)) {
        EXPECT_TRUE(RunFfmpeg(recipe->second + " " + path.string())) << name;
    }
    return path.string();
}

inline std::string MediaBytes(const std::string& name) {
    return ReadFile(Media(name));
}

// Writes `bytes` as test medium `name` and returns its path.
inline std::string WriteMedia(const std::string& name, const std::string& bytes) {
    WriteFile(Media(name), bytes);
    return Media(name);
}

// Settings of a background of kind `bt` from `file`, or from `bytes` when given.
inline VBGSettings MediaSettings(uint32_t bt, uint32_t type, const std::string& file,
                                 const std::string* bytes = nullptr) {
    VBGSettings settings = VBG::DefaultVBGSettings();
    settings.bt = bt;
    settings.imageOrVideoType = type;
    settings.imageOrVideoDataSource = bytes != nullptr ? 2 : 1;
    VBG::Text::CopyToField(settings.backgroundImageFile, ZYN_PATH_CHARS, file, ZYN_PATH_CHARS - 1);
    settings.pData = bytes != nullptr ? reinterpret_cast<const uint8_t*>(bytes->data()) : nullptr;
    settings.dataSize = bytes != nullptr ? static_cast<uint32_t>(bytes->size()) : 0;
    return settings;
}

// Threads of this process. A thread is started and joined before the first count, so that the
// helper thread a sanitizer runtime starts at the first thread creation is not counted later.
inline size_t ThreadCount() {
    static std::thread warmUp([] {});
    if (warmUp.joinable()) {
        warmUp.join();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const auto tasks = std::filesystem::directory_iterator("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// The pure test colour an ARGB pixel (B, G, R, A bytes) is closest to: r, g, b, y or k; else '?'.
inline char ColourAt(const uint8_t* argb, int stride, int x, int y) {
    const uint8_t* p = argb + static_cast<size_t>(y) * stride + static_cast<size_t>(x) * 4;
    const int bits = (p[2] > 160) * 4 + (p[1] > 160) * 2 + (p[0] > 160);
    return bits != 0 ? "?bg?r?y?"[bits] : p[0] < 60 && p[1] < 60 && p[2] < 60 ? 'k' : '?';
}

}  // namespace zyn_test
