#include "tools/monitorctl/status.h"

#include <sqlite3.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "db/client-updater-util.h"
#include "error/error-words.h"
#include "json/json.h"

namespace {

struct StoredSession {
  int64_t id = 0;
  int64_t conn_id = 0;
  std::string share_name;
  std::string remote_path;
  std::string sync_folder;  // as stored, with its trailing "/"
  int daemon_enabled = 0;
  int status = 0;
  int error = 0;
};

struct StoredConnection {
  int64_t id = 0;
  bool has_row = false;  // false: sessions name a connection id without a row
  std::string server_name;
  std::string server_ip;
  int server_port = 0;
  std::string username;
  int linked = 0;
  int status = 0;
  int error = 0;
  std::vector<StoredSession> sessions;
};

const char kConnectionQuery[] =
    "SELECT id, server_name, server_ip, server_port, username, linked, status, error "
    "FROM connection_table ORDER BY id;";
const char kSessionQuery[] =
    "SELECT id, conn_id, share_name, remote_path, sync_folder, is_daemon_enable, status, error "
    "FROM session_table ORDER BY conn_id, id;";

// A read-only URI of `path`: the characters a URI gives meaning to are
// escaped, and an absolute path gets an empty authority, so that any file
// name opens as itself.
std::string ReadOnlyUri(const std::string& path) {
  std::string uri = path.empty() || path[0] != '/' ? "file:" : "file://";
  for (unsigned char c : path) {
    if (c == '?' || c == '#' || c == '%') {
      char hex[4];
      snprintf(hex, sizeof hex, "%%%02X", c);
      uri += hex;
    } else {
      uri += static_cast<char>(c);
    }
  }
  return uri + "?mode=ro";
}

std::string Text(sqlite3_stmt* stmt, int column) {
  const unsigned char* text = sqlite3_column_text(stmt, column);
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

// Runs `sql` and hands each row to `row`.  false on an SQLite error.
template <typename RowFn>
bool ForEachRow(sqlite3* db, const char* sql, RowFn row) {
  SqliteStatement stmt;
  if (sqlite3_prepare_v2(db, sql, -1, stmt.out(), nullptr) != SQLITE_OK) return false;
  int rc;
  while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) row(stmt.get());
  return rc == SQLITE_DONE;
}

// Reads both tables in one read transaction: connections by id, each with
// its sessions.  false after printing why not.
bool ReadStatus(const std::string& path, std::map<int64_t, StoredConnection>* connections) {
  SqliteHandle db;
  const std::string uri = ReadOnlyUri(path);
  bool ok = sqlite3_open_v2(uri.c_str(), db.out(), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI,
                            nullptr) == SQLITE_OK;
  if (ok) {
    sqlite3_busy_timeout(db.get(), kStatusBusyTimeoutMs);
    ok = sqlite3_exec(db.get(), "BEGIN;", nullptr, nullptr, nullptr) == SQLITE_OK &&
         ForEachRow(db.get(), kConnectionQuery, [&](sqlite3_stmt* s) {
           StoredConnection& c = (*connections)[sqlite3_column_int64(s, 0)];
           c.id = sqlite3_column_int64(s, 0);
           c.has_row = true;
           c.server_name = Text(s, 1);
           c.server_ip = Text(s, 2);
           c.server_port = sqlite3_column_int(s, 3);
           c.username = Text(s, 4);
           c.linked = sqlite3_column_int(s, 5);
           c.status = sqlite3_column_int(s, 6);
           c.error = sqlite3_column_int(s, 7);
         }) &&
         ForEachRow(db.get(), kSessionQuery, [&](sqlite3_stmt* s) {
           StoredSession session;
           session.id = sqlite3_column_int64(s, 0);
           session.conn_id = sqlite3_column_int64(s, 1);
           session.share_name = Text(s, 2);
           session.remote_path = Text(s, 3);
           session.sync_folder = Text(s, 4);
           session.daemon_enabled = sqlite3_column_int(s, 5);
           session.status = sqlite3_column_int(s, 6);
           session.error = sqlite3_column_int(s, 7);
           StoredConnection& c = (*connections)[session.conn_id];
           c.id = session.conn_id;
           c.sessions.push_back(session);
         });
  }
  if (!ok) {
    fprintf(stderr, "vesta-monitorctl: cannot read the system database %s: %s\n", path.c_str(),
            db.get() != nullptr ? sqlite3_errmsg(db.get()) : "out of memory");
  }
  return ok;  // the read transaction ends when the handle closes
}

// Between double quotes, control characters shown as "?" so that a stored
// name cannot move the terminal's cursor.
std::string Quoted(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) out += (c < 0x20 || c == 0x7f) ? '?' : static_cast<char>(c);
  return out + "\"";
}

