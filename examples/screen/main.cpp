// SPDX-License-Identifier: MIT
/**
 * @file
 * A host with a display and sound processing: frames are painted into buffers of
 * a DRM/KMS device, flipped on its vertical blank, and the bass is raised.
 *
 *     screen /dev/dri/cardN [SECONDS]
 *
 * It needs a console that no desktop uses. Left out, to keep it in one file: real
 * video (a bar moves instead), another mode than the preferred one, unplugging of
 * the display, and a panel that is faster or slower than the 76 ms that the player
 * plans for (examples/minimal holds flips or sound for it).
 */
#include <fcntl.h>
#include <hdmi_player.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int kFramesPerSecond = 60;
/// On the screen, about to be, and as many as the player may hold.
constexpr int kPlayerFrames = 16;
constexpr int kBuffers = kPlayerFrames + 4;

std::atomic<bool> g_stop{false}; // without a lock, as a signal handler needs it

// --- The display --------------------------------------------------------------------

struct Buffer {
    uint32_t handle = 0;
    uint32_t framebuffer = 0;
    uint32_t pitch = 0;
    uint8_t* pixels = nullptr;
    size_t bytes = 0;
    bool free = true; ///< with Screen::mutex_
};

class Screen
{
public:
    explicit Screen(const char* path) : fd_(open(path, O_RDWR | O_CLOEXEC)) {}
    ~Screen()
    {
        for (Buffer& buffer : buffers_)
            destroy(buffer);
        if (saved_) // the console's picture
            drmModeSetCrtc(fd_, saved_->crtc_id, saved_->buffer_id, saved_->x, saved_->y, &connector_, 1,
                           &saved_->mode);
        if (fd_ >= 0)
            close(fd_);
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    /// Takes the first connected output, in its preferred mode.
    bool start() { return fd_ >= 0 && find_output() && create_buffers() && show(buffers_[0]); }
    hdmi_player_drm_info_t drm_info() const { return {fd_, static_cast<float>(mode_.vrefresh)}; }

    /// A buffer to paint into, null while all are in use.
    Buffer* take()
    {
        const std::lock_guard lock(mutex_);
        const auto found = std::find_if(buffers_.begin(), buffers_.end(), [](const Buffer& b) { return b.free; });
        if (found == buffers_.end())
            return nullptr;
        found->free = false;
        return &*found;
    }
    void give_back(Buffer* buffer)
    {
        const std::lock_guard lock(mutex_);
        buffer->free = true;
    }

    /// A bar at a place that says which frame this is.
    void paint(const Buffer& buffer, int64_t number) const
    {
        memset(buffer.pixels, 0x20, buffer.bytes);
        const uint32_t left = static_cast<uint32_t>(number * 8 % mode_.hdisplay) / 8 * 8;
        const uint32_t width = std::min<uint32_t>(64, mode_.hdisplay - left);
        for (uint32_t line = 0; line < mode_.vdisplay; line++)
            memset(buffer.pixels + line * buffer.pitch + left * 4, 0xFF, width * 4);
    }

    /// Shows @p buffer from the coming vertical blank on. @return false: another flip is under way
    bool flip(Buffer* buffer)
    {
        const std::lock_guard lock(mutex_);
        if (next_ != nullptr || drmModePageFlip(fd_, crtc_, buffer->framebuffer, DRM_MODE_PAGE_FLIP_EVENT, this) != 0)
            return false;
        next_ = buffer;
        return true;
    }

    /// Takes the news of flips that were made.
    void handle_events()
    {
        pollfd news = {fd_, POLLIN, 0};
        drmEventContext context = {};
        context.version = 2;
        context.page_flip_handler = [](int, unsigned, unsigned, unsigned, void* self) {
            static_cast<Screen*>(self)->flipped();
        };
        while (poll(&news, 1, 0) == 1 && drmHandleEvent(fd_, &context) == 0) {
        }
    }

private:
    void flipped()
    {
        const std::lock_guard lock(mutex_);
        if (shown_ != nullptr)
            shown_->free = true;
        shown_ = next_;
        next_ = nullptr;
    }

    bool find_output()
    {
        const std::unique_ptr<drmModeRes, void (*)(drmModeRes*)> all(drmModeGetResources(fd_), drmModeFreeResources);
        for (int i = 0; all && i < all->count_connectors; i++) {
            const std::unique_ptr<drmModeConnector, void (*)(drmModeConnector*)> connector(
                drmModeGetConnector(fd_, all->connectors[i]), drmModeFreeConnector);
            if (!connector || connector->connection != DRM_MODE_CONNECTED || connector->count_modes == 0)
                continue;
            connector_ = connector->connector_id;
            mode_ = connector->modes[0]; // the preferred one comes first
            return find_crtc(*all, *connector);
        }
        fprintf(stderr, "no display is connected\n");
        return false;
    }

    bool find_crtc(const drmModeRes& all, const drmModeConnector& connector)
    {
        for (int e = 0; e < connector.count_encoders; e++) {
            const std::unique_ptr<drmModeEncoder, void (*)(drmModeEncoder*)> encoder(
                drmModeGetEncoder(fd_, connector.encoders[e]), drmModeFreeEncoder);
            for (int c = 0; encoder && c < all.count_crtcs; c++)
                if ((encoder->possible_crtcs & (1U << c)) != 0) {
                    crtc_ = all.crtcs[c];
                    saved_.reset(drmModeGetCrtc(fd_, crtc_));
                    return true;
                }
        }
        return false;
    }

    bool create_buffers()
    {
        return std::all_of(buffers_.begin(), buffers_.end(), [this](Buffer& buffer) { return create(buffer); });
    }

    bool create(Buffer& buffer)
    {
        drm_mode_create_dumb request = {};
        request.width = mode_.hdisplay;
        request.height = mode_.vdisplay;
        request.bpp = 32;
        drm_mode_map_dumb place = {};
        if (drmIoctl(fd_, DRM_IOCTL_MODE_CREATE_DUMB, &request) != 0)
            return false;
        buffer.handle = place.handle = request.handle;
        buffer.pitch = request.pitch;
        if (drmModeAddFB(fd_, mode_.hdisplay, mode_.vdisplay, 24, 32, request.pitch, request.handle,
                         &buffer.framebuffer) != 0 ||
            drmIoctl(fd_, DRM_IOCTL_MODE_MAP_DUMB, &place) != 0)
            return false;
        void* pixels =
            mmap(nullptr, request.size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, static_cast<off_t>(place.offset));
        if (pixels == MAP_FAILED)
            return false;
        buffer.pixels = static_cast<uint8_t*>(pixels);
        buffer.bytes = request.size;
        return true;
    }

    void destroy(Buffer& buffer) const
    {
        if (buffer.pixels != nullptr)
            munmap(buffer.pixels, buffer.bytes);
        if (buffer.framebuffer != 0)
            drmModeRmFB(fd_, buffer.framebuffer);
        drm_mode_destroy_dumb request = {buffer.handle};
        if (buffer.handle != 0)
            drmIoctl(fd_, DRM_IOCTL_MODE_DESTROY_DUMB, &request);
    }

    /// The player waits for vertical blanks: the output must run before it opens.
    bool show(Buffer& buffer)
    {
        if (drmModeSetCrtc(fd_, crtc_, buffer.framebuffer, 0, 0, &connector_, 1, &mode_) != 0) {
            perror("the display cannot be set up");
            return false;
        }
        buffer.free = false;
        shown_ = &buffer;
        return true;
    }

    const int fd_;
    uint32_t connector_ = 0;
    uint32_t crtc_ = 0;
    drmModeModeInfo mode_ = {};
    std::unique_ptr<drmModeCrtc, void (*)(drmModeCrtc*)> saved_{nullptr, drmModeFreeCrtc};
    std::mutex mutex_;
    std::array<Buffer, kBuffers> buffers_;
    Buffer* shown_ = nullptr;
    Buffer* next_ = nullptr; ///< its flip is under way
};

std::unique_ptr<Screen> g_screen; ///< the callbacks carry no context
std::atomic<int64_t> g_shown{0};
std::atomic<int64_t> g_dropped{0};

void on_drop(hdmi_player_video_frame_t frame)
{
    g_screen->give_back(static_cast<Buffer*>(frame.buf_handle));
    g_dropped++;
}

void on_flip(hdmi_player_video_frame_t frame)
{
    if (g_screen->flip(static_cast<Buffer*>(frame.buf_handle)))
        g_shown++;
    else
        on_drop(frame);
}

// --- The sound ----------------------------------------------------------------------

/// Raises what is below 120 Hz by 6 dB: a low-pass of first order, added to the sound.
class Bass
{
public:
    void process(hdmi_player_audio_frame_t* block)
    {
        const auto share = static_cast<float>(1 - std::exp(-2 * M_PI * 120 / block->sample_rate));
        auto* samples = reinterpret_cast<int16_t*>(block->data);
        const int count = block->size / static_cast<int>(sizeof(int16_t));
        for (int i = 0; i < count; i++) {
            float& low = low_[static_cast<size_t>(i % block->channels) % low_.size()];
            const auto sample = static_cast<float>(samples[i]);
            low += share * (sample - low);
            samples[i] = static_cast<int16_t>(std::lrint(std::clamp(sample + low, -32768.0F, 32767.0F)));
        }
    }

private:
    std::array<float, 8> low_ = {};
};

std::atomic<int32_t> g_newest_serial;
std::atomic<int32_t> g_last_old_serial;
thread_local bool t_reset_raised = false; ///< during this thread's call of hdmi_player_video_render()

void on_event(hdmi_player_event_e event)
{
    if (event != E_HDMI_PLAYER_EVENT_AVSYNC_RESET)
        return;
    g_last_old_serial = g_newest_serial.load();
    t_reset_raised = true;
}

void play_sound()
{
    Bass bass;
    while (!g_stop) {
        hdmi_player_audio_frame_t* block = nullptr;
        if (hdmi_player_get_pcm(&block, 100) != 0)
            continue;
        g_newest_serial = std::max(g_newest_serial.load(), block->serial);
        if (block->serial > g_last_old_serial) {
            bass.process(block);
            hdmi_player_write_pcm(block);
        }
        hdmi_player_put_pcm(block);
    }
}

// --- The host -----------------------------------------------------------------------

void render_frames(Screen& screen)
{
    auto next = Clock::now();
    for (int64_t number = 0; !g_stop; number++) {
        std::this_thread::sleep_until(next += std::chrono::nanoseconds(1'000'000'000 / kFramesPerSecond));
        screen.handle_events();
        Buffer* buffer = screen.take();
        if (buffer == nullptr)
            continue; // the display is behind: this frame is left out
        screen.paint(*buffer, number);
        hdmi_player_video_frame_t frame = {buffer, 0};
        t_reset_raised = false;
        if (hdmi_player_video_render(&frame) != 0 && !t_reset_raised)
            screen.give_back(buffer); // refused: the host keeps it
    }
}

bool play(Screen& screen)
{
    hdmi_player_config_t config = {};
    config.ao_dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    config.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    config.drm_info = screen.drm_info();
    config.video_frame_queue_size = kPlayerFrames;
    config.event_cb = on_event;
    config.video_frame_flip_cb = on_flip;
    config.video_frame_drop_cb = on_drop;
    g_newest_serial = 0;
    g_last_old_serial = INT_MAX; // nothing is played before the first reset
    if (hdmi_player_open(config) != 0)
        return false;
    hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
    std::thread sound(play_sound);
    render_frames(screen);
    sound.join();
    hdmi_player_close();
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: screen /dev/dri/cardN [SECONDS]\n");
        return 2;
    }
    for (const int number : {SIGINT, SIGTERM, SIGALRM})
        signal(number, [](int) { g_stop = true; });
    g_screen = std::make_unique<Screen>(argv[1]);
    if (!g_screen->start()) {
        perror(argv[1]);
        return 3;
    }
    if (argc > 2)
        alarm(static_cast<unsigned>(atoi(argv[2])));
    if (!play(*g_screen))
        return 1;
    printf("%lld frames shown, %lld not shown\n", static_cast<long long>(g_shown), static_cast<long long>(g_dropped));
    return 0;
}
