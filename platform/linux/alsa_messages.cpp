// SPDX-License-Identifier: MIT
#include "alsa_messages.h"

#include <cstdio>

namespace hdmi_linux
{
namespace
{

thread_local AlsaMessages* t_messages = nullptr;

} // namespace

AlsaMessages::AlsaMessages() : outer_(t_messages), handler_(snd_lib_error_set_local(take)) { t_messages = this; }

AlsaMessages::~AlsaMessages()
{
    t_messages = outer_;
    snd_lib_error_set_local(handler_);
}

void AlsaMessages::take(const char*, int, const char*, int error, const char* format, va_list args)
{
    if (t_messages == nullptr)
        return;
    char text[256];
    vsnprintf(text, sizeof(text), format, args);
    t_messages->text_ = text;
    if (error != 0)
        t_messages->text_ += std::string(": ") + snd_strerror(error);
    while (!t_messages->text_.empty() && t_messages->text_.back() == '\n')
        t_messages->text_.pop_back();
}

} // namespace hdmi_linux
