// SPDX-License-Identifier: MIT
/**
 * @file
 * What a receiver's driver would announce of a source, from nothing but the
 * frames that a capture device gives and when it gives them.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace play
{

enum class Content { unknown, pcm, compressed };

/// Looks at captured link frames as they come. Quick, without memory of its own beyond its members.
class SignalWatch
{
public:
    /// @p bytes of 16-bit stereo that were read until @p now_ns.
    void feed(const uint8_t* data, int bytes, int64_t now_ns);
    /// What follows is another opening of the device, or another stream: the pace is measured anew.
    void restart_pace();

    /// Compressed once three IEC 61937 preambles came equally far apart; PCM once there was sound for twice the longest
    /// burst without one. Silence changes nothing.
    Content content() const { return m_content; }
    /// Of the bursts seen last: 4 if they are E-AC-3.
    int frames_per_sample() const { return m_content == Content::compressed ? m_frames_per_sample : 1; }
    /// Link frames per second, when two measurements in a row agreed; 0: not known.
    double link_rate() const { return m_link_rate; }

private:
    void look_at(uint16_t left, uint16_t right);
    void take_preamble();
    void pace(int64_t now_ns);
    void begin_measurement(int64_t now_ns);
    void end_measurement();

    Content m_content = Content::unknown;
    int m_frames_per_sample = 1;
    bool m_type_is_next = false; ///< the frame after a preamble names what is in the burst
    int64_t m_since_preamble = 0;
    int64_t m_distance = 0; ///< between the last two preambles
    int m_equal = 0;        ///< distances in a row that were the same
    int64_t m_sounding = 0; ///< frames that are not silent, since the last preamble

    int64_t m_frames = 0; ///< since the pace is measured
    int64_t m_began_ns = 0;
    int64_t m_last_ns = 0;
    double m_count = 0;
    double m_sum_t = 0;
    double m_sum_n = 0;
    double m_sum_tt = 0;
    double m_sum_tn = 0;
    double m_measured = 0; ///< the last measurement
    double m_link_rate = 0;
};

/// What is, or is to be, announced.
struct LinkState {
    bool compressed = false;
    int sample_rate = 48000; ///< Hz; 0: one that the player does not support
    bool operator==(const LinkState& other) const
    {
        return compressed == other.compressed && sample_rate == other.sample_rate;
    }
    bool operator!=(const LinkState& other) const { return !(*this == other); }
};

/// What was found out about the source; what is not known is 0 or less.
struct LinkEvidence {
    int control_rate = -1; ///< link frames per second that the device's controls name
    Content content = Content::unknown;
    int frames_per_sample = 1;
    double link_rate = 0; ///< as it was measured
};

/// A watch that one thread feeds with what it captures, and another one asks. Neither waits for the other.
class SharedWatch
{
public:
    // Who captures:

    void feed(const uint8_t* data, int bytes, int64_t now_ns);
    /// The device was opened: what follows is another stream.
    void opened();

    // Who announces:

    /// Something else is announced from now on: what was measured before says nothing about it.
    void measure_anew() { m_change++; }
    /// What the frames tell; nothing of the device's controls.
    LinkEvidence evidence() const;

private:
    SignalWatch m_watch; ///< of who captures
    std::atomic<Content> m_content{Content::unknown};
    std::atomic<int> m_frames_per_sample{1};
    std::atomic<double> m_link_rate{0};
    std::atomic<int64_t> m_change{0};   ///< number of the latest announcement
    std::atomic<int64_t> m_measured{0}; ///< that to which the link rate belongs: written after it, read before it
};

/// The state to announce after @p announced.
LinkState derive_state(const LinkState& announced, const LinkEvidence& evidence);

/// Finds sources whose pace is not what was announced.
class RateWatch
{
public:
    /// @return one line when the measured rate differs by more than 0.5 % from the announced one; again only after
    ///         one of the two has changed
    std::string look(const LinkState& announced, const LinkEvidence& evidence);

private:
    int m_announced = 0;
    double m_named = 0; ///< the rate that the last message was about
};

} // namespace play
