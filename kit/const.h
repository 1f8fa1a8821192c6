// Const::Browser: the keywords and markers shared with the core service. Read-only; any thread.
//
// The core service's commands are recognised by containment, tested in the order closeTab,
// disableInternet, enableInternet, websiteList, so no command's text may contain the keyword of a
// command tested before it; the "kerrow." prefix and distinct stems keep that true.
#pragma once

#include <string_view>

namespace kerrow::Const::Browser {

/// Core to host: "kerrow.closeTab-<tab id>".
inline constexpr std::string_view closeTab = "kerrow.closeTab";
/// Core to host: "kerrow.disableInternet<payload text>".
inline constexpr std::string_view disableInternet = "kerrow.disableInternet";
/// Core to host: "kerrow.enableInternet".
inline constexpr std::string_view enableInternet = "kerrow.enableInternet";
/// Core to host: "kerrow.websiteList<WebsiteList JSON>".
inline constexpr std::string_view websiteList = "kerrow.websiteList";
/// Host to core: the whole device-twin update request.
inline constexpr std::string_view updateDeviceTwin = "kerrow.updateDeviceTwin";
/// Host to core: appended to every message body forwarded from the extension.
inline constexpr std::string_view tabList = "kerrow.tabList";

}  // namespace kerrow::Const::Browser
