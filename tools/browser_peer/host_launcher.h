// Starting the host as a browser does: standard input and standard output are pipes held by the
// browser, standard error is inherited, the signal mask and dispositions are the defaults, and
// the arguments are the caller's origin (Chrome family) or the manifest path and the add-on id
// (Firefox). The environment is the peer's own. Any thread; the caller owns the returned
// descriptors and reaps the process.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/descriptor.h"

namespace kerrow::tools {

struct LaunchedHost {
    pid_t pid = -1;
    Descriptor input;   // our end of the host's standard input (non-blocking)
    Descriptor output;  // our end of the host's standard output (non-blocking)
};

/// Throws std::system_error naming the binary when it cannot be started.
[[nodiscard]] LaunchedHost launchHost(const std::string& binary,
                                      const std::vector<std::string>& arguments);

/// The origin argument that Chrome passes: chrome-extension://<id>/.
[[nodiscard]] std::string chromeOrigin(const std::string& extensionId);

}  // namespace kerrow::tools
