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
constexpr Size kCanvasSize{1280, 720};
/// How often the window's events are looked at while nothing is to be shown.
constexpr std::chrono::milliseconds kEventInterval{10};
/// At the end: for the pictures that are pending.
constexpr int64_t kFinishLimitNs = 200'000'000;

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
    Memory() : pixels_(static_cast<size_t>(kCanvasSize.width) * kCanvasSize.height) {}
    Canvas canvas() const override
    {
        return {reinterpret_cast<uint8_t*>(pixels_.data()), kCanvasSize.width, kCanvasSize.height,
                kCanvasSize.width * sizeof(uint32_t)};
    }

private:
    mutable std::vector<uint32_t> pixels_;
};

/// The window itself. Everything of it happens on one thread, as SDL demands.
class Window
{
public:
    ~Window()
    {
        texture_.reset();
        renderer_.reset();
        window_.reset();
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
        constexpr int kAnywhere = SDL_WINDOWPOS_CENTERED;
        window_.reset(SDL_CreateWindow("hdmi-player-play", kAnywhere, kAnywhere, kCanvasSize.width, kCanvasSize.height,
                                       SDL_WINDOW_RESIZABLE));
        if (!window_)
            return SDL_GetError();
        renderer_.reset(SDL_CreateRenderer(window_.get(), -1, SDL_RENDERER_PRESENTVSYNC));
        if (!renderer_)
            renderer_.reset(SDL_CreateRenderer(window_.get(), -1, SDL_RENDERER_SOFTWARE));
        if (renderer_)
            texture_.reset(SDL_CreateTexture(renderer_.get(), SDL_PIXELFORMAT_RGB888, SDL_TEXTUREACCESS_STREAMING,
                                             kCanvasSize.width, kCanvasSize.height));
        if (!texture_)
            return SDL_GetError();
        // Keeps the shape, with black borders, whatever the size of the window.
        SDL_RenderSetLogicalSize(renderer_.get(), kCanvasSize.width, kCanvasSize.height);
        show(nullptr);
        return "";
    }

    /// Of the desktop; 0 if it does not say.
    double refresh_hz() const
    {
        SDL_DisplayMode mode = {};
        return SDL_GetWindowDisplayMode(window_.get(), &mode) == 0 ? mode.refresh_rate : 0;
    }

    std::string description() const
    {
        SDL_RendererInfo info = {};
        SDL_GetRendererInfo(renderer_.get(), &info);
        const char* driver = SDL_GetCurrentVideoDriver();
        bool vsync = (info.flags & SDL_RENDERER_PRESENTVSYNC) != 0;
        return std::string("window (") + (driver != nullptr ? driver : "?") + ", " +
               (info.name != nullptr ? info.name : "?") + (vsync ? ", vsync)" : ")");
    }

    /// Returns when the window system has it. Null: what was shown before, once more.
    void show(const Canvas* canvas)
    {
        if (canvas != nullptr)
            SDL_UpdateTexture(texture_.get(), nullptr, canvas->memory, static_cast<int>(canvas->pitch));
        SDL_RenderClear(renderer_.get());
        SDL_RenderCopy(renderer_.get(), texture_.get(), nullptr, nullptr);
        SDL_RenderPresent(renderer_.get());
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

    std::unique_ptr<SDL_Window, WindowCloser> window_;
    std::unique_ptr<SDL_Renderer, RendererCloser> renderer_;
    std::unique_ptr<SDL_Texture, TextureCloser> texture_;
};

/// A window of the desktop. It has no vertical blanks to wait for: the player goes by its refresh rate.
class WindowDisplay final : public Display
{
public:
    explicit WindowDisplay(const Options& options) : latency_ns_(options.display_latency_ms() * int64_t{1'000'000})
    {
        refresh_hz_ = options.display_hz();
    }
    ~WindowDisplay() override { stop(); }

    /// @return what is wrong, or nothing
    std::string open(bool rate_given)
    {
        std::promise<std::string> opened;
        std::future<std::string> result = opened.get_future();
        thread_ = std::thread(&WindowDisplay::run, this, rate_given, std::move(opened));
        return result.get();
    }

