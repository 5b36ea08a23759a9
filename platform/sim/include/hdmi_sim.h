// SPDX-License-Identifier: MIT
/**
 * @file
 * Control of the simulated platform: an HDMI receiver with its own clock, a
 * playback device that records, a display, a CEC link, and faults on demand.
 *
 * The library under test sees only aio_device_*, adecoder_*, vendor_hdmi_cec_*,
 * drmWaitVBlank(), uevents and the receiver's state file. Programs and tests
 * set the stage here and read afterwards what happened at the edges.
 *
 * Times are nanoseconds of CLOCK_MONOTONIC unless a name says otherwise; every
 * simulated device paces itself with absolute deadlines on that clock. All
 * functions may be called from any thread.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace hdmi_sim
{

int64_t now_ns();

// --- Receiver ---------------------------------------------------------------

/**
 * What the source sends, as link frames: two 16-bit words each, one frame per
 * sample of PCM, four per sample for an E-AC-3 bitstream.
 */
struct Signal {
    /// Link frames per second by the source's own idea of time.
    int rate = 48000;
    /// Deviation of the source's clock from the monotonic clock, parts per million.
    double clock_error_ppm = 0;
    /// When link frame 0 passes; 0: at the call of receiver_connect().
    int64_t start_ns = 0;
    /// Fills @p frames link frames, starting with number @p first. Called while
    /// the player reads the device, in any order of @p first; must not block.
    /// Without it the link carries zeros.
    std::function<void(int64_t first, int16_t* words, int frames)> generate;
    /// The link frame, at or after @p frame, with which the captured data of a device that is opened now begins; what
    /// passes before it is not captured. Called with the receiver's lock held: pure, quick, no call back into the
    /// simulator. Without it: @p frame itself, the one that passes next.
    std::function<int64_t(int64_t frame)> open_at;
    /// Periods that the capture device collects before it gives them to its reader: more than one on a fast link, whose
    /// periods are short, so that the reader wakes less often.
    int periods_at_once = 1;
};

/**
 * The capture device gives periods of the configuration's period_frames link
 * frames at the pace of this signal, whatever rate it was opened with (0 opens
 * as 48000). After an open it begins with the link frame that passes next; a
 * period can be read when its last frame has passed, or that of the last one of
 * periods_at_once. It holds complete periods for as long as period_count of
 * them last at the rate it was opened with, and period_count times
 * periods_at_once of them at least; when nobody reads, the oldest are lost.
 * Reads of any size work; a brief, odd one (see Fault) gives up the rest of its
 * last frame.
 *
 * A signal that takes the place of another one while the device is open fills
 * the rest of the period that was under way.
 */

/// The cable is in and the source sends @p signal from now on (or from its start_ns on).
void receiver_connect(Signal signal);
/// The signal ends: reads of the capture device block until there is one again or the device is closed.
void receiver_disconnect();

struct ReceiverStats {
    int64_t opens = 0;
    int64_t periods_read = 0;
    int64_t overruns = 0; ///< periods lost because nobody read
    int64_t frames_read = 0;
    int64_t first_read_frame = -1; ///< link frame with which reading in the last opening began; -1: nothing read yet
    int64_t end_read_frame = -1;   ///< link frame after the last one read; -1: nothing read yet
    int bypass_mode = -1;          ///< audio_in_bypass_mode_e at the last open
    int sample_rate = 0;           ///< Hz, at the last open
};
ReceiverStats receiver_stats();

/// What one signal put on the digital outputs during one opening.
struct BypassRun {
    int rate;            ///< link frames per second
    int64_t first_frame; ///< the signal's number of the first link frame
    int64_t first_ns;    ///< when that one left the source
    std::vector<int16_t> words;
};
/**
 * Raw pass-through. A capture device that was opened with bypass mode TO_RAW
 * is also a path past the player: from the opening on, whatever passes on the
 * link arrives at S/PDIF and ARC at the link's pace, whether the player reads
 * or not and whether a playback device is open or not (its sound goes nowhere
 * then; which of the outputs is meant is not known here, because a player that
 * selects the output last closes its device without naming it). Reads deliver
 * the same data to the player.
 *
 * @return everything that arrived so far, oldest first. The words come from
 *         the signals' generate(), which is asked again for them: a generator
 *         must still know all of its past.
 */
std::vector<BypassRun> bypass_recording();

// --- Compressed signals ---------------------------------------------------------

/// What is inside a burst: the data type of Pc.
enum class Coding { ac3 = 1, dts1 = 11, dts2 = 12, dts3 = 13, eac3 = 21 };

