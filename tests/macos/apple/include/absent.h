#pragma once

// Included before everything: the C library's headers stand in for the platform's, so what that
// library has and the platform lacks must not be used.

#include <sys/stat.h>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#undef AT_EMPTY_PATH
#undef MSG_NOSIGNAL
#undef O_PATH
#undef O_TMPFILE
#undef POLLRDHUP
#undef SOCK_CLOEXEC
#undef SOCK_NONBLOCK
#undef TCP_INFO
#pragma clang poison accept4 copy_file_range epoll_create1 eventfd getrandom gettid memfd_create
#pragma clang poison pipe2 ppoll renameat2 secure_getenv signalfd strchrnul timerfd_create

// And what the platform has instead.
#define RENAME_EXCL 4
#define TCP_CONNECTION_INFO 0x106

struct tcp_connection_info {
  unsigned long long tcpi_txbytes;
  unsigned long long tcpi_rxbytes;
};

extern "C" int renamex_np(const char* from, const char* to, unsigned flags);
