// Socket helpers that take an address as one string:
//   [udp:]a.b.c.d:port   IPv4 (0.0.0.0 = any address)
//   [udp:]/some/path     Unix domain
// The ':' of an IPv4 address is overwritten, so the string must be writable.
#pragma once

#include <cstddef>

int socket_listen(char* addr);
int udp_listen(int port);
int socket_connect(char* addr);
int socket_accept(int lsock, int timeout_ms);
int socket_readable(int sock, int timeout_ms);
int socket_receive(int sock, void* buf, int len);
int socket_send(int sock, const void* buf, int len);
// socket_send for a peer that may not read: never blocks, and waits for room
// at most timeout_ms in all. 0 sent, -1 failed or out of time.
int socket_send_within(int sock, const void* buf, int len, int timeout_ms);
