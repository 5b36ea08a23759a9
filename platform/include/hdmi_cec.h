/* SPDX-License-Identifier: MIT */
/**
 * @file
 * The platform's HDMI CEC link, as far as the audio return channel needs it.
 *
 * The player initialises it and asks for ARC when it opens its output, whatever
 * that output is, and ignores the results: a platform without CEC returns
 * negative values. All calls come one at a time.
 */
#ifndef HDMI_CEC_H
#define HDMI_CEC_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct hdmi_cec_config_s {
    bool load_edid; /**< also take the physical address from the EDID; the player passes false */
} hdmi_cec_config_t;

/** Takes the CEC adapter. Must not wait for the bus. @return 0, or negative on failure. */
int vendor_hdmi_cec_init(hdmi_cec_config_t* config);

/**
 * Starts the exchange that opens the audio return channel; it goes on after
 * the call, which does not wait for the other device. @return 0, or negative.
 */
int vendor_hdmi_cec_open_arc(void);

/**
 * Closes the audio return channel and gives the adapter back; harmless without
 * init. May take up to 3 seconds to tell the other device and give the adapter
 * back: hdmi_player_close() waits for it. @return 0, or negative.
 */
int vendor_hdmi_cec_deinit(void);

#ifdef __cplusplus
}
#endif

#endif