/**
 * One IEC 61937 data burst: Pa and Pb, then what is in here, then zeros up to
 * the end of its repetition period. Change the fields for a source at fault:
 * another type or the error flag in `pc`, a length in `pd` that is not that of
 * the payload (0xFFFF: longer than the burst), a cut or damaged payload.
 */
struct Burst {
    uint16_t pc; ///< data type, flags
    uint16_t pd; ///< length of the payload: bits, for E-AC-3 bytes
    /// As it passes on the link: the stream's bytes swapped in pairs. What does not fit before the next burst is cut.
    std::vector<uint8_t> payload;
};

/// A compressed stream, by the burst. AC-3 and E-AC-3: 1536 samples each, DTS: 512, 1024 or 2048.
struct Bitstream {
    Coding coding = Coding::ac3;
    int sample_rate = 0; ///< Hz, of the sound; the link is faster for E-AC-3
    std::vector<Burst> bursts;
};
/// Link frames from one burst to the next: a quarter of its bytes (AC-3 6144, DTS 2048, 4096, 8192, E-AC-3 24576).
int burst_frames(Coding coding);
/// Link frames per second: the sample rate; for E-AC-3 four times it.
int link_rate(const Bitstream& stream);

/**
 * Packs an elementary stream of AC-3 or E-AC-3 (the content of an .ac3 or .eac3
 * file, in the usual byte order) with libavformat's IEC 61937 muxer: as many
 * frames to a burst as make 1536 samples. Left out are a frame that the muxer
 * refuses and, at the end, a burst that did not become full. The sample rate is
 * that of the last frame.
 * @return false when there is not one burst in it, with one line in @p error.
 */
bool pack_bitstream(Coding coding, const uint8_t* data, size_t bytes, Bitstream* stream, std::string* error = nullptr);
/// DTS to the outside only: sync word, then noise. @p type: one of the dts codings.
Bitstream dts_bitstream(Coding type, int sample_rate, int bursts, uint32_t seed);

/// No sound on the link for @p frames link frames, before burst @p before_burst (in every round of a repeated stream).
struct BurstGap {
    int64_t before_burst;
    int64_t frames;
    int64_t pause_frames = 0; ///< link frames from one pause burst (data type 3) to the next; 0: zeros only
};
struct BurstOptions {
    /**
     * Where bursts lie in what a capture device reads: the bytes between the
     * beginning of an opening and the next burst that begins, modulo the bytes
     * of a burst. A multiple of 4, as a link frame is never cut. The device
     * waits for such a link frame: its data begins up to a burst later. Of chunks of 3840 bytes,
     * every eighth ends where an AC-3 burst ends if the phase is a multiple of
     * 768; with an odd multiple of 4, chunks also end inside a preamble.
     * Negative: openings begin wherever they fall.
     */
    int phase_bytes = -1;
    int64_t lead_frames = 0; ///< zeros before burst 0
    std::vector<BurstGap> gaps;
    bool repeat = false;       ///< after the last burst, begin again with burst 0; otherwise zeros follow
    double bit_error_rate = 0; ///< chance of a bit to be wrong, anywhere on the link; at most one bit in a link frame
    uint64_t seed = 1;         ///< of the bit errors: the same seed, the same bits
};
/**
 * The source that sends @p stream; its rate is link_rate(), and at the E-AC-3
 * pace four periods are read at once. start_ns and clock_error_ppm are the
 * caller's to set. The signal holds a copy, is the same
 * at every call and knows all of its past.
 *
 * Time: burst k begins (its Pa passes) with link frame burst_start(k), which is
 * at start_ns + burst_start(k) / link_rate seconds. That is when the first of
 * the samples belongs to the picture that a decoder makes of this burst. A coder
 * overlaps its blocks: what the encoder was given as sample n comes out of the
 * decoder as sample n + 256 (for libavcodec's encoders: initial_padding), and
 * the first 256 samples after a burst that follows nothing are incomplete.
 *
 * Silence. A player hands zeros on a compressed link on as PCM of the stated
 * sample rate, one sample per link frame. On an E-AC-3 link, four times as
 * fast, each second of them becomes four seconds of silence. The first burst
 * discards what waits inside the player, but not what its host has written:
 * after a second of zeros or more that is all that the output takes, 128 blocks
 * and 8 periods, 2.7 s ahead of the first sound (measured: written 0.14 s after
 * its burst began, heard 2.75 s after). A source that is to stay in sync therefore sends
 * neither lead nor gaps at the E-AC-3 pace; at that of AC-3 they do no harm.
 */
