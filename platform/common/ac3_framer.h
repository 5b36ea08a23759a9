// SPDX-License-Identifier: MIT
/**
 * @file
 * Cuts an AC-3 or E-AC-3 elementary stream, written in parts of any size, into
 * units for a decoder. Pure; no threads.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ac3
{

/// Bytes of a frame that parse_header() reads.
constexpr size_t kHeaderBytes = 8;
/// Most PCM samples per channel of a frame: six blocks.
constexpr uint32_t kFrameSamplesMax = 1536;
/// An E-AC-3 frame has at most 4096 bytes. An independent and seven dependent ones fit; more are left out.
constexpr size_t kUnitBytesMax = 8 * 4096;

/// The header of a frame (ATSC A/52, 5.3 and E.1.2.1).
struct Header {
    uint32_t bytes;   ///< of the frame
    uint32_t samples; ///< per channel
    int32_t rate;     ///< Hz
    bool dependent;   ///< extends the independent frame before it
    uint8_t substream;
    uint32_t signature; ///< the same in all frames of a stream, and in hardly any other data
    bool swapped;       ///< 16-bit words with their low byte first, as IEC 61937 carries them
};

/// Reads kHeaderBytes bytes. @return false when they do not begin a frame.
bool parse_header(const uint8_t* data, Header* header);

/// An independent frame and the dependent ones that belong to it, in the stream's own byte order.
struct Unit {
    const uint8_t* data; ///< valid until the next call to the framer
    size_t bytes;
    uint32_t samples; ///< per channel
    bool intact;      ///< its check sum is right
    uint32_t lost;    ///< units lost before it, estimated from the skipped bytes
};

class Framer
{
public:
    Framer();

    /// Accepts as many bytes as there is room for. After next() has returned false, all room is free.
    size_t write(const uint8_t* data, size_t bytes);

    /**
     * The next unit, as soon as its last byte was written: its header tells its
     * size. In a stream with dependent frames the unit waits for those, or for the
     * start of the next unit.
     */
    bool next(Unit* unit);

private:
    size_t available() const { return fill_ - head_; }
    const uint8_t* at(size_t offset) const { return buffer_.data() + head_ + offset; }
    bool header_at(size_t offset, Header* header) const;
    bool find_start(Header* header);
    bool copy_frame(size_t offset, const Header& header);
    size_t find_like(const Header& model, size_t from, size_t to) const;
    size_t damage(const Header& header, bool intact) const;
    void skip_foreign(const Header& header);
    bool collect_dependents(Unit* unit, size_t* total);
    void give(const Header& header, size_t total, Unit* unit);
    void lose(size_t bytes);

    std::vector<uint8_t> buffer_; ///< the stream as written; of constant size
    std::vector<uint8_t> unit_;   ///< the unit in the stream's own byte order; of constant size
    size_t head_ = 0;
    size_t fill_ = 0;
    size_t lost_bytes_ = 0;   ///< bytes skipped since the last unit
    bool lost_start_ = false; ///< a frame began in those bytes
    bool have_good_ = false;
    Header good_ = {};        ///< of the last frame whose check sum was right
    uint32_t dependents_ = 0; ///< of the previous unit
};

} // namespace ac3
