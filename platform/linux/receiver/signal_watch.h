// SPDX-License-Identifier: MIT
/**
 * @file
 * Finds what a receiver's driver would announce of a source, by nothing but the
 * frames that a capture device gives and the times at which it gives them.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace hdmi_linux
{

enum class Content { unknown, pcm, compressed };

/// Examines captured link frames as they come. Allocates nothing.
class SignalWatch
{
public:
    /// @p bytes of 16-bit stereo that were read until @p now_ns.
    void feed(const uint8_t* data, int bytes, int64_t now_ns);
    /// The device was opened again, or another stream follows: measures the rate anew.
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

/// What is known of the source; 0 or less: not known.
struct LinkEvidence {
    int control_rate = -1; ///< link frames per second that the device's controls name
    Content content = Content::unknown;
    int frames_per_sample = 1;
    double link_rate = 0; ///< as it was measured
};

/// A SignalWatch between two threads: one feeds it with what it captures, the other asks. Neither waits.
class SharedWatch
{
public:
    // Called by the capturing thread:

    void feed(const uint8_t* data, int bytes, int64_t now_ns);
    /// The device was opened: what follows is another stream.
    void opened();

    // Called by the announcing thread:

    /// Another state was announced: discards what was measured before.
    void measure_anew() { change_++; }
    /// From the frames; the device's controls are not asked.
    LinkEvidence evidence() const;

private:
    SignalWatch watch_; ///< the capturing thread's
    std::atomic<Content> content_{Content::unknown};
    std::atomic<int> frames_per_sample_{1};
    std::atomic<double> link_rate_{0};
    std::atomic<int64_t> change_{0};   ///< number of the latest announcement
    std::atomic<int64_t> measured_{0}; ///< the one to which the link rate belongs: written after it, read before it
};

/// The state to announce after @p announced.
LinkState derive_state(const LinkState& announced, const LinkEvidence& evidence);

/// Finds a source whose rate is not the announced one.
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

} // namespace hdmi_linux
