// SPDX-License-Identifier: MIT
/**
 * @file
 * Finds IEC 61937 bursts and their payload in a stream of chunks that are cut
 * anywhere. Pure: bytes go in, spans of payload come out. For each chunk, while
 * it lasts:
 *
 *     byte_span owed = burst_take_owed(&state, &chunk);  // send it
 *     burst_step step = burst_take_next(&state, &chunk); // send step.payload
 */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

/// Burst data types, IEC 61937-2. Every 7-bit code is a value: the parser stores what Pc holds.
typedef enum : int32_t {
    DOLBY_IEC61937_FORMAT_UNSET = -1,
    DOLBY_IEC61937_FORMAT_NONE = 0,
    DOLBY_IEC61937_FORMAT_AC3 = 1,
    DOLBY_IEC61937_FORMAT_DTS1 = 11,
    DOLBY_IEC61937_FORMAT_DTS2 = 12,
    DOLBY_IEC61937_FORMAT_DTS3 = 13,
    DOLBY_IEC61937_FORMAT_EAC3 = 21,
    DOLBY_IEC61937_FORMAT_MAX = 22,
} dolby_iec61937_format_e;

/// Pa, Pb, Pc and Pd.
constexpr uint32_t kBurstPreambleBytes = 8;

struct burst_type {
    dolby_iec61937_format_e format;
    uint32_t pd_units_per_byte; ///< Pd counts bits or bytes
    uint32_t burst_bytes;       ///< repetition period, 4 bytes for each sample frame
};

constexpr burst_type kBurstTypes[] = {
    {DOLBY_IEC61937_FORMAT_AC3, 8, 6144},   {DOLBY_IEC61937_FORMAT_DTS1, 8, 2048},
    {DOLBY_IEC61937_FORMAT_DTS2, 8, 4096},  {DOLBY_IEC61937_FORMAT_DTS3, 8, 8192},
    {DOLBY_IEC61937_FORMAT_EAC3, 1, 24576},
};

/// Null for data types that are no bursts for this library.
inline const burst_type* burst_find_type(dolby_iec61937_format_e format)
{
    for (const burst_type& type : kBurstTypes) {
        if (type.format == format)
            return &type;
    }
    return nullptr;
}

/// A view of bytes, which it does not own.
struct byte_span {
    const uint8_t* data = nullptr;
    uint32_t bytes = 0;

    byte_span first(uint32_t count) const { return {data, std::min(count, bytes)}; }
    void skip(uint32_t count)
    {
        data += count;
        bytes -= count;
    }
};

/// What the chunks so far have left unfinished.
struct burst_state {
    uint32_t iec61937_burst_insufficient_bytes = 0;    ///< stuffing still to skip, behind the payload
    uint32_t iec61937_payload_insufficient_bytes = 0;  ///< payload still to come
    int32_t iec61937_header_size = 0;                  ///< bytes held
    uint8_t iec61937_header[kBurstPreambleBytes] = {}; ///< a preamble that the end of a chunk cut

    bool owes() const { return iec61937_payload_insufficient_bytes > 0 || iec61937_burst_insufficient_bytes > 0; }
};

/// What the search for a preamble saw. Null @p type: no burst.
struct burst_preamble {
    bool examined = false; ///< there was room for a preamble, and what follows is set
    bool synced = false;   ///< Pa and Pb were found
    uint32_t pc_offset = 0;
    uint16_t pc = 0;
    uint16_t pd = 0;
    const burst_type* type = nullptr;

    bool flagged() const { return (pc & 0x80) != 0; } ///< the source says that the payload may be wrong
    /// The data type and its two dependent bits: a burst that sets one of those is not recognised.
    dolby_iec61937_format_e format() const { return static_cast<dolby_iec61937_format_e>(pc & 0x7F); }
    uint32_t sync_offset() const { return pc_offset - 4; } ///< of Pa, when synced
    uint32_t pd_offset() const { return pc_offset + 2; }
    uint32_t end() const { return examined ? pc_offset + (flagged() ? 0 : 4) : 0; } ///< behind what was read
    uint32_t burst_bytes() const { return type != nullptr ? type->burst_bytes : 0; }
    uint32_t payload_bytes() const { return type != nullptr ? pd / type->pd_units_per_byte : 0; }
    uint32_t room() const { return burst_bytes() - kBurstPreambleBytes; } ///< for payload and stuffing
};

/// What came of the search for the next burst in a chunk.
struct burst_step {
    enum kind_e {
        HELD,      ///< the chunk ended in what may be a preamble, which is held
        NOT_FOUND, ///< the rest of the chunk is no burst
        STARTED,   ///< the chunk ended in the burst or with it
        WHOLE,     ///< the burst ended before the chunk
    } kind = NOT_FOUND;
    int32_t held = 0;        ///< bytes of the preamble that came from earlier chunks
    uint32_t need = 0;       ///< bytes of the chunk when the search began
    burst_preamble preamble; ///< not examined when HELD
    /// Data null: nothing to send. It may be empty all the same: a burst may state a length of 0.
    byte_span payload;

    bool completes_held() const { return held > 0 || need < kBurstPreambleBytes; }
};

inline uint16_t burst_read_le16(const uint8_t* data) { return static_cast<uint16_t>(data[0] | data[1] << 8); }

/// Pa = 0xF872 and Pb = 0x4E1F, little endian.
constexpr uint8_t kBurstSync[] = {0x72, 0xF8, 0x1F, 0x4E};

