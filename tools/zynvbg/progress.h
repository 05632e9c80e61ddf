// The progress line on a terminal: a bar when the frame count is known, and the frame rate.
#pragma once

#include <chrono>
#include <cstdint>

namespace zynvbg {

class Progress {
  public:
    // Draws only when `enabled` (stderr is a terminal and --quiet was not given). `total` is the
    // expected frame count, or -1 when unknown.
    Progress(bool enabled, int64_t total);
    void update(int64_t done);
    // Draws the final state and ends the line.
    void finish(int64_t done);

  private:
    void draw(int64_t done);

    bool enabled_;
    int64_t total_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point lastDraw_;
    bool drawn_ = false;
};

}  // namespace zynvbg
