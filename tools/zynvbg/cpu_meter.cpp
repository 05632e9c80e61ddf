#include "cpu_meter.h"

#include <dirent.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace zynvbg {
namespace {

int64_t ClockNanos(clockid_t clock) {
    timespec t{};
    if (clock_gettime(clock, &t) != 0) {
        return -1;
    }
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

}  // namespace

int64_t ProcessCpuNanos() {
    return ClockNanos(CLOCK_PROCESS_CPUTIME_ID);
}

int64_t ThreadCpuNanos() {
    return ClockNanos(CLOCK_THREAD_CPUTIME_ID);
}

int64_t ThreadCpuNanos(pid_t tid) {
    // The kernel's clock id of a thread's scheduler CPU time: the id negated, shifted past the
    // three clock-kind bits, with the per-thread bit (4) and the scheduler-time kind (2). This is
    // the clock pthread_getcpuclockid gives, for a thread known only by its id.
    const auto clock = static_cast<clockid_t>((~static_cast<unsigned>(tid) << 3) | 4 | 2);
    return ClockNanos(clock);
}

CpuMeter::CpuMeter() {
    for (pid_t tid : tasks()) {
        claimed_.push_back({tid, ThreadCpuNanos(tid)});
    }
    start_ = ProcessCpuNanos() - claimedNanos();
}

void CpuMeter::beforeToolThreads() {
    before_ = tasks();
}

void CpuMeter::afterToolThreads() {
    for (pid_t tid : tasks()) {
        const bool known = std::find(before_.begin(), before_.end(), tid) != before_.end() ||
                           std::any_of(claimed_.begin(), claimed_.end(),
                                       [tid](const Claimed& c) { return c.tid == tid; });
        if (!known) {
            // A thread's CPU time from before it was claimed is the tool's as well: it counts
            // in full.
            claimed_.push_back({tid, 0});
        }
    }
}

int64_t CpuMeter::libraryThreadsNanos() {
    const int64_t claimed = claimedNanos();
    return ProcessCpuNanos() - claimed - start_;
}

int64_t CpuMeter::claimedNanos() {
    int64_t sum = 0;
    for (Claimed& c : claimed_) {
        const int64_t now = ThreadCpuNanos(c.tid);
        if (now >= 0) {
            c.lastNanos = now;
        }
        sum += c.lastNanos;
    }
    return sum;
}

std::vector<pid_t> CpuMeter::tasks() const {
    std::vector<pid_t> ids;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (const dirent* entry = readdir(dir)) {
            const pid_t tid = static_cast<pid_t>(std::atoi(entry->d_name));
            if (tid > 0) {
                ids.push_back(tid);
            }
        }
        closedir(dir);
    }
    return ids;
}

}  // namespace zynvbg
