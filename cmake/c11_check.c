/* Compiled as strict C11 with warnings as errors: the installed header must stay C. */
#include <quillfern/local_domain_listener.h>

int (*const ld_c11_check)(const char *, int *, int *, char *, size_t) = ld_acquire_listeners;
