// SPDX-License-Identifier: MIT
// The burst parser and the decoder behind it, on a captured stream cut anywhere.
//
// Input: two bytes that set the largest chunk, then the stream.
#include <algorithm>
#include <memory>

#include "input.h"
#include "internal/dolby.h"

namespace
{

// Exactly its size, so that a sanitizer sees every step over its end.
void feed(dolby_info_t* info, const uint8_t* data, size_t bytes)
{
    const std::unique_ptr<uint8_t[]> chunk(new uint8_t[bytes]);
    std::copy_n(data, bytes, chunk.get());
    const int32_t result = dolby_disassemble_iec61937(info, chunk.get(), static_cast<uint32_t>(bytes));
    require(result == 0 || result == -1);
    require(info->iec61937_header_size >= 0 && info->iec61937_header_size < 8);
    require(info->iec61937_payload_insufficient_bytes <= UINT16_MAX);
    require(info->iec61937_burst_insufficient_bytes < 24576);
}

void drain(adecoder_handle_t* decoder)
{
    int16_t pcm[960];
    while (decoder != nullptr && adecoder_read(decoder, 0, 0, pcm, sizeof(pcm), 0) > 0) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) NO_THREAD_SAFETY_ANALYSIS
{
    if (size < 2)
        return 0;
    setenv("debug_hdmiplayer_log_level", "0", 1);
    uint32_t random = data[0] | data[1] << 8u;
    const uint32_t largest = random % 8192 + 1;
    dolby_info_t info;
    info.event_cb = [](hdmi_player_event_e) {};
    info.format_changed_cb = [](bool, bool*) {};
    info.output_channels = 2;
    for (size_t at = 2; at < size;) {
        random = random * 1664525 + 1013904223;
        const size_t bytes = std::min<size_t>(random / 65536 % largest + 1, size - at);
        feed(&info, data + at, bytes);
        drain(info.adecoder_handle);
        at += bytes;
    }
    if (info.adecoder_handle != nullptr)
        require(adecoder_deinit(info.adecoder_handle) == 0);
    return 0;
}
