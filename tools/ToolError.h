// How the command-line tools end on an error: one line on standard error.
#ifndef RSVP_TOOLS_TOOLERROR_H
#define RSVP_TOOLS_TOOLERROR_H

#include <iostream>
#include <string>
#include <string_view>

// Writes "<tool>: <text>" as one line (any control character in `text` shows
// as '?') and answers `status`, the tool's exit status.
inline int toolError(std::string_view tool, int status, std::string_view text) {
  std::string line(tool);
  line += ": ";
  for (char const c : text) line += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
  std::cerr << line << '\n';
  return status;
}

#endif  // RSVP_TOOLS_TOOLERROR_H
