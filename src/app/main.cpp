#include "app/app_main.h"

int main() { return ip_spoofing_app::run_daemon(); }
