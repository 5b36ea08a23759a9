// SPDX-License-Identifier: MIT
/**
 * @file
 * What the simulated output records.
 */
#pragma once

#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

/// The path of a recording, which is removed at the end of the scope together with the list of its blocks.
struct TemporaryWav {
    const std::string path;

    explicit TemporaryWav(const std::string& name) : path(testing::TempDir() + std::to_string(getpid()) + "-" + name) {}
    ~TemporaryWav()
    {
        unlink(path.c_str());
        unlink((path + ".blocks.csv").c_str());
    }

    /// Interleaved.
    std::vector<int16_t> samples(int rate = 48000) const
    {
        SF_INFO info = {};
        SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
        EXPECT_EQ(info.samplerate, rate) << path;
        std::vector<int16_t> pcm(static_cast<size_t>(info.frames * info.channels));
        sf_readf_short(file, pcm.data(), info.frames);
        sf_close(file);
        return pcm;
    }
    /// The first of two channels.
    std::vector<int16_t> left(int rate = 48000) const
    {
        std::vector<int16_t> pcm = samples(rate);
        for (size_t i = 0; i < pcm.size(); i += 2)
            pcm[i / 2] = pcm[i];
        pcm.resize(pcm.size() / 2);
        return pcm;
    }
};
