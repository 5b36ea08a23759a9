// SPDX-License-Identifier: MIT
#include "source/picture.h"

#include <algorithm>

namespace play
{
namespace
{

constexpr int block_width = 4;
constexpr int block_height = 8;
constexpr int blocks_per_row = Picture::width / block_width;
constexpr uint8_t middle = (Picture::black + Picture::white) / 2;

/// Differs from 0 for number 0 too, so that neither a black nor a white picture reads as a number.
uint32_t checksum(uint32_t number)
{
    uint32_t h = (number + 1) * 0x9E3779B1u;
    return (h >> 24) ^ 0x5Au;
}

/// Index of the top left pixel of the block that carries @p bit.
int block_corner(int bit)
{
    return (bit / blocks_per_row) * block_height * Picture::width + (bit % blocks_per_row) * block_width;
}

} // namespace

void write_number(Picture* picture, int64_t number)
{
    auto low = static_cast<uint32_t>(number % picture_number_limit);
    uint32_t code = low | checksum(low) << 24;
    for (int bit = 0; bit < 32; bit++) {
        uint8_t level = (code >> bit & 1) != 0 ? Picture::white : Picture::black;
        uint8_t* corner = picture->luma.data() + block_corner(bit);
        for (int row = 0; row < block_height; row++)
            std::fill_n(corner + row * Picture::width, block_width, level);
    }
}

int64_t read_number(const Picture& picture)
{
    uint32_t code = 0;
    for (int bit = 0; bit < 32; bit++) {
        const uint8_t* corner = picture.luma.data() + block_corner(bit);
        int sum = 0;
        for (int row = 0; row < block_height; row++)
            for (int column = 0; column < block_width; column++)
                sum += corner[row * Picture::width + column];
        if (sum > middle * block_width * block_height)
            code |= 1u << bit;
    }
    uint32_t number = code & (picture_number_limit - 1);
    return code >> 24 == checksum(number) ? static_cast<int64_t>(number) : -1;
}

void fill_field(Picture* picture, uint8_t luma)
{
    std::fill_n(picture->field(), Picture::width * Picture::field_height, luma);
}

bool is_flash(const Picture& picture)
{
    int sum = 0;
    for (int i = 0; i < Picture::width * Picture::field_height; i++)
        sum += picture.field()[i];
    return sum > middle * Picture::width * Picture::field_height;
}

} // namespace play