/// The first Pa and Pb among @p bytes, or null. The C library looks for one byte several times as fast as for four,
/// with the vectors of the machine, and few bytes are that one. Where it abounds all the same, all four are looked for.
inline const uint8_t* burst_find_sync(byte_span bytes)
{
    constexpr int kStraysMax = 32; ///< that begin no sync: what random bytes have in 8 KiB
    for (int strays = 0; strays < kStraysMax && bytes.bytes >= sizeof(kBurstSync); ++strays) {
        const void* const first = memchr(bytes.data, kBurstSync[0], bytes.bytes - sizeof(kBurstSync) + 1);
        if (first == nullptr || memcmp(first, kBurstSync, sizeof(kBurstSync)) == 0)
            return static_cast<const uint8_t*>(first);
        bytes.skip(static_cast<uint32_t>(static_cast<const uint8_t*>(first) - bytes.data) + 1);
    }
    return static_cast<const uint8_t*>(memmem(bytes.data, bytes.bytes, kBurstSync, sizeof(kBurstSync)));
}

inline burst_preamble burst_find_preamble(byte_span bytes)
{
    constexpr uint32_t kSyncBytes = sizeof(kBurstSync);
    burst_preamble found;
    if (bytes.bytes < kBurstPreambleBytes)
        return found;
    // A whole preamble follows where the sync is looked for.
    const uint8_t* const sync = burst_find_sync(bytes.first(bytes.bytes - kBurstPreambleBytes + kSyncBytes));
    found.examined = true;
    found.synced = sync != nullptr;
    // Deliberate: without sync, Pc and Pd are read all the same, after the last position examined.
    found.pc_offset =
        found.synced ? static_cast<uint32_t>(sync - bytes.data) + kSyncBytes : bytes.bytes - kBurstPreambleBytes + 1;
    found.pc = burst_read_le16(bytes.data + found.pc_offset);
    if (found.flagged())
        return found;
    found.pd = burst_read_le16(bytes.data + found.pc_offset + 2);
    found.type = burst_find_type(found.format());
    return found;
}

/// Takes off @p chunk what the previous burst still owes. Returns the payload among it, if that ends in this chunk.
inline byte_span burst_take_owed(burst_state* state, byte_span* chunk)
{
    const uint32_t payload = state->iec61937_payload_insufficient_bytes;
    if (payload > chunk->bytes) {
        // Deliberate: only a tail that completes within one chunk reaches the decoder.
        state->iec61937_payload_insufficient_bytes -= chunk->bytes;
        chunk->skip(chunk->bytes);
        return {};
    }
    const byte_span tail = chunk->first(payload);
    state->iec61937_payload_insufficient_bytes = 0;
    chunk->skip(payload);
    const uint32_t stuffing = std::min(state->iec61937_burst_insufficient_bytes, chunk->bytes);
    state->iec61937_burst_insufficient_bytes -= stuffing;
    chunk->skip(stuffing);
    return tail;
}

/// Moves bytes of @p chunk to the held preamble; whether it is complete then.
inline bool burst_hold_preamble(burst_state* state, byte_span* chunk)
{
    const auto held = static_cast<uint32_t>(state->iec61937_header_size);
    const uint32_t count = std::min(kBurstPreambleBytes - held, chunk->bytes);
    std::copy_n(chunk->data, count, state->iec61937_header + held);
    chunk->skip(count);
    state->iec61937_header_size = static_cast<int32_t>(held + count);
    return held + count == kBurstPreambleBytes;
}

/// Takes the next burst off @p chunk, after burst_take_owed(). @p find: burst_find_preamble() or a wrapper of it.
template <typename Find = burst_preamble (*)(byte_span)>
burst_step burst_take_next(burst_state* state, byte_span* chunk, Find find = burst_find_preamble)
{
    burst_step step;
    step.held = state->iec61937_header_size;
    step.need = chunk->bytes;
    // Bytes behind the preamble. A held preamble without sync is read three bytes early, so that three of its bytes
    // count as payload.
    uint32_t rest = 0;
    if (step.completes_held()) {
        if (!burst_hold_preamble(state, chunk)) {
            step.kind = burst_step::HELD;
            return step;
        }
        state->iec61937_header_size = 0;
        step.preamble = find({state->iec61937_header, kBurstPreambleBytes});
        rest = chunk->bytes + kBurstPreambleBytes - step.preamble.end();
    } else {
        step.preamble = find(*chunk);
        chunk->skip(step.preamble.end());
        rest = chunk->bytes;
    }
    if (step.preamble.type == nullptr) {
        chunk->skip(chunk->bytes);
        return step;
    }
    const uint32_t payload = step.preamble.payload_bytes();
    const uint32_t room = step.preamble.room();
    // Clamped: Pd may promise more than the burst and the chunk hold.
    step.payload = chunk->first(payload);
    if (rest > room) {
        step.kind = burst_step::WHOLE;
        chunk->skip(std::min(room, chunk->bytes));
        return step;
    }
    step.kind = burst_step::STARTED;
    if (chunk->bytes == 0)
        step.payload = {};
    state->iec61937_payload_insufficient_bytes = payload - std::min(payload, rest);
    state->iec61937_burst_insufficient_bytes = room - std::min(room, std::max(payload, rest));
    chunk->skip(chunk->bytes);
    return step;
}
