#pragma once

/// Declarations of the unified log, as far as the shell uses it. As there, a format must be a
/// literal: anything else does not compile.

typedef struct os_log_s* os_log_t;

#ifdef __cplusplus
extern "C" {
#endif
os_log_t os_log_create(const char* subsystem, const char* category);
void os_log_error_literal(os_log_t log, const char* format, ...);
#ifdef __cplusplus
}
#endif

#define os_log_error(log, format, ...)                                     \
  do {                                                                     \
    static const char os_log_format[] = format;                            \
    os_log_error_literal((log), os_log_format __VA_OPT__(, ) __VA_ARGS__); \
  } while (false)
