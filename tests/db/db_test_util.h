// The log levels and sample records of the database tests.
#ifndef VESTA_TESTS_DB_DB_TEST_UTIL_H_
#define VESTA_TESTS_DB_DB_TEST_UTIL_H_

#include <string>

#include "db/system-db.h"
#include "tests/common/log_capture.h"
#include "tests/common/shell.h"
#include "tests/common/temp_dir.h"

// The components whose lines the database tests read.
constexpr char kDbLevels[] =
    "system_db_debug=7\nfilter_db_util_debug=7\nclient_debug=7\nconnection_updater=7\n"
    "client_updater_util=7\n";

// A connection with a value of its own in every field the update writes
// (username is not one of them).
inline ConnectionEntry SampleConnection() {
  ConnectionEntry e;
  e.conn_mode = 5;
  e.server_name = "o'brien's server";
  e.server_ip = "10.0.0.7";
  e.server_port = 6690;
  e.nx_id = "NX1";
  e.session = "sess-token";
  e.private_key_pem = "-----BEGIN KEY-----\nabc\n";
  e.public_key_fingerprint = "fp";
  e.restore_id = "r1";
  e.host_name = "host";
  e.computer_name = "pc";
  e.ssl_signature = "sig";
  e.cloud_extension_clsid = "{clsid}";
  e.domain_name = "example.test";
  e.protocol_version = 70;
  e.major = 7;
  e.minor = 2;
  e.package_version = 10234;
  e.use_ssl = true;
  e.ssl_allow_untrust = true;
  e.enable_shared_with_me = true;
  e.conn_type = 1;
  e.proxy = {true, false, "10.1.1.1", 3128, "alice", "pa'ss word", "CORP", "nas", ""};
  e.tunnel = {true, "10.2.2.2", 65535};
  return e;
}

#endif  // VESTA_TESTS_DB_DB_TEST_UTIL_H_
