// SPDX-License-Identifier: MIT
#include "pulse_server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "alsa_messages.h"
#include "eventually.h"

namespace
{

constexpr auto kStartLimit = std::chrono::seconds(20);

std::string socket_of(const std::string& folder) { return folder + "/native"; }

// In the child: no output, and killed when the test ends.
[[noreturn]] void become_server(const std::string& folder, const std::vector<std::string>& sinks)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int log = open((folder + "/log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    // Without the user's settings, a message bus or libraries preloaded for the test.
    for (const char* name : {"DBUS_SESSION_BUS_ADDRESS", "PULSE_SERVER", "DISPLAY", "LD_PRELOAD"})
        unsetenv(name);
    std::vector<std::string> words = {"pulseaudio",
                                      "-n",
                                      "--daemonize=no",
                                      "--exit-idle-time=-1",
                                      "--use-pid-file=no",
                                      "--disable-shm=yes",
                                      "-L",
                                      "module-native-protocol-unix auth-anonymous=1 socket=" + socket_of(folder)};
    for (const std::string& sink : sinks) {
        words.emplace_back("-L");
        words.push_back("module-null-sink norewinds=1 format=s16le rate=48000 channels=2 sink_name=" + sink);
    }
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    perror("pulseaudio");
    _exit(127);
}

} // namespace

#if defined(__SANITIZE_THREAD__)
// The server's client library is not instrumented, so its lock-free lists look like races between its own threads.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() { return "race:libpulse\n"; }
#endif

PulseServer::PulseServer(std::vector<std::string> sinks, std::string (*more)(const std::string& folder))
    : sinks_(std::move(sinks))
{
    char name[] = "/tmp/hdmiplayer-sound-XXXXXX";
    if (mkdtemp(name) == nullptr)
        throw std::runtime_error("no temporary folder");
    folder_ = name;
    std::ofstream config(folder_ + "/asound.conf");
    for (const std::string& sink : sinks_) {
        for (const char* suffix : {"", "_monitor"})
            config << "pcm." << sink << suffix << " { type pulse server \"unix:" << socket_of(folder_) << "\" device \""
                   << sink << (*suffix != '\0' ? ".monitor" : "") << "\" }\n";
    }
    config << more(folder_);
    setenv("HOME", name, 1);
    setenv("XDG_RUNTIME_DIR", name, 1);
    setenv("ALSA_CONFIG_PATH", (folder_ + "/asound.conf").c_str(), 1);
}

PulseServer::~PulseServer()
{
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

bool PulseServer::start()
{
    pid_ = fork();
    if (pid_ == 0)
        become_server(folder_, sinks_);
    bool gone = pid_ < 0;
    const bool up = eventually(
        [this, &gone] {
            gone = gone || waitpid(pid_, nullptr, WNOHANG) == pid_;
            return gone || reachable();
        },
        kStartLimit);
    if (gone)
        pid_ = -1;
    if (up && !gone)
        return true;
    why_ = "no private sound server: " + log_tail();
    kill();
    return false;
}

void PulseServer::kill()
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
    unlink(socket_of(folder_).c_str());
}

bool PulseServer::reachable() const
{
    if (access(socket_of(folder_).c_str(), R_OK) != 0)
        return false;
    const hdmi_linux::AlsaMessages expected;
    snd_pcm_t* pcm = nullptr;
    if (snd_pcm_open(&pcm, sinks_.back().c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK) < 0)
        return false;
    snd_pcm_close(pcm);
    return true;
}

std::string PulseServer::log_tail() const
{
    std::ifstream log(folder_ + "/log");
    std::string line;
    std::string last = "it says nothing";
    while (std::getline(log, line))
        last = line;
    return last;
}
