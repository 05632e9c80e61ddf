#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace zynvbg {

Progress::Progress(bool enabled, int64_t total)
    : enabled_(enabled),
      total_(total),
      start_(std::chrono::steady_clock::now()),
      lastDraw_(start_) {}

void Progress::update(int64_t done) {
    if (!enabled_) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (drawn_ && now - lastDraw_ < std::chrono::milliseconds(100)) {
        return;
    }
    lastDraw_ = now;
    draw(done);
}

void Progress::finish(int64_t done) {
    if (!enabled_) {
        return;
    }
    draw(done);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void Progress::draw(int64_t done) {
    drawn_ = true;
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const double fps = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
    if (total_ > 0) {
        constexpr int kWidth = 30;
        const int64_t shown = std::min(done, total_);
        const int filled = static_cast<int>(kWidth * shown / total_);
        std::string bar(static_cast<size_t>(filled), '=');
        if (filled < kWidth) {
            bar += '>';
            bar.append(static_cast<size_t>(kWidth - filled - 1), ' ');
        }
        std::fprintf(stderr, "\r[%s] %lld/%lld frames  %.1f fps ", bar.c_str(),
                     static_cast<long long>(done), static_cast<long long>(total_), fps);
    } else {
        std::fprintf(stderr, "\r%lld frames  %.1f fps ", static_cast<long long>(done), fps);
    }
    std::fflush(stderr);
}

}  // namespace zynvbg
