#include <iostream>

#include "ctl.h"

int main(int argc, char** argv) { return mgr::RunCtl(argc, argv, std::cout, std::cerr); }
