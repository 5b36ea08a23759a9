// SPDX-License-Identifier: MIT
#include "signal/sample_store.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace play
{
namespace
{

constexpr int64_t bytes_per_frame = 4;

} // namespace

SampleStore::SampleStore()
{
    const char* directory = getenv("TMPDIR");
    std::string path = std::string(directory != nullptr ? directory : "/tmp") + "/hdmi-player-play-XXXXXX";
    m_fd = mkstemp(path.data());
    if (m_fd >= 0)
        unlink(path.c_str());
}

SampleStore::~SampleStore()
{
    if (m_fd >= 0)
        close(m_fd);
}

bool SampleStore::append(const int16_t* stereo, int64_t frames)
{
    const auto* bytes = reinterpret_cast<const char*>(stereo);
    int64_t offset = m_frames * bytes_per_frame;
    for (int64_t left = frames * bytes_per_frame; left > 0;) {
        ssize_t written = pwrite(m_fd, bytes, static_cast<size_t>(left), offset);
        if (written <= 0)
            return false;
        bytes += written;
        offset += written;
        left -= written;
    }
    m_frames += frames;
    return true;
}

bool SampleStore::append_silence(int64_t frames)
{
    if (ftruncate(m_fd, (m_frames + frames) * bytes_per_frame) != 0)
        return false;
    m_frames += frames;
    return true;
}

int64_t SampleStore::read(int64_t first, int16_t* stereo, int64_t frames) const
{
    std::fill_n(stereo, 2 * frames, int16_t{0});
    int64_t begin = std::max<int64_t>(first, 0);
    int64_t end = std::min<int64_t>(first + frames, m_frames);
    if (begin >= end)
        return 0;
    auto size = static_cast<size_t>((end - begin) * bytes_per_frame);
    ssize_t got = pread(m_fd, stereo + 2 * (begin - first), size, begin * bytes_per_frame);
    return got > 0 ? got / bytes_per_frame : 0;
}

} // namespace play
