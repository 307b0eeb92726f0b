#pragma once

// The platform has other names for the times of a file.
#define st_atim st_atimespec
#define st_mtim st_mtimespec
#define st_ctim st_ctimespec
#include_next <sys/stat.h>
#undef st_atim
#undef st_mtim
#undef st_ctim
