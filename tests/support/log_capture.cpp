#include "support/log_capture.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>

#include <mutex>

#include "diag/spdlog_init.h"

namespace zyn_test {

class LogCapture::Sink : public spdlog::sinks::base_sink<std::mutex> {
  public:
    std::vector<CapturedRecord> snapshot() {
        std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }
    void reset() {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.clear();
    }

  protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        spdlog::memory_buf_t formatted;
        formatter_->format(msg, formatted);
        std::string line(formatted.data(), formatted.size());
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
            line.pop_back();
        }
        records_.push_back(
            CapturedRecord{msg.level, msg.source.funcname != nullptr ? msg.source.funcname : "",
                           std::string(msg.payload.data(), msg.payload.size()), line});
    }
    void flush_() override {}

  private:
    std::vector<CapturedRecord> records_;
};

LogCapture::LogCapture() : sink_(std::make_shared<Sink>()), previous_(spdlog::default_logger()) {
    auto capture = std::make_shared<spdlog::logger>("zyn-test-capture", sink_);
    capture->set_pattern(logger::kPattern);
    capture->set_level(spdlog::level::trace);
    spdlog::set_default_logger(capture);
}

LogCapture::~LogCapture() {
    spdlog::set_default_logger(previous_);
}

std::vector<CapturedRecord> LogCapture::records() const {
    return sink_->snapshot();
}

std::string LogCapture::dump() const {
    std::string out;
    for (const auto& r : records()) {
        out += r.line + '\n';
    }
    return out;
}

void LogCapture::clear() {
    sink_->reset();
}

}  // namespace zyn_test
