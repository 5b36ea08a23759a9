// SPDX-License-Identifier: MIT
#include "ac3_framer.h"

#include <algorithm>
#include <cstring>
#include <utility>

extern "C" {
#include <libavutil/crc.h>
}

namespace ac3
{

namespace
{

constexpr size_t kSyncBytes = 2;
constexpr uint8_t kSync[kSyncBytes] = {0x0B, 0x77};
/// A bsid up to 10 is AC-3 (9 and 10 at half and a quarter of the rate), 11 to 16 is E-AC-3.
constexpr uint8_t kBsidAc3Max = 10;
constexpr uint8_t kBsidMax = 16;
constexpr uint32_t kBlockSamples = 256;
constexpr uint32_t kEac3BytesMin = 16;
/// At 44.1 kHz the sizes of AC-3 frames alternate by a word.
constexpr uint32_t kSizeSlack = 2;
/// After a longer gap another stream is assumed.
constexpr uint32_t kLostUnitsMax = 4;
/// Room for a unit, and for the frame after it that marks its end.
constexpr size_t kBufferBytes = kUnitBytesMax + 8192;

constexpr uint32_t kKbps[] = {32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 448, 512, 576, 640};
constexpr int32_t kRates[] = {48000, 44100, 32000};
constexpr uint32_t kEac3Blocks[] = {1, 2, 3, 6};

// Bytes of an AC-3 frame: the table of A/52, 5.4.1.4, or 0 where it has no entry.
uint32_t ac3_frame_bytes(uint8_t fscod, uint8_t frmsizecod)
{
    if (fscod > 2 || frmsizecod / 2u >= std::size(kKbps))
        return 0;
    const uint32_t kbps = kKbps[frmsizecod / 2];
    switch (fscod) {
    case 0: return kbps * 2 * 2;
    case 1: return (kbps * 320 / 147 + (frmsizecod & 1)) * 2;
    default: return kbps * 3 * 2;
    }
}

bool parse_ac3(const uint8_t* data, Header* header)
{
    const auto fscod = static_cast<uint8_t>(data[4] >> 6);
    const auto bsid = static_cast<uint8_t>(data[5] >> 3);
    header->bytes = ac3_frame_bytes(fscod, data[4] & 0x3F);
    if (header->bytes == 0)
        return false;
    header->rate = kRates[fscod] >> (std::max<int>(bsid, 8) - 8);
    header->samples = kFrameSamplesMax;
    // The lowest bit of frmsizecod alternates at 44.1 kHz.
    header->signature = (data[4] & 0xFEu) << 16 | data[5] << 8u | (data[6] >> 5);
    return true;
}

bool parse_eac3(const uint8_t* data, Header* header)
{
    const uint32_t fscod = data[4] >> 6;
    const uint32_t fscod2_or_blocks = data[4] >> 4 & 3;
    if (data[2] >> 6 == 3 || (fscod == 3 && fscod2_or_blocks == 3))
        return false;
    header->bytes = ((data[2] & 7u) << 8 | data[3]) * 2 + 2;
    header->rate = fscod == 3 ? kRates[fscod2_or_blocks] / 2 : kRates[fscod];
    header->samples = kBlockSamples * (fscod == 3 ? 6 : kEac3Blocks[fscod2_or_blocks]);
    header->dependent = data[2] >> 6 == 1;
    header->substream = data[2] >> 3 & 7;
    header->signature = 1u << 24 | (data[2] & 0xF8u) << 16 | data[4] << 8u | (data[5] >> 3);
    return header->bytes >= kEac3BytesMin;
}

void copy_words_swapped(const uint8_t* from, size_t bytes, uint8_t* to)
{
    for (size_t i = 0; i + 1 < bytes; i += 2) {
        to[i] = from[i + 1];
        to[i + 1] = from[i];
    }
}

} // namespace

bool parse_header(const uint8_t* data, Header* header)
{
    *header = {};
    uint8_t swapped[kHeaderBytes] = {};
    if (data[0] == kSync[1] && data[1] == kSync[0]) {
        copy_words_swapped(data, kHeaderBytes, swapped);
        data = swapped;
        header->swapped = true;
    } else if (data[0] != kSync[0] || data[1] != kSync[1]) {
        return false;
    }
    const auto bsid = static_cast<uint8_t>(data[5] >> 3);
    if (bsid > kBsidMax)
        return false;
    return bsid <= kBsidAc3Max ? parse_ac3(data, header) : parse_eac3(data, header);
}

Framer::Framer() : buffer_(kBufferBytes), unit_(kUnitBytesMax) {}

size_t Framer::write(const uint8_t* data, size_t bytes)
{
    if (head_ > 0) {
        memmove(buffer_.data(), at(0), available());
        fill_ -= std::exchange(head_, 0);
    }
    const size_t taken = std::min(bytes, buffer_.size() - fill_);
    std::copy_n(data, taken, buffer_.data() + fill_);
    fill_ += taken;
    return taken;
}

void Framer::lose(size_t bytes)
{
    head_ += bytes;
    lost_bytes_ += bytes;
    // After so much loss the next frames may be another stream's.
    if (lost_bytes_ > size_t{kLostUnitsMax} * good_.bytes)
        have_good_ = false;
}

bool Framer::header_at(size_t offset, Header* header) const
{
    return offset + kHeaderBytes <= available() && parse_header(at(offset), header);
}

// Skips to the next start of a frame. @return false when there is none.
bool Framer::find_start(Header* header)
{
    while (available() >= kHeaderBytes) {
        if (header_at(0, header))
            return true;
        lose(1);
    }
    return false;
}

// Copies a frame to the same place of the unit. @return whether its check sum is right.
bool Framer::copy_frame(size_t offset, const Header& header)
{
    uint8_t* const frame = unit_.data() + offset;
    if (header.swapped)
        copy_words_swapped(at(offset), header.bytes, frame);
    else
        std::copy_n(at(offset), header.bytes, frame);
    // Over all bytes after the sync word, the check sum included, the result is 0 (A/52, 6.1.7).
    return av_crc(av_crc_get_table(AV_CRC_16_ANSI), 0, frame + 2, header.bytes - 2) == 0;
}

// The first offset in [from, to) where a frame of the same stream starts, or 0.
size_t Framer::find_like(const Header& model, size_t from, size_t to) const
{
    Header found = {};
    for (size_t offset = from; offset < to; ++offset) {
        if (header_at(offset, &found) && found.signature == model.signature && found.swapped == model.swapped)
            return offset;
    }
    return 0;
}

// @return how many bytes to skip because the first frame is not what its header says; 0: it is.
size_t Framer::damage(const Header& header, bool intact) const
{
    if (intact)
        return 0;
    if (available() < header.bytes) {
        // Incomplete. If another frame starts where one of the usual size would end, the header's size is wrong.
        const bool oversized = have_good_ && header.bytes > good_.bytes + kSizeSlack;
        return oversized ? find_like(good_, good_.bytes - kSizeSlack, good_.bytes + kSizeSlack + 1) : 0;
    }
    // A part of the frame is missing. With its full size it would include the start of the next frame.
    const size_t restart = find_like(have_good_ ? good_ : header, kSyncBytes, header.bytes);
    if (restart != 0 || !have_good_)
        return restart;
    // With the usual kind and size, only its sound is damaged, which the decoder conceals. Otherwise its header is.
    const bool usual = header.signature == good_.signature && header.bytes + kSizeSlack >= good_.bytes &&
                       header.bytes <= good_.bytes + kSizeSlack;
    return usual ? 0 : kSyncBytes;
}

// Drops a frame of another program, or a dependent frame whose independent one was lost.
void Framer::skip_foreign(const Header& header)
{
    if (!copy_frame(0, header)) {
        lose(kSyncBytes);
        return;
    }
    head_ += header.bytes;
    if (header.dependent && header.substream == 0)
        dependents_ = std::max(dependents_, 1u);
}

// Adds the dependent frames after the first @p total bytes. @return false while one is still incomplete.
bool Framer::collect_dependents(Unit* unit, size_t* total)
{
    uint32_t count = 0;
    bool intact = true;
    Header header = {};
    while (available() >= *total + kHeaderBytes) {
        if (!header_at(*total, &header) || !header.dependent || *total + header.bytes > kUnitBytesMax) {
            dependents_ = count;
            return true;
        }
        if (available() < *total + header.bytes)
            return false;
        intact = copy_frame(*total, header) && intact;
        *total += header.bytes;
        ++count;
        // A damaged dependent frame and those after it are left out. The independent frame is still decoded.
        if (intact)
            unit->bytes = *total;
    }
    if (count < dependents_)
        return false;
    dependents_ = count;
    return true;
}

void Framer::give(const Header& header, size_t total, Unit* unit)
{
    const size_t lost = std::max<size_t>((lost_bytes_ + total / 2) / total, lost_start_ ? 1 : 0);
    unit->lost = have_good_ ? static_cast<uint32_t>(std::min<size_t>(lost, kLostUnitsMax)) : 0;
    lost_bytes_ = 0;
    lost_start_ = false;
    head_ += total;
    if (unit->intact) {
        have_good_ = true;
        good_ = header;
    }
}

bool Framer::next(Unit* unit)
{
    Header header = {};
    while (find_start(&header)) {
        const bool whole = available() >= header.bytes;
        if (header.dependent || header.substream != 0) {
            if (!whole)
                return false;
            skip_foreign(header);
            continue;
        }
        const bool intact = whole && copy_frame(0, header);
        const size_t damaged = damage(header, intact);
        if (damaged > 0) {
            lost_start_ = lost_start_ || header.signature == good_.signature;
            lose(damaged);
            continue;
        }
        size_t total = header.bytes;
        *unit = {unit_.data(), header.bytes, header.samples, intact, 0};
        if (!whole || !collect_dependents(unit, &total))
            return false;
        give(header, total, unit);
        return true;
    }
    return false;
}

} // namespace ac3
