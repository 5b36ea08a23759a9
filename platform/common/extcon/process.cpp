// SPDX-License-Identifier: MIT
/**
 * @file
 * Announcements inside the process. The player opens a file and a socket of a
 * netlink family to hear of its receiver; these calls of the player's, and of
 * nobody else, come here. It gets a file in memory that holds the state, and one
 * end of a pair of sockets.
 */
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <optional>
#include <vector>

#include "extcon/extcon.h"
#include "extcon/imports.h"
#include "internal/locks.h"

namespace extcon
{
namespace
{

constexpr char kPlayerLibrary[] = "libhdmiplayer.so.1";
constexpr char kPlayerFunction[] = "hdmi_player_open";
/// The player takes messages every 50 ms.
constexpr int kSendLimitMs = 1000;

/// The state and who listens. Lives as long as the process: the player's calls come here for ever.
struct Exchange {
    mutex_t mutex;
    std::optional<std::string> state GUARDED_BY(mutex); ///< none: there is no file
    std::vector<int> listeners GUARDED_BY(mutex);       ///< our ends of the pairs
};

Exchange& exchange()
{
    static auto* instance = new Exchange;
    return *instance;
}

/// Closes our ends of the pairs for which @p gone holds.
template <typename Gone> void forget_listeners(Exchange& e, const Gone& gone) REQUIRES(e.mutex)
{
    const auto forget = [&gone](int listener) { return gone(listener) && close(listener) == 0; };
    e.listeners.erase(std::remove_if(e.listeners.begin(), e.listeners.end(), forget), e.listeners.end());
}

bool has_hung_up(int listener)
{
    pollfd end = {listener, 0, 0};
    return poll(&end, 1, 0) == 1 && (end.revents & POLLHUP) != 0;
}

// --- What the player calls ------------------------------------------------------------

bool is_state_file(const char* path) { return path != nullptr && strcmp(path, kStateFile) == 0; }

/// A descriptor from which the state can be read, or -1 with errno.
int open_state()
{
    Exchange& e = exchange();
    mutex_guard guard(e.mutex);
    if (!e.state) {
        errno = ENOENT;
        return -1;
    }
    const std::string& state = *e.state;
    // A file like any other: the player takes nothing else for a state.
    const int fd = memfd_create("hdmirx_aud_state", MFD_CLOEXEC);
    if (fd < 0)
        return -1;
    const auto size = static_cast<ssize_t>(state.size());
    if (write(fd, state.data(), state.size()) == size && lseek(fd, 0, SEEK_SET) == 0)
        return fd;
    close(fd);
    errno = EIO;
    return -1;
}

mode_t mode_argument(int flags, va_list arguments)
{
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return creates ? va_arg(arguments, mode_t) : 0;
}

int open_for_player(const char* path, int flags, ...)
{
    if (is_state_file(path))
        return open_state();
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    return open(path, flags, mode);
}

// As the compiler calls it with _FORTIFY_SOURCE.
int checked_open_for_player(const char* path, int flags)
{
    return is_state_file(path) ? open_state() : open(path, flags);
}

int socket_for_player(int domain, int type, int protocol)
{
    if (domain != AF_NETLINK || protocol != NETLINK_KOBJECT_UEVENT)
        return socket(domain, type, protocol);
    int ends[2];
    const int flags = type & (SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0, ends) != 0)
        return -1;
    if ((flags & SOCK_CLOEXEC) == 0)
        fcntl(ends[0], F_SETFD, 0); // as socket() gives it
    Exchange& e = exchange();
    mutex_guard guard(e.mutex);
    forget_listeners(e, has_hung_up);
    e.listeners.push_back(ends[1]);
    return ends[0];
}

int bind_for_player(int fd, const sockaddr* address, socklen_t length)
{
    int domain = 0;
    socklen_t size = sizeof(domain);
    // Nobody binds a local socket to a netlink address, unless it is one of ours.
    if (length >= sizeof(sa_family_t) && address->sa_family == AF_NETLINK &&
        getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX)
        return 0;
    return bind(fd, address, length);
}

/// What the player must call under one of its names: by the size of file offsets, by fortification.
struct Redirection {
    const char* name;
    const void* replacement;
    enum Call { kOpens, kMakesSockets, kBinds, kCount } call;
};

const std::vector<Redirection>& redirections()
{
    const auto* plain = reinterpret_cast<const void*>(open_for_player);
    const auto* checked = reinterpret_cast<const void*>(checked_open_for_player);
    static const std::vector<Redirection> all = {
        {"open", plain, Redirection::kOpens},
        {"open64", plain, Redirection::kOpens},
        {"__open_2", checked, Redirection::kOpens},
        {"__open64_2", checked, Redirection::kOpens},
        {"socket", reinterpret_cast<const void*>(socket_for_player), Redirection::kMakesSockets},
        {"bind", reinterpret_cast<const void*>(bind_for_player), Redirection::kBinds},
    };
    return all;
}

/// An address inside the player's library; null: the player is a part of the program.
const void* player()
{
    // Not by the name alone: where the program takes the function's address, that name stands for a piece of the
    // program.
    if (void* library = dlopen(kPlayerLibrary, RTLD_LAZY | RTLD_NOLOAD)) {
        const void* function = dlsym(library, kPlayerFunction);
        dlclose(library); // it stays loaded: somebody else has loaded it
        return function;
    }
    return nullptr;
}

bool redirect(const void* object)
{
    std::array<int, Redirection::kCount> redirected = {};
    for (const Redirection& redirection : redirections()) {
        const int places = redirect_import(object, redirection.name, redirection.replacement);
        if (places < 0)
            return false;
        redirected[redirection.call] += places;
    }
    return std::all_of(redirected.begin(), redirected.end(), [](int places) { return places > 0; });
}

// --- The driver's side ----------------------------------------------------------------

/// Waits for a listener that is behind. @return false when there is none any more
bool deliver(int listener, const std::string& message)
{
    while (send(listener, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
        if (errno != EAGAIN)
            return false;
        pollfd room = {listener, POLLOUT, 0};
        if (poll(&room, 1, kSendLimitMs) == 0)
            return true;
    }
    return true;
}

class ProcessChannel final : public Channel
{
public:
    bool write_state(const std::string& text) override
    {
        Exchange& e = exchange();
        mutex_guard guard(e.mutex);
        e.state = text;
        return true;
    }

    bool send(const std::string& message) override
    {
        Exchange& e = exchange();
        mutex_guard guard(e.mutex);
        forget_listeners(e, [&message](int listener) { return !deliver(listener, message); });
        return true;
    }
};

} // namespace

std::unique_ptr<Channel> open_process(std::string* error)
{
    if (redirect(player()))
        return std::make_unique<ProcessChannel>();
    *error = "cannot announce in the process: the player is not loaded, or is linked statically with the C library";
    return nullptr;
}

} // namespace extcon
