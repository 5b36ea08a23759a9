// SPDX-License-Identifier: MIT
#include "machine/access.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

namespace machine
{
namespace
{

struct Owner {
    std::string text; ///< "root:audio 0660"
    std::string group;
    bool group_may = false;
};

Owner owner_of(const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
        return {};
    const passwd* owner = getpwuid(status.st_uid);
    std::string text = owner != nullptr ? owner->pw_name : std::to_string(status.st_uid);
    const group* entry = getgrgid(status.st_gid);
    const std::string group = entry != nullptr ? entry->gr_name : std::to_string(status.st_gid);
    char mode[8];
    snprintf(mode, sizeof(mode), " %04o", static_cast<unsigned>(status.st_mode & 07777));
    constexpr mode_t kReadWrite = S_IRGRP | S_IWGRP;
    return {text + ":" + group + mode, group, (status.st_mode & kReadWrite) == kReadWrite && status.st_gid != 0};
}

} // namespace

Device::Device(const std::string& path)
    : path_(path), fd_(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)), error_(fd_ < 0 ? errno : 0),
      in_use_(error_ == EBUSY || error_ == EAGAIN)
{
}

Device::~Device()
{
    if (fd_ >= 0)
        close(fd_);
}

std::string Device::owner() const { return owner_of(path_).text; }

std::optional<Finding> Device::refusal() const
{
    if (fd_ >= 0 || in_use_)
        return std::nullopt;
    if (error_ != EACCES && error_ != EPERM)
        return Finding{Verdict::missing, path_, strerror(error_), "sudo dmesg | tail"};
    const Owner owner = owner_of(path_);
    const std::string detail = std::string(strerror(error_)) + ", it is " + owner.text;
    if (error_ == EPERM) // Its mode permits it.
        return Finding{Verdict::refused, path_,
                       detail + "; the device rules of this container (or control group) forbid it",
                       "docker run --device " + path_ + " ...   # for example"};
    return Finding{Verdict::refused, path_, detail,
                   owner.group_may ? "sudo usermod -aG " + owner.group + " " + user() + "   # then log in again"
                                   : "sudo setfacl -m u:" + user() + ":rw " + path_};
}

std::vector<std::string> numbered(const std::string& folder, const std::string& prefix)
{
    std::map<int, std::string> found;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(folder, none)) {
        const std::string name = entry.path().filename();
        const std::string number = name.substr(std::min(name.size(), prefix.size()));
        constexpr size_t kDigitsMax = 6;
        if (name.compare(0, prefix.size(), prefix) == 0 && !number.empty() && number.size() <= kDigitsMax &&
            number.find_first_not_of("0123456789") == std::string::npos)
            found[std::stoi(number)] = entry.path();
    }
    std::vector<std::string> paths;
    for (const auto& [number, path] : found)
        paths.push_back(path);
    return paths;
}

std::string user()
{
    const passwd* entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

std::string first_line(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

} // namespace machine
