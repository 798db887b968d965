# The libraries that this project calls and does not write: SQLite, jansson, CLI11, fmt.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET GLOBAL sqlite3)
pkg_check_modules(JANSSON REQUIRED IMPORTED_TARGET GLOBAL jansson)
