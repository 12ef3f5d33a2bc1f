// IPv4 TCP and UDP sockets and unix-domain sockets: thin wrappers over BSD sockets for the event
// engine, the session core and the report channels.
//
// Addresses are IPv4 addresses in network byte order in a uint32_t, ports are host-order integers.
// Time-outs are milliseconds on the monotonic clock; 0 or less means no limit. Every descriptor
// made here is close-on-exec, and no call raises SIGPIPE. Waits use poll(2), so that descriptors of
// any number are served. All calls are thread-safe; one descriptor belongs to one thread at a time.
#pragma once

#include <cstdint>

/// What `sock_get_hostip` gives for a failed look-up.
inline constexpr uint32_t SOCK_NO_ADDRESS = 0xffffffffu;

/// The IPv4 address of `host`. A text that begins with a letter is looked up (getaddrinfo, first
/// IPv4 address; blocks as long as the resolver does), any other is read as by inet_addr(3).
/// SOCK_NO_ADDRESS for NULL, an empty or malformed text, or a failed look-up.
uint32_t sock_get_hostip(const char *host);

/// Sets (or clears) non-blocking mode. Always 0.
int set_socket_nonblocking(int fd);
int sock_set_blocking(int fd);

/// Resolves `host` (may block, see sock_get_hostip) and starts a connection to it; otherwise as
/// tcp_nb_connect2. The two reserved words are ignored. A host without address fails.
int tcp_nb_connect(const char *host, int port, uint32_t reserved1, uint32_t reserved2, int *error);

/// Starts a non-blocking TCP connection (SO_REUSEADDR, SO_KEEPALIVE and TCP_NODELAY set) and
/// returns its descriptor, which the caller owns; it becomes writable when the connection is made
/// or has failed (SO_ERROR tells which). -1 if the connection cannot even begin. `error`, if not
/// NULL, gets 0 or -1 accordingly. Descriptor 0 counts as a failure here and not in tcp_nb_connect.
/// Kept for compatibility: a process without standard input connects by name only. A port outside
/// 0..65535 is a programming error and aborts. Never blocks.
int tcp_nb_connect2(uint32_t address, int port, int *error);

/// 1 if `fd` becomes writable / readable within `timeout_ms` (an error or hang-up counts as
/// select(2) counts it), 0 on time-out or error. 0 or less waits without limit.
int sock_write_ready(int fd, int timeout_ms);
int sock_read_ready(int fd, int timeout_ms);

/// Number of bytes waiting to be read (FIONREAD), or -1.
int sock_get_pending(int fd);

/// Sends all `n` bytes, waiting for room where needed, also on a socket in blocking mode. `n` when
/// all went out; 0 on time-out: there was no room, and less than 1 ms of `timeout_ms` was left (a
/// peer that always makes room in time is never cut off); -1 on an error or bad arguments (fd -1,
/// NULL, n < 1). `*sent`, if not NULL, counts the bytes that went out, also on failure.
int tcp_send(int fd, const void *bytes, int n, int timeout_ms, int *sent);

/// The reverse: fills `buffer` with exactly `n` bytes. `n`, 0 on time-out, -1 on an error, a closed
/// peer or bad arguments; `*received` counts what came, also on failure.
int tcp_receive(int fd, void *buffer, int n, int timeout_ms, int *received);

/// Reads what is there, at most `n` bytes, without waiting, also in blocking mode. The number of
/// bytes (0: nothing there), or -1 on an error, bad arguments or a closed peer, even if bytes came
/// first: `*received` tells how many did. Kept for compatibility: callers use those bytes and then
/// close.
int tcp_nb_receive(int fd, void *buffer, int n, int *received);

/// One send without waiting, also in blocking mode. Bytes sent (may be fewer than `n`), 0 if it
/// would block, -1 on an error or bad arguments.
int tcp_nb_send(int fd, const void *bytes, int n);

/// A listening TCP socket (SO_REUSEADDR, SO_KEEPALIVE and TCP_NODELAY set, backlog 1024) on the
/// dotted IPv4 `address` (NULL: any) and `port` (0: one that the system chooses), or -1. A port
/// outside 0..65535 aborts.
int tcp_server_create(const char *address, int port);

/// A UDP socket bound to `*address` (NULL: any) and `port`, or -1.
int udp_server_create(const uint32_t *address, int port);

/// Whether `fd` is an open socket: 1 or 0.
int sock_is_valid(int fd);

/// Unix-domain stream sockets. `usock_create` replaces a socket file left at `path`, binds and
/// listens; `usock_accept` waits for a client of `listener` (as the descriptor's mode says);
/// `usock_connect` connects to `path`, blocking. A descriptor that the caller owns, or -1 (a path
/// of 108 bytes or more also fails).
int usock_create(const char *path);
int usock_accept(int listener);
int usock_connect(const char *path);

/// Link types of an interface, from its hardware type (ARPHRD_ in <net/if_arp.h>).
enum sock_link : int {
  SOCK_LINK_OTHER = 0,
  SOCK_LINK_ETHERNET = 1,  ///< Ethernet, and wireless interfaces of every kind
  SOCK_LINK_PPP = 4,
  SOCK_LINK_TUNNEL = 6,
};

/// One network interface of this host.
struct sock_interface {
  char name[16];  ///< NUL-terminated
  uint32_t address;
  int mtu;            ///< bytes
  uint8_t hwaddr[6];  ///< zeros where the link has none
  int link;           ///< one of sock_link
};

/// Fills `table` with the host's interfaces that have an IPv4 address, at most `capacity` of them,
/// the loopback left out, in the kernel's order (/proc/net/dev, or SIOCGIFCONF when that cannot be
/// read). The number filled; 0 also for a NULL table. Reads a file and asks the kernel; does not
/// wait.
int get_selfaddr(sock_interface *table, int capacity);
