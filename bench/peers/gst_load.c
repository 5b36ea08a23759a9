/* SPDX-License-Identifier: MIT */
/*
 * What a user would take instead of the player, for the same work: a GStreamer pipeline that converts or decodes a file
 * in real time, and one that hands on frames. Prints "running", ends with its standard input, and then prints the
 * intervals between the frames.
 */
#include <gst/gst.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { MOST_FRAMES = 1 << 20, FRAMES_BEFORE = 120 };

static gint64 arrivals[MOST_FRAMES]; /* us */
static int frames;

static void on_frame(GstElement* sink, GstBuffer* buffer, GstPad* pad, gpointer data)
{
    (void)sink, (void)buffer, (void)pad, (void)data;
    if (frames < MOST_FRAMES)
        arrivals[frames++] = g_get_monotonic_time();
}

static GstElement* start(const char* description)
{
    GError* error = NULL;
    GstElement* pipeline = gst_parse_launch(description, &error);
    if (error != NULL || gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        fprintf(stderr, "%s: %s\n", description, error != NULL ? error->message : "does not play");
        exit(EXIT_FAILURE);
    }
    return pipeline;
}

static int compare(const void* a, const void* b)
{
    const gint64 difference = *(const gint64*)a - *(const gint64*)b;
    return (difference > 0) - (difference < 0);
}

static void print_interval_errors(int fps)
{
    const int count = frames - FRAMES_BEFORE;
    if (count <= 0)
        return;
    gint64* errors = malloc(sizeof(gint64) * (size_t)count);
    for (int i = 0; i < count; i++) {
        const gint64* at = arrivals + FRAMES_BEFORE + i;
        errors[i] = ABS(at[0] - at[-1] - G_USEC_PER_SEC / fps);
    }
    qsort(errors, (size_t)count, sizeof(gint64), compare);
    printf("flips %d p50 %lld p99 %lld max %lld\n", count, (long long)errors[count / 2],
           (long long)errors[count * 99 / 100], (long long)errors[count - 1]);
    free(errors);
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "Usage: gst_load SOUND_FILE FRAMES_PER_SECOND\n");
        return 2;
    }
    const int fps = atoi(argv[2]);
    const char* suffix = strrchr(argv[1], '.');
    const char* decoder = suffix != NULL && strcmp(suffix, ".wav") == 0    ? "wavparse"
                          : suffix != NULL && strcmp(suffix, ".eac3") == 0 ? "ac3parse ! avdec_eac3"
                                                                           : "ac3parse ! avdec_ac3";
    gst_init(&argc, &argv);
    gchar* sound = g_strdup_printf("filesrc location=%s ! %s ! audioconvert ! audioresample ! "
                                   "audio/x-raw,format=S16LE,rate=48000,channels=2 ! queue ! fakesink sync=true",
                                   argv[1], decoder);
    GstElement* sound_pipeline = start(sound);
    GstElement* video_pipeline = NULL;
    if (fps > 0) {
        gchar* video = g_strdup_printf("fakesrc sync=true format=time sizetype=fixed sizemax=8 datarate=%d ! queue ! "
                                       "fakesink name=screen sync=true signal-handoffs=true",
                                       8 * fps);
        video_pipeline = start(video);
        g_free(video);
        GstElement* screen = gst_bin_get_by_name(GST_BIN(video_pipeline), "screen");
        g_signal_connect(screen, "handoff", G_CALLBACK(on_frame), NULL);
    }
    printf("running\n");
    fflush(stdout);
    char ignored;
    while (read(STDIN_FILENO, &ignored, 1) > 0) {
    }
    gst_element_set_state(sound_pipeline, GST_STATE_NULL);
    if (video_pipeline != NULL) {
        gst_element_set_state(video_pipeline, GST_STATE_NULL);
        print_interval_errors(fps);
    }
    g_free(sound);
    return EXIT_SUCCESS;
}
