// SPDX-License-Identifier: MIT
#define SDL_MAIN_HANDLED
#include <SDL.h>
#include <drm_fourcc.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "common/clock.h"
#include "display/display.h"
#include "display/flip_queue.h"

namespace display
{
namespace
{

/// Of frames, until it is told; the window may have any size.
constexpr Size kCanvasSize{1280, 720};
/// Of a desktop that does not tell its rate.
constexpr double kUnstatedHz = 60;
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

/// The name that SDL has for a pixel format of DRM; unknown where it has none.
uint32_t sdl_format(uint32_t fourcc)
{
    switch (fourcc) {
    case DRM_FORMAT_NV12: return SDL_PIXELFORMAT_NV12;
    case DRM_FORMAT_YUYV: return SDL_PIXELFORMAT_YUY2;
    case DRM_FORMAT_UYVY: return SDL_PIXELFORMAT_UYVY;
    case DRM_FORMAT_YUV420: return SDL_PIXELFORMAT_IYUV;
    case DRM_FORMAT_XRGB8888: return SDL_PIXELFORMAT_RGB888;
    case DRM_FORMAT_XBGR8888: return SDL_PIXELFORMAT_BGR888;
    case DRM_FORMAT_RGB888: return SDL_PIXELFORMAT_BGR24;
    case DRM_FORMAT_BGR888: return SDL_PIXELFORMAT_RGB24;
    default: return SDL_PIXELFORMAT_UNKNOWN;
    }
}

/// Memory from which the window's texture is filled.
class WindowSurface : public Surface
{
public:
    explicit WindowSurface(const ForeignFrame& frame) : frame_(frame) {}
    explicit WindowSurface(Size size) : pixels_(static_cast<size_t>(size.width) * static_cast<size_t>(size.height))
    {
        frame_.layout.fourcc = DRM_FORMAT_XRGB8888;
        frame_.layout.width = size.width;
        frame_.layout.height = size.height;
        frame_.layout.pitches = {static_cast<uint32_t>(size.width) * static_cast<uint32_t>(sizeof(uint32_t))};
        frame_.memory = reinterpret_cast<const uint8_t*>(pixels_.data());
    }

    const ForeignFrame& frame() const { return frame_; }
    Canvas canvas() const override
    {
        if (pixels_.empty())
            return {};
        return {reinterpret_cast<uint8_t*>(pixels_.data()), frame_.layout.width, frame_.layout.height,
                frame_.layout.pitches[0]};
    }

private:
    mutable std::vector<uint32_t> pixels_;
    ForeignFrame frame_;
};

/// As viewers write it: "q", "Q", "Ctrl++".
std::string key_name(const SDL_Keysym& key)
{
    std::string name = SDL_GetKeyName(key.sym);
    if (name.size() == 1 && (key.mod & KMOD_SHIFT) == 0)
        name[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[0])));
    if (name == "=" && (key.mod & KMOD_SHIFT) != 0)
        name = "+"; // where the two share a key
    if (name.rfind("Keypad ", 0) == 0)
        name.erase(0, sizeof("Keypad ") - 1);
    return ((key.mod & KMOD_CTRL) != 0 ? "Ctrl+" : "") + name;
}

/// Whether a key that is held counts again and again: one that steps, not a letter, which switches.
bool may_repeat(const SDL_Keysym& key) { return key.sym < SDLK_a || key.sym > SDLK_z; }

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
    std::string open(const std::string& title)
    {
        SDL_SetMainReady();
        SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
        SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "linear");
        if (SDL_Init(SDL_INIT_VIDEO) != 0)
            return SDL_GetError();
        if (!has_desktop())
            return std::string("no desktop here, only ") + SDL_GetCurrentVideoDriver();
        constexpr int kAnywhere = SDL_WINDOWPOS_CENTERED;
        const Size size = fitting_size();
        window_.reset(
            SDL_CreateWindow(title.c_str(), kAnywhere, kAnywhere, size.width, size.height, SDL_WINDOW_RESIZABLE));
        if (!window_)
            return SDL_GetError();
        renderer_.reset(SDL_CreateRenderer(window_.get(), -1, SDL_RENDERER_PRESENTVSYNC));
        if (!renderer_)
            renderer_.reset(SDL_CreateRenderer(window_.get(), -1, SDL_RENDERER_SOFTWARE));
        if (!renderer_)
            return SDL_GetError();
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
    void show(const ForeignFrame* frame)
    {
        if (frame != nullptr && take_texture(frame->layout))
            upload(*frame);
        SDL_RenderClear(renderer_.get());
        if (texture_)
            SDL_RenderCopy(renderer_.get(), texture_.get(), nullptr, nullptr);
        SDL_RenderPresent(renderer_.get());
    }

    void set_title(const std::string& title) { SDL_SetWindowTitle(window_.get(), title.c_str()); }

    void toggle_fullscreen()
    {
        const bool full = (SDL_GetWindowFlags(window_.get()) & SDL_WINDOW_FULLSCREEN_DESKTOP) != 0;
        SDL_SetWindowFullscreen(window_.get(), full ? 0 : static_cast<uint32_t>(SDL_WINDOW_FULLSCREEN_DESKTOP));
        SDL_ShowCursor(full ? SDL_ENABLE : SDL_DISABLE);
    }

    struct News {
        bool closed = false;  ///< the viewer wants to end
        bool exposed = false; ///< what was shown needs to be shown again
    };
    /// @p on_key: who is told of keys; none: Escape and q close the window.
    static News news(const std::function<void(const std::string& key)>& on_key)
    {
        News news;
        SDL_Event event;
        while (SDL_PollEvent(&event) != 0) {
            bool leave =
                event.type == SDL_KEYDOWN && (event.key.keysym.sym == SDLK_ESCAPE || event.key.keysym.sym == SDLK_q);
            if (event.type == SDL_KEYDOWN && on_key && (event.key.repeat == 0 || may_repeat(event.key.keysym)))
                on_key(key_name(event.key.keysym));
            news.closed |= event.type == SDL_QUIT || (leave && !on_key);
            news.exposed |= event.type == SDL_WINDOWEVENT && (event.window.event == SDL_WINDOWEVENT_EXPOSED ||
                                                              event.window.event == SDL_WINDOWEVENT_SIZE_CHANGED);
        }
        return news;
    }