    double refresh_hz() const override { return refresh_hz_; }
    bool paced() const override { return false; }
    std::string description() const override { return description_; }
    Size image_size() const override { return kCanvasSize; }

    std::optional<hdmi_player_drm_info_t> start(Screen* screen, FlipGate* gate, std::string*) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        screen_ = screen;
        gate_ = gate;
        return hdmi_player_drm_info_t{0, static_cast<float>(refresh_hz_)};
    }

    void paint(FrameBuffer* buffer, const Image* image) override
    {
        if (!buffer->surface)
            buffer->surface = std::make_shared<Memory>();
        play::paint(buffer->picture, image, buffer->surface->canvas());
    }

    void present(FrameBuffer* buffer) override;
    void stop() override;
    bool closed() const override { return closed_; }
    DisplayStats stats() const override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return stats_;
    }

private:
    void run(bool rate_given, std::promise<std::string> opened);
    FrameBuffer* take_next();
    void on_shown(const Canvas& canvas);
    bool finished() const;

    const int64_t latency_ns_;
    double refresh_hz_ = 0; ///< constant once open
    std::string description_;
    std::thread thread_;
    std::atomic<bool> closed_{false};

    mutable std::mutex mutex_; ///< what follows
    std::condition_variable changed_;
    Screen* screen_ = nullptr;
    FlipGate* gate_ = nullptr;
    FlipQueue queue_;
    bool stop_ = false;
    int64_t stop_ns_ = 0;
    int64_t shown_ns_ = 0; ///< when the latest picture was; 0: none yet
    DisplayStats stats_;
};

void WindowDisplay::present(FrameBuffer* buffer)
{
    FrameBuffer* left_out = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stats_.flips++;
        left_out = stop_ ? buffer : queue_.flip(buffer);
        stats_.superseded += left_out != nullptr ? 1 : 0;
    }
    changed_.notify_all();
    if (left_out != nullptr)
        release(left_out);
}

void WindowDisplay::run(bool rate_given, std::promise<std::string> opened)
{
    pthread_setname_np(pthread_self(), "window");
    Window window;
    std::string wrong = window.open();
    description_ = window.description();
    double desktop_hz = window.refresh_hz();
    if (!rate_given && desktop_hz > 0)
        refresh_hz_ = desktop_hz;
    opened.set_value(wrong);
    while (wrong.empty() && !finished()) {
        FrameBuffer* next = take_next();
        Window::News news = Window::news();
        if (news.closed)
            closed_ = true;
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
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, kEventInterval, [this] { return queue_.next() != nullptr || stop_; });
    FrameBuffer* next = queue_.next();
    if (next != nullptr)
        queue_.taken();
    return next;
}

void WindowDisplay::on_shown(const Canvas& canvas)
{
    int64_t now_ns = hdmi_sim::now_ns();
    Picture seen = look_at(canvas);
    std::lock_guard<std::mutex> lock(mutex_);
    FrameBuffer* before = queue_.shown();
    int64_t passed = 1;
    if (shown_ns_ != 0)
        passed = std::max<int64_t>(1, std::llround(static_cast<double>(now_ns - shown_ns_) * refresh_hz_ / 1e9));
    shown_ns_ = now_ns;
    stats_.vblanks += passed;
    stats_.repeated += passed - 1;
    gate_->shown(now_ns);
    if (before != nullptr) {
        screen_->stay(passed - 1);
        release(before);
    }
    screen_->refresh(seen, now_ns + latency_ns_);
}

/// Told to stop, and the pending pictures were shown.
bool WindowDisplay::finished() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return stop_ && (queue_.next() == nullptr || hdmi_sim::now_ns() >= stop_ns_ + kFinishLimitNs);
}

void WindowDisplay::stop()
{
    if (!thread_.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
        stop_ns_ = hdmi_sim::now_ns();
    }
    changed_.notify_all();
    thread_.join();
    for (FrameBuffer* buffer : queue_.clear())
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
