#include "app/app_main.h"

#include <iostream>

#include "app/application.h"
#include "utils/fault.h"

namespace ip_spoofing_app {
namespace {

constexpr char kProcessEntry[] = "main";  // the function that the faults of this file name

}  // namespace

int run_daemon() {
  Application* const app = Application::Instance();
  if (app->MgrClient()->Connect() != 0) {
    FATAL_FAULT_AT((CallSite{__FILE__, kProcessEntry, __LINE__}),
                   "ip-spoofing-app could not connect to ip-spoofing-mgr");
  }
  // A loop that failed is reported without a text and the daemon leaves as after a normal end.
  if (app->Run() != 0) raise_fault({__FILE__, kProcessEntry, __LINE__}, "%s", "");
  std::cout << app->Name() << ": Leaving..." << std::endl;
  return 0;
}

}  // namespace ip_spoofing_app