private:
    /// No larger than the desktop.
    static Size fitting_size()
    {
        SDL_Rect room = {0, 0, kCanvasSize.width, kCanvasSize.height};
        SDL_GetDisplayUsableBounds(0, &room);
        return {std::min(kCanvasSize.width, room.w), std::min(kCanvasSize.height, room.h)};
    }

    /// A texture of that layout, the one of before where it has the same.
    bool take_texture(const PixelLayout& layout)
    {
        if (texture_ && layout == layout_)
            return true;
        layout_ = layout;
        SDL_SetYUVConversionMode(layout.full_range ? SDL_YUV_CONVERSION_JPEG
                                 : layout.bt709    ? SDL_YUV_CONVERSION_BT709
                                                   : SDL_YUV_CONVERSION_BT601);
        texture_.reset(SDL_CreateTexture(renderer_.get(), sdl_format(layout.fourcc), SDL_TEXTUREACCESS_STREAMING,
                                         layout.width, layout.height));
        // Keeps the shape, with black borders, whatever the size of the window.
        SDL_RenderSetLogicalSize(renderer_.get(), layout.width, layout.height);
        return texture_ != nullptr;
    }

    void upload(const ForeignFrame& frame)
    {
        const PixelLayout& layout = frame.layout;
        auto plane = [&frame](size_t i) { return frame.memory + frame.layout.offsets[i]; };
        auto pitch = [&layout](size_t i) { return static_cast<int>(layout.pitches[i]); };
        if (layout.fourcc == DRM_FORMAT_NV12)
            SDL_UpdateNVTexture(texture_.get(), nullptr, plane(0), pitch(0), plane(1), pitch(1));
        else if (layout.fourcc == DRM_FORMAT_YUV420)
            SDL_UpdateYUVTexture(texture_.get(), nullptr, plane(0), pitch(0), plane(1), pitch(1), plane(2), pitch(2));
        else
            SDL_UpdateTexture(texture_.get(), nullptr, plane(0), pitch(0));
    }

    /// SDL also has drivers that show nothing, or take the whole screen: for who asks for them by name.
    static bool has_desktop()
    {
        const std::string driver = SDL_GetCurrentVideoDriver();
        return SDL_getenv("SDL_VIDEODRIVER") != nullptr || driver == "x11" || driver == "wayland";
    }

    std::unique_ptr<SDL_Window, WindowCloser> window_;
    std::unique_ptr<SDL_Renderer, RendererCloser> renderer_;
    std::unique_ptr<SDL_Texture, TextureCloser> texture_;
    PixelLayout layout_; ///< of the texture
};

/// A window of the desktop. It has no vertical blanks to wait for: the player goes by its refresh rate.
class WindowDisplay final : public Display
{
public:
    explicit WindowDisplay(const DisplayOptions& options)
        : latency_ns_(options.latency_ms * int64_t{1'000'000}), on_key_(options.on_key),
          refresh_hz_(options.refresh_hz.value_or(kUnstatedHz)), title_(options.title)
    {
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
    Size image_size() const override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return frame_size_;
    }

