// Logging front end of the library. Every record names the function it comes from (its qualified
// name, written out by the caller), its source file and line; the record pattern shows the
// function name and the line. Records go to the process-wide default logger, which
// logger::InitLogger replaces by the asynchronous rotating "ZYN" logger.
#pragma once

#include <spdlog/spdlog.h>

#define ZYN_LOG_AT(level, function, ...)                                                     \
    (::spdlog::default_logger_raw()->log(::spdlog::source_loc{__FILE__, __LINE__, function}, \
                                         level, __VA_ARGS__))

#define ZLOG_TRACE(function, ...) ZYN_LOG_AT(::spdlog::level::trace, function, __VA_ARGS__)
#define ZLOG_INFO(function, ...) ZYN_LOG_AT(::spdlog::level::info, function, __VA_ARGS__)
#define ZLOG_WARN(function, ...) ZYN_LOG_AT(::spdlog::level::warn, function, __VA_ARGS__)
#define ZLOG_ERROR(function, ...) ZYN_LOG_AT(::spdlog::level::err, function, __VA_ARGS__)

namespace VBG {
// Prints an object's address the way the records show it after "0x".
inline unsigned long long addr(const void* p) {
    return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p));
}
}  // namespace VBG
