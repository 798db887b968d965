/* What the kernel knows of a tunnel: who is at its other end, what its interface has moved. */
#ifndef ZORV_TUNNEL_END_H
#define ZORV_TUNNEL_END_H

#include <netinet/in.h>
#include <stdbool.h>

#include "ppp_link.h"

struct tunnel_end {
  bool is_l2tp;
  char address[INET6_ADDRSTRLEN]; /* "" where only a program knows it */
};

/* Of pppd's device, which is a socket only where the kernel itself carries the tunnel, and of the
 * program that started pppd. */
struct tunnel_end find_tunnel_end(int device, int starter);

bool is_ip_address(const char* text);

/* 64 bits, as pppd's own counters are not. False, and nothing is filled: no such interface. */
bool read_traffic(const char* interface, struct ppp_traffic* ret_traffic);

#endif