std::string ValueText(const char* name, StoredColumn column, int value) {
  return std::string(name) + " " + std::to_string(value) + " (" +
         StoredValueWords(column, value) + ")";
}

void PrintText(const StoredConnection& c) {
  if (c.has_row) {
    printf("connection %lld %s %s:%d user %s, %s, %s, %s\n", static_cast<long long>(c.id),
           Quoted(c.server_name).c_str(), c.server_ip.c_str(), c.server_port,
           Quoted(c.username).c_str(), c.linked != 0 ? "linked" : "not linked",
           ValueText("status", StoredColumn::kConnectionStatus, c.status).c_str(),
           ValueText("error", StoredColumn::kConnectionError, c.error).c_str());
  } else {
    printf("connection %lld (no row)\n", static_cast<long long>(c.id));
  }
  for (const StoredSession& s : c.sessions) {
    printf("  session %lld share %s remote %s, %s, %s, %s\n", static_cast<long long>(s.id),
           Quoted(s.share_name).c_str(), Quoted(s.remote_path).c_str(),
           s.daemon_enabled != 0 ? "enabled" : "disabled",
           ValueText("status", StoredColumn::kSessionStatus, s.status).c_str(),
           ValueText("error", StoredColumn::kSessionError, s.error).c_str());
  }
}

// Sets `name` and `name`_words.
void SetValue(Json::Value* out, const char* name, StoredColumn column, int value) {
  (*out)[name] = value;
  (*out)[std::string(name) + "_words"] = StoredValueWords(column, value);
}

Json::Value ToJson(const StoredConnection& c) {
  Json::Value out(Json::objectValue);
  out["id"] = static_cast<Json::Int64>(c.id);
  if (c.has_row) {
    out["server_name"] = c.server_name;
    out["server_ip"] = c.server_ip;
    out["server_port"] = c.server_port;
    out["username"] = c.username;
    out["linked"] = c.linked;
    SetValue(&out, "status", StoredColumn::kConnectionStatus, c.status);
    SetValue(&out, "error", StoredColumn::kConnectionError, c.error);
  } else {
    out["missing"] = true;
  }
  Json::Value& sessions = out["sessions"] = Json::Value(Json::arrayValue);
  for (const StoredSession& s : c.sessions) {
    Json::Value session(Json::objectValue);
    session["id"] = static_cast<Json::Int64>(s.id);
    session["share_name"] = s.share_name;
    session["remote_path"] = s.remote_path;
    session["sync_folder"] = s.sync_folder;
    session["is_daemon_enable"] = s.daemon_enabled;
    SetValue(&session, "status", StoredColumn::kSessionStatus, s.status);
    SetValue(&session, "error", StoredColumn::kSessionError, s.error);
    sessions.append(session);
  }
  return out;
}

}  // namespace

int PrintStoredStatus(const std::string& db_path, bool json) {
  std::map<int64_t, StoredConnection> connections;
  if (!ReadStatus(db_path, &connections)) return 1;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["emitUTF8"] = true;
  for (const auto& entry : connections) {
    if (json) {
      printf("%s\n", Json::writeString(writer, ToJson(entry.second)).c_str());
    } else {
      PrintText(entry.second);
    }
  }
  return 0;
}
