// SPDX-License-Identifier: MIT
#include "source/canvas.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace play
{
namespace
{

/// The code's blocks, as they lie in a picture: two rows of sixteen.
constexpr int code_columns = 16;
constexpr int code_rows = 2;
/// One block of this many to the height of the canvas: small beside a film, and still easy to read.
constexpr int blocks_per_height = 90;

struct Strip {
    int block; ///< pixels, width and height of a block

    explicit Strip(const Canvas& canvas)
        : block(std::max(1, std::min(canvas.height / blocks_per_height, canvas.width / code_columns)))
    {
    }
    int width() const { return code_columns * block; }
    int height() const { return code_rows * block; }
};

/// The picture's pixel in the middle of a block of its code.
uint8_t* code_pixel(Picture* picture, int column, int row)
{
    constexpr int width = Picture::width / code_columns;
    constexpr int height = Picture::code_height / code_rows;
    return picture->luma.data() + (row * height + height / 2) * Picture::width + column * width + width / 2;
}

uint32_t colour_of(uint8_t luma)
{
    int level = (luma - Picture::black) * 255 / (Picture::white - Picture::black);
    auto grey = static_cast<uint32_t>(std::clamp(level, 0, 255));
    return grey << 16 | grey << 8 | grey;
}

uint8_t luma_of(uint32_t colour)
{
    // BT.601 in 1/256; what is seen here is grey, or a film that nobody measures by its brightness.
    uint32_t level = ((colour >> 16 & 255) * 77 + (colour >> 8 & 255) * 150 + (colour & 255) * 29) >> 8;
    return static_cast<uint8_t>(Picture::black + level * (Picture::white - Picture::black) / 255);
}

void fill(Picture* picture, int left, int top, Size size, uint8_t luma)
{
    for (int y = top; y < top + size.height; y++)
        std::fill_n(picture->luma.data() + y * Picture::width + left, size.width, luma);
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
        int from = y * Picture::field_height / canvas.height;
        for (int x = 0; from != painted && x < canvas.width; x++)
            line[static_cast<size_t>(x)] =
                colour_of(picture.field()[from * Picture::width + x * Picture::width / canvas.width]);
        painted = from;
        // Copied line by line: the canvas may be slow to read.
        std::memcpy(canvas.row(y), line.data(), bytes);
    }
}

} // namespace

Size fit(double width, double height, Size box)
{
    if (!(width > 0 && height > 0))
        return box;
    double scale = std::min(box.width / width, box.height / height);
    return {std::clamp(static_cast<int>(std::lround(width * scale)), 1, box.width),
            std::clamp(static_cast<int>(std::lround(height * scale)), 1, box.height)};
}

void paint(const Picture& picture, const Image* image, const Canvas& canvas)
{
    if (image != nullptr && !image->pixels.empty())
        paint_image(*image, canvas);
    else
        paint_field(picture, canvas);
    Strip strip(canvas);
    Picture code = picture;
    for (int y = 0; y < strip.height(); y++)
        for (int column = 0; column < code_columns; column++)
            std::fill_n(canvas.row(y) + column * strip.block, strip.block,
                        colour_of(*code_pixel(&code, column, y / strip.block)));
}

Picture look_at(const Canvas& canvas)
{
    Strip strip(canvas);
    Picture seen;
    // Reads of a card's memory are slow: a few points stand for what lies around them.
    constexpr int code_step_x = Picture::width / code_columns / 2;
    constexpr int code_step_y = Picture::code_height / code_rows / 2;
    for (int y = 0; y < 2 * code_rows; y++)
        for (int x = 0; x < 2 * code_columns; x++)
            fill(&seen, x * code_step_x, y * code_step_y, {code_step_x, code_step_y},
                 luma_of(canvas.row((2 * y + 1) * strip.block / 4)[(2 * x + 1) * strip.block / 4]));
    constexpr int field_step = 4;
    int field_height = canvas.height - strip.height();
    for (int y = 0; y < Picture::field_height; y += field_step)
        for (int x = 0; x < Picture::width; x += field_step) {
            int row = strip.height() + (2 * y + field_step) * field_height / (2 * Picture::field_height);
            int column = (2 * x + field_step) * canvas.width / (2 * Picture::width);
            fill(&seen, x, Picture::code_height + y, {field_step, field_step}, luma_of(canvas.row(row)[column]));
        }
    return seen;
}

} // namespace play
