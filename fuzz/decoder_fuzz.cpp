// SPDX-License-Identifier: MIT
// The decoder as the player uses it: an elementary stream in parts of any size, reads of any size, time that passes.
//
// Input: format, channels and mode, then operations, each with its length and what it writes.
#include <atomic>

#include "adecoder.h"
#include "decoder_avcodec.h"
#include "input.h"
#include "time_line.h"

namespace
{

constexpr int kOperationsMax = 4000;
std::atomic<int64_t> g_now_us; ///< read by an asynchronous decoder's thread

void write(adecoder_handle_t* decoder, Input& input, bool async)
{
    const std::vector<uint8_t> part = input.take(input.word() % 4096);
    const auto bytes = static_cast<int32_t>(part.size());
    int32_t status = 0;
    const int32_t taken = adecoder_write(decoder, part.data(), bytes, 0, -1, &status);
    require(taken <= bytes && (taken >= 0 || part.empty()));
    int16_t pcm[16];
    if (!async && status > 0)
        require(adecoder_read(decoder, 0, 0, pcm, sizeof(pcm), 0) > 0);
}

void read(adecoder_handle_t* decoder, int32_t bytes, int32_t frame_bytes)
{
    std::vector<int16_t> room(static_cast<size_t>(bytes) / 2);
    const int32_t size = static_cast<int32_t>(room.size()) * 2;
    const int32_t stored = adecoder_read(decoder, 0, 0, room.data(), size, 0);
    require(stored <= size && (stored % frame_bytes == 0 || stored < 0));
    const int32_t rate = adecoder_get_output_sample_rate(decoder);
    require(rate >= 0 && rate <= 48000);
}

void pass_time(uint8_t what)
{
    switch (what % 4) {
    case 0: return time_line::begin();
    case 1: return time_line::end();
    case 2: return time_line::delivered();
    default: g_now_us += int64_t{what} * 1000;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    const uint8_t kind = input.byte();
    g_now_us = 0;
    decoder_avcodec::set_clock([] { return g_now_us.load(); });
    // Outside of what there is, too.
    const auto format = static_cast<adecoder_format_t>(kind % 4);
    const auto channels = static_cast<adecoder_channel_t>(kind / 4 % 16);
    const bool async = (kind & 0x40) != 0;
    adecoder_handle_t* const decoder = adecoder_init(format, 1, 0, channels, 0, async);
    const bool wanted = format == ADECODER_FORMAT_AC3 || format == ADECODER_FORMAT_EAC3;
    require((decoder != nullptr) == (wanted && channels < ADECODER_CHANNEL_MAX));
    if (decoder == nullptr)
        return 0;
    for (int count = 0; !input.empty() && count < kOperationsMax; ++count) {
        const uint8_t what = input.byte();
        switch (what % 3) {
        case 0: write(decoder, input, async); break;
        case 1: read(decoder, input.word(), 2 * (channels + 1)); break;
        default: pass_time(what / 3);
        }
    }
    require(adecoder_deinit(decoder) == 0);
    return 0;
}
