// The typed rows of the system database, shared by every layer that reads
// or fills them.
#ifndef VESTA_DB_RECORDS_H_
#define VESTA_DB_RECORDS_H_

#include <cstdint>
#include <string>

// How a connection reaches its server through a proxy.  Filled from the
// connection's own columns, or from the storage server's system proxy.
struct ProxyInfo {
  bool use_proxy = false;
  bool use_system_proxy = false;
  std::string proxy_ip;
  uint16_t proxy_port = 0;
  std::string proxy_username;
  std::string proxy_password;  // plain text in memory, encrypted when stored
  std::string proxy_domain;
  std::string proxy_host;

  bool operator==(const ProxyInfo& o) const {
    return use_proxy == o.use_proxy && use_system_proxy == o.use_system_proxy &&
           proxy_ip == o.proxy_ip && proxy_port == o.proxy_port &&
           proxy_username == o.proxy_username && proxy_password == o.proxy_password &&
           proxy_domain == o.proxy_domain && proxy_host == o.proxy_host;
  }
};

// How a connection reaches its server through a tunnel.
struct TunnelInfo {
  bool use_tunnel = false;
  std::string tunnel_ip;
  uint16_t tunnel_port = 0;

  bool operator==(const TunnelInfo& o) const {
    return use_tunnel == o.use_tunnel && tunnel_ip == o.tunnel_ip && tunnel_port == o.tunnel_port;
  }
};

#endif  // VESTA_DB_RECORDS_H_
