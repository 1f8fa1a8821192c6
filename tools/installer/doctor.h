// The doctor: every link of the chain from a browser to the core service, checked in one run for
// a person whose extension gets no answer. For each browser in use it reads the manifests of
// every scope (per-user, all users, Flatpak), then it checks the session bus and the core
// service's socket with the host's own rules (kit/). Runs on the calling thread.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tools/installer/installer.h"
#include "tools/installer/options.h"

namespace kerrow::installer {

/// One line of the doctor's report.
struct Finding {
    bool ok = true;
    /// What was checked: "firefox", "chromium (flatpak org.chromium.Chromium)", "session bus",
    /// "core service socket".
    std::string subject;
    /// What was found.
    std::string detail;
    /// What to do about it; empty when nothing needs doing.
    std::string fix;
};

/// Every finding, in the order: browsers, session bus, core service socket, confinement.
[[nodiscard]] std::vector<Finding> diagnose(const Options& options, const Environment& environment);

/// Prints the findings (one line each, or JSON with --json) on `out`; 0 when none is a problem,
/// else 1.
[[nodiscard]] int doctor(const Options& options, const Environment& environment, std::ostream& out,
                         std::ostream& err);

}  // namespace kerrow::installer
