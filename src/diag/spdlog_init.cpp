#include "diag/spdlog_init.h"

#include <spdlog/async.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <stdexcept>

#include "util/file_access.h"
#include "util/log.h"
#include "util/zyn_utils.h"

namespace logger {
namespace {

std::atomic<bool> initialised{false};

// Folder creation errors are reported with the codes hosts already know from the log-folder
// message: 3 for a missing parent folder, 5 for access denied; any other failure with its errno.
int folderErrorCode(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return 3;
        case EACCES:
        case EPERM:
        case EROFS:
            return 5;
        default:
            return error;
    }
}

// Runs before every open of the log file (at set-up and after each rotation): the file is made
// here, owner-only and never through a link, so that the logging library's own open finds a
// plain file of ours. A link, FIFO or device in its place is removed first; the name is ours.
void prepareLogFile(const spdlog::filename_t& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
        ::unlink(path.c_str());
    }
    std::string why;
    (void)VBG::Files::CreateOwnerOnly(path, 0, why);
}

}  // namespace

void InitLogger(const std::string& folder) {
    if (initialised.load()) {
        return;
    }
    // One level only: the parent folder must exist.
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
        throw std::runtime_error("Failed to create NVBG log folder. Error code: " +
                                 std::to_string(folderErrorCode(errno)));
    }
    const std::string file = VBG::Utils::GetAssetFullPath(folder);
    spdlog::file_event_handlers handlers;
    handlers.before_open = prepareLogFile;
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(file, kMaxFileSize,
                                                                       kMaxFiles, false, handlers);
    spdlog::init_thread_pool(kQueueSize, 1);
    auto log = std::make_shared<spdlog::async_logger>("ZYN", sink, spdlog::thread_pool(),
                                                      spdlog::async_overflow_policy::block);
    log->set_error_handler([](const std::string&) {});
    spdlog::drop("ZYN");
    spdlog::register_logger(log);
    spdlog::set_default_logger(log);
    spdlog::flush_every(std::chrono::seconds(5));
    log->set_pattern(kPattern);
    initialised.store(true);
    ZLOG_INFO("logger::InitLogger", "VBG log initialised, current process id: {}",
              VBG::Utils::ProcessId());
}

bool IsInitialised() {
    return initialised.load();
}

}  // namespace logger
