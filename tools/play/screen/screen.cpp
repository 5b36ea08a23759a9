// SPDX-License-Identifier: MIT
#include "screen/screen.h"

#include "source/canvas.h"
#include "source/picture_buffer.h"

namespace play
{
namespace
{

/// An hour at 60 a second: the thread that adds them may have real-time priority, and should not allocate.
constexpr size_t kSightingsAhead = 3600 * 60;

} // namespace

Screen::Screen() { sightings_.reserve(kSightingsAhead); }

void Screen::shown(const display::FrameBuffer& buffer, int64_t seen_ns)
{
    const auto& painted = static_cast<const PictureBuffer&>(buffer);
    refresh(buffer.surface ? look_at(buffer.surface->canvas()) : painted.picture, seen_ns);
}

void Screen::refresh(const Picture& picture, int64_t seen_ns)
{
    int64_t number = read_number(picture);
    bool flash = is_flash(picture);
    std::lock_guard<std::mutex> lock(mutex_);
    readable_ = number >= 0;
    if (!readable_)
        unreadable_++;
    else if (!sightings_.empty() && sightings_.back().number == number)
        sightings_.back().vblanks++;
    else
        sightings_.push_back({number, flash, seen_ns, 1});
}

void Screen::stayed(int64_t refreshes)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!readable_)
        unreadable_ += refreshes;
    else if (!sightings_.empty())
        sightings_.back().vblanks += refreshes;
}

std::vector<Sighting> Screen::sightings() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return sightings_;
}

int64_t Screen::unreadable() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return unreadable_;
}

} // namespace play
