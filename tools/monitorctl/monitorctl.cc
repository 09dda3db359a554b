// vesta-monitorctl: sends one request to the monitor's socket and prints the
// reply as JSON.  A small operator's and tester's tool; see README.md.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ipc/ipc.h"
#include "json/json.h"
#include "stream/PObject.h"
#include "tools/monitorctl/status.h"

namespace {

const char kDefaultSocket[] = "/tmp/tarn-monitor.sock";
// The daemon's default system_db_path; like it, never moved under VESTA_ROOT.
const char kDefaultSystemDb[] = "/tmp/vesta-system-db.sqlite";

const char kUsage[] =
    "usage: vesta-monitorctl [--socket PATH] COMMAND\n"
    "       vesta-monitorctl status [--db PATH] [--json]\n"
    "  stop                           stop the monitor\n"
    "  fast-monitor                   list shares every 10 s for 30 s\n"
    "  refresh-session CONN           list connection CONN soon\n"
    "  notify-error CONN SESS TYPE    report a sync-daemon error\n"
    "  share-hook NAME TYPE [RESULT]  report a shared-folder event\n"
    "  send JSON                      send any request (a JSON object)\n"
    "  status [--db PATH] [--json]    show the stored connections and sessions\n"
    "                                 (read-only; default /tmp/vesta-system-db.sqlite)\n";

// JSON to PObject: integers and strings as they are, true/false as 1/0,
// arrays and objects recursively; null stays null.  Fractions are refused.
bool FromJson(const Json::Value& json, PObject* value) {
  switch (json.type()) {
    case Json::nullValue:
      value->Clear();
      return true;
    case Json::intValue:
      *value = static_cast<int64_t>(json.asInt64());
      return true;
    case Json::uintValue:
      *value = static_cast<int64_t>(json.asUInt64());
      return true;
    case Json::booleanValue:
      *value = static_cast<int64_t>(json.asBool() ? 1 : 0);
      return true;
    case Json::stringValue:
      *value = json.asString();
      return true;
    case Json::arrayValue: {
      PObject::array_type& array = value->MutableArray();
      for (const Json::Value& element : json) {
        array.emplace_back();
        if (!FromJson(element, &array.back())) return false;
      }
      return true;
    }
    case Json::objectValue:
      value->MutableMap();
      for (const std::string& key : json.getMemberNames()) {
        if (!FromJson(json[key], &(*value)[key])) return false;
      }
      return true;
    default:
      return false;
  }
}

Json::Value ToJsonValue(const PObject& value) {
  if (value.IsInteger()) return Json::Value(static_cast<Json::Int64>(value.AsInteger()));
  if (value.IsString()) return Json::Value(value.AsString());
  if (value.IsArray()) {
    Json::Value out(Json::arrayValue);
    for (const PObject& element : value.AsArray()) out.append(ToJsonValue(element));
    return out;
  }
  if (value.IsMap()) {
    Json::Value out(Json::objectValue);
    for (const auto& member : value.AsMap()) out[member.first] = ToJsonValue(member.second);
    return out;
  }
  if (value.IsNull()) return Json::Value();
  Json::Value out(Json::objectValue);  // buffers and file ranges: not expected
  out["unsupported_type"] = value.GetType();
  return out;
}

bool ParseInt(const char* text, int64_t* out) {
  char* end = nullptr;
  errno = 0;
  long long v = strtoll(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0') return false;
  *out = v;
  return true;
}

// Builds the request of one command line; false after printing why not.
bool BuildRequest(const std::vector<std::string>& args, PObject* request) {
  const std::string& cmd = args[0];
  const size_t n = args.size() - 1;
  PObject& r = *request;
  int64_t a = 0, b = 0, c = 0;
  if (cmd == "stop" && n == 0) {
    r["action"] = std::string("stop");
  } else if (cmd == "fast-monitor" && n == 0) {
    r["action"] = std::string("fast_monitor");
  } else if (cmd == "refresh-session" && n == 1 && ParseInt(args[1].c_str(), &a)) {
    r["action"] = std::string("refresh_session");
    r["conn_id"] = a;
  } else if (cmd == "notify-error" && n == 3 && ParseInt(args[1].c_str(), &a) &&
             ParseInt(args[2].c_str(), &b) && ParseInt(args[3].c_str(), &c)) {
    r["notify"] = std::string("error");
    r["conn_id"] = a;
    r["sess_id"] = b;
    r["error_type"] = c;
  } else if (cmd == "share-hook" && (n == 2 || n == 3)) {
    r["notify"] = std::string("share_hook");
    r["share_name"] = args[1];
    r["type"] = args[2];
    if (n == 3) {
      if (!ParseInt(args[3].c_str(), &a)) return false;
      r["result"] = a;
    }
  } else if (cmd == "send" && n == 1) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value json;
    std::string errors;
    const std::string& text = args[1];
    if (!reader->parse(text.data(), text.data() + text.size(), &json, &errors) ||
        !json.isObject()) {
      fprintf(stderr, "vesta-monitorctl: not a JSON object: %s\n", errors.c_str());
      return false;
    }
    if (!FromJson(json, request)) {
      fprintf(stderr, "vesta-monitorctl: only integers, strings, arrays and objects\n");
      return false;
    }
  } else {
    return false;
  }
  return true;
}

// status [--db PATH] [--json]: reads the system database, not the socket.
// -1 for a bad command line, else the exit status.
int RunStatus(const std::vector<std::string>& args) {
  std::string db_path = kDefaultSystemDb;
  bool json = false;
  for (size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--db" && i + 1 < args.size()) {
      db_path = args[++i];
    } else if (args[i] == "--json") {
      json = true;
    } else {
      return -1;
    }
  }
  return PrintStoredStatus(db_path, json);
}

}  // namespace

int main(int argc, char** argv) {
  std::string socket_path = kDefaultSocket;
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--socket") == 0 && i + 1 < argc) {
      socket_path = argv[++i];
    } else {
      args.push_back(argv[i]);
    }
  }
  if (!args.empty() && args[0] == "status") {
    const int status = RunStatus(args);
    if (status >= 0) return status;
    fputs(kUsage, stderr);
    return 2;
  }
  PObject request;
  if (args.empty() || !BuildRequest(args, &request)) {
    fputs(kUsage, stderr);
    return 2;
  }
  IPCSender sender;
  if (sender.Connect(socket_path) != 0) {
    fprintf(stderr, "vesta-monitorctl: cannot connect to %s\n", socket_path.c_str());
    return 1;
  }
  PObject reply;
  if (sender.SendRequest(request, true, &reply) != 0) {
    fprintf(stderr, "vesta-monitorctl: no reply from %s\n", socket_path.c_str());
    return 1;
  }
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  printf("%s\n", Json::writeString(writer, ToJsonValue(reply)).c_str());
  return 0;
}
