// SPDX-License-Identifier: MIT
#define SDL_MAIN_HANDLED
#include <SDL.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "display/display.h"
#include "display/flip_queue.h"
#include "hdmi_sim.h"

namespace play
{
namespace
{

/// What the pictures are painted into; the window may have any size.
constexpr Size canvas_size{1280, 720};
/// How often the window's events are looked at while nothing is to be shown.
constexpr std::chrono::milliseconds event_interval{10};
/// At the end: for the pictures that are pending.
constexpr int64_t finish_limit_ns = 200'000'000;

struct WindowCloser {
    void operator()(SDL_Window* p) const { SDL_DestroyWindow(p); }
};
struct RendererCloser {
    void operator()(SDL_Renderer* p) const { SDL_DestroyRenderer(p); }
};
struct TextureCloser {
    void operator()(SDL_Texture* p) const { SDL_DestroyTexture(p); }
};

/// Ordinary memory, from which the window's texture is filled.
class Memory : public Surface
{
public:
    Memory() : m_pixels(static_cast<size_t>(canvas_size.width) * canvas_size.height) {}
    Canvas canvas() const override
    {
        return {reinterpret_cast<uint8_t*>(m_pixels.data()), canvas_size.width, canvas_size.height,
                canvas_size.width * sizeof(uint32_t)};
    }

private:
    mutable std::vector<uint32_t> m_pixels;
};

/// The window itself. Everything of it happens on one thread, as SDL demands.
class Window
{
public:
    ~Window()
    {
        m_texture.reset();
        m_renderer.reset();
        m_window.reset();
        SDL_Quit();
    }

    /// @return what is wrong, or nothing
    std::string open()
    {
        SDL_SetMainReady();
        SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
        SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "linear");
        if (SDL_Init(SDL_INIT_VIDEO) != 0)
            return SDL_GetError();
        if (!has_desktop())
            return std::string("no desktop here, only ") + SDL_GetCurrentVideoDriver();
        constexpr int anywhere = SDL_WINDOWPOS_CENTERED;
        m_window.reset(SDL_CreateWindow("hdmi-player-play", anywhere, anywhere, canvas_size.width, canvas_size.height,
                                        SDL_WINDOW_RESIZABLE));
        if (!m_window)
            return SDL_GetError();
        m_renderer.reset(SDL_CreateRenderer(m_window.get(), -1, SDL_RENDERER_PRESENTVSYNC));
        if (!m_renderer)
            m_renderer.reset(SDL_CreateRenderer(m_window.get(), -1, SDL_RENDERER_SOFTWARE));
        if (m_renderer)
            m_texture.reset(SDL_CreateTexture(m_renderer.get(), SDL_PIXELFORMAT_RGB888, SDL_TEXTUREACCESS_STREAMING,
                                              canvas_size.width, canvas_size.height));
        if (!m_texture)
            return SDL_GetError();
        // Keeps the shape, with black borders, whatever the size of the window.
        SDL_RenderSetLogicalSize(m_renderer.get(), canvas_size.width, canvas_size.height);
        show(nullptr);
        return "";
    }

    /// Of the desktop; 0 if it does not say.
    double refresh_hz() const
    {
        SDL_DisplayMode mode = {};
        return SDL_GetWindowDisplayMode(m_window.get(), &mode) == 0 ? mode.refresh_rate : 0;
    }

    std::string description() const
    {
        SDL_RendererInfo info = {};
        SDL_GetRendererInfo(m_renderer.get(), &info);
        const char* driver = SDL_GetCurrentVideoDriver();
        bool vsync = (info.flags & SDL_RENDERER_PRESENTVSYNC) != 0;
        return std::string("window (") + (driver != nullptr ? driver : "?") + ", " +
               (info.name != nullptr ? info.name : "?") + (vsync ? ", vsync)" : ")");
    }

    /// Returns when the window system has it. Null: what was shown before, once more.
    void show(const Canvas* canvas)
    {
        if (canvas != nullptr)
            SDL_UpdateTexture(m_texture.get(), nullptr, canvas->memory, static_cast<int>(canvas->pitch));
        SDL_RenderClear(m_renderer.get());
        SDL_RenderCopy(m_renderer.get(), m_texture.get(), nullptr, nullptr);
        SDL_RenderPresent(m_renderer.get());
    }

    struct News {
        bool closed = false;  ///< the viewer wants to end
        bool exposed = false; ///< what was shown needs to be shown again
    };
    static News news()
    {
        News news;
        SDL_Event event;
        while (SDL_PollEvent(&event) != 0) {
            bool leave =
                event.type == SDL_KEYDOWN && (event.key.keysym.sym == SDLK_ESCAPE || event.key.keysym.sym == SDLK_q);
            news.closed |= event.type == SDL_QUIT || leave;
            news.exposed |= event.type == SDL_WINDOWEVENT && (event.window.event == SDL_WINDOWEVENT_EXPOSED ||
                                                              event.window.event == SDL_WINDOWEVENT_SIZE_CHANGED);
        }
        return news;
    }

private:
    /// SDL also has drivers that show nothing, or take the whole screen: for who asks for them by name.
    static bool has_desktop()
    {
        const std::string driver = SDL_GetCurrentVideoDriver();
        return SDL_getenv("SDL_VIDEODRIVER") != nullptr || driver == "x11" || driver == "wayland";
    }

