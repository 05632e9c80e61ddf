// The live engines behind the handle values the exported functions hand out. A handle value is an
// opaque token (a slot of the registry and the slot's generation), never the engine's address, so
// that a value the host still holds after its instance was destroyed, or any other stale value, is
// recognised and refused instead of being followed into freed memory.
//
// Every call that uses an engine pins it for the length of the call; destroying an instance first
// stops new pins, then waits until the calls in flight have unpinned it, and only then hands the
// engine back for deletion. A frame thread can therefore never run inside an engine that a control
// thread is deleting (a rejected update destroys the instance while frames flow). Pinning costs two
// atomic read-modify-writes and one atomic load per call; nothing is locked on that path.
#pragma once

#include <cstdint>

namespace VBG {

class VirtualBackground;

class InstanceRegistry {
  public:
    // How many instances can be live at once; a create beyond it is refused.
    static constexpr uint32_t kCapacity = 4096;
    // How many bare engines (ZynNativeInternalCreate) can be live at once. Their handle value is
    // the engine's address, as that export promises; calls that get such a value look it up among
    // these few slots, so a freed one is still refused.
    static constexpr uint32_t kBareCapacity = 64;

    // A pinned engine: while this object lives the engine is not deleted.
    class Pin {
      public:
        Pin() = default;
        ~Pin() { release(); }
        Pin(Pin&& other) noexcept : slot_(other.slot_), engine_(other.engine_) {
            other.engine_ = nullptr;
        }
        Pin& operator=(Pin&&) = delete;
        Pin(const Pin&) = delete;
        Pin& operator=(const Pin&) = delete;

        VirtualBackground* get() const { return engine_; }
        VirtualBackground* operator->() const { return engine_; }
        explicit operator bool() const { return engine_ != nullptr; }

      private:
        friend class InstanceRegistry;
        Pin(uint32_t slot, VirtualBackground* engine) : slot_(slot), engine_(engine) {}
        void release();

        uint32_t slot_ = 0;
        VirtualBackground* engine_ = nullptr;
    };

    // Makes `engine` live and returns its handle value (never null; the engine's own address when
    // `bare`), or null when the registry is full. The registry does not own the engine.
    static void* Register(VirtualBackground* engine, bool bare = false);

    // Pins the engine behind `handle`; an empty pin when the value is null, stale or being
    // destroyed.
    static Pin Acquire(const void* handle);

    // Ends the instance behind `handle`: no call pins it any more, the calls in flight have
    // finished, and the engine is returned for the caller to delete. Null when `handle` holds no
    // live instance (or another thread is destroying it). Must not be called while the calling
    // thread itself holds a pin of that engine.
    static VirtualBackground* Retire(const void* handle);

    // The engine behind `handle` without pinning it, for log records only.
    static VirtualBackground* Peek(const void* handle);
};

}  // namespace VBG
