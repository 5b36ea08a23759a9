/* SPDX-License-Identifier: MIT */
/*
 * Where a port to a board begins: every function is there, and refuses. The player's library links with it, and the
 * contract program says what is to be done next (docs/porting.md).
 *
 *   cc -shared -fPIC -I PORT/include port.c -o PORT/lib/libport.so
 */
#include <adecoder.h>
#include <aio_device.h>
#include <hdmi_cec.h>
#include <stddef.h>

#define SEAM __attribute__((visibility("default")))
#define UNUSED __attribute__((unused))

/* --- Audio devices ---------------------------------------------------------------- */

SEAM int aio_device_open(UNUSED audio_config_t* config) { return -1; }
SEAM int aio_device_close(UNUSED audio_config_t* config) { return -1; }
SEAM int aio_device_read(UNUSED audio_config_t* config, UNUSED uint8_t* data, UNUSED int size) { return -1; }
SEAM int aio_device_write(UNUSED audio_config_t* config, UNUSED const uint8_t* data, UNUSED int size) { return -1; }
SEAM int aio_device_get_write_bytes(UNUSED audio_config_t* config, UNUSED int* out) { return -1; }
SEAM int aio_device_bytes_to_frames(UNUSED audio_config_t* config, UNUSED int bytes) { return -1; }
SEAM int aio_device_frames_to_bytes(UNUSED audio_config_t* config, UNUSED int frames) { return -1; }
SEAM int aio_device_set_volume(UNUSED audio_config_t* config, UNUSED int volume) { return -1; }
SEAM int aio_device_set_volume_direct(UNUSED audio_config_t* config, UNUSED int volume) { return -1; }
SEAM int aio_device_set_mute(UNUSED audio_config_t* config, UNUSED bool mute) { return -1; }
SEAM int aio_device_reselect(UNUSED audio_config_t* config, UNUSED int device_id, UNUSED int output_fmt) { return -1; }

/* --- Decoder: none, so compressed input is reported as not supported ---------------- */

SEAM adecoder_handle_t* adecoder_init(UNUSED adecoder_format_t format, UNUSED int32_t arg1, UNUSED int32_t arg2,
                                      UNUSED adecoder_channel_t num_channel, UNUSED int32_t arg4,
                                      UNUSED bool async_mode)
{
    return NULL;
}
SEAM int32_t adecoder_write(UNUSED adecoder_handle_t* handle, UNUSED const void* data, UNUSED int32_t bytes,
                            UNUSED int32_t arg3, UNUSED int32_t timeout_ms, UNUSED int32_t* status)
{
    return -1;
}
SEAM int32_t adecoder_read(UNUSED adecoder_handle_t* handle, UNUSED int32_t arg1, UNUSED int32_t arg2,
                           UNUSED void* buffer, UNUSED int32_t buffer_size, UNUSED int32_t arg5)
{
    return -1;
}
SEAM int32_t adecoder_get_output_sample_rate(UNUSED adecoder_handle_t* handle) { return -1; }
SEAM int32_t adecoder_deinit(UNUSED adecoder_handle_t* handle) { return -1; }

/* --- CEC: none ------------------------------------------------------------------------ */

SEAM int vendor_hdmi_cec_init(UNUSED hdmi_cec_config_t* config) { return -1; }
SEAM int vendor_hdmi_cec_open_arc(void) { return -1; }
SEAM int vendor_hdmi_cec_deinit(void) { return -1; }
