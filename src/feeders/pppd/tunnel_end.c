#include "tunnel_end.h"

#include <arpa/inet.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <linux/if_pppox.h>

static bool is_xl2tpd(int process) {
  char path[32];
  char name[16] = ""; /* as long as the kernel keeps it */
  snprintf(path, sizeof path, "/proc/%d/comm", process);
  FILE* file = fopen(path, "r");
  if (file != NULL) {
    name[fread(name, 1, sizeof name - 1, file)] = '\0';
    fclose(file);
  }
  return strcmp(name, "xl2tpd\n") == 0;
}

struct tunnel_end find_tunnel_end(int device, int starter) {
  struct tunnel_end end = {is_xl2tpd(starter), ""};
  union {
    struct sockaddr any;
    struct sockaddr_pppox pppox;
    struct sockaddr_pppol2tp l2tp;
    struct sockaddr_pppol2tpin6 l2tp_ipv6;
  } peer;
  socklen_t size = sizeof peer;
  if (getpeername(device, &peer.any, &size) != 0 || peer.any.sa_family != AF_PPPOX) {
    return end;
  }
  if (peer.pppox.sa_protocol == PX_PROTO_PPTP) {
    inet_ntop(AF_INET, &peer.pppox.sa_addr.pptp.sin_addr, end.address, sizeof end.address);
  } else if (peer.pppox.sa_protocol == PX_PROTO_OL2TP) {
    end.is_l2tp = true;
    if (size == sizeof peer.l2tp) {
      inet_ntop(AF_INET, &peer.l2tp.pppol2tp.addr.sin_addr, end.address, sizeof end.address);
    } else if (size == sizeof peer.l2tp_ipv6) {
      inet_ntop(AF_INET6, &peer.l2tp_ipv6.pppol2tp.addr.sin6_addr, end.address, sizeof end.address);
    }
  }
  return end;
}

bool is_ip_address(const char* text) {
  struct in6_addr address;
  return inet_pton(AF_INET, text, &address) == 1 || inet_pton(AF_INET6, text, &address) == 1;
}

static bool read_counter(const char* interface, const char* counter, uint64_t* ret_bytes) {
  char path[96];
  snprintf(path, sizeof path, "/sys/class/net/%s/statistics/%s", interface, counter);
  FILE* file = fopen(path, "r");
  if (file == NULL) {
    return false;
  }
  const bool is_read = fscanf(file, "%" SCNu64, ret_bytes) == 1;
  fclose(file);
  return is_read;
}

bool read_traffic(const char* interface, struct ppp_traffic* ret_traffic) {
  struct ppp_traffic traffic;
  if (!read_counter(interface, "rx_bytes", &traffic.rx) ||
      !read_counter(interface, "tx_bytes", &traffic.tx)) {
    return false;
  }
  *ret_traffic = traffic;
  return true;
}
