// The names of the two session-wide notifications between host and core service.
// Read-only; any thread.
#pragma once

#include <string_view>

namespace kerrow::NotificationName {

/// Posted by the core service; every host that observes it runs its start sequence.
inline constexpr std::string_view startCoreHostServices =
    "com.kerrowsoftware.startCoreHostServices";
/// Posted by the host once per launch, with immediate delivery.
inline constexpr std::string_view nativeMessagingHostDidFinishLaunching =
    "com.kerrowsoftware.nativeMessagingHostDidFinishLaunching";

}  // namespace kerrow::NotificationName
