#include "api/instance_registry.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace VBG {
namespace {

// Each slot has one 64-bit word: the generation in the upper 32 bits, a "closing" bit (bit 31) and
// the number of pins in the lower 31 bits. Pins and the generation check are then one
// read-modify-write, and a destroy that sets the closing bit sees every pin taken before it.
constexpr uint64_t kPinMask = (uint64_t{1} << 31) - 1;
constexpr uint64_t kClosing = uint64_t{1} << 31;

// Handle values: a fixed tag in the top 16 bits (a pointer of this process never has it), the
// generation in the next 32 bits and the slot number plus one in the low 16 bits (never zero).
constexpr uint64_t kTag = uint64_t{0x5a17} << 48;
constexpr uint64_t kTagMask = uint64_t{0xffff} << 48;

struct Slot {
    std::atomic<uint64_t> word{0};
    std::atomic<VirtualBackground*> engine{nullptr};
};

// The handle slots, then the slots of the bare engines of ZynNativeInternalCreate. Constant-
// initialised and trivially destructible: usable from any thread at any time, including while the
// process exits.
constexpr uint32_t kAllSlots = InstanceRegistry::kCapacity + InstanceRegistry::kBareCapacity;
Slot slots[kAllSlots];

struct Waits {
    std::mutex allocation;  // which slot a new instance gets
    uint32_t cursor = 0;    // slots are handed out in turn, so that a freed one is reused late
    std::mutex drain;       // destroys wait here for the pins of their engine to go
    std::condition_variable drained;
};

// Never destroyed: a frame call may unpin while static objects are being torn down.
Waits& waits() {
    static Waits* const instance = new Waits;
    return *instance;
}

uint32_t generationOf(uint64_t word) {
    return static_cast<uint32_t>(word >> 32);
}

bool decode(const void* handle, uint32_t& slot, uint32_t& generation) {
    const auto value = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(handle));
    if ((value & kTagMask) != kTag) {
        // A bare engine is found by its address among the few slots bare engines get.
        if (handle == nullptr) {
            return false;
        }
        for (uint32_t i = InstanceRegistry::kCapacity; i < kAllSlots; ++i) {
            if (slots[i].engine.load(std::memory_order_acquire) == handle) {
                slot = i;
                generation = generationOf(slots[i].word.load(std::memory_order_acquire));
                return true;
            }
        }
        return false;
    }
    const uint64_t index = value & 0xffff;
    if (index == 0 || index > InstanceRegistry::kCapacity) {
        return false;
    }
    slot = static_cast<uint32_t>(index - 1);
    generation = static_cast<uint32_t>(value >> 16);
    return true;
}

void unpin(uint32_t slot) {
    const uint64_t previous = slots[slot].word.fetch_sub(1, std::memory_order_acq_rel);
    if ((previous & kClosing) != 0 && (previous & kPinMask) == 1) {
        // The last pin of an engine being destroyed: wake the destroy. Taking the mutex orders
        // this against the destroy's check of the count, so the wake-up cannot be lost.
        std::lock_guard<std::mutex> lock(waits().drain);
        waits().drained.notify_all();
    }
}

}  // namespace

void InstanceRegistry::Pin::release() {
    if (engine_ != nullptr) {
        engine_ = nullptr;
        unpin(slot_);
    }
}

void* InstanceRegistry::Register(VirtualBackground* engine, bool bare) {
    if (engine == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(waits().allocation);
    const uint32_t first = bare ? kCapacity : 0;
    const uint32_t count = bare ? kBareCapacity : kCapacity;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t slot = bare ? first + i : (waits().cursor + i) % kCapacity;
        if (slots[slot].engine.load(std::memory_order_acquire) != nullptr) {
            continue;
        }
        slots[slot].engine.store(engine, std::memory_order_release);
        if (bare) {
            return engine;
        }
        waits().cursor = (slot + 1) % kCapacity;
        const uint64_t generation = generationOf(slots[slot].word.load(std::memory_order_acquire));
        return reinterpret_cast<void*>(
            static_cast<uintptr_t>(kTag | (generation << 16) | (uint64_t{slot} + 1)));
    }
    return nullptr;
}

InstanceRegistry::Pin InstanceRegistry::Acquire(const void* handle) {
    uint32_t slot = 0, generation = 0;
    if (!decode(handle, slot, generation)) {
        return {};
    }
    const uint64_t word = slots[slot].word.fetch_add(1, std::memory_order_acq_rel);
    if (generationOf(word) != generation || (word & kClosing) != 0) {
        unpin(slot);
        return {};
    }
    VirtualBackground* engine = slots[slot].engine.load(std::memory_order_acquire);
    if (engine == nullptr || (slot >= kCapacity && engine != handle)) {
        unpin(slot);
        return {};
    }
    return Pin(slot, engine);
}

VirtualBackground* InstanceRegistry::Retire(const void* handle) {
    uint32_t slot = 0, generation = 0;
    if (!decode(handle, slot, generation)) {
        return nullptr;
    }
    std::atomic<uint64_t>& word = slots[slot].word;
    uint64_t current = word.load(std::memory_order_acquire);
    do {
        if (generationOf(current) != generation || (current & kClosing) != 0) {
            return nullptr;  // already gone, or another thread is destroying it
        }
    } while (!word.compare_exchange_weak(current, current | kClosing, std::memory_order_acq_rel));
    {
        std::unique_lock<std::mutex> lock(waits().drain);
        waits().drained.wait(
            lock, [&word] { return (word.load(std::memory_order_acquire) & kPinMask) == 0; });
    }
    VirtualBackground* engine = slots[slot].engine.load(std::memory_order_acquire);
    // With the closing bit set, adding it once more clears it and carries into the generation:
    // every handle value of this generation is stale from now on. Only then is the slot free for
    // a new instance, which so gets the new generation.
    word.fetch_add(kClosing, std::memory_order_acq_rel);
    slots[slot].engine.store(nullptr, std::memory_order_release);
    return engine;
}

VirtualBackground* InstanceRegistry::Peek(const void* handle) {
    uint32_t slot = 0, generation = 0;
    if (!decode(handle, slot, generation) ||
        generationOf(slots[slot].word.load(std::memory_order_acquire)) != generation) {
        return nullptr;
    }
    return slots[slot].engine.load(std::memory_order_acquire);
}

}  // namespace VBG
