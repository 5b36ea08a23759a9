// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>

#include "source/canvas.h"
#include "source/picture.h"

namespace play
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
    virtual Canvas canvas() const = 0;
};

/// A picture buffer; its address is the handle that the player passes around.
struct FrameBuffer {
    std::atomic<Owner> owner{Owner::free};
    int64_t turn = 0;   ///< how many the player had been given before this one
    int64_t number = 0; ///< of the picture
    Picture picture;
    std::shared_ptr<Surface> surface; ///< where it was painted, made by the display that reads it there
};

/**
 * The host's picture buffers. Every hand-over is one atomic exchange of the
 * owner, so the player's callbacks need no lock, and a handle that comes back
 * twice or was never given is noticed.
 */
class FramePool
{
public:
    explicit FramePool(int buffers) : count_(buffers), buffers_(new FrameBuffer[static_cast<size_t>(buffers)]) {}

    /// A free buffer, now the host's; null if all are in use.
    FrameBuffer* acquire()
    {
        for (int i = 0; i < count_; i++)
            if (pass(&buffers_[i], Owner::free, Owner::host))
                return &buffers_[i];
        return nullptr;
    }

    /// Moves a buffer from one owner to the next. @return false, with nothing changed, if it was not @p from's
    static bool pass(FrameBuffer* buffer, Owner from, Owner to)
    {
        return buffer->owner.compare_exchange_strong(from, to);
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
        const FrameBuffer* all = buffers_.get();
        return static_cast<int>(std::count_if(all, all + count_, [owner, before](const FrameBuffer& buffer) {
            return buffer.owner == owner && buffer.turn < before;
        }));
    }

private:
    int count_;
    std::unique_ptr<FrameBuffer[]> buffers_;
};

} // namespace play
