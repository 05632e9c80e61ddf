#include "util/file_access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace VBG::Files {
namespace {

std::string errorText(int error) {
    return std::strerror(error);
}

// Clears O_NONBLOCK once the descriptor is known to be a regular file (where it means nothing,
// but later readers should not see it).
void makeBlocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0 && (flags & O_NONBLOCK) != 0) {
        ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    }
}

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        reset(other.release());
    }
    return *this;
}

int UniqueFd::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void UniqueFd::reset(int fd) {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
}

UniqueFd OpenForReading(const std::string& path, uint64_t maxBytes, FinalLink link,
                        std::string& why) {
    // O_NONBLOCK: opening a FIFO without a writer returns at once instead of waiting for one.
    int flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    if (link == FinalLink::Refuse) {
        flags |= O_NOFOLLOW;
    }
    UniqueFd fd(::open(path.c_str(), flags));
    if (!fd) {
        const int error = errno;
        why = error == ELOOP ? "it is a symbolic link" : errorText(error);
        errno = error;
        return fd;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        const int error = errno;
        why = errorText(error);
        errno = error;
        return UniqueFd();
    }
    if (!S_ISREG(st.st_mode)) {
        why = "it is not a regular file";
        errno = EINVAL;
        return UniqueFd();
    }
    if (static_cast<uint64_t>(st.st_size) > maxBytes) {
        why = "it is larger than " + std::to_string(maxBytes) + " bytes";
        errno = EFBIG;
        return UniqueFd();
    }
    makeBlocking(fd.get());
    return fd;
}

bool ReadSmallFile(const std::string& path, uint64_t maxBytes, FinalLink link, std::string& text,
                   std::string& why) {
    UniqueFd fd = OpenForReading(path, maxBytes, link, why);
    if (!fd) {
        return false;
    }
    text.clear();
    // One byte past the limit tells a file that grew after it was measured.
    char buffer[16 * 1024];
    while (text.size() <= maxBytes) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            why = errorText(errno);
            return false;
        }
        if (n == 0) {
            return true;
        }
        text.append(buffer, static_cast<size_t>(n));
    }
    why = "it is larger than " + std::to_string(maxBytes) + " bytes";
    errno = EFBIG;
    return false;
}

UniqueFd CreateOwnerOnly(const std::string& path, int flags, std::string& why) {
    // O_NONBLOCK: a FIFO without a reader fails at once instead of blocking the caller.
    UniqueFd fd(::open(path.c_str(),
                       O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | flags,
                       0600));
    if (!fd) {
        why = errno == ELOOP ? "it is a symbolic link" : errorText(errno);
        return fd;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        why = "it is not a regular file";
        return UniqueFd();
    }
    // A file made earlier, by an older version or by hand, may be readable by others.
    if ((st.st_mode & 0777) != 0600 && ::fchmod(fd.get(), 0600) != 0) {
        why = errorText(errno);
        return UniqueFd();
    }
    makeBlocking(fd.get());
    return fd;
}

bool WriteAll(int fd, const void* data, size_t size) {
    const char* at = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd, at, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        at += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace VBG::Files
