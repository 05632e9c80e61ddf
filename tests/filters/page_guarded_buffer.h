// Test buffers for the pixel kernels: the bytes end exactly where an inaccessible page begins, so
// a kernel that reads or writes one byte past the end faults instead of passing by luck.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace zyn_test {

class PageGuardedBuffer {
  public:
    explicit PageGuardedBuffer(size_t size) : size_(size) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t usable = (size + page - 1) / page * page;
        base_ = mmap(nullptr, usable + page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (base_ == MAP_FAILED || mprotect(base_, usable, PROT_READ | PROT_WRITE) != 0) {
            throw std::runtime_error("cannot map a guarded buffer");
        }
        mapped_ = usable + page;
        data_ = static_cast<uint8_t*>(base_) + usable - size;
    }
    ~PageGuardedBuffer() { munmap(base_, mapped_); }
    PageGuardedBuffer(const PageGuardedBuffer&) = delete;
    PageGuardedBuffer& operator=(const PageGuardedBuffer&) = delete;

    uint8_t* data() const { return data_; }
    size_t size() const { return size_; }

  private:
    size_t size_, mapped_ = 0;
    void* base_;
    uint8_t* data_;
};

}  // namespace zyn_test
