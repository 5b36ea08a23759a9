// SPDX-License-Identifier: MIT
/**
 * @file
 * A small picture that can be told from every other by its pixels alone: two
 * rows of blocks carry its number and a checksum, the field below them shows
 * the content (or, in the programme, the flash).
 */
#pragma once

#include <array>
#include <cstdint>

namespace play
{

/// Luma of one picture, narrow range (16 is black, 235 is white), rows from the top.
struct Picture {
    static constexpr int kWidth = 64;
    static constexpr int kHeight = 48;
    static constexpr int kCodeHeight = 16; ///< rows that carry the number
    static constexpr int kFieldHeight = kHeight - kCodeHeight;
    static constexpr uint8_t kBlack = 16;
    static constexpr uint8_t kWhite = 235;

    alignas(16) std::array<uint8_t, kWidth * kHeight> luma; ///< aligned for libswscale, which writes to it

    uint8_t* field() { return luma.data() + kCodeHeight * kWidth; }
    const uint8_t* field() const { return luma.data() + kCodeHeight * kWidth; }
};

/// Numbers are counted modulo this.
constexpr int64_t kPictureNumberLimit = int64_t{1} << 24;

void write_number(Picture* picture, int64_t number);
/// The number, or -1 if the blocks do not carry one.
int64_t read_number(const Picture& picture);

void fill_field(Picture* picture, uint8_t luma);
/// Whether the field is white.
bool is_flash(const Picture& picture);

} // namespace play
