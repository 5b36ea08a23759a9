/* SPDX-License-Identifier: MIT */
/*
 * Linked with a host, tells at its end how often its devices ran empty or over: in its first SETTLING seconds (of the
 * environment), while an emulated machine reads the program for the first time, and after them.
 */
#include <inttypes.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "hdmi_linux.h"

static atomic_int_fast64_t at_start = -1; /* not settled yet */

static int64_t xruns(void) { return hdmi_linux_playback().xruns + hdmi_linux_capture().xruns; }

static void* settle(void* unused)
{
    (void)unused;
    const char* seconds = getenv("SETTLING");
    sleep(seconds ? (unsigned)atoi(seconds) : 0);
    at_start = xruns();
    return NULL;
}

__attribute__((constructor)) static void begin(void)
{
    pthread_t settling;
    if (pthread_create(&settling, NULL, settle, NULL) == 0)
        pthread_detach(settling);
}

__attribute__((destructor)) static void tell_xruns(void)
{
    if (at_start >= 0)
        printf("xruns_at_start %" PRIdFAST64 "\nxruns %" PRIdFAST64 "\n", at_start, xruns() - at_start);
}
