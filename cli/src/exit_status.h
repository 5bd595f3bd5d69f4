#pragma once

namespace cli {

/// What the shell gets; the manual page lists them.
enum ExitStatus : int {
  kDone = 0,
  kRefused = 1,      ///< the element answered with an error
  kBadUsage = 2,     ///< the command line is wrong
  kBadFile = 3,      ///< the file cannot be read or does not fit the data models; nothing was changed
  kUnreachable = 4,  ///< no session with the element, or no whole answer in time
};

}  // namespace cli
