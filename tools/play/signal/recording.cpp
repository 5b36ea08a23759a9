// SPDX-License-Identifier: MIT
#include "signal/recording.h"

#include <sndfile.h>

#include <algorithm>
#include <cstdlib>

namespace play
{

Recording::~Recording()
{
    if (file_ != nullptr)
        sf_close(file_);
}

bool Recording::open(const std::string& path, std::vector<HeardBlock> blocks, std::string* error)
{
    if (file_ != nullptr)
        sf_close(file_);
    written_.clear();
    SF_INFO info = {};
    file_ = sf_open(path.c_str(), SFM_READ, &info);
    if (file_ == nullptr) {
        *error = path + ": " + sf_strerror(nullptr);
        return false;
    }
    if (info.channels != 2 || (info.format & SF_FORMAT_SUBMASK) != SF_FORMAT_PCM_16) {
        *error = path + ": not a recording of 16-bit stereo samples";
        return false;
    }
    sample_rate_ = info.samplerate;
    frames_ = info.frames;
    blocks_ = std::move(blocks);
    int64_t written = 0;
    for (const HeardBlock& block : blocks_) {
        written_.push_back(written);
        written += block.silence ? 0 : block.frames;
    }
    return true;
}

int64_t Recording::read(int64_t first, int16_t* stereo, int64_t frames) const
{
    std::fill_n(stereo, 2 * frames, int16_t{0});
    int64_t begin = std::max<int64_t>(first, 0);
    int64_t end = std::min(first + frames, frames_);
    if (begin >= end || sf_seek(file_, begin, SEEK_SET) < 0)
        return 0;
    return sf_readf_short(file_, stereo + 2 * (begin - first), end - begin);
}

int64_t Recording::heard_ns(int64_t position) const
{
    auto after = std::upper_bound(blocks_.begin(), blocks_.end(), position,
                                  [](int64_t p, const HeardBlock& block) { return p < block.first_frame; });
    if (after == blocks_.begin())
        return -1;
    const HeardBlock& block = *(after - 1);
    int64_t inside = position - block.first_frame;
    return inside < block.frames ? block.heard_ns + inside * 1'000'000'000 / sample_rate_ : -1;
}

int64_t Recording::position_at(int64_t monotonic_ns) const
{
    auto after = std::upper_bound(blocks_.begin(), blocks_.end(), monotonic_ns,
                                  [](int64_t t, const HeardBlock& block) { return t < block.heard_ns; });
    if (after == blocks_.begin())
        return -1;
    const HeardBlock& block = *(after - 1);
    int64_t inside = (monotonic_ns - block.heard_ns) * sample_rate_ / 1'000'000'000;
    return block.first_frame + std::min(inside, block.frames);
}

int64_t Recording::written_before(int64_t position) const
{
    auto after = std::upper_bound(blocks_.begin(), blocks_.end(), position,
                                  [](int64_t p, const HeardBlock& block) { return p < block.first_frame; });
    if (after == blocks_.begin())
        return 0;
    auto index = static_cast<size_t>(after - blocks_.begin()) - 1;
    const HeardBlock& block = blocks_[index];
    return written_[index] + (block.silence ? 0 : std::min(block.frames, position - block.first_frame));
}

int64_t Recording::end_ns(size_t block) const
{
    return blocks_[block].heard_ns + blocks_[block].frames * 1'000'000'000 / sample_rate_;
}

bool Recording::pause_before(size_t block) const
{
    constexpr int64_t kJitterNs = 1'000'000;
    // Of what a device had queued when it was closed, the end was not heard: then it begins before that end.
    return block > 0 && std::abs(blocks_[block].heard_ns - end_ns(block - 1)) > kJitterNs;
}

int64_t Recording::last_opening() const
{
    for (size_t i = blocks_.size(); i > 1; i--)
        if (pause_before(i - 1))
            return blocks_[i - 1].first_frame;
    return 0;
}

int64_t Recording::gaps(int64_t from_ns, int64_t to_ns) const
{
    auto inside = [from_ns, to_ns](int64_t at_ns) { return at_ns >= from_ns && at_ns < to_ns ? 1 : 0; };
    int64_t gaps = 0;
    int64_t pending = 0;
    for (size_t i = 0; i < blocks_.size(); i++) {
        pending += pause_before(i) ? inside(end_ns(i - 1)) : 0;
        pending += blocks_[i].silence ? inside(blocks_[i].heard_ns) : 0;
        if (!blocks_[i].silence) {
            gaps += pending;
            pending = 0;
        }
    }
    return gaps;
}

} // namespace play
