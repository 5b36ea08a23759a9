// SPDX-License-Identifier: MIT
#include "signal/recording.h"

#include <sndfile.h>

#include <algorithm>
#include <cstdlib>

namespace play
{

Recording::~Recording()
{
    if (m_file != nullptr)
        sf_close(m_file);
}

bool Recording::open(const std::string& path, std::vector<HeardBlock> blocks, std::string* error)
{
    if (m_file != nullptr)
        sf_close(m_file);
    m_written.clear();
    SF_INFO info = {};
    m_file = sf_open(path.c_str(), SFM_READ, &info);
    if (m_file == nullptr) {
        *error = path + ": " + sf_strerror(nullptr);
        return false;
    }
    if (info.channels != 2 || (info.format & SF_FORMAT_SUBMASK) != SF_FORMAT_PCM_16) {
        *error = path + ": not a recording of 16-bit stereo samples";
        return false;
    }
    m_sample_rate = info.samplerate;
    m_frames = info.frames;
    m_blocks = std::move(blocks);
    int64_t written = 0;
    for (const HeardBlock& block : m_blocks) {
        m_written.push_back(written);
        written += block.silence ? 0 : block.frames;
    }
    return true;
}

int64_t Recording::read(int64_t first, int16_t* stereo, int64_t frames) const
{
    std::fill_n(stereo, 2 * frames, int16_t{0});
    int64_t begin = std::max<int64_t>(first, 0);
    int64_t end = std::min(first + frames, m_frames);
    if (begin >= end || sf_seek(m_file, begin, SEEK_SET) < 0)
        return 0;
    return sf_readf_short(m_file, stereo + 2 * (begin - first), end - begin);
}

int64_t Recording::heard_ns(int64_t position) const
{
    auto after = std::upper_bound(m_blocks.begin(), m_blocks.end(), position,
                                  [](int64_t p, const HeardBlock& block) { return p < block.first_frame; });
    if (after == m_blocks.begin())
        return -1;
    const HeardBlock& block = *(after - 1);
    int64_t inside = position - block.first_frame;
    return inside < block.frames ? block.heard_ns + inside * 1'000'000'000 / m_sample_rate : -1;
}

int64_t Recording::position_at(int64_t monotonic_ns) const
{
    auto after = std::upper_bound(m_blocks.begin(), m_blocks.end(), monotonic_ns,
                                  [](int64_t t, const HeardBlock& block) { return t < block.heard_ns; });
    if (after == m_blocks.begin())
        return -1;
    const HeardBlock& block = *(after - 1);
    int64_t inside = (monotonic_ns - block.heard_ns) * m_sample_rate / 1'000'000'000;
    return block.first_frame + std::min(inside, block.frames);
}

int64_t Recording::written_before(int64_t position) const
{
    auto after = std::upper_bound(m_blocks.begin(), m_blocks.end(), position,
                                  [](int64_t p, const HeardBlock& block) { return p < block.first_frame; });
    if (after == m_blocks.begin())
        return 0;
    auto index = static_cast<size_t>(after - m_blocks.begin()) - 1;
    const HeardBlock& block = m_blocks[index];
    return m_written[index] + (block.silence ? 0 : std::min(block.frames, position - block.first_frame));
}

int64_t Recording::end_ns(size_t block) const
{
    return m_blocks[block].heard_ns + m_blocks[block].frames * 1'000'000'000 / m_sample_rate;
}

bool Recording::pause_before(size_t block) const
{
    constexpr int64_t jitter_ns = 1'000'000;
    // Of what a device had queued when it was closed, the end was not heard: then it begins before that end.
    return block > 0 && std::abs(m_blocks[block].heard_ns - end_ns(block - 1)) > jitter_ns;
}

int64_t Recording::last_opening() const
{
    for (size_t i = m_blocks.size(); i > 1; i--)
        if (pause_before(i - 1))
            return m_blocks[i - 1].first_frame;
    return 0;
}

int64_t Recording::gaps(int64_t from_ns, int64_t to_ns) const
{
    auto inside = [from_ns, to_ns](int64_t at_ns) { return at_ns >= from_ns && at_ns < to_ns ? 1 : 0; };
    int64_t gaps = 0;
    int64_t pending = 0;
    for (size_t i = 0; i < m_blocks.size(); i++) {
        pending += pause_before(i) ? inside(end_ns(i - 1)) : 0;
        pending += m_blocks[i].silence ? inside(m_blocks[i].heard_ns) : 0;
        if (!m_blocks[i].silence) {
            gaps += pending;
            pending = 0;
        }
    }
    return gaps;
}

} // namespace play
