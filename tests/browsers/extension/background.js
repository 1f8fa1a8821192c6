// Connects to the native messaging host at start, sends one tab list, and reports every message
// the host writes back through the same port, so the test's core service sees both directions.
"use strict";

const hostName = "com.kerrowsoftware.native_messaging_host";
const port = chrome.runtime.connectNative(hostName);

port.onMessage.addListener((message) => {
  port.postMessage({ type: "received", message });
});

port.postMessage({
  type: "tabList",
  tabs: [{ id: 42, title: "Caf\u00e9 \u2615 \u65e5\u672c", url: "https://a.example/path?q=1" }],
});
