// The browser peer's filter modes, for pipelines: --encode turns JSON lines on standard input
// into frames on standard output; --decode turns frames on standard input into JSON lines.
// Blocking reads and writes on the process's standard streams; main thread.
#pragma once

namespace kerrow::tools {

/// JSON lines to frames. Blank lines and lines starting with # are skipped; a line that is not
/// JSON is reported on standard error (with its number) and skipped. Returns the exit status:
/// 0, or 1 when a line was skipped as not JSON or output failed.
int encodeFilter();

/// Frames to JSON lines (see jsonLine()). A frame over 64 MiB, or input that ends inside a
/// frame, is reported and ends the filter. Returns 0, or 1 after such an error.
int decodeFilter();

}  // namespace kerrow::tools
