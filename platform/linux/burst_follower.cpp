// SPDX-License-Identifier: MIT
#include "burst_follower.h"

namespace hdmi_linux
{
namespace
{

constexpr uint16_t kSyncA = 0xF872;
constexpr uint16_t kSyncB = 0x4E1F;
constexpr int kTypeMask = 0x7F;
constexpr int kBitsPerWord = 16;

// Whether a data type's length code counts bytes; the others count bits. Types above those
// known count as bytes, which makes the payload longer: to take stuffing for payload does no harm.
bool length_is_bytes(int type)
{
    constexpr int kDts4 = 17;
    constexpr int kFirstOfBytes = 21; // E-AC-3
    return type == kDts4 || type >= kFirstOfBytes;
}

} // namespace

int BurstFollower::find_stuffing(const int16_t* words, int frames, int run)
{
    int found = -1;
    for (int frame = 0, length = 0; frame < frames; ++frame, words += 2) {
        const bool first = is_stuffing(static_cast<uint16_t>(words[0]));
        const bool second = is_stuffing(static_cast<uint16_t>(words[1]));
        length = first && second ? length + 1 : 0;
        if (length == run && found < 0)
            found = frame + 1 - run;
    }
    return found;
}

bool BurstFollower::is_stuffing(uint16_t word)
{
    if (payload_left_ > 0) {
        --payload_left_;
        return false;
    }
    switch (expected_) {
    case Expected::sync_a:
        if (word == kSyncA)
            expected_ = Expected::sync_b;
        return seen_ && word == 0;
    case Expected::sync_b: expected_ = word == kSyncB ? Expected::info : Expected::sync_a; break;
    case Expected::info:
        type_ = word & kTypeMask;
        expected_ = Expected::length;
        break;
    case Expected::length:
        payload_left_ = (word * (length_is_bytes(type_) ? 8 : 1) + kBitsPerWord - 1) / kBitsPerWord;
        expected_ = Expected::sync_a;
        seen_ = true;
        break;
    }
    return false;
}

} // namespace hdmi_linux
