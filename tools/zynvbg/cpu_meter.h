// CPU time of the library, apart from the tool's own work. The calling thread's CPU time is taken
// around each call; the library's own threads (inference pools, a background video's decoder,
// the logger) are every thread of the process that the tool did not start, and their CPU time is
// the process's less that of the tool's threads (the main thread and the threads that FFmpeg
// starts for the tool's input and output), which the tool claims as they appear.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace zynvbg {

// CPU time (user + system) in nanoseconds of the whole process, of the calling thread, and of a
// thread of this process by its id (-1 when it has ended).
int64_t ProcessCpuNanos();
int64_t ThreadCpuNanos();
int64_t ThreadCpuNanos(pid_t tid);

class CpuMeter {
  public:
    // Claims every thread that exists now (the main thread and the input decoders' threads).
    CpuMeter();
    // Call before and after the tool starts threads of its own (opening an encoder), so that
    // the threads that appeared in between are claimed too.
    void beforeToolThreads();
    void afterToolThreads();
    // CPU time so far of the threads the tool did not start, counted from the meter's creation.
    int64_t libraryThreadsNanos();

  private:
    struct Claimed {
        pid_t tid;
        int64_t lastNanos;  // the last reading, kept when the thread has ended
    };
    std::vector<pid_t> tasks() const;
    int64_t claimedNanos();

    std::vector<Claimed> claimed_;
    std::vector<pid_t> before_;
    int64_t start_ = 0;
};

}  // namespace zynvbg
