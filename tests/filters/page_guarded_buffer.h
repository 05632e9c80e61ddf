// Test buffers for the pixel kernels: the bytes end exactly where an inaccessible page begins, so
// a kernel that reads or writes one byte past the end faults instead of passing by luck.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace zyn_test {

class PageGuardedBuffer {
  public:
    explicit PageGuardedBuffer(size_t size) : size_(size) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t dataPages = (size + page - 1) / page;
        mapped_ = (dataPages + 1) * page;
        void* base =
            mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (base == MAP_FAILED) {
            throw std::runtime_error("mmap failed");
        }
        base_ = static_cast<uint8_t*>(base);
        if (mprotect(base_ + dataPages * page, page, PROT_NONE) != 0) {
            munmap(base_, mapped_);
            throw std::runtime_error("mprotect failed");
        }
        data_ = base_ + dataPages * page - size;
    }
    ~PageGuardedBuffer() { munmap(base_, mapped_); }
    PageGuardedBuffer(const PageGuardedBuffer&) = delete;
    PageGuardedBuffer& operator=(const PageGuardedBuffer&) = delete;

    uint8_t* data() { return data_; }
    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    void fill(const uint8_t* from) { std::memcpy(data_, from, size_); }

  private:
    size_t size_;
    size_t mapped_ = 0;
    uint8_t* base_ = nullptr;
    uint8_t* data_ = nullptr;
};

}  // namespace zyn_test
