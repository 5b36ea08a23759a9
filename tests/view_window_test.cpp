// SPDX-License-Identifier: MIT
// The viewer as a whole, from a made-up capture device to a window: what a key of the window does, what it says of a
// picture that stays black.
#define SDL_MAIN_HANDLED
#include <SDL.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <string>

#include "fakes/v4l2_device.h"
#include "session/viewer.h"
#include "support/eventually.h"

using namespace view;

namespace
{

constexpr std::chrono::seconds kPatience{60};

/// The standard error, in memory while this lives.
class SaidText
{
public:
    SaidText() { dup2(memory_, STDERR_FILENO); }
    ~SaidText()
    {
        dup2(before_, STDERR_FILENO);
        close(before_);
        close(memory_);
    }
    SaidText(const SaidText&) = delete;
    SaidText& operator=(const SaidText&) = delete;

    std::string text() const
    {
        std::string text(1 << 16, '\0');
        text.resize(static_cast<size_t>(std::max<ssize_t>(pread(memory_, text.data(), text.size(), 0), 0)));
        return text;
    }

private:
    const int before_ = dup(STDERR_FILENO);
    const int memory_ = memfd_create("said", MFD_CLOEXEC);
};

/// A viewer on a thread of its own, in a window of SDL's driver for machines without a desktop. It shows the window to
/// nobody, but keeps its size and state.
class WholeViewer
{
public:
    WholeViewer()
    {
        setenv("SDL_VIDEODRIVER", "dummy", 1);
        setenv("SDL_RENDER_DRIVER", "software", 1);
        SDL_AddEventWatch(note_window, this);
        options_.video = kernel_.path();
        options_.capture = "none";
        options_.display = DisplayKind::window;
        options_.seconds = 2 * std::chrono::duration<double>(kPatience).count();
        status_ = std::async(std::launch::async, [this] { return Viewer(options_, signals_).run(); });
    }
    WholeViewer(const WholeViewer&) = delete;
    WholeViewer& operator=(const WholeViewer&) = delete;
    ~WholeViewer() { EXPECT_EQ(status_.get(), 0); }

    /// Waits until it says @p text; meanwhile the source sends frames of @p colour.
    bool says(const std::string& text, uint32_t colour)
    {
        const auto said = [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            return said_.text().find(text) != std::string::npos || !kernel_.deliver(colour);
        };
        return eventually(said, kPatience) && said_.text().find(text) != std::string::npos;
    }
    std::string said() const { return said_.text(); }
    bool fullscreen() const { return fullscreen_; }
    static void press(SDL_Keycode key, int modifiers = KMOD_NONE)
    {
        SDL_Event event = {};
        event.type = SDL_KEYDOWN;
        event.key.keysym.sym = key;
        event.key.keysym.mod = static_cast<Uint16>(modifiers);
        SDL_PushEvent(&event);
    }

private:
    /// On the window's thread.
    static int note_window(void* viewer, SDL_Event* event)
    {
        if (event->type == SDL_WINDOWEVENT && event->window.event == SDL_WINDOWEVENT_SIZE_CHANGED) {
            const uint32_t flags = SDL_GetWindowFlags(SDL_GetWindowFromID(event->window.windowID));
            static_cast<WholeViewer*>(viewer)->fullscreen_ =
                (flags & SDL_WINDOW_FULLSCREEN_DESKTOP) == SDL_WINDOW_FULLSCREEN_DESKTOP;
        }
        return 0;
    }

    SaidText said_;
    V4l2Device kernel_;
    process::StopSignals signals_;
    Options options_;
    std::atomic<bool> fullscreen_{false};
    std::future<int> status_;
};

} // namespace

TEST(Viewer, KeyFTakesTheWholeScreenAndGivesItBack)
{
    WholeViewer viewer;
    EXPECT_TRUE(viewer.says("64x32 XR24 at 60 fps, not copied on window", 0x808080)) << viewer.said();
    for (const bool whole : {true, false, true, false}) {
        WholeViewer::press(SDLK_f);
        EXPECT_TRUE(eventually([&] { return viewer.fullscreen() == whole; }, kPatience)) << viewer.said();
    }
    WholeViewer::press(SDLK_q);
}

TEST(Viewer, KeysOfTheWindowSayWhatTheyDid)
{
    constexpr uint32_t kGrey = 0x808080;
    WholeViewer viewer;
    EXPECT_TRUE(viewer.says("64x32 XR24 at 60 fps, not copied on window", kGrey)) << viewer.said();
    const struct {
        SDL_Keycode key;
        int modifiers;
        const char* said;
    } keys[] = {
        {SDLK_9, KMOD_NONE, "volume 98 %"},
        {SDLK_0, KMOD_NONE, "volume 100 %"},
        {SDLK_m, KMOD_NONE, ": muted"},
        {SDLK_o, KMOD_NONE, "sound to headphone"},
        {SDLK_EQUALS, KMOD_LCTRL | KMOD_LSHIFT, "sound 10 ms later"}, // where + is on the same key
        {SDLK_PLUS, KMOD_LCTRL, "sound 20 ms later"},
        {SDLK_KP_MINUS, KMOD_LCTRL, "sound 10 ms later"},
        {SDLK_MINUS, KMOD_RCTRL, "sound 0 ms later"},
    };
    for (const auto& [key, modifiers, said] : keys) {
        WholeViewer::press(key, modifiers);
        EXPECT_TRUE(viewer.says(said, kGrey)) << said << " in\n" << viewer.said();
    }
    WholeViewer::press(SDLK_i);
    EXPECT_TRUE(viewer.says("64x32 XR24 at 60 fps, not copied; frames: ", kGrey)) << viewer.said();
    for (const char* figure :
         {" captured, ", " dropped, ", " seen, ", " on a display of ", "ms old when they come, sound ", " resets"})
        EXPECT_NE(viewer.said().find(figure), std::string::npos) << figure << " in\n" << viewer.said();
    WholeViewer::press(SDLK_q);
}

TEST(Viewer, SaysThatThePictureIsBlackAndWhatToDo)
{
    WholeViewer viewer;
    EXPECT_TRUE(viewer.says("the picture is black (a dark scene, a source that sleeps, or one that insists on HDCP): "
                            "v4l2-ctl -d /",
                            0))
        << viewer.said();
    WholeViewer::press(SDLK_q);
}
