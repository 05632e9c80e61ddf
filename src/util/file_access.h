// Opening the files the library reads and creates. Files it reads must be regular files within a
// size limit: a FIFO or a device named by a configuration must never block a call or feed it
// without end. Files it creates are never written through a symbolic link and are readable by
// the owner only (feedback dumps hold camera pictures).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace VBG::Files {

// Owns a file descriptor.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release();
    void reset(int fd = -1);

  private:
    int fd_ = -1;
};

enum class FinalLink { Refuse, Follow };

// Opens `path` for reading when it is a regular file of at most `maxBytes` bytes. A symbolic link
// as the last component is refused unless `link` is Follow. On failure the descriptor is empty,
// errno holds the cause (EINVAL: not a regular file, EFBIG: too large) and `why` says it in words.
UniqueFd OpenForReading(const std::string& path, uint64_t maxBytes, FinalLink link,
                        std::string& why);

// Reads the whole of such a file into `text`; false with `why` as above.
bool ReadSmallFile(const std::string& path, uint64_t maxBytes, FinalLink link, std::string& text,
                   std::string& why);

// Creates `path` for writing, or opens it if it exists as a regular file, never through a
// symbolic link, and leaves it readable and writable by the owner only. `flags` adds O_TRUNC,
// O_APPEND or O_EXCL. On failure the descriptor is empty and `why` says why.
UniqueFd CreateOwnerOnly(const std::string& path, int flags, std::string& why);

// Writes all `size` bytes; false on a write error.
bool WriteAll(int fd, const void* data, size_t size);

}  // namespace VBG::Files