    std::unique_ptr<SDL_Window, WindowCloser> m_window;
    std::unique_ptr<SDL_Renderer, RendererCloser> m_renderer;
    std::unique_ptr<SDL_Texture, TextureCloser> m_texture;
};

/// A window of the desktop. It has no vertical blanks to wait for: the player goes by its refresh rate.
class WindowDisplay : public Display
{
public:
    explicit WindowDisplay(const Options& options) : m_latency_ns(options.display_latency_ms() * int64_t{1'000'000})
    {
        m_refresh_hz = options.display_hz();
    }
    ~WindowDisplay() override { stop(); }

    /// @return what is wrong, or nothing
    std::string open(bool rate_given)
    {
        std::promise<std::string> opened;
        std::future<std::string> result = opened.get_future();
        m_thread = std::thread(&WindowDisplay::run, this, rate_given, std::move(opened));
        return result.get();
    }

    double refresh_hz() const override { return m_refresh_hz; }
    bool paced() const override { return false; }
    std::string description() const override { return m_description; }
    Size image_size() const override { return canvas_size; }

    std::optional<hdmi_player_drm_info_t> start(Screen* screen, FlipGate* gate, std::string*) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_screen = screen;
        m_gate = gate;
        return hdmi_player_drm_info_t{0, static_cast<float>(m_refresh_hz)};
    }

    void paint(FrameBuffer* buffer, const Image* image) override
    {
        if (!buffer->surface)
            buffer->surface = std::make_shared<Memory>();
        play::paint(buffer->picture, image, buffer->surface->canvas());
    }

    void present(FrameBuffer* buffer) override;
    void stop() override;
    bool closed() const override { return m_closed; }
    DisplayStats stats() const override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_stats;
    }

private:
    void run(bool rate_given, std::promise<std::string> opened);
    FrameBuffer* take_next();
    void on_shown(const Canvas& canvas);
    bool finished() const;

    const int64_t m_latency_ns;
    double m_refresh_hz = 0; ///< constant once open
    std::string m_description;
    std::thread m_thread;
    std::atomic<bool> m_closed{false};

    mutable std::mutex m_mutex; ///< what follows
    std::condition_variable m_changed;
    Screen* m_screen = nullptr;
    FlipGate* m_gate = nullptr;
    FlipQueue m_queue;
    bool m_stop = false;
    int64_t m_stop_ns = 0;
    int64_t m_shown_ns = 0; ///< when the latest picture was; 0: none yet
    DisplayStats m_stats;
};

void WindowDisplay::present(FrameBuffer* buffer)
{
    FrameBuffer* left_out = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stats.flips++;
        left_out = m_stop ? buffer : m_queue.flip(buffer);
        m_stats.superseded += left_out != nullptr ? 1 : 0;
    }
    m_changed.notify_all();
    if (left_out != nullptr)
        release(left_out);
}

void WindowDisplay::run(bool rate_given, std::promise<std::string> opened)
{
    pthread_setname_np(pthread_self(), "window");
    Window window;
    std::string wrong = window.open();
    m_description = window.description();
    double desktop_hz = window.refresh_hz();
    if (!rate_given && desktop_hz > 0)
        m_refresh_hz = desktop_hz;
    opened.set_value(wrong);
    while (wrong.empty() && !finished()) {
        FrameBuffer* next = take_next();
        Window::News news = Window::news();
        if (news.closed)
            m_closed = true;
        if (next != nullptr) {
            Canvas canvas = next->surface->canvas();
            window.show(&canvas);
            on_shown(canvas);
        } else if (news.exposed) {
            window.show(nullptr);
        }
    }
}

/// The picture to show now; null after a while without one.
FrameBuffer* WindowDisplay::take_next()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, event_interval, [this] { return m_queue.next() != nullptr || m_stop; });
    FrameBuffer* next = m_queue.next();
    if (next != nullptr)
        m_queue.taken();
    return next;
}

void WindowDisplay::on_shown(const Canvas& canvas)
{
    int64_t now_ns = hdmi_sim::now_ns();
    Picture seen = look_at(canvas);
    std::lock_guard<std::mutex> lock(m_mutex);
    FrameBuffer* before = m_queue.shown();
    int64_t passed = 1;
    if (m_shown_ns != 0)
        passed = std::max<int64_t>(1, std::llround(static_cast<double>(now_ns - m_shown_ns) * m_refresh_hz / 1e9));
    m_shown_ns = now_ns;
    m_stats.vblanks += passed;
    m_stats.repeated += passed - 1;
    m_gate->shown(now_ns);
    if (before != nullptr) {
        m_screen->stay(passed - 1);
        release(before);
    }
    m_screen->refresh(seen, now_ns + m_latency_ns);
}

/// Told to stop, and the pending pictures were shown.
bool WindowDisplay::finished() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stop && (m_queue.next() == nullptr || hdmi_sim::now_ns() >= m_stop_ns + finish_limit_ns);
}

void WindowDisplay::stop()
{
    if (!m_thread.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
        m_stop_ns = hdmi_sim::now_ns();
    }
    m_changed.notify_all();
    m_thread.join();
    for (FrameBuffer* buffer : m_queue.clear())
        release(buffer);
}

} // namespace

std::unique_ptr<Display> open_window_display(const Options& options, std::string* error)
{
    auto display = std::make_unique<WindowDisplay>(options);
    std::string wrong = display->open(options.display_rate.has_value());
    if (wrong.empty())
        return display;
    *error = "no window: " + wrong;
    return nullptr;
}

} // namespace play
