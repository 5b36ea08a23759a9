// SPDX-License-Identifier: MIT
#include "internal/audio_input.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sched.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

extern "C" {
#include <libavutil/time.h>
}

#include "internal/common.h"
#include "internal/frame_queue.h"

audio_input_info_t g_ai_info;

namespace
{

constexpr int kCard = 0;
constexpr int kChannels = 2;
constexpr int kCaptureOpenMode = 1;
constexpr int kPeriodCount = 4;
constexpr int32_t kQueueFrames = 128;
// Above every other thread of the player: a chunk that is not fetched in time is lost in the device.
constexpr int kReadPriority = 99;
constexpr unsigned kBackOffUs = 10000;
constexpr int32_t kDefaultSampleRate = 48000;
constexpr int64_t kUsPerSecond = 1000000;

constexpr char kStateFile[] = "/sys/class/extcon/hdmirx_aud/state";
constexpr char kUeventHeader[] = "change@/devices/virtual/korin/hdmirx_aud/extcon1";
constexpr std::string_view kStateLinePrefix = "STATE=HEADDONE";
constexpr size_t kTextSize = 512; // with the NUL
// The kernel doubles it, to less than what sockets usually have: a burst of events overruns it soon.
constexpr int kUeventBufferBytes = 65536;
constexpr uint32_t kAllUeventGroups = 0xFFFFFFFF;
constexpr int kPollMs = 50; // how soon a state that stays unsupported is reported

// The rate first: a reader that sees the new format must see its rate.
void store_state(audio_input_format_e format, int32_t sample_rate)
{
    g_ai_info.original_sample_rate = sample_rate;
    g_ai_info.format = format;
}

// --- Capture ----------------------------------------------------------------

void back_off()
{
    if (!g_ai_info.abort_request)
        av_usleep(kBackOffUs);
}

void set_device_rate(int32_t sample_rate)
{
    g_ai_info.audio_cfg.sample_rate = sample_rate;
    g_ai_info.audio_cfg.period_frames = convert_sample_rate_to_frames(sample_rate);
    g_ai_info.audio_cfg.period_count = kPeriodCount;
}

int32_t close_device()
{
    mutex_guard device(g_ai_info.device_mutex);
    if (!g_ai_info.device_opened)
        return 0;
    const int32_t err = aio_device_close(&g_ai_info.audio_cfg);
    g_ai_info.device_opened = err < 0;
    return err;
}

void update_acquire_size()
{
    g_ai_info.acquire_size = aio_device_frames_to_bytes(&g_ai_info.audio_cfg, 0);
    log_i("sample_rate:%d acquire_size:%d\n", g_ai_info.audio_cfg.sample_rate, g_ai_info.acquire_size);
}

bool reopen_at_current_rate()
{
    mutex_guard device(g_ai_info.device_mutex);
    // Deinit sets the flag before it closes the device under this lock: nothing is opened after that.
    if (g_ai_info.abort_request)
        return false;
    // Also after an open that failed: to close a closed device is harmless.
    if (aio_device_close(&g_ai_info.audio_cfg) < 0) {
        log_w("aio_device_close error!\n");
        return false;
    }
    g_ai_info.device_opened = false;
    // Cleared before the rate is read: a request that comes from here on is for another reopen.
    g_ai_info.reopen_device = false;
    set_device_rate(g_ai_info.original_sample_rate);
    g_ai_info.audio_cfg.in_bypass_mode = g_ai_info.in_bypass_mode;
    if (aio_device_open(&g_ai_info.audio_cfg) < 0) {
        g_ai_info.reopen_device = true;
        log_w("aio_device_open error!\n");
        return false;
    }
    g_ai_info.device_opened = true;
    return true;
}

bool reopen_device()
{
    if (!reopen_at_current_rate())
        return false;
    frame_queue_done_release(g_ai_info.pcm_frame_queue);
    frame_queue_done_release(g_ai_info.iec61937_queue);
    g_ai_info.stream_broken = true;
    update_acquire_size();
    return true;
}

frame_info_t* acquire_frame(int32_t queue)
{
    frame_info_t* slot = frame_queue_pool_acquire(queue, g_ai_info.acquire_size);
    if (slot == nullptr)
        log_e("frame_queue_pool_acquire(size:%d) failed.\n", g_ai_info.acquire_size);
    return slot;
}

// Bytes read, or -1. Reports only the first of several failures in a row: the loop tries a hundred times a second.
int32_t read_device(uint8_t* data)
{
    // Set before abort_request is tested, so that a deinit which sets abort_request and then reads this flag
    // cannot miss a read in progress.
    g_ai_info.reading = true;
    const int32_t size =
        g_ai_info.abort_request ? -1 : aio_device_read(&g_ai_info.audio_cfg, data, g_ai_info.acquire_size);
    g_ai_info.reading = false;
    if (size > 0 && size <= g_ai_info.acquire_size) {
        g_ai_info.read_failing = false;
        return size;
    }
    // A read that the closing of the device ended did not fail.
    if (!g_ai_info.read_failing && !g_ai_info.abort_request)
        log_w("aio_device_read failed. ret:%d\n", size);
    g_ai_info.read_failing = true;
    return -1;
}

void restart_time_line(int32_t queue)
{
    g_ai_info.frame_serial = audio_input_next_serial(g_ai_info.frame_serial);
    g_ai_info.read_frames = 0;
    audio_input_avsync_reset(false);
    if (frame_queue_get_done_counts(queue) > 0)
        g_ai_info.stream_broken = true;
    frame_queue_done_release(queue);
    log_i("[avsync_reset] done, frame_serial:%d!\n", g_ai_info.frame_serial);
}

void stamp_time(hdmi_player_audio_frame_t* frame)
{
    // No rate is known before the first announcement.
    frame->pts = frame->sample_rate > 0 ? g_ai_info.read_frames * kUsPerSecond / frame->sample_rate : 0;
    g_ai_info.read_frames += aio_device_bytes_to_frames(&g_ai_info.audio_cfg, frame->size);
    log_d("serial:%d read_frames:%lld frame_pts:%lld sample_rate:%d\n", frame->serial, lli(g_ai_info.read_frames),
          lli(frame->pts), frame->sample_rate);
}

// A compressed chunk has no time of its own.
void stamp_break(hdmi_player_audio_frame_t* frame)
{
    frame->pts = g_ai_info.stream_broken ? kStreamBreakPts : 0;
    g_ai_info.stream_broken = false;
    log_d("serial:%d sample_rate:%d size:%d\n", frame->serial, frame->sample_rate, frame->size);
}

void deliver(int32_t queue, frame_info_t* slot, audio_input_format_e format)
{
    if (g_ai_info.avsync_reset)
        restart_time_line(queue);
    hdmi_player_audio_frame_t* frame = &slot->frame;
    frame->serial = g_ai_info.frame_serial;
    frame->channels = g_ai_info.audio_cfg.channels;
    frame->sample_rate = g_ai_info.original_sample_rate;
    if (format == AUDIO_INPUT_FORMAT_PCM)
        stamp_time(frame);
    else
        stamp_break(frame);
    frame_queue_done_enqueue(queue, slot);
}

void note_read_continued()
{
    if (g_ai_info.hotplug_status != E_HDMI_HOTPLUG_STATUS_IN || g_ai_info.read_continued)
        return;
    audio_input_set_read_continued(true);
    log_d("hotplug status changed read continued!\n");
}

void capture_chunk(audio_input_format_e format)
{
    const int32_t queue = format == AUDIO_INPUT_FORMAT_PCM ? g_ai_info.pcm_frame_queue : g_ai_info.iec61937_queue;
    frame_info_t* slot = acquire_frame(queue);
    if (slot == nullptr)
        return;
    const int32_t size = read_device(slot->frame.data);
    // A chunk that straddles a change is of neither format, and at neither rate.
    if (size < 0 || format != g_ai_info.format || g_ai_info.reopen_device) {
        frame_queue_put(queue, &slot->frame);
        if (size < 0) {
            g_ai_info.stream_broken = true;
            back_off();
        }
        return;
    }
    slot->frame.size = size;
    note_read_continued();
    deliver(queue, slot, format);
}

// Does not wait for the end of init, although it uses entry points of its own module: each of them answers a request
// that can only be made once the module is open.
void* audio_read(void*)
{
    if (g_ai_info.enable_log)
        log_i(">>>\n");
    set_thread_name("audio_read");
    log_i("thread_id: %lli\n", lli(pthread_self()));
    update_acquire_size();
    while (!g_ai_info.abort_request && g_ai_info.acquire_size >= 0) {
        if (g_ai_info.reopen_device) {
            if (!reopen_device())
                back_off();
            continue; // the new size may end the loop
        }
        const audio_input_format_e format = g_ai_info.format;
        if (format == AUDIO_INPUT_FORMAT_NONE)
            back_off();
        else
            capture_chunk(format);
    }
    if (g_ai_info.enable_log)
        log_i("<<<\n");
    return nullptr;
}

// --- Detection --------------------------------------------------------------

// Bytes of the text in @p text, which holds kTextSize.
ssize_t read_text(int fd, char* text)
{
    size_t length = 0;
    while (length < kTextSize - 1) {
        const ssize_t got = read(fd, text + length, kTextSize - 1 - length);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        length += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(length);
}

// Bytes of the state file in @p text; -1 when it cannot be opened. Anything else in its place counts as an empty file:
// a FIFO or a device could block the opening or the read for ever.
ssize_t read_state_file(char* text)
{
    const int fd = open(kStateFile, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    struct stat info = {};
    const bool regular = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    const ssize_t length = regular ? read_text(fd, text) : 0;
    close(fd);
    return length;
}

// Runs without a lock: the event's receiver may call in.
void read_initial_state()
{
    char text[kTextSize] = {};
    const ssize_t length = read_state_file(text);
    if (length < 0) {
        log_e("failed to open extcon init state file\n");
        store_state(AUDIO_INPUT_FORMAT_NONE, kDefaultSampleRate);
        g_ai_info.event_cb(E_HDMI_PLAYER_EVENT_AUDIO_UNSUPPORTED);
        return;
    }
    if (length > 0) { // an empty file says nothing
        log_i("extcon init state: (%s).\n", text);
        audio_input_format_e format = AUDIO_INPUT_FORMAT_NONE;
        int32_t sample_rate = kDefaultSampleRate;
        const bool supported = audio_input_parse_state(text, &format, &sample_rate);
        if (!supported)
            log_w("unsupported hdmi input sample rate, used default!\n");
        store_state(format, sample_rate);
        if (!supported)
            g_ai_info.event_cb(E_HDMI_PLAYER_EVENT_AUDIO_UNSUPPORTED);
    }
    log_i("format:%d sample_rate:%d\n", g_ai_info.format.load(), g_ai_info.original_sample_rate.load());
}

// A descriptor above 0, or -1.
int open_uevent_socket()
{
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd < 0)
        return -1;
    // Needs a privilege; without it the size stays at the system's default.
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kUeventBufferBytes, sizeof(kUeventBufferBytes));
    struct sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = kAllUeventGroups;
    const bool bound = bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0;
    // Descriptor 0 counts as a failure: the process has lost its standard input.
    if (bound && fd != 0)
        return fd;
    close(fd);
    return -1;
}

void take_state(audio_input_format_e format, int32_t sample_rate, input_state* state)
{
    store_state(format, sample_rate);
    if (sample_rate != state->old_sample_rate) {
        log_w("sample_rate: %d -> %d\n", state->old_sample_rate, sample_rate);
        state->old_sample_rate = sample_rate;
        state->force_reset = true;
    }
    if (format != state->old_format) {
        log_w("format: %s -> %s\n", audio_input_format_name(state->old_format), audio_input_format_name(format));
        state->old_format = format;
        state->force_reset = true;
    }
    state->last_timeus = av_gettime_relative();
    state->state_changed = true;
}

void take_state_line(std::string_view line, input_state* state)
{
    audio_input_format_e format = AUDIO_INPUT_FORMAT_NONE;
    int32_t sample_rate = g_ai_info.original_sample_rate;
    audio_input_parse_state(line, &format, &sample_rate);
    take_state(format, sample_rate, state);
}

// For announcements that may have been lost. A state that is known already changes nothing.
void take_state_file(input_state* state)
{
    char text[kTextSize] = {};
    const ssize_t length = read_state_file(text);
    if (length < 0) {
        log_w("uevents were lost, and the extcon state file cannot be opened\n");
        return;
    }
    log_i("uevents were lost, extcon state: (%s).\n", text);
    audio_input_format_e format = AUDIO_INPUT_FORMAT_NONE;
    int32_t sample_rate = g_ai_info.original_sample_rate;
    audio_input_parse_state(text, &format, &sample_rate);
    const bool known = format == state->old_format && sample_rate == state->old_sample_rate;
    if (length > 0 && !known)
        take_state(format, sample_rate, state);
}

// @p message has a NUL behind its last byte.
void take_message(std::string_view message, input_state* state)
{
    // Deliberate: the message with this header is the one to ignore. The state comes under another path.
    if (strcasecmp(message.data(), kUeventHeader) == 0) {
        log_i("event(%s) not match\n", message.data());
        return;
    }
    for (std::string_view line = audio_input_next_string(&message); !line.empty();
         line = audio_input_next_string(&message)) {
        log_i("mesg(%s)\n", line.data());
        if (line.substr(0, kStateLinePrefix.size()) == kStateLinePrefix)
            take_state_line(line, state);
    }
}

void report_state(input_state* state, int64_t now_us)
{
    const input_report report = audio_input_take_report(state, now_us);
    if (report.kind == input_report::NONE)
        return;
    if (report.kind == input_report::UNSUPPORTED) {
        log_w("unsupported hdmi input format!\n");
        g_ai_info.event_cb(E_HDMI_PLAYER_EVENT_AUDIO_UNSUPPORTED);
    }
    g_ai_info.changed_cb(report.changed, nullptr);
}

void close_descriptor(int& fd)
{
    if (fd >= 0)
        close(fd);
    fd = -1;
}

// Ends both threads, of which the detection thread may wait for an event.
void request_stop()
{
    g_ai_info.abort_request = true;
    if (g_ai_info.stop_fd >= 0)
        eventfd_write(g_ai_info.stop_fd, 1);
}

// Waits for an event or a stop, by time only where time decides; poll()'s result for the uevent socket.
int await_uevent(int uevent_fd, bool overrun, bool state_pending)
{
    struct pollfd ready[] = {{uevent_fd, POLLIN, 0}, {g_ai_info.stop_fd, POLLIN, 0}};
    const int limit_ms = overrun ? 0 : state_pending || g_ai_info.stop_fd < 0 ? kPollMs : -1;
    const int count = poll(ready, 2, limit_ms);
    return count > 0 && ready[0].revents == 0 ? 0 : count;
}

// What a receive got from the uevent socket.
enum class received_e { message, overrun, nothing };

received_e receive_message(int uevent_fd, input_state* state)
{
    char buffer[kTextSize] = {};
    const ssize_t length = recv(uevent_fd, buffer, sizeof(buffer) - 1, MSG_DONTWAIT);
    if (length < 0 && errno == ENOBUFS)
        return received_e::overrun;
    if (length <= 0)
        return received_e::nothing;
    take_message({buffer, static_cast<size_t>(length)}, state);
    return received_e::message;
}

void watch_uevents(int uevent_fd)
{
    input_state state = {g_ai_info.original_sample_rate, g_ai_info.format};
    // After an overrun the kernel drops messages, without another error, until the socket has been emptied. The
    // messages that wait there are older than the lost ones. The state file is therefore read after them.
    bool overrun = false;
    while (!g_ai_info.abort_request) {
        const int count = await_uevent(uevent_fd, overrun, state.state_changed);
        if (g_ai_info.abort_request)
            return;
        if (count > 0) {
            const received_e received = receive_message(uevent_fd, &state);
            overrun = overrun || received == received_e::overrun;
            if (received == received_e::nothing)
                back_off();
            if (received != received_e::message)
                continue;
        } else if (count < 0) {
            back_off();
        } else if (overrun) {
            overrun = false;
            take_state_file(&state);
        }
        report_state(&state, av_gettime_relative());
    }
}

// Until init ends, the module refuses the calls that a callback would make.
void wait_for_init() { const read_guard api(g_ai_info.api_rwlock); }

void* format_detect(void*)
{
    set_thread_name("format_detect");
    log_i("thread_id: %lli\n", lli(pthread_self()));
    wait_for_init();
    if (g_ai_info.uevent_fd < 0) {
        log_e("failed to register uevent for hdmi in audio headdone detection\n");
        return nullptr;
    }
    watch_uevents(g_ai_info.uevent_fd);
    close_descriptor(g_ai_info.uevent_fd);
    log_i("monitor state stop ...\n");
    return nullptr;
}

// --- Lifecycle --------------------------------------------------------------

// The messages of a start and of a stop come in the name of the call that makes them.
constexpr char kInit[] = "audio_input_init";
constexpr char kDeinit[] = "audio_input_deinit";

// Clears every field except the locks: the caller holds one of them.
void clear_record() REQUIRES(g_ai_info.api_rwlock)
{
    g_ai_info.initialized = false;
    g_ai_info.avsync_reset = false;
    g_ai_info.read_continued = false;
    g_ai_info.enable_log = false;
    g_ai_info.abort_request = false;
    g_ai_info.reopen_device = false;
    g_ai_info.hotplug_status = E_HDMI_HOTPLUG_STATUS_OUT;
    g_ai_info.original_sample_rate = 0;
    g_ai_info.audio_cfg = {};
    g_ai_info.pcm_frame_queue = -1;
    g_ai_info.read_thread = 0;
    g_ai_info.format_detect_thread = 0;
    g_ai_info.format = AUDIO_INPUT_FORMAT_NONE;
    g_ai_info.event_cb = nullptr;
    g_ai_info.read_frames = 0;
    g_ai_info.acquire_size = 0;
    g_ai_info.attr = {};
    g_ai_info.iec61937_queue = -1;
    g_ai_info.frame_serial = 0;
    g_ai_info.changed_cb = nullptr;
    g_ai_info.in_bypass_mode = E_AUDIO_IN_BYPASS_MODE_NONE;
    g_ai_info.reading = false;
    g_ai_info.stream_broken = false;
    g_ai_info.read_failing = false;
    g_ai_info.uevent_fd = -1;
    g_ai_info.stop_fd = -1;
}

void prepare_record(const audio_input_config_t& cfg)
{
    write_guard api(g_ai_info.api_rwlock);
    clear_record();
    g_ai_info.enable_log = env_get_value("debug_hdmiplayer_log_ai_api", 0) != 0;
    g_ai_info.internal_mutex.init();
    pthread_attr_init(&g_ai_info.attr);
    g_ai_info.event_cb = cfg.event_cb;
    g_ai_info.changed_cb = cfg.changed_cb;
    // Before the state is read: a change that comes while the device opens would be lost for good otherwise.
    g_ai_info.uevent_fd = open_uevent_socket();
    g_ai_info.stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

void release_queue(int32_t queue, const char* function)
{
    if (queue < 0)
        return;
    const int32_t err = frame_queue_deinit(queue);
    if (err < 0)
        log_as(function, LOG_LEVEL_E, "frame_queue_pool_release failed. err:%d\n", err);
}

// The end of a deinit, and of an init that failed. The threads have ended. A device that cannot be closed counts as
// open: the next init begins with its close.
void teardown(const char* function) REQUIRES(g_ai_info.api_rwlock)
{
    release_queue(g_ai_info.iec61937_queue, function);
    release_queue(g_ai_info.pcm_frame_queue, function);
    close_device();
    close_descriptor(g_ai_info.uevent_fd);
    close_descriptor(g_ai_info.stop_fd);
    pthread_attr_destroy(&g_ai_info.attr);
    g_ai_info.internal_mutex.destroy();
    clear_record();
}

bool open_device() REQUIRES(g_ai_info.api_rwlock)
{
    audio_config_t* cfg = &g_ai_info.audio_cfg;
    cfg->stream_type = E_AUDIO_STREAM_CAPTURE;
    cfg->card_id = kCard;
    cfg->device_id = E_AUDIO_IO_DEV_HDMI_IN;
    cfg->output_fmt = E_AUDIO_IO_FORMAT_PCM;
    cfg->channels = kChannels;
    cfg->open_mode = kCaptureOpenMode;
    cfg->game_mode = false;
    cfg->pcm_name = nullptr;
    cfg->in_bypass_mode = E_AUDIO_IN_BYPASS_MODE_NONE;
    set_device_rate(g_ai_info.original_sample_rate);
    close_device();
    mutex_guard device(g_ai_info.device_mutex);
    const int err = aio_device_open(cfg);
    if (err < 0) {
        log_as(kInit, LOG_LEVEL_E, "aio_device_open failed. err:%d\n", err);
        return false;
    }
    g_ai_info.device_opened = true;
    return true;
}

bool create_queues() REQUIRES(g_ai_info.api_rwlock)
{
    g_ai_info.pcm_frame_queue = frame_queue_init(kQueueFrames, "IN");
    if (g_ai_info.pcm_frame_queue < 0) {
        log_as(kInit, LOG_LEVEL_E, "frame_queue_init failed.\n");
        return false;
    }
    log_as(kInit, LOG_LEVEL_I, "pcm_frame_queue id:%d.\n", g_ai_info.pcm_frame_queue);
    g_ai_info.iec61937_queue = frame_queue_init(kQueueFrames, "IEC61937");
    if (g_ai_info.iec61937_queue < 0) {
        log_as(kInit, LOG_LEVEL_E, "iec61937_queue_init failed.\n");
        return false;
    }
    log_as(kInit, LOG_LEVEL_I, "iec61937_queue id:%d.\n", g_ai_info.iec61937_queue);
    return true;
}

bool start_detection() REQUIRES(g_ai_info.api_rwlock)
{
    if (pthread_create(&g_ai_info.format_detect_thread, nullptr, format_detect, &g_ai_info) == 0)
        return true;
    g_ai_info.format_detect_thread = 0; // undefined after a failure
    log_as(kInit, LOG_LEVEL_E, "create format_detect_thread failed!\n");
    return false;
}

int create_read_thread() REQUIRES(g_ai_info.api_rwlock)
{
    struct sched_param param = {};
    param.sched_priority = kReadPriority;
    // Without the first, policy and priority would be ignored in favour of the caller's.
    pthread_attr_setinheritsched(&g_ai_info.attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&g_ai_info.attr, SCHED_RR);
    pthread_attr_setschedparam(&g_ai_info.attr, &param);
    const int err = pthread_create(&g_ai_info.read_thread, &g_ai_info.attr, audio_read, &g_ai_info);
    if (err != EPERM)
        return err;
    static std::atomic<bool> warned{false};
    if (!warned.exchange(true))
        log_as(kInit, LOG_LEVEL_W, "no permission for real-time priority %d, audio_read runs without.\n",
               kReadPriority);
    return pthread_create(&g_ai_info.read_thread, nullptr, audio_read, &g_ai_info);
}

bool start_reading() REQUIRES(g_ai_info.api_rwlock)
{
    if (create_read_thread() == 0)
        return true;
    g_ai_info.read_thread = 0;
    log_as(kInit, LOG_LEVEL_E, "create read thread failed!\n");
    return false;
}

// Decided without the lock: as a writer, an init of an open module would wait for a consumer that is blocked in it,
// and calls would be refused meanwhile.
bool claim_start()
{
    if (!g_ai_info.starting.exchange(true)) {
        if (!g_ai_info.initialized)
            return true; // and it stays so: only the owner of the claim sets it
        g_ai_info.starting = false;
    }
    log_as(kInit, LOG_LEVEL_W, "module has been initialized\n");
    return false;
}

bool finish_start()
{
    write_guard api(g_ai_info.api_rwlock);
    if (!open_device() || !create_queues() || !start_detection()) {
        teardown(kInit);
        return false;
    }
    if (start_reading()) {
        g_ai_info.initialized = true;
        return true;
    }
    request_stop();
    const pthread_t detection = g_ai_info.format_detect_thread;
    api.unlock(); // the detection thread waits for it
    pthread_join(detection, nullptr);
    write_guard again(g_ai_info.api_rwlock);
    teardown(kInit);
    return false;
}

// A close that failed has not ended the read, which may block for as long as there is no signal.
void end_read()
{
    bool reported = false;
    while (g_ai_info.reading) {
        const int32_t err = close_device();
        if (err >= 0)
            return;
        if (!reported)
            log_as(kDeinit, LOG_LEVEL_W, "the read is blocked, aio_device_close is repeated. err:%d\n", err);
        reported = true;
        av_usleep(kBackOffUs);
    }
}

// --- Consumers --------------------------------------------------------------

bool is_open() { return g_ai_info.initialized; }

// No frames after the request to stop: the aborted queue would log a warning for every call of a consumer in a loop.
bool delivers() { return g_ai_info.initialized && !g_ai_info.abort_request; }

// @p queue is a reference so that the id is read under the lock: init and deinit change it.
int32_t take_frame(const int32_t& queue, hdmi_player_audio_frame_t** frame, int32_t timeout_ms, loglevel_e closed_level,
                   const char* function)
{
    if (frame == nullptr)
        return -1;
    const entry_guard api(g_ai_info.api_rwlock, delivers, closed_level, "module not initialized", function);
    if (!api)
        return -1;
    frame_info_t* slot = frame_queue_done_dequeue(queue, timeout_ms);
    if (slot == nullptr) {
        log_as(function, LOG_LEVEL_D, "frame_queue_done_dequeue failed.\n");
        return -1;
    }
    *frame = &slot->frame;
    return 0;
}

// --- Accessors --------------------------------------------------------------

template <typename Value, typename Field>
Value get_field(const Field& field, Value closed, const char* function = __builtin_FUNCTION())
{
    const entry_guard api(g_ai_info.api_rwlock, is_open, LOG_LEVEL_W, "module not initialized", function);
    return api ? static_cast<Value>(field) : closed;
}

template <typename Field, typename Value>
int32_t set_field(Field& field, Value value, const char* function = __builtin_FUNCTION())
{
    const entry_guard api(g_ai_info.api_rwlock, is_open, LOG_LEVEL_W, "module not initialized", function);
    if (!api)
        return -1;
    mutex_guard setter(g_ai_info.internal_mutex);
    field = value;
    return 0;
}

} // namespace

int32_t audio_input_init(audio_input_config_t cfg)
{
    if (cfg.event_cb == nullptr || cfg.changed_cb == nullptr) {
        log_e("invalid callback function.\n");
        return -1;
    }
    if (!claim_start())
        return -1;
    prepare_record(cfg);
    read_initial_state();
    const bool started = finish_start();
    g_ai_info.starting = false;
    return started ? 0 : -1;
}

int32_t audio_input_deinit(void)
{
    const mutex_guard one_at_a_time(g_ai_info.deinit_mutex);
    if (!g_ai_info.initialized) {
        log_w("module not initialized\n");
        return -1;
    }
    request_stop();
    pthread_t detection = 0;
    pthread_t reader = 0;
    {
        const read_guard api(g_ai_info.api_rwlock);
        detection = g_ai_info.format_detect_thread;
        reader = g_ai_info.read_thread;
    }
    frame_queue_abort(g_ai_info.pcm_frame_queue);
    frame_queue_abort(g_ai_info.iec61937_queue);
    pthread_join(detection, nullptr);
    const int32_t err = close_device(); // ends a blocked read
    if (err < 0)
        log_e("aio_device_close failed. err:%d\n", err);
    end_read();
    pthread_join(reader, nullptr);
    write_guard api(g_ai_info.api_rwlock);
    teardown(kDeinit);
    return 0;
}

int32_t audio_input_get_pcm_frame(hdmi_player_audio_frame_t** frame, int32_t timeout_ms)
{
    return take_frame(g_ai_info.pcm_frame_queue, frame, timeout_ms, LOG_LEVEL_V, __func__);
}

int32_t audio_input_put_pcm_frame(hdmi_player_audio_frame_t* frame)
{
    if (frame == nullptr)
        return -1;
    const entry_guard api(g_ai_info.api_rwlock, is_open);
    if (!api)
        return -1;
    return frame_queue_put(g_ai_info.pcm_frame_queue, frame);
}

int32_t audio_input_get_iec61937_frame(hdmi_player_audio_frame_t** frame, int32_t timeout_ms)
{
    return take_frame(g_ai_info.iec61937_queue, frame, timeout_ms, LOG_LEVEL_D, __func__);
}

int32_t audio_input_put_iec61937_frame(hdmi_player_audio_frame_t* frame)
{
    if (frame == nullptr)
        return -1;
    const entry_guard api(g_ai_info.api_rwlock, is_open, LOG_LEVEL_V);
    if (!api)
        return -1;
    return frame_queue_put(g_ai_info.iec61937_queue, frame);
}

void audio_input_wakeup_iec61937_queue(void)
{
    const entry_guard api(g_ai_info.api_rwlock, is_open);
    if (!api)
        return;
    frame_queue_done_wakeup(g_ai_info.iec61937_queue);
}

int32_t audio_input_set_game_mode(bool)
{
    const entry_guard api(g_ai_info.api_rwlock, is_open);
    if (!api)
        return -1;
    log_w("game mode is not supported now\n");
    return -1;
}

bool audio_input_get_game_mode(void) { return get_field(g_ai_info.audio_cfg.game_mode, false); }

int32_t audio_input_get_original_sample_rate(void)
{
    return get_field(g_ai_info.original_sample_rate, kDefaultSampleRate);
}

bool audio_input_read_continued(void) { return get_field(g_ai_info.read_continued, false); }

int32_t audio_input_set_read_continued(bool enable) { return set_field(g_ai_info.read_continued, enable); }

int32_t audio_input_avsync_reset(bool enable)
{
    const entry_guard api(g_ai_info.api_rwlock, is_open);
    if (!api)
        return -1;
    mutex_guard setter(g_ai_info.internal_mutex);
    g_ai_info.avsync_reset = enable;
    log_i("avsync_reset:%d\n", enable);
    return 0;
}

audio_input_format_e audio_input_get_format(void) { return get_field(g_ai_info.format, AUDIO_INPUT_FORMAT_NONE); }

hdmi_hotplug_status_e audio_input_get_hotplug_status(void)
{
    return static_cast<hdmi_hotplug_status_e>(get_field<int32_t>(g_ai_info.hotplug_status, E_HDMI_HOTPLUG_STATUS_OUT));
}

int32_t audio_input_set_hotplug_status(hdmi_hotplug_status_e status)
{
    return set_field(g_ai_info.hotplug_status, status);
}

audio_in_bypass_mode_e audio_input_get_bypass_mode(void)
{
    return get_field(g_ai_info.in_bypass_mode, E_AUDIO_IN_BYPASS_MODE_NONE);
}

int32_t audio_input_set_bypass_mode(audio_in_bypass_mode_e mode) { return set_field(g_ai_info.in_bypass_mode, mode); }

int32_t audio_input_set_reopen_device(bool enable)
{
    const entry_guard api(g_ai_info.api_rwlock, is_open);
    if (!api)
        return -1;
    {
        mutex_guard setter(g_ai_info.internal_mutex);
        g_ai_info.reopen_device = enable;
    }
    // The read thread may wait for a frame of a queue that nobody empties any more. A wake-up that it does
    // not need ends at its next acquire.
    if (enable) {
        frame_queue_pool_wakeup(g_ai_info.pcm_frame_queue);
        frame_queue_pool_wakeup(g_ai_info.iec61937_queue);
    }
    return 0;
}

const char* audio_input_format_name(audio_input_format_e format)
{
    switch (format) {
    case AUDIO_INPUT_FORMAT_PCM: return "pcm";
    case AUDIO_INPUT_FORMAT_COMP_IEC61937: return "IEC-61937";
    default: return "unknown";
    }
}
