// Set-up of the library log: one asynchronous rotating file logger "ZYN" per process.
#pragma once

#include <cstddef>
#include <string>

namespace logger {

constexpr size_t kMaxFileSize = 10485760;  // 10 MiB per file
constexpr size_t kMaxFiles = 3;            // rotated files kept besides the current one
constexpr size_t kQueueSize = 8192;
constexpr const char* kPattern = "[%C-%m-%d %H:%M:%S:%e] [%L] [%! %#] %v";

// Sets the logging up once, in `folder` (UTF-8). A second call changes nothing. Throws
// std::runtime_error when the folder can neither be made nor already exists.
void InitLogger(const std::string& folder);

bool IsInitialised();

}  // namespace logger
