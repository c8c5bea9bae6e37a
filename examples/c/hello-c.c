/* hello-c: a small web server of another vendor, in C. It acquires 127.0.0.1:80 and [::1]:80
 * from the local domain listener helper through the installed SDK, first thing in main, then
 * serves one page on both until it is stopped.
 *
 *   hello-c [--socket PATH]
 *
 * Build with pkg-config (see Makefile), sign with ld-codesign, install set-group-ID to a group of
 * its own: docs/vendor-guide.md. */
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <quillfern/local_domain_listener.h>

static void answer(int listener, const char *where) {
  int client = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
  if (client < 0) return;
  char request[4096];
  struct pollfd entry = {client, POLLIN, 0};
  if (poll(&entry, 1, 2000) == 1) (void)!read(client, request, sizeof request);
  char body[256], response[512];
  int length = snprintf(body, sizeof body, "Hello from hello-c on %s\n", where);
  int total = snprintf(response, sizeof response,
                       "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: %d\r\n"
                       "Connection: close\r\n\r\n%s", length, body);
  (void)send(client, response, (size_t)total, MSG_NOSIGNAL);
  close(client);
}

int main(int argc, char **argv) {
  /* Before anything else: afterwards the set-group-ID group is gone, success or not. */
  const char *socket_path = argc == 3 && strcmp(argv[1], "--socket") == 0 ? argv[2] : NULL;
  int ipv4, ipv6;
  char message[LD_ACQUIRE_MESSAGE_SIZE];
  int code = ld_acquire_listeners(socket_path, &ipv4, &ipv6, message, sizeof message);
  if (code != LD_ACQUIRE_OK) {
    fprintf(stderr, "hello-c: %s (code %d)\n", message, code);
    return 1;
  }
  printf("hello-c: serving http://127.0.0.1/ and http://[::1]/\n");
  fflush(stdout);
  for (;;) {
    struct pollfd entries[2] = {{ipv4, POLLIN, 0}, {ipv6, POLLIN, 0}};
    if (poll(entries, 2, -1) < 0) continue;
    if (entries[0].revents & POLLIN) answer(ipv4, "127.0.0.1:80");
    if (entries[1].revents & POLLIN) answer(ipv6, "[::1]:80");
  }
}
