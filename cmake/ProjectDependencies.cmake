# Everything the open platform and the services take from the distribution.
find_package(PkgConfig REQUIRED)
pkg_check_modules(libyang REQUIRED IMPORTED_TARGET libyang)
pkg_check_modules(lmdb REQUIRED IMPORTED_TARGET lmdb)
pkg_check_modules(libsystemd REQUIRED IMPORTED_TARGET libsystemd)
find_package(spdlog REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)
find_package(Threads REQUIRED)
