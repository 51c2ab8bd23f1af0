/*
 * Basic types of the platform layer. C11 and C++.
 */
#ifndef TOV_TYPES_H
#define TOV_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>

/* An open adapter device: a plain file descriptor, -1 when none. */
typedef int32_t tov_handle_t;

/* A socket descriptor, -1 when none. */
typedef int32_t tov_socket_t;

typedef socklen_t tov_socklen_t;
typedef size_t tov_len_t;
typedef ssize_t tov_ret_len_t;

/* Processor cycles, as the time-stamp counter counts them. */
typedef uint64_t tov_cycles_t;

#ifdef __cplusplus
#define TOV_BEGIN_DECLS extern "C" {
#define TOV_END_DECLS   }
#else
#define TOV_BEGIN_DECLS
#define TOV_END_DECLS
#endif

#endif
