// SPDX-License-Identifier: MIT
#include "source/picture.h"

#include <algorithm>

namespace play
{
namespace
{

constexpr int kBlockWidth = 4;
constexpr int kBlockHeight = 8;
constexpr int kBlocksPerRow = Picture::kWidth / kBlockWidth;
constexpr uint8_t kMiddle = (Picture::kBlack + Picture::kWhite) / 2;

/// Differs from 0 for number 0 too, so that neither a black nor a white picture reads as a number.
uint32_t checksum(uint32_t number)
{
    uint32_t h = (number + 1) * 0x9E3779B1u;
    return (h >> 24) ^ 0x5Au;
}

/// Index of the top left pixel of the block that carries @p bit.
int block_corner(int bit)
{
    return (bit / kBlocksPerRow) * kBlockHeight * Picture::kWidth + (bit % kBlocksPerRow) * kBlockWidth;
}

} // namespace

void write_number(Picture* picture, int64_t number)
{
    auto low = static_cast<uint32_t>(number % kPictureNumberLimit);
    uint32_t code = low | checksum(low) << 24;
    for (int bit = 0; bit < 32; bit++) {
        uint8_t level = (code >> bit & 1) != 0 ? Picture::kWhite : Picture::kBlack;
        uint8_t* corner = picture->luma.data() + block_corner(bit);
        for (int row = 0; row < kBlockHeight; row++)
            std::fill_n(corner + row * Picture::kWidth, kBlockWidth, level);
    }
}

int64_t read_number(const Picture& picture)
{
    uint32_t code = 0;
    for (int bit = 0; bit < 32; bit++) {
        const uint8_t* corner = picture.luma.data() + block_corner(bit);
        int sum = 0;
        for (int row = 0; row < kBlockHeight; row++)
            for (int column = 0; column < kBlockWidth; column++)
                sum += corner[row * Picture::kWidth + column];
        if (sum > kMiddle * kBlockWidth * kBlockHeight)
            code |= 1u << bit;
    }
    uint32_t number = code & (kPictureNumberLimit - 1);
    return code >> 24 == checksum(number) ? static_cast<int64_t>(number) : -1;
}

void fill_field(Picture* picture, uint8_t luma)
{
    std::fill_n(picture->field(), Picture::kWidth * Picture::kFieldHeight, luma);
}

bool is_flash(const Picture& picture)
{
    int sum = 0;
    for (int i = 0; i < Picture::kWidth * Picture::kFieldHeight; i++)
        sum += picture.field()[i];
    return sum > kMiddle * Picture::kWidth * Picture::kFieldHeight;
}

} // namespace play
