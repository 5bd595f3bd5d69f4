/// @file app_main.h
/// The daemon from its start to its exit status.
#pragma once

namespace ip_spoofing_app {

/// Builds the application, connects the manager client, runs the loop, says farewell on standard output.
/// Returns the exit status, 0; a fatal fault ends the process with status 1 instead.
int run_daemon();

}  // namespace ip_spoofing_app