Signal bitstream_signal(const Bitstream& stream, const BurstOptions& options = {});
/// The link frame with which burst @p burst begins (repeated streams count on); -1 for one that never comes.
int64_t burst_start(const Bitstream& stream, const BurstOptions& options, int64_t burst);

/**
 * The decoder fills in silence for what is missing by the time (adecoder.h).
 * Off, for the control of a test: it counts what it decoded only.
 */
void decoder_fills_losses(bool on);
/// For a program that decodes here what it captures from another platform's device: what became of that device.
enum class CaptureNews { opened, delivered, closed };
void note_capture(CaptureNews news);

// --- Announcements ------------------------------------------------------------

/**
 * Readies the announcements of this process: in private mount and network
 * namespaces where the machine permits them, else in the process itself, where
 * the player's library alone gets to hear them. Call before the process has
 * threads. Called again it does nothing. The functions below fail with errno
 * EPERM until this or enter_private_namespaces() has succeeded.
 * @return false with one line in @p error
 */
bool prepare_announcements(std::string* error);

/**
 * Enters private mount and network namespaces (unprivileged: in a new user
 * namespace) and puts an empty "/sys/class/extcon/hdmirx_aud/" into place, with
 * the rest of /sys/class as it is. Call before the process has threads. Called
 * again it does nothing. Announcements never reach the machine's own network
 * namespace, where its device manager listens.
 * @return false with one line in @p error that says what the machine must allow.
 */
bool enter_private_namespaces(std::string* error);

/// The driver's name of a state, e.g. announce_text(true, 44100) is "HEADDONE_COMP_44=1"; empty for other rates.
std::string announce_text(bool compressed, int sample_rate);
/// Writes the state file only.
bool write_state_file(const std::string& text);
/// Writes the state file and sends the uevent, as the driver does at a change.
bool announce(const std::string& state);
/// Sends one uevent: NUL-separated strings as they are.
bool send_uevent(const std::string& message);

// --- Playback -------------------------------------------------------------------

/// Whether what is played is resampled, so that it keeps its age between the link's clock and the device's.
enum class RateMatching {
    automatic, ///< if one of the two clocks has an error: with one clock for both, the samples stay as they are
    on,
    off,
};

/// A run of frames that were heard, of one period at most; of the silence of an underrun there are no samples.
struct HeardFrames {
    const int16_t* samples; ///< interleaved; null: silence
    int64_t frames;
    int64_t heard_ns; ///< when the first of them is heard
    int rate;
    int channels;
};

struct PlaybackConfig {
    std::string wav_path;       ///< records everything played, underrun silence included; empty: no recording
    double clock_error_ppm = 0; ///< of the playback device's clock
    RateMatching rate_matching = RateMatching::automatic;
    /// Told of everything played, in order, some time after it was heard; playback_stats() first tells it of
    /// what it does not know yet. Called with the device's lock held: quick, no call back into the simulator.
    std::function<void(const HeardFrames&)> on_heard = nullptr;
};
/**
 * Takes effect at the next open of a playback device. Recording goes on across
 * reopens; a reopen at another rate or with other channels begins another file,
 * "name-2.wav", "name-3.wav".
 *
 * The device's clock starts with the first write after an open. Volume and mute
 * act on the samples as they are written. aio_device_set_volume takes percent
 * on a scale even to the ear, 0.6 dB a step: 100, like a volume never set,
 * leaves the samples as they are, 0 is silence. aio_device_set_volume_direct
 * takes 0 to 255, in proportion to the amplitude. The later call counts; values
 * outside are refused.
 */
void playback_configure(const PlaybackConfig& config);

/// One run of consecutive frames in the recording: of sound at most one period.
struct PlayedBlock {
    int64_t first_frame; ///< position in the file
    int64_t frames;
    int64_t heard_ns; ///< when its first frame is heard
    bool silence;     ///< made by an underrun
};
struct PlaybackStats {
    bool open = false;
    int64_t opens = 0;
    int64_t frames_written = 0; ///< by the player
    bool rate_matching = false; ///< they are resampled
    double matching_ppm = 0;    ///< by which they are used up faster than they would be otherwise
    int64_t underruns = 0;
    int64_t left_out = 0; ///< frames of the written ones that came too late after an underrun, and were not played
    int64_t refilled = 0; ///< frames of silence that were queued beside the written ones after an underrun
    int64_t first_write_ns = 0;   ///< 0: none yet
    int64_t last_underrun_ns = 0; ///< 0: none
    int sample_rate = 0;
    int device_id = -1;     ///< audio_io_dev_e
    int output_fmt = -1;    ///< audio_io_format_e
    int volume = -1;        ///< last aio_device_set_volume, percent; -1: never set
    int direct_volume = -1; ///< last aio_device_set_volume_direct; -1: never set
    bool muted = false;
};
PlaybackStats playback_stats();
/// What was heard so far, of the file begun last; empty without a recording.
std::vector<PlayedBlock> playback_blocks();
/**
 * Completes the WAV file with what was heard until now and, beside it,
 * "<wav>.blocks.csv" with one line per PlayedBlock. What is played afterwards
 * is not recorded until playback_configure() and an open.
 * @return false when nothing was recorded or a file could not be written, with
 *         one line in @p error.
 */
