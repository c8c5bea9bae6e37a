/* The C interface of the quillfern local domain listener: an application installed set-group-ID
 * to a group of its own asks the root helper for listening sockets on 127.0.0.1:80 and [::1]:80.
 *
 * Valid C11 and C++. Link with the static library through pkg-config
 * (quillfern-local-domain-listener) or CMake (QuillfernLocalDomainListener::client). */
#ifndef QUILLFERN_LOCAL_DOMAIN_LISTENER_H
#define QUILLFERN_LOCAL_DOMAIN_LISTENER_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What ld_acquire_listeners returns. The message says more, and what to do. */
enum {
  LD_ACQUIRE_OK = 0,
  LD_ACQUIRE_INVALID_ARGUMENT = 1, /* ipv4 or ipv6 is NULL, or both are the same place: nothing
                                      was asked or opened */
  LD_ACQUIRE_NOT_ADMISSIBLE = 2,   /* this process would fail the helper's admission checks: not
                                      installed root-owned and set-group-ID to a group of its own,
                                      on a nosuid, FUSE or network mount, in a user namespace... */
  LD_ACQUIRE_NO_HELPER = 3,        /* nothing serves the helper's socket, or it may not be reached */
  LD_ACQUIRE_REFUSED = 4,          /* the helper closed the connection without admitting this
                                      process; the message says which part of this program's
                                      signature it refused, or that the helper is another one */
  LD_ACQUIRE_TIMED_OUT = 5,        /* the helper did not answer in time: start the program again */
  LD_ACQUIRE_BUSY = 6,             /* another process is taking the listeners now: start the
                                      program again in a moment */
  LD_ACQUIRE_PORT_IN_USE = 7,      /* another program holds port 80 on 127.0.0.1 or ::1 */
  LD_ACQUIRE_HELPER_FAILED = 8,    /* the helper failed, broke the protocol or is another version */
  LD_ACQUIRE_INVALID_LISTENERS = 9, /* what the helper handed over failed its checks */
  LD_ACQUIRE_SYSTEM_ERROR = 10,    /* a system call of this process failed, or memory ran out */
  LD_ACQUIRE_ALREADY_CALLED = 11   /* this process called ld_acquire_listeners before: it gave its
                                      group up then, so the helper cannot admit it again */
};

/* The size of a message buffer that always holds the whole message with its NUL. A message that
 * would be longer (only with paths near PATH_MAX) is shortened to fit, ending in "...". */
#define LD_ACQUIRE_MESSAGE_SIZE 4096

/* Asks the helper at socket_path (NULL: the installed helper's socket) for the two listeners,
 * checks them and acknowledges them. On success returns LD_ACQUIRE_OK and stores two listening
 * descriptors, close-on-exec and owned by the caller: *ipv4 on 127.0.0.1:80 and *ipv6 on
 * [::1]:80 (IPv6-only). On failure stores -1 in both (when not NULL) and returns one of the
 * codes above, with a one-line message in message: what happened and what to do. A buffer of
 * LD_ACQUIRE_MESSAGE_SIZE bytes holds it whole; a smaller one holds its start, NUL-terminated
 * (message may be NULL, or message_size 0). Nothing stays open on failure.
 *
 * Call it once per process, first thing in main, before any toolkit, plugin or thread is
 * started: whether it succeeds or fails, the process has given its set-group-ID group up for
 * good when this returns (real, effective and saved gid are the real gid), and a second call
 * returns LD_ACQUIRE_ALREADY_CALLED. To try again, start the program again. Blocks for at most
 * about 20 seconds. */
int ld_acquire_listeners(const char *socket_path, int *ipv4, int *ipv6, char *message, size_t message_size);

#ifdef __cplusplus
}
#endif

#endif
