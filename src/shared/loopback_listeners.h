#pragma once

// The pair of loopback listening sockets that the helper hands over (127.0.0.1 and IPv6-only ::1
// on one port), reading a socket's bound endpoint, and the checks the receiving side runs on each
// listener it is given.

#include <cstdint>
#include <memory>
#include <optional>

#include "shared/constants.h"
#include "shared/file_handle.h"
#include "shared/listener_endpoint.h"
#include "shared/system_calls.h"
#include "shared/thread_annotations.h"

// Marks fd close-on-exec (keeping its other flags) and reads the flags back to confirm the mark.
// Never closes fd.
bool LDSetCloseOnExec(int fd, LDErrorPlace error = nullptr,
                      LDSystemCalls& systemCalls = LDSystemCalls::real());

// Reads an int socket option. The caller presets *value.
bool LDSocketOption(int fd, int level, int optionName, int* value, LDErrorPlace error = nullptr,
                    LDSystemCalls& systemCalls = LDSystemCalls::real());

class LDLoopbackListeners {
 public:
  // Both listeners or none: an IPv4 listener on 127.0.0.1:port, then an IPv6-only one on
  // [::1]:port, both close-on-exec with SO_REUSEADDR. A port that is taken fails with code 3.
  static std::unique_ptr<LDLoopbackListeners> initWithPort(
      uint16_t port, LDErrorPlace error = nullptr,
      LDSystemCalls& systemCalls = LDSystemCalls::real());

  // Closes the originals if that has not happened yet.
  ~LDLoopbackListeners();
  LDLoopbackListeners(const LDLoopbackListeners&) = delete;
  LDLoopbackListeners& operator=(const LDLoopbackListeners&) = delete;

  // Empties both places, then fills them with owning handles of close-on-exec duplicates of the
  // two originals, or leaves them empty (and nothing open) on failure. It duplicates whatever the
  // stored numbers name: call it only before closeOriginals.
  bool duplicateIntoIPv4(LDFileHandle& ipv4, LDFileHandle& ipv6, LDErrorPlace error = nullptr);

  // Closes both originals exactly once, however many threads call it.
  void closeOriginals() LD_EXCLUDES(_closeLock);
  bool originalsAreClosed() LD_EXCLUDES(_closeLock);

  // The numbers of the originals; after closeOriginals they still return the old numbers, which
  // no longer name these sockets.
  int ipv4FileDescriptor() const { return _ipv4FileDescriptor; }
  int ipv6FileDescriptor() const { return _ipv6FileDescriptor; }

  // ---- Bound endpoint ----

  // The address and port that getsockname reports for fd, taken as they are.
  static std::optional<LDListenerEndpoint> endpointForFileDescriptor(
      int fd, LDErrorPlace error = nullptr, LDSystemCalls& systemCalls = LDSystemCalls::real());

  // ---- Checks run by the receiving side ----

  // Sets close-on-exec on fd, then proves that it is bound to exactly `expected`, is a stream
  // socket, is listening, and for IPv6 accepts IPv6 only. Never closes fd.
  static bool validateReceivedFileDescriptor(int fd, const LDListenerEndpoint& expected,
                                             LDErrorPlace error = nullptr,
                                             LDSystemCalls& systemCalls = LDSystemCalls::real());

  // True if fd reports SO_ACCEPTCONN; where the kernel cannot report it, probes with a loopback
  // connection to `endpoint` and accepts (and closes) whatever connection is first in the queue.
  static bool validateAccepting(int fd, const LDListenerEndpoint& endpoint,
                                LDErrorPlace error = nullptr,
                                LDSystemCalls& systemCalls = LDSystemCalls::real());

  // One blocking TCP connect to endpoint; the client socket is closed before returning.
  static bool connectToEndpoint(const LDListenerEndpoint& endpoint, LDErrorPlace error = nullptr,
                                LDSystemCalls& systemCalls = LDSystemCalls::real());
  static bool canConnectToEndpoint(const LDListenerEndpoint& endpoint,
                                   LDSystemCalls& systemCalls = LDSystemCalls::real());

 private:
  explicit LDLoopbackListeners(LDSystemCalls& systemCalls) : _systemCalls(systemCalls) {}

  static int makeSocketWithFamily(int family, LDErrorPlace error, LDSystemCalls& systemCalls);
  static int makeIPv4ListenerWithPort(uint16_t port, LDErrorPlace error,
                                      LDSystemCalls& systemCalls);
  static int makeIPv6ListenerWithPort(uint16_t port, LDErrorPlace error,
                                      LDSystemCalls& systemCalls);
  static bool bindAndListen(int fd, const sockaddr* address, socklen_t length, LDErrorPlace error,
                            LDSystemCalls& systemCalls);

  LDSystemCalls& _systemCalls;
  LDLock _closeLock;
  bool _originalsClosed LD_GUARDED_BY(_closeLock) = false;
  // Written only by initWithPort before the object is handed out, so read without the lock.
  int _ipv4FileDescriptor = -1;
  int _ipv6FileDescriptor = -1;
};
