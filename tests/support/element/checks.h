#pragma once

#include <string>

#include "configuration.h"
#include "element.h"

namespace test {

/// What the manager of `element` holds, as its control tool shows it; a line "unreadable: ..." when it shows nothing.
Table ManagerTable(const Element& element);

/// Waits until the manager holds exactly what `configuration` says; else the running test fails with the difference.
void ExpectManagerHolds(const Element& element, const Configuration& configuration);

/// Commits `config`, the content of an edit-config's <config>, to running in a session of its own. The running test
/// fails when the server refuses. `options` are the elements between target and config.
void Commit(const Element& element, const std::string& config, const std::string& options = "");
/// Commits `configuration` in place of what is there.
void CommitInPlace(const Element& element, const Configuration& configuration);

/// Fewer rounds where every step is slow: `rounds` in a normal build, a fifth of it under a sanitizer.
int Rounds(int rounds);

}  // namespace test
