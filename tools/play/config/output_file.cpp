// SPDX-License-Identifier: MIT
#include "config/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace play
{
namespace
{

/// Only creating a file tells: /proc lets the superuser write, yet has no room for a file.
int try_to_create(const std::string& path)
{
    int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (file < 0)
        return errno;
    close(file);
    unlink(path.c_str());
    return 0;
}

int try_to_write(const std::string& path)
{
    struct stat there = {};
    if (lstat(path.c_str(), &there) != 0)
        return errno == ENOENT ? try_to_create(path) : errno;
    // A link may point to a file that is still to be made.
    if (S_ISLNK(there.st_mode) && stat(path.c_str(), &there) != 0) {
        std::error_code failed;
        std::filesystem::path target = std::filesystem::read_symlink(path, failed);
        return failed ? failed.value() : try_to_create(std::filesystem::path(path).parent_path() / target);
    }
    if (S_ISDIR(there.st_mode))
        return EISDIR;
    return access(path.c_str(), W_OK) == 0 ? 0 : errno;
}

} // namespace

std::vector<std::string> wanted_files(const Options& options)
{
    std::vector<std::string> files;
    for (const std::string& path : {options.report_path, options.html_path, options.wav_path})
        if (!path.empty())
            files.push_back(path);
    return files;
}

bool is_writable(const std::string& path, std::string* error)
{
    int failure = try_to_write(path);
    if (failure != 0)
        *error = path + ": " + std::strerror(failure);
    return failure == 0;
}

} // namespace play