    std::optional<hdmi_player_drm_info_t> start(Observer* observer, FlipGate* gate, std::string*) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        observer_ = observer;
        gate_ = gate;
        return hdmi_player_drm_info_t{0, static_cast<float>(refresh_hz_)};
    }

    bool provide_surface(FrameBuffer* buffer) override
    {
        if (!buffer->surface)
            buffer->surface = std::make_shared<WindowSurface>(image_size());
        return true;
    }

    bool reads(uint32_t fourcc) const override { return sdl_format(fourcc) != SDL_PIXELFORMAT_UNKNOWN; }
    std::shared_ptr<Surface> adopt(const ForeignFrame& frame, std::string* why) override;
    void clear() override;
    void expect(Size frame) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        frame_size_ = frame;
    }
    void set_title(const std::string& title) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        title_ = title;
        new_title_ = true;
    }
    void toggle_fullscreen() override { toggle_fullscreen_ = true; }

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
    void on_shown(const FrameBuffer& buffer);
    void obey(Window* window);
    bool finished() const;

    const int64_t latency_ns_;
    const std::function<void(const std::string& key)> on_key_;
    double refresh_hz_; ///< constant once open
    std::string description_;
    std::thread thread_;
    std::atomic<bool> closed_{false};
    std::atomic<bool> toggle_fullscreen_{false};

    mutable std::mutex mutex_; ///< what follows
    std::condition_variable changed_;
    Observer* observer_ = nullptr;
    FlipGate* gate_ = nullptr;
    FlipQueue queue_;
    std::string title_;
    bool new_title_ = false;
    Size frame_size_ = kCanvasSize;
    bool showing_ = false; ///< the thread reads the frame that is on its way
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
    std::unique_lock<std::mutex> lock(mutex_);
    const std::string title = title_;
    lock.unlock();
    Window window;
    std::string wrong = window.open(title);
    description_ = window.description();
    double desktop_hz = window.refresh_hz();
    if (!rate_given && desktop_hz > 0)
        refresh_hz_ = desktop_hz;
    opened.set_value(wrong);
    while (wrong.empty() && !finished()) {
        FrameBuffer* next = take_next();
        Window::News news = Window::news(on_key_);
        if (news.closed)
            closed_ = true;
        obey(&window);
        if (next != nullptr) {
            window.show(&static_cast<const WindowSurface&>(*next->surface).frame());
            on_shown(*next);
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
    showing_ = next != nullptr;
    return next;
}

void WindowDisplay::on_shown(const FrameBuffer& buffer)
{
    int64_t now_ns = common::now_ns();
    std::unique_lock<std::mutex> lock(mutex_);
    FrameBuffer* before = queue_.shown();
    Observer* const observer = observer_;
    int64_t passed = 1;
    if (shown_ns_ != 0)
        passed = std::max<int64_t>(1, std::llround(static_cast<double>(now_ns - shown_ns_) * refresh_hz_ / 1e9));
    shown_ns_ = now_ns;
    stats_.vblanks += passed;
    stats_.repeated += passed - 1;
    gate_->shown(now_ns);
    lock.unlock();
    if (before != nullptr) {
        observer->stayed(passed - 1);
        release(before);
    }
    observer->shown(buffer, now_ns + latency_ns_);
    lock.lock();
    showing_ = false;
    changed_.notify_all();
}

/// What others have asked of the window.
void WindowDisplay::obey(Window* window)
{
    if (toggle_fullscreen_.exchange(false))
        window->toggle_fullscreen();
    std::lock_guard<std::mutex> lock(mutex_);
    if (std::exchange(new_title_, false))
        window->set_title(title_);
}

std::shared_ptr<Surface> WindowDisplay::adopt(const ForeignFrame& frame, std::string* why)
{
    // SDL has no conversion from full-range BT.709; RGB needs none.
    const bool converted = SDL_ISPIXELFORMAT_FOURCC(sdl_format(frame.layout.fourcc));
    if (frame.memory != nullptr && reads(frame.layout.fourcc) &&
        !(converted && frame.layout.full_range && frame.layout.bt709))
        return std::make_shared<WindowSurface>(frame);
    *why = "a window has no texture of that format";
    return nullptr;
}

void WindowDisplay::clear()
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !showing_; });
    const std::vector<FrameBuffer*> all = queue_.clear();
    lock.unlock();
    for (FrameBuffer* buffer : all)
        release(buffer);
}

/// Told to stop, and the pending pictures were shown.
bool WindowDisplay::finished() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return stop_ && (queue_.next() == nullptr || common::now_ns() >= stop_ns_ + kFinishLimitNs);
}

void WindowDisplay::stop()
{
    if (!thread_.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
        stop_ns_ = common::now_ns();
    }
    changed_.notify_all();
    thread_.join();
    for (FrameBuffer* buffer : queue_.clear())
        release(buffer);
}

} // namespace

std::unique_ptr<Display> open_window_display(const DisplayOptions& options, std::string* error)
{
    auto display = std::make_unique<WindowDisplay>(options);
    std::string wrong = display->open(options.refresh_hz.has_value());
    if (wrong.empty())
        return display;
    *error = "no window: " + wrong;
    return nullptr;
}

} // namespace display
