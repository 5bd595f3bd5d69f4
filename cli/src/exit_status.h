#pragma once

namespace cli {

/// What the shell gets; the manual page lists them.
enum ExitStatus : int {
  kDone = 0,
  kRefused = 1,      ///< the element answered with an error
  kBadUsage = 2,     ///< the command line makes no sense
  kBadFile = 3,      ///< the file cannot be read or does not fit the data models; nothing was sent
  kUnreachable = 4,  ///< the element is down, went away or did not answer in time
};

}  // namespace cli
