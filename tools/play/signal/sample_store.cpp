// SPDX-License-Identifier: MIT
#include "signal/sample_store.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace play
{
namespace
{

constexpr int64_t kBytesPerFrame = 4;

// A temporary file without a name.
int open_unnamed()
{
    const char* directory = getenv("TMPDIR");
    std::string path = std::string(directory != nullptr ? directory : "/tmp") + "/hdmi-player-play-XXXXXX";
    const int fd = mkostemp(path.data(), O_CLOEXEC);
    if (fd >= 0)
        unlink(path.c_str());
    return fd;
}

} // namespace

SampleStore::SampleStore(Storage storage)
    : fd_(storage == Storage::memory ? memfd_create("samples", MFD_CLOEXEC) : open_unnamed())
{
}

SampleStore::~SampleStore()
{
    if (fd_ >= 0)
        close(fd_);
}

bool SampleStore::append(const int16_t* stereo, int64_t frames)
{
    const auto* bytes = reinterpret_cast<const char*>(stereo);
    int64_t offset = frames_ * kBytesPerFrame;
    for (int64_t left = frames * kBytesPerFrame; left > 0;) {
        ssize_t written = pwrite(fd_, bytes, static_cast<size_t>(left), offset);
        if (written <= 0)
            return false;
        bytes += written;
        offset += written;
        left -= written;
    }
    frames_ += frames;
    return true;
}

bool SampleStore::append_silence(int64_t frames)
{
    if (ftruncate(fd_, (frames_ + frames) * kBytesPerFrame) != 0)
        return false;
    frames_ += frames;
    return true;
}

int64_t SampleStore::read(int64_t first, int16_t* stereo, int64_t frames) const
{
    std::fill_n(stereo, 2 * frames, int16_t{0});
    int64_t begin = std::max<int64_t>(first, 0);
    int64_t end = std::min<int64_t>(first + frames, frames_);
    if (begin >= end)
        return 0;
    auto size = static_cast<size_t>((end - begin) * kBytesPerFrame);
    ssize_t got = pread(fd_, stereo + 2 * (begin - first), size, begin * kBytesPerFrame);
    return got > 0 ? got / kBytesPerFrame : 0;
}

} // namespace play
