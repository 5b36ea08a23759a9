// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>

#include "display/canvas.h"

namespace display
{

/// Whose a buffer is at the moment.
enum class Owner {
    free,
    host,    ///< being filled
    player,  ///< given to hdmi_player_video_render, not called back yet
    display, ///< flipped: held or shown, until the display releases it
};

/// Memory that a display shows.
class Surface
{
public:
    virtual ~Surface() = default;
    Surface() = default;
    Surface(const Surface&) = delete;
    Surface& operator=(const Surface&) = delete;
    /// Its pixels, to be painted; without memory where they are another device's.
    virtual Canvas canvas() const = 0;
    /// Whether the display that made it can still show it.
    virtual bool current() const { return true; }
};

/// A buffer for one frame; a host adds what it knows of the frame.
struct FrameBuffer {
    std::atomic<Owner> owner{Owner::free};
    int64_t turn = 0;                 ///< how many the player had been given before this one
    std::shared_ptr<Surface> surface; ///< where it was painted, made by the display that reads it there
};

/// Moves a buffer from one owner to the next. @return false, with nothing changed, if it was not @p from's
inline bool pass(FrameBuffer* buffer, Owner from, Owner to) { return buffer->owner.compare_exchange_strong(from, to); }

/**
 * The host's frame buffers; the address of a Buffer, which is a FrameBuffer, is
 * the handle that the player passes around. Every hand-over is one atomic
 * exchange of the owner, so the player's callbacks need no lock, and a handle
 * that comes back twice or was never given is noticed.
 */
template <typename Buffer> class FramePool
{
public:
    explicit FramePool(int buffers) : count_(buffers), buffers_(new Buffer[static_cast<size_t>(buffers)]) {}

    /// A free buffer, now the host's; null if all are in use.
    Buffer* acquire()
    {
        for (int i = 0; i < count_; i++)
            if (pass(&buffers_[i], Owner::free, Owner::host))
                return &buffers_[i];
        return nullptr;
    }

    /// Whether @p handle is the address of a buffer of this pool.
    bool owns(const void* handle) const
    {
        for (int i = 0; i < count_; i++)
            if (&buffers_[i] == handle)
                return true;
        return false;
    }

    /// Buffers of @p owner, of those given to the player before turn @p before.
    int count(Owner owner, int64_t before = std::numeric_limits<int64_t>::max()) const
    {
        const Buffer* all = buffers_.get();
        return static_cast<int>(std::count_if(all, all + count_, [owner, before](const Buffer& buffer) {
            return buffer.owner == owner && buffer.turn < before;
        }));
    }

    Buffer* begin() { return buffers_.get(); }
    Buffer* end() { return buffers_.get() + count_; }

private:
    int count_;
    std::unique_ptr<Buffer[]> buffers_;
};

} // namespace display
