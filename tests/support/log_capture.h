// Captures the library's log records in a test: while a LogCapture lives, the process-wide
// default logger is a synchronous logger (same pattern as the real one) writing into memory.
#pragma once

#include <spdlog/spdlog.h>

#include <memory>
#include <string>
#include <vector>

namespace zyn_test {

struct CapturedRecord {
    spdlog::level::level_enum level;
    std::string function;
    std::string message;  // the formatted message only
    std::string line;     // the whole formatted record, pattern applied
};

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedRecord> records() const;
    // Records whose message equals `message`, or contains `fragment`.
    size_t count(const std::string& message) const {
        return countIf([&](const CapturedRecord& r) { return r.message == message; });
    }
    bool contains(const std::string& message) const { return count(message) > 0; }
    size_t countContaining(const std::string& fragment) const {
        return countIf(
            [&](const CapturedRecord& r) { return r.message.find(fragment) != std::string::npos; });
    }
    // Records at `level` whose message contains `fragment` (all at that level when it is empty).
    size_t countAt(spdlog::level::level_enum level, const std::string& fragment = "") const {
        return countIf([&](const CapturedRecord& r) {
            return r.level == level && r.message.find(fragment) != std::string::npos;
        });
    }
    // Whether this exact message was logged at `level`, or from `function`.
    bool has(spdlog::level::level_enum level, const std::string& message) const {
        return countIf([&](const CapturedRecord& r) {
                   return r.level == level && r.message == message;
               }) > 0;
    }
    bool hasFrom(const std::string& function, const std::string& message) const {
        return countIf([&](const CapturedRecord& r) {
                   return r.function == function && r.message == message;
               }) > 0;
    }
    std::string dump() const;
    void clear();

    class Sink;

  private:
    template <typename Matches>
    size_t countIf(Matches matches) const {
        size_t n = 0;
        for (const CapturedRecord& r : records()) {
            n += matches(r) ? 1 : 0;
        }
        return n;
    }

    std::shared_ptr<Sink> sink_;
    std::shared_ptr<spdlog::logger> previous_;
};

}  // namespace zyn_test
