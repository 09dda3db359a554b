// The typed rows of the system database, shared by every layer that reads
// or fills them.
#ifndef VESTA_DB_RECORDS_H_
#define VESTA_DB_RECORDS_H_

#include <cstdint>
#include <string>
#include <vector>

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
  // The stored column as read, when it could not be decoded (no cipher, or
  // no base64); proxy_password is then "".  Written back as it was unless
  // proxy_password is set: a password this process cannot read is never
  // stored as ''.  Empty for a password that decoded.
  std::string undecoded_password;

  bool operator==(const ProxyInfo& o) const {
    return use_proxy == o.use_proxy && use_system_proxy == o.use_system_proxy &&
           proxy_ip == o.proxy_ip && proxy_port == o.proxy_port &&
           proxy_username == o.proxy_username && proxy_password == o.proxy_password &&
           proxy_domain == o.proxy_domain && proxy_host == o.proxy_host &&
           undecoded_password == o.undecoded_password;
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

// Bits of ConnectionEntry::conn_mode that say how the server is reached.
constexpr int kConnModeProxy = 1 << 4;   // through the connection's proxy
constexpr int kConnModeTunnel = 1 << 5;  // through the connection's tunnel

// One row of connection_table: a remote server this client is linked to.
// Read by the status monitor, the share-listing updater, the error handler
// and the daemon command client; written back by updateConnectionEntry.
// hopgate_mode has no field: it is never read and always stored as ''.
struct ConnectionEntry {
  uint64_t id = 0;
  int conn_mode = 0;  // bit set, see the connection upgrade rules
  std::string server_name;
  std::string server_ip;
  int server_port = 0;
  std::string username;
  std::string nx_id;  // the server's device id; with conn_type, the row's key
  std::string session;
  std::string private_key_pem;
  std::string public_key_fingerprint;
  std::string restore_id;
  std::string host_name;
  std::string computer_name;
  std::string ssl_signature;
  std::string cloud_extension_clsid;
  std::string domain_name;
  int protocol_version = 0;
  int linked = 0;
  int major = 0;
  int minor = 0;
  int package_version = 0;  // the server's build number
  int status = 0;
  int error = 0;
  uint32_t user_uid = 0;
  uint32_t user_gid = 0;
  bool use_ssl = false;
  bool ssl_allow_untrust = false;
  bool user_is_admin = true;
  bool enable_shared_with_me = false;
  int conn_type = 0;
  ProxyInfo proxy;
  TunnelInfo tunnel;

  // Not stored in the database; filled by the network layers.  Every read
  // from the table resets resolved_address to empty.
  std::string resolved_address;
  std::vector<std::string> resolved_addresses;
  bool auto_connect = true;

  bool operator==(const ConnectionEntry& o) const {
    return id == o.id && conn_mode == o.conn_mode && server_name == o.server_name &&
           server_ip == o.server_ip && server_port == o.server_port && username == o.username &&
           nx_id == o.nx_id && session == o.session && private_key_pem == o.private_key_pem &&
           public_key_fingerprint == o.public_key_fingerprint && restore_id == o.restore_id &&
           host_name == o.host_name && computer_name == o.computer_name &&
           ssl_signature == o.ssl_signature && cloud_extension_clsid == o.cloud_extension_clsid &&
           domain_name == o.domain_name && protocol_version == o.protocol_version &&
           linked == o.linked && major == o.major && minor == o.minor &&
           package_version == o.package_version && status == o.status && error == o.error &&
           user_uid == o.user_uid && user_gid == o.user_gid && use_ssl == o.use_ssl &&
           ssl_allow_untrust == o.ssl_allow_untrust && user_is_admin == o.user_is_admin &&
           enable_shared_with_me == o.enable_shared_with_me && conn_type == o.conn_type &&
           proxy == o.proxy && tunnel == o.tunnel && resolved_address == o.resolved_address &&
           resolved_addresses == o.resolved_addresses && auto_connect == o.auto_connect;
  }
  bool operator!=(const ConnectionEntry& o) const { return !(*this == o); }
};

// One row of session_table: a local shared folder paired with a folder of a
// remote server.  Folders are held without a trailing separator (the root as
// "/"); the database stores them with one.  status and error are read by
// their own operations and are not part of the record.
struct SessionInfo {
  uint64_t id = 0;
  uint64_t conn_id = 0;
  uint64_t view_id = 0;
  uint64_t node_id = 0;
  std::string share_name;
  std::string remote_path;
  std::string sync_folder;
  std::string conflict_policy = "compare_mtime";
  std::string q9_share_id;
  std::string q9_hash_key;
  int share_version = 0;
  int perm_mode = 0;
  int sync_direction = 0;
  int session_type = 0;
  int attribute_check_strength = 0;
  bool is_read_only = false;
  bool is_daemon_enable = false;
  bool ignore_local_remove = false;
  bool rename_conflict = false;
  bool with_q9share = false;
  bool is_mounted = false;
  bool is_encryption = false;
  bool sync_temp_file = false;
  bool use_windows_cloud_file_api = false;
  bool is_shared_with_me = false;

  bool operator==(const SessionInfo& o) const {
    return id == o.id && conn_id == o.conn_id && view_id == o.view_id && node_id == o.node_id &&
           share_name == o.share_name && remote_path == o.remote_path &&
           sync_folder == o.sync_folder && conflict_policy == o.conflict_policy &&
           q9_share_id == o.q9_share_id && q9_hash_key == o.q9_hash_key &&
           share_version == o.share_version && perm_mode == o.perm_mode &&
           sync_direction == o.sync_direction && session_type == o.session_type &&
           attribute_check_strength == o.attribute_check_strength &&
           is_read_only == o.is_read_only && is_daemon_enable == o.is_daemon_enable &&
           ignore_local_remove == o.ignore_local_remove && rename_conflict == o.rename_conflict &&
           with_q9share == o.with_q9share && is_mounted == o.is_mounted &&
           is_encryption == o.is_encryption && sync_temp_file == o.sync_temp_file &&
           use_windows_cloud_file_api == o.use_windows_cloud_file_api &&
           is_shared_with_me == o.is_shared_with_me;
  }
  bool operator!=(const SessionInfo& o) const { return !(*this == o); }
};

// One shared folder that a connection's server offers (server_view_table).
// The connection id travels beside a list of these, not inside them.
struct ServerViewEntry {
  uint64_t view_id = 0;
  uint64_t node_id = 0;
  std::string name;
  int privilege = 0;
  int share_version = 0;
  bool share_priv_disabled = false;
  bool is_encryption = false;
  bool is_mount = true;
  bool is_q9share = false;

  bool operator==(const ServerViewEntry& o) const {
    return view_id == o.view_id && node_id == o.node_id && name == o.name &&
           privilege == o.privilege && share_version == o.share_version &&
           share_priv_disabled == o.share_priv_disabled && is_encryption == o.is_encryption &&
           is_mount == o.is_mount && is_q9share == o.is_q9share;
  }
};

// The client-wide options kept as key/value rows of system_table.  An option
// without a row keeps whatever value the caller put in the record.
struct GeneralOptions {
  bool enable_desktop_notification = false;
  bool enable_iconoverlay = false;
  bool enable_filtered_iconoverlay = false;
  bool enable_context_menu = false;
  bool enable_startup = false;
  bool use_black_white_icon = false;
  bool show_tutorial = false;
  int sync_mode = 0;
  std::string open_folder;
  std::string machine_uuid;
  std::string device_uuid;

  bool operator==(const GeneralOptions& o) const {
    return enable_desktop_notification == o.enable_desktop_notification &&
           enable_iconoverlay == o.enable_iconoverlay &&
           enable_filtered_iconoverlay == o.enable_filtered_iconoverlay &&
           enable_context_menu == o.enable_context_menu && enable_startup == o.enable_startup &&
           use_black_white_icon == o.use_black_white_icon && show_tutorial == o.show_tutorial &&
           sync_mode == o.sync_mode && open_folder == o.open_folder &&
           machine_uuid == o.machine_uuid && device_uuid == o.device_uuid;
  }
};

#endif  // VESTA_DB_RECORDS_H_
