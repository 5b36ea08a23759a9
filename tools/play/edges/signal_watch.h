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
    Content content() const { return content_; }
    /// Of the bursts seen last: 4 if they are E-AC-3.
    int frames_per_sample() const { return content_ == Content::compressed ? frames_per_sample_ : 1; }
    /// Link frames per second, when two measurements in a row agreed; 0: not known.
    double link_rate() const { return link_rate_; }

private:
    void look_at(uint16_t left, uint16_t right);
    void take_preamble();
    void pace(int64_t now_ns);
    void begin_measurement(int64_t now_ns);
    void end_measurement();

    Content content_ = Content::unknown;
    int frames_per_sample_ = 1;
    bool type_is_next_ = false; ///< the frame after a preamble names what is in the burst
    int64_t since_preamble_ = 0;
    int64_t distance_ = 0; ///< between the last two preambles
    int equal_ = 0;        ///< distances in a row that were the same
    int64_t sounding_ = 0; ///< frames that are not silent, since the last preamble

    int64_t frames_ = 0; ///< since the pace is measured
    int64_t began_ns_ = 0;
    int64_t last_ns_ = 0;
    double count_ = 0;
    double sum_t_ = 0;
    double sum_n_ = 0;
    double sum_tt_ = 0;
    double sum_tn_ = 0;
    double measured_ = 0; ///< the last measurement
    double link_rate_ = 0;
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
    void measure_anew() { change_++; }
    /// What the frames tell; nothing of the device's controls.
    LinkEvidence evidence() const;

private:
    SignalWatch watch_; ///< of who captures
    std::atomic<Content> content_{Content::unknown};
    std::atomic<int> frames_per_sample_{1};
    std::atomic<double> link_rate_{0};
    std::atomic<int64_t> change_{0};   ///< number of the latest announcement
    std::atomic<int64_t> measured_{0}; ///< that to which the link rate belongs: written after it, read before it
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
    int announced_ = 0;
    double named_ = 0; ///< the rate that the last message was about
};

} // namespace play
