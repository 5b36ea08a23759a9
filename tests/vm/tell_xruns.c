/* SPDX-License-Identifier: MIT */
/* Linked with a host, tells at its end how often its devices ran empty or over. */
#include <inttypes.h>
#include <stdio.h>

#include "hdmi_linux.h"

__attribute__((destructor)) static void tell_xruns(void)
{
    printf("xruns %" PRId64 "\n", hdmi_linux_playback().xruns + hdmi_linux_capture().xruns);
}
