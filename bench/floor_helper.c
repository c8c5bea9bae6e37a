/* The floor a privileged helper cannot beat: a static program that binds both loopback
 * listeners on port 80, passes them over the socketpair at descriptor 3, and exits. */
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static int listener(int family) {
  const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (family == AF_INET6) {
    struct sockaddr_in6 a = {.sin6_family = AF_INET6, .sin6_port = htons(80), .sin6_addr = in6addr_loopback};
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    if (bind(fd, (struct sockaddr*)&a, sizeof a) != 0) return -1;
  } else {
    struct sockaddr_in a = {.sin_family = AF_INET, .sin_port = htons(80), .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    if (bind(fd, (struct sockaddr*)&a, sizeof a) != 0) return -1;
  }
  return listen(fd, 128) == 0 ? fd : -1;
}

int main(void) {
  const int fds[2] = {listener(AF_INET), listener(AF_INET6)};
  if (fds[0] < 0 || fds[1] < 0) return 1;
  char control[CMSG_SPACE(sizeof fds)];
  memset(control, 0, sizeof control);
  char byte = 'L';
  struct iovec vector = {&byte, 1};
  struct msghdr header = {.msg_iov = &vector, .msg_iovlen = 1, .msg_control = control, .msg_controllen = sizeof control};
  struct cmsghdr* message = CMSG_FIRSTHDR(&header);
  message->cmsg_level = SOL_SOCKET;
  message->cmsg_type = SCM_RIGHTS;
  message->cmsg_len = CMSG_LEN(sizeof fds);
  memcpy(CMSG_DATA(message), fds, sizeof fds);
  return sendmsg(3, &header, MSG_NOSIGNAL) == 1 ? 0 : 1;
}
