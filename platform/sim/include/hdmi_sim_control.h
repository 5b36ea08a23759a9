/* SPDX-License-Identifier: MIT */
/**
 * @file
 * The simulated platform for hosts in C: what its source sends, what happened at
 * its devices, and troubles on demand. hdmi_sim.h offers C++ programs all of it.
 * All functions may be called from any thread.
 */
#ifndef HDMI_SIM_CONTROL_H
#define HDMI_SIM_CONTROL_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Connects a source, and announces it to the player of this process:
 *
 *     SOURCE[,rate=HZ][,ppm=NUMBER]
 *
 * SOURCE is `tone` (1 kHz, 12 dB below full scale), `programme` (each second
 * 50 ms of 1 kHz, quiet noise between), `silence`, or the path of a file, which
 * is repeated: AC-3 (.ac3) or E-AC-3 (.eac3, .ec3), sent in IEC 61937 bursts, or
 * 16-bit sound in one or two channels of any kind that libsndfile reads (.wav).
 * `rate` is 32000, 44100 or 48000 (the default); a file has its own. `ppm` is
 * the deviation of the source's clock.
 *
 * A host needs no call: at the first opening of an output the platform connects
 * the source that the variable HDMIPLAYER_SIM_SIGNAL names, unless one is
 * connected by then.
 * @param error receives one line of at most @p size bytes, empty on success; may be null
 * @return 0, or -1 with nothing changed
 */
int hdmi_sim_connect(const char* signal, char* error, size_t size);
/** The cable is out, and no signal is announced. */
void hdmi_sim_disconnect(void);

/** What happened since the start of the program. */
typedef struct hdmi_sim_counters {
    int64_t captured_frames; /**< read by the player, of the link's frames */
    int64_t captured_periods;
    int64_t capture_opens;
    int64_t overruns;      /**< captured periods that were lost because nobody read */
    int64_t played_frames; /**< written by the player */
    int64_t playback_opens;
    int64_t underruns;
    int playback_rate; /**< Hz; 0: never opened */
    int volume;        /**< percent; -1: never set */
    bool muted;
    double matching_ppm; /**< by which frames are used up faster, so that the sound keeps its age */
    int64_t vblanks;     /**< of the simulated display */
    int64_t flips;
    int64_t superseded; /**< flipped, but replaced before a vertical blank took them */
    int64_t repeated;   /**< vertical blanks without a new buffer */
} hdmi_sim_counters_t;
hdmi_sim_counters_t hdmi_sim_counters(void);

/** Calls of the platform that can be troubled. */
typedef enum hdmi_sim_call {
    HDMI_SIM_CAPTURE_OPEN = 0,
    HDMI_SIM_CAPTURE_READ = 1,
    HDMI_SIM_PLAYBACK_OPEN = 2,
    HDMI_SIM_PLAYBACK_WRITE = 3,
    HDMI_SIM_PLAYBACK_DELAY = 4,
    HDMI_SIM_SET_VOLUME = 5,
    HDMI_SIM_DECODER_INIT = 6,
    HDMI_SIM_WAIT_VBLANK = 7,
} hdmi_sim_call_e;
/**
 * The next @p count calls (negative: all) return @p result, a negative error
 * number (0: they wait, until the trouble ends or the device is closed).
 * A count of 0 ends the trouble.
 * @return 0, or -1 for a call or a result that does not exist
 */
int hdmi_sim_trouble(hdmi_sim_call_e call, int result, int count);
/** Calls that have been troubled so far. */
int64_t hdmi_sim_troubled(hdmi_sim_call_e call);

#ifdef __cplusplus
}
#endif

#endif
