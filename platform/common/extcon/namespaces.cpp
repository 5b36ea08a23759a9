// SPDX-License-Identifier: MIT
/**
 * @file
 * Announcements in namespaces of the process's own: mounts, network and, without
 * privileges, users.
 */
#include <dirent.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "extcon/extcon.h"

namespace extcon
{
namespace
{

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
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    int get() const { return fd_; }

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
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(fcntl(original.get(), F_DUPFD_CLOEXEC, 0)), closedir);
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
    std::string path = kStateFile;
    path.resize(path.rfind('/'));
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

/**
 * Holds descriptors that were opened inside the private namespaces, and uses
 * only these. So an announcement cannot reach the machine's own network
 * namespace, where its device manager listens, from any thread or process.
 */
class NamespaceChannel final : public Channel
{
public:
    bool enter(Failure& failure)
    {
        if (!leave_namespaces(failure))
            return false;
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return failed(failure, "private mounts");
        const std::string path = build_device_directory(failure);
        if (path.empty())
            return false;
        directory_ = Descriptor(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (directory_.get() < 0)
            return failed(failure, "open of " + path);
        socket_ = Descriptor(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
        return socket_.get() >= 0 || failed(failure, "netlink socket");
    }

    // By rename, so that a reader finds the old or the new text, never a part.
    bool write_state(const std::string& text) override
    {
        constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
        const Descriptor file(openat(directory_.get(), ".state", kFlags, kFileMode));
        if (file.get() < 0 || write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            return false;
        return renameat(directory_.get(), ".state", directory_.get(), "state") == 0;
    }

    bool send(const std::string& message) override
    {
        sockaddr_nl group = {};
        group.nl_family = AF_NETLINK;
        group.nl_groups = kKernelGroup;
        const ssize_t sent = sendto(socket_.get(), message.data(), message.size(), 0,
                                    reinterpret_cast<sockaddr*>(&group), sizeof(group));
        return sent == static_cast<ssize_t>(message.size());
    }

private:
    Descriptor directory_; ///< of the receiver's device
    Descriptor socket_;
};

} // namespace

std::unique_ptr<Channel> open_namespaces(std::string* error)
{
    Failure failure;
    auto channel = std::make_unique<NamespaceChannel>();
    if (channel->enter(failure))
        return channel;
    *error = "cannot enter private namespaces: " + failure.step + ": " + strerror(failure.error) + "; " + kAdvice;
    return nullptr;
}

} // namespace extcon
