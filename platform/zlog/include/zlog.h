/// @file zlog.h
/// The two logging calls that the element's programs use, and initialisation. Same names, argument order and
/// configuration file format as the zlog library, which is used in place of this one where it is installed.
#pragma once

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zlog_category_s zlog_category_t;

/// Reads the configuration file; null: "ZLOG_CONF_PATH" of the environment, else everything to standard output.
/// 0, or -1 with one line on standard error that names the file, line and what is wrong.
int zlog_init(const char* config);
void zlog_fini(void);

/// The category of that name, made on first use and owned by the library. Null before zlog_init().
zlog_category_t* zlog_get_category(const char* name);

/// Writes one line. `level` is a number of the configuration's [levels]; whether it is written is decided by the rules.
void zlog(zlog_category_t* category, const char* file, size_t filelen, const char* func, size_t funclen, long line,
          int level, const char* format, ...) __attribute__((format(printf, 8, 9)));

/// Non-zero when some rule would write this level of this category.
int zlog_level_enabled(zlog_category_t* category, int level);

#ifdef __cplusplus
}
#endif
