// SPDX-License-Identifier: MIT
#include <dirent.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "sim.h"

namespace sim
{
namespace
{

constexpr const char* kDevicePath = "/devices/platform/hdmirx_aud/extcon/hdmirx_aud";
constexpr unsigned int kKernelGroup = 1; ///< of NETLINK_KOBJECT_UEVENT: the kernel's own events
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kFileMode = 0644;
constexpr const char* kAdvice = "run as root, or allow user namespaces (sysctl kernel.unprivileged_userns_clone=1, "
                                "user.max_user_namespaces=100, kernel.apparmor_restrict_unprivileged_userns=0), or "
                                "give the container --cap-add=SYS_ADMIN "
                                "--security-opt seccomp=unconfined --security-opt apparmor=unconfined";

class Descriptor
{
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

/// Says which step failed, and why.
struct Failure {
    std::string step;
    int error = 0;
};

bool failed(Failure& failure, const std::string& step)
{
    failure = {step, errno};
    return false;
}

/**
 * Descriptors that were opened inside the private namespaces. Announcements use
 * only these. So they cannot reach the machine's own network namespace, from
 * any thread or process.
 */
struct Stage {
    mutex_t mutex;
    bool entered GUARDED_BY(mutex) = false;
    int directory GUARDED_BY(mutex) = -1; ///< of the receiver's device
    int socket GUARDED_BY(mutex) = -1;
    uint64_t sequence GUARDED_BY(mutex) = 0;
};

Stage& stage()
{
    static auto* instance = new Stage;
    return *instance;
}

bool write_file(const char* path, const std::string& text)
{
    const Descriptor file(open(path, O_WRONLY | O_CLOEXEC));
    return file.get() >= 0 && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Maps the caller's user and group to themselves.
bool map_identity(uid_t user, gid_t group)
{
    const std::string uid = std::to_string(user);
    const std::string gid = std::to_string(group);
    return write_file("/proc/self/setgroups", "deny") && write_file("/proc/self/uid_map", uid + " " + uid + " 1") &&
           write_file("/proc/self/gid_map", gid + " " + gid + " 1");
}

// Enters a user namespace only if the others are not permitted without one,
// because real-time priority is not available inside it.
bool leave_namespaces(Failure& failure)
{
    constexpr int kNamespaces = CLONE_NEWNS | CLONE_NEWNET;
    if (unshare(kNamespaces) == 0)
        return true;
    if (errno != EPERM)
        return failed(failure, "unshare");
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWUSER | kNamespaces) != 0)
        return failed(failure, errno == EINVAL ? "unshare (the process has threads already?)" : "unshare");
    return map_identity(user, group) || failed(failure, "identity map");
}

bool is_directory(const std::string& path)
{
    struct stat info = {};
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool mount_tmpfs(const std::string& path, Failure& failure)
{
    return mount("tmpfs", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0755") == 0 ||
           failed(failure, "mount of tmpfs on " + path);
}

bool copy_link(int original, const char* name, const std::string& target, Failure& failure)
{
    char text[PATH_MAX] = {};
    if (readlinkat(original, name, text, sizeof(text) - 1) < 0 || symlink(text, target.c_str()) != 0)
        return failed(failure, "symlink " + target);
    return true;
}

// Makes entry @p name of the directory @p original appear as @p target again.
bool put_back(int original, const char* name, const std::string& target, Failure& failure)
{
    struct stat info = {};
    if (fstatat(original, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return failed(failure, "stat of " + target);
    if (S_ISLNK(info.st_mode))
        return copy_link(original, name, target, failure);
    const bool made =
        S_ISDIR(info.st_mode) ? mkdir(target.c_str(), kDirectoryMode) == 0 : mknod(target.c_str(), S_IFREG, 0) == 0;
    // The mount covers the original by now. It is still reached through the descriptor opened before.
    const std::string source = "/proc/self/fd/" + std::to_string(original) + "/" + name;
    if (!made || mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        return failed(failure, "bind mount of " + target);
    return true;
}

// Covers @p path with a new directory that has the same entries and takes more.
bool make_extensible(const std::string& path, Failure& failure)
{
    const Descriptor original(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (original.get() < 0)
        return failed(failure, "open of " + path);
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(dup(original.get())), closedir);
    if (entries == nullptr)
        return failed(failure, "read of " + path);
    if (!mount_tmpfs(path, failure))
        return false;
    while (const dirent* entry = readdir(entries.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && !put_back(original.get(), entry->d_name, path + "/" + name, failure))
            return false;
    }
    return true;
}

// Makes the device's directory, covering as little of /sys as possible. @return its path, empty on failure.
std::string build_device_directory(Failure& failure)
{
    std::string path = "/sys/class/extcon/hdmirx_aud";
    if (is_directory(path))
        return mount_tmpfs(path, failure) ? path : "";
    size_t end = path.size();
    while (end != 0 && !is_directory(path.substr(0, end)))
        end = path.rfind('/', end - 1);
    if (end == 0) {
        failure = {"/sys", ENOENT};
        return "";
    }
    if (!make_extensible(path.substr(0, end), failure))
        return "";
    while (end != std::string::npos) {
        end = path.find('/', end + 1);
        const std::string directory = path.substr(0, end);
        if (mkdir(directory.c_str(), kDirectoryMode) != 0) {
            failed(failure, "mkdir " + directory);
            return "";
        }
    }
    return path;
}

bool enter(Stage& s, Failure& failure) REQUIRES(s.mutex)
{
    if (!leave_namespaces(failure))
        return false;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return failed(failure, "private mounts");
    const std::string path = build_device_directory(failure);
    if (path.empty())
        return false;
    Descriptor directory(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() < 0)
        return failed(failure, "open of " + path);
    Descriptor sender(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
    if (sender.get() < 0)
        return failed(failure, "netlink socket");
    s.directory = directory.release();
    s.socket = sender.release();
    s.entered = true;
    return true;
}

// By rename, so that a reader finds the old or the new text, never a part.
bool replace_state_file(Stage& s, const std::string& text) REQUIRES(s.mutex)
{
    const Descriptor file(openat(s.directory, ".state", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
    if (file.get() < 0 || write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        return false;
    return renameat(s.directory, ".state", s.directory, "state") == 0;
}

bool multicast(Stage& s, const std::string& message) REQUIRES(s.mutex)
{
    sockaddr_nl group = {};
    group.nl_family = AF_NETLINK;
    group.nl_groups = kKernelGroup;
    const ssize_t sent =
        sendto(s.socket, message.data(), message.size(), 0, reinterpret_cast<sockaddr*>(&group), sizeof(group));
    return sent == static_cast<ssize_t>(message.size());
}

bool refused(const Stage& s) REQUIRES(s.mutex)
{
    if (!s.entered)
        errno = EPERM;
    return !s.entered;
}

// In the kernel's form: the header, then the environment; each string ends with a NUL.
std::string uevent_text(const std::string& state, uint64_t sequence)
{
    const std::string device = kDevicePath;
    std::string text;
    for (const std::string& line :
         {"change@" + device, std::string("ACTION=change"), "DEVPATH=" + device, std::string("SUBSYSTEM=extcon"),
          std::string("NAME=hdmirx_aud"), "STATE=" + state, "SEQNUM=" + std::to_string(sequence)})
        text.append(line).push_back('\0');
    return text;
}

} // namespace
} // namespace sim

namespace hdmi_sim
{

bool enter_private_namespaces(std::string* error)
{
    sim::Stage& s = sim::stage();
    mutex_guard guard(s.mutex);
    if (s.entered)
        return true;
    sim::Failure failure;
    if (sim::enter(s, failure))
        return true;
    if (error != nullptr)
        *error =
            "cannot enter private namespaces: " + failure.step + ": " + strerror(failure.error) + "; " + sim::kAdvice;
    return false;
}

std::string announce_text(bool compressed, int sample_rate)
{
    const char* rate = sample_rate == 48000   ? "48"
                       : sample_rate == 44100 ? "44"
                       : sample_rate == 32000 ? "32"
                                              : nullptr;
    if (rate == nullptr)
        return "";
    return std::string(compressed ? "HEADDONE_COMP_" : "HEADDONE_PCM_") + rate + "=1";
}

bool write_state_file(const std::string& text)
{
    sim::Stage& s = sim::stage();
    mutex_guard guard(s.mutex);
    return !sim::refused(s) && sim::replace_state_file(s, text);
}

bool announce(const std::string& state)
{
    sim::Stage& s = sim::stage();
    mutex_guard guard(s.mutex);
    return !sim::refused(s) && sim::replace_state_file(s, state) &&
           sim::multicast(s, sim::uevent_text(state, ++s.sequence));
}

bool send_uevent(const std::string& message)
{
    sim::Stage& s = sim::stage();
    mutex_guard guard(s.mutex);
    return !sim::refused(s) && sim::multicast(s, message);
}

} // namespace hdmi_sim
