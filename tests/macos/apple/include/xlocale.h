#pragma once

// What the C++ library takes for granted on the platform and the C library here lacks.

#include <locale.h>
#include <stdarg.h>
#include <stddef.h>

extern "C" {
int snprintf_l(char* text, size_t size, locale_t locale, const char* format, ...);
int asprintf_l(char** text, locale_t locale, const char* format, ...);
int sscanf_l(const char* text, locale_t locale, const char* format, ...);
}
