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
    static constexpr int width = 64;
    static constexpr int height = 48;
    static constexpr int code_height = 16; ///< rows that carry the number
    static constexpr int field_height = height - code_height;
    static constexpr uint8_t black = 16;
    static constexpr uint8_t white = 235;

    std::array<uint8_t, width * height> luma;

    uint8_t* field() { return luma.data() + code_height * width; }
    const uint8_t* field() const { return luma.data() + code_height * width; }
};

/// Numbers are counted modulo this.
constexpr int64_t picture_number_limit = int64_t{1} << 24;

void write_number(Picture* picture, int64_t number);
/// The number, or -1 if the blocks do not carry one.
int64_t read_number(const Picture& picture);

void fill_field(Picture* picture, uint8_t luma);
/// Whether the field is white.
bool is_flash(const Picture& picture);

} // namespace play
