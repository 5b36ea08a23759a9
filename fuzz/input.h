// SPDX-License-Identifier: MIT
/**
 * @file
 * What the fuzz targets share: the bytes of an input in parts, and the check of what must hold.
 */
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

/// Ends the program where @p condition does not hold, which a fuzzer takes for a finding.
inline void require(bool condition)
{
    if (!condition)
        abort();
}

/// An input from its beginning to its end. Numbers behind the end are 0.
class Input
{
public:
    Input(const uint8_t* data, size_t size) : data_(data), left_(size) {}

    bool empty() const { return left_ == 0; }
    size_t left() const { return left_; }
    uint8_t byte()
    {
        if (left_ == 0)
            return 0;
        --left_;
        return *data_++;
    }
    uint16_t word()
    {
        const uint8_t low = byte();
        return static_cast<uint16_t>(low | byte() << 8);
    }
    /// A copy of @p bytes bytes or of what is left. Exactly its size, so that a sanitizer sees every step over its end.
    std::vector<uint8_t> take(size_t bytes)
    {
        const uint8_t* const begin = data_;
        bytes = std::min(bytes, left_);
        data_ += bytes;
        left_ -= bytes;
        return {begin, begin + bytes};
    }
    std::string text(size_t bytes)
    {
        const std::vector<uint8_t> part = take(bytes);
        return {part.begin(), part.end()};
    }

private:
    const uint8_t* data_;
    size_t left_;
};
