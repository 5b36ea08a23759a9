// SPDX-License-Identifier: MIT
/**
 * @file
 * The kinds of source links and sound outputs; the stage chooses among them.
 */
#pragma once

#include <memory>
#include <string>

#include "config/options.h"
#include "edges/sound_output.h"
#include "edges/source_link.h"

namespace play
{

/// The simulated receiver. @p source outlives the link, here and below.
std::unique_ptr<SourceLink> make_simulated_link(const Options& options, const Source* source);
/// A real capture device. Where the captured source is not ours, @p source gives the pictures alone.
std::unique_ptr<SourceLink> make_captured_link(const Options& options, const Source* source);

/// The simulated device. What is heard is kept in @p wav_path, here and below.
std::unique_ptr<SoundOutput> make_simulated_output(const Options& options, const std::string& wav_path);
/// A real device, heard when it says so itself.
std::unique_ptr<SoundOutput> make_real_output(const std::string& wav_path);
/// A real device, and another one that hears what comes out of it. @p link_rate: Hz, at which compressed sound is
/// passed on.
std::unique_ptr<SoundOutput> make_observed_output(const Options& options, const std::string& wav_path, int link_rate);
/// The second recording, of a device with an observer: what the player wrote.
std::string sent_path(const std::string& wav_path);
/// The recording of what the player captured.
std::string captured_path(const std::string& wav_path);

} // namespace play
