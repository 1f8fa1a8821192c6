// Carries out one parsed command line: writes, checks or removes the host manifest in every
// folder the options select, reporting one line per folder. Runs on the calling thread.
#pragma once

#include <filesystem>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "tools/installer/options.h"
#include "tools/installer/targets.h"

namespace kerrow::installer {

/// The launcher that a Flatpak browser starts in place of the host: a shell script running
/// `flatpak-spawn --host <host> <arguments>`, which passes the standard streams through and
/// forwards signals to the host.
[[nodiscard]] std::string launcherText(const std::filesystem::path& host);

/// The command that lets the Flatpak app `id` ask for the host to be started outside it.
[[nodiscard]] std::vector<std::string> flatpakGrantCommand(std::string_view id);

/// Runs the action; returns the exit status (0, 1 or 2 as the usage text says). Progress goes to
/// `out`, failures to `err`. The doctor lives in doctor.h.
[[nodiscard]] int run(const Options& options, const Environment& environment, std::ostream& out,
                      std::ostream& err);

}  // namespace kerrow::installer