bool playback_finish_recording(std::string* error = nullptr);

// --- Display --------------------------------------------------------------------

struct DisplayConfig {
    double refresh_hz = 60;
    int64_t latency_ns = 76'000'000; ///< from the vertical blank that takes a frame to light
};

/// What one vertical blank put on the screen. Called on the display's thread; the buffer's content may be read.
struct ScanOut {
    int64_t vblank; ///< number since the display started
    int64_t vblank_ns;
    int64_t seen_ns; ///< vblank_ns + latency
    void* buffer;    ///< null while nothing was flipped yet
    bool repeated;   ///< the same buffer as at the vertical blank before
};
using ScanOutFn = std::function<void(const ScanOut&)>;
/// The screen is done with a buffer: replaced by the next one, or superseded before it was seen.
using ReleaseFn = std::function<void(void* buffer, bool superseded)>;

/**
 * Starts the display. The functions run on its thread with no lock held; all
 * but display_stop() may be called from them.
 * @return the descriptor (above 0) that drmWaitVBlank() takes for this display;
 *         it accepts relative waits only. Negative for a refresh rate outside
 *         1 to 1000 Hz and while another display runs.
 */
int display_start(const DisplayConfig& config, ScanOutFn on_scan_out, ReleaseFn on_release);
/**
 * Queues a buffer for the first vertical blank after the call: at most two are
 * pending, shown first in, first out; a third one before the vertical blank
 * supersedes both, and so on: of a burst only the newest is shown.
 * A superseded buffer is released with the next vertical blank.
 * @return false without a running display: the buffer stays the caller's
 */
bool display_flip(void* buffer);
/// Ends the display after the vertical blank to come; the buffer on screen and pending ones (as superseded) are
/// released.
void display_stop();

struct DisplayStats {
    int64_t vblanks = 0;
    int64_t flips = 0;
    int64_t superseded = 0; ///< flipped, but replaced before a vertical blank took them
    int64_t repeated = 0;   ///< vertical blanks without a new buffer, after the first one
};
DisplayStats display_stats();

/// The program's waits by drmWaitVBlank(), on this display or on a real one.
struct VblankWaits {
    int64_t waits = 0;  ///< that returned with the vertical blank they were for
    int64_t missed = 0; ///< vertical blanks between two waits of one thread, neither of which was for them
};
VblankWaits vblank_waits();

// --- CEC ------------------------------------------------------------------------

/// The calls so far, in order: "init", "open_arc", "deinit".
std::vector<std::string> cec_calls();

// --- Faults ---------------------------------------------------------------------

enum class Op {
    capture_open,
    capture_close,
    capture_read,
    capture_frames_to_bytes,
    playback_open,
    playback_close,
    playback_write,
    playback_delay,
    set_volume,
    set_volume_direct,
    set_mute,
    reselect,
    wait_vblank,
    cec_init,
    cec_open_arc,
    cec_deinit,
    decoder_init,
    decoder_write,
    decoder_read,
    decoder_rate,
    decoder_deinit,
    bytes_to_frames, ///< of either device
    count
};
enum class FaultKind {
    fail,     ///< returns `result`, at once, with nothing done (decoder_init: null)
    block,    ///< waits until clear_fault(), or, for read and write, until the device is closed
    brief,    ///< reads and writes only: half of what was asked (rounded down to a frame less one byte when `odd`)
    withhold, ///< write only: reports success, plays or decodes nothing of it
};
struct Fault {
    FaultKind kind = FaultKind::fail;
    int result = -5; ///< -EIO
    int skip = 0;    ///< calls that pass before the fault begins
    int count = -1;  ///< calls that it hits; negative: all
    bool odd = false;
};
void set_fault(Op op, const Fault& fault);
void clear_fault(Op op);
/// Calls of @p op that a fault has hit so far.
int64_t fault_hits(Op op);

/// Back to the state at start: faults, the decoder's filling, statistics, recording, signal. Nothing may be open.
void reset();

} // namespace hdmi_sim

#pragma GCC visibility pop
