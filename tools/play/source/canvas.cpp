// SPDX-License-Identifier: MIT
#include "source/canvas.h"

#include <algorithm>
#include <cstring>

namespace play
{
namespace
{

/// The code's blocks, as they lie in a picture: two rows of sixteen.
constexpr int kCodeColumns = 16;
constexpr int kCodeRows = 2;
/// One block of this many to the height of the canvas: small beside a film, and still easy to read.
constexpr int kBlocksPerHeight = 90;

struct Strip {
    int block; ///< pixels, width and height of a block

    explicit Strip(const Canvas& canvas)
        : block(std::max(1, std::min(canvas.height / kBlocksPerHeight, canvas.width / kCodeColumns)))
    {
    }
    int width() const { return kCodeColumns * block; }
    int height() const { return kCodeRows * block; }
};

/// The picture's pixel in the middle of a block of its code.
uint8_t* code_pixel(Picture* picture, int column, int row)
{
    constexpr int kWidth = Picture::kWidth / kCodeColumns;
    constexpr int kHeight = Picture::kCodeHeight / kCodeRows;
    return picture->luma.data() + (row * kHeight + kHeight / 2) * Picture::kWidth + column * kWidth + kWidth / 2;
}

uint32_t colour_of(uint8_t luma)
{
    int level = (luma - Picture::kBlack) * 255 / (Picture::kWhite - Picture::kBlack);
    auto grey = static_cast<uint32_t>(std::clamp(level, 0, 255));
    return grey << 16 | grey << 8 | grey;
}

uint8_t luma_of(uint32_t colour)
{
    // BT.601 in 1/256; what is seen here is grey, or a film that nobody measures by its brightness.
    uint32_t level = ((colour >> 16 & 255) * 77 + (colour >> 8 & 255) * 150 + (colour & 255) * 29) >> 8;
    return static_cast<uint8_t>(Picture::kBlack + level * (Picture::kWhite - Picture::kBlack) / 255);
}

void fill(Picture* picture, int left, int top, Size size, uint8_t luma)
{
    for (int y = top; y < top + size.height; y++)
        std::fill_n(picture->luma.data() + y * Picture::kWidth + left, size.width, luma);
}

void paint_image(const Image& image, const Canvas& canvas)
{
    Size size = fit(image.width, image.height, {canvas.width, canvas.height});
    int left = (canvas.width - size.width) / 2;
    int top = (canvas.height - size.height) / 2;
    std::vector<int> columns(static_cast<size_t>(size.width));
    for (int x = 0; x < size.width; x++)
        columns[static_cast<size_t>(x)] = x * image.width / size.width;
    for (int y = 0; y < canvas.height; y++) {
        uint32_t* row = canvas.row(y);
        if (y < top || y >= top + size.height) {
            std::fill_n(row, canvas.width, 0);
            continue;
        }
        std::fill_n(row, left, 0);
        std::fill(row + left + size.width, row + canvas.width, 0);
        const uint32_t* from = image.pixels.data() + static_cast<size_t>((y - top) * image.height / size.height) *
                                                         static_cast<size_t>(image.width);
        if (size.width == image.width)
            std::memcpy(row + left, from, static_cast<size_t>(size.width) * sizeof *from);
        else
            for (int x = 0; x < size.width; x++)
                row[left + x] = from[columns[static_cast<size_t>(x)]];
    }
}

void paint_field(const Picture& picture, const Canvas& canvas)
{
    const auto bytes = static_cast<size_t>(canvas.width) * sizeof(uint32_t);
    std::vector<uint32_t> line(static_cast<size_t>(canvas.width));
    int painted = -1;
    for (int y = 0; y < canvas.height; y++) {
        int from = y * Picture::kFieldHeight / canvas.height;
        for (int x = 0; from != painted && x < canvas.width; x++)
            line[static_cast<size_t>(x)] =
                colour_of(picture.field()[from * Picture::kWidth + x * Picture::kWidth / canvas.width]);
        painted = from;
        // Copied line by line: the canvas may be slow to read.
        std::memcpy(canvas.row(y), line.data(), bytes);
    }
}

} // namespace

void paint(const Picture& picture, const Image* image, const Canvas& canvas)
{
    if (image != nullptr && !image->pixels.empty())
        paint_image(*image, canvas);
    else
        paint_field(picture, canvas);
    Strip strip(canvas);
    Picture code = picture;
    for (int y = 0; y < strip.height(); y++)
        for (int column = 0; column < kCodeColumns; column++)
            std::fill_n(canvas.row(y) + column * strip.block, strip.block,
                        colour_of(*code_pixel(&code, column, y / strip.block)));
}

Picture look_at(const Canvas& canvas)
{
    Strip strip(canvas);
    Picture seen;
    // Reads of a card's memory are slow: a few points stand for what lies around them.
    constexpr int kCodeStepX = Picture::kWidth / kCodeColumns / 2;
    constexpr int kCodeStepY = Picture::kCodeHeight / kCodeRows / 2;
    for (int y = 0; y < 2 * kCodeRows; y++)
        for (int x = 0; x < 2 * kCodeColumns; x++)
            fill(&seen, x * kCodeStepX, y * kCodeStepY, {kCodeStepX, kCodeStepY},
                 luma_of(canvas.row((2 * y + 1) * strip.block / 4)[(2 * x + 1) * strip.block / 4]));
    constexpr int kFieldStep = 4;
    int field_height = canvas.height - strip.height();
    for (int y = 0; y < Picture::kFieldHeight; y += kFieldStep)
        for (int x = 0; x < Picture::kWidth; x += kFieldStep) {
            int row = strip.height() + (2 * y + kFieldStep) * field_height / (2 * Picture::kFieldHeight);
            int column = (2 * x + kFieldStep) * canvas.width / (2 * Picture::kWidth);
            fill(&seen, x, Picture::kCodeHeight + y, {kFieldStep, kFieldStep}, luma_of(canvas.row(row)[column]));
        }
    return seen;
}

} // namespace play
