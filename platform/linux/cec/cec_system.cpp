// SPDX-License-Identifier: MIT
#include "cec/cec_system.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace hdmi_linux
{

std::vector<std::string> CecSystem::devices()
{
    std::vector<int> numbers;
    if (DIR* folder = opendir("/dev")) {
        while (const dirent* entry = readdir(folder)) {
            char* end = nullptr;
            if (strncmp(entry->d_name, "cec", 3) != 0 || entry->d_name[3] == '\0')
                continue;
            const long number = strtol(entry->d_name + 3, &end, 10);
            if (*end == '\0')
                numbers.push_back(static_cast<int>(number));
        }
        closedir(folder);
    }
    std::sort(numbers.begin(), numbers.end());
    std::vector<std::string> paths;
    for (const int number : numbers)
        paths.push_back("/dev/cec" + std::to_string(number));
    return paths;
}

int CecSystem::open(const char* path) { return ::open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC); }
void CecSystem::close(int fd) { ::close(fd); }
bool CecSystem::lock(int fd) { return flock(fd, LOCK_EX | LOCK_NB) == 0; }
int CecSystem::ioctl(int fd, unsigned long request, void* argument) { return ::ioctl(fd, request, argument); }

} // namespace hdmi_linux
