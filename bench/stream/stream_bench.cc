// PObject and PStream beside plain baselines in the same run:
//   - a 1,000-member map built, deep-copied and looked up, beside
//     std::map<std::string, int64_t> doing the same;
//   - two replies -- the sync daemon's status with 1,000 connections and a
//     remote server's user info with 1,000 views -- encoded onto and decoded
//     from a Channel over a memory-backed stream (bytes already in memory, no
//     socket), beside msgpack-c packing and unpacking the same logical value
//     to and from a memory buffer (when msgpack-c is installed), beside a
//     deep copy of the same value (the blocks a decoded reply is made of)
//     and beside memcpy of the same byte count.
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "net/cat/io.h"
#include "net/channel.h"
#include "stream/PObject.h"
#include "stream/stream.h"

#ifdef VESTA_BENCH_MSGPACK
#include <msgpack.h>
#endif

namespace {

constexpr int kMembers = 1000;

const std::vector<std::string>& Keys() {
  static const std::vector<std::string> keys = [] {
    std::vector<std::string> k;
    for (int i = 0; i < kMembers; ++i) k.push_back("connection_" + std::to_string(i * 7919 % 100000));
    return k;
  }();
  return keys;
}

PObject BuildMap() {
  PObject map;
  int64_t i = 0;
  for (const std::string& key : Keys()) map[key] = ++i;
  return map;
}

std::map<std::string, int64_t> BuildStdMap() {
  std::map<std::string, int64_t> map;
  int64_t i = 0;
  for (const std::string& key : Keys()) map[key] = ++i;
  return map;
}

void BM_PObjectMapBuild(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(BuildMap());
}
BENCHMARK(BM_PObjectMapBuild);

void BM_StdMapBuild(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(BuildStdMap());
}
BENCHMARK(BM_StdMapBuild);

void BM_PObjectMapCopy(benchmark::State& state) {
  const PObject map = BuildMap();
  for (auto _ : state) {
    PObject copy(map);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_PObjectMapCopy);

void BM_StdMapCopy(benchmark::State& state) {
  const std::map<std::string, int64_t> map = BuildStdMap();
  for (auto _ : state) {
    std::map<std::string, int64_t> copy(map);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_StdMapCopy);

// Every key once per iteration.
void BM_PObjectMapLookup(benchmark::State& state) {
  const PObject map = BuildMap();
  for (auto _ : state) {
    int64_t sum = 0;
    for (const std::string& key : Keys()) sum += map.Lookup(key).AsInteger();
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(BM_PObjectMapLookup);

void BM_StdMapLookup(benchmark::State& state) {
  const std::map<std::string, int64_t> map = BuildStdMap();
  for (auto _ : state) {
    int64_t sum = 0;
    for (const std::string& key : Keys()) {
      auto it = map.find(key);
      sum += it == map.end() ? 0 : it->second;
    }
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(BM_StdMapLookup);

// A byte source and sink in memory behind the I/O interface, so a Channel
// runs without a socket: reads come from `input`, writes go to `output`.
// Clones share the state, as clones of a descriptor share the file.
class MemoryIO : public cat::IOBase {
 public:
  struct State {
    std::string input;
    size_t read_pos = 0;
    std::string output;
  };
  explicit MemoryIO(std::shared_ptr<State> state) : IOBase(0), state_(std::move(state)) {}

  ssize_t Read(void* buffer, size_t n) override {
    size_t k = std::min(n, state_->input.size() - state_->read_pos);
    memcpy(buffer, state_->input.data() + state_->read_pos, k);
    state_->read_pos += k;
    return static_cast<ssize_t>(k);
  }
  ssize_t Write(const void* buffer, size_t n) override {
    state_->output.append(static_cast<const char*>(buffer), n);
    return static_cast<ssize_t>(n);
  }
  int Sync() override { return 0; }
  int Wait(int, int) override { return 1; }
  std::unique_ptr<cat::IOBase> Clone() const override {
    return std::make_unique<MemoryIO>(state_);
  }

 private:
  std::shared_ptr<State> state_;
};

// The shape of the sync daemon's status reply.
PObject StatusReply() {
  PObject reply;
  reply["ack"] = "ok";
  PObject::array_type& list = reply["connection_list"].MutableArray();
  for (int i = 0; i < kMembers; ++i) {
    PObject c;
    c["conn_id"] = i + 1;
    c["status"] = i % 3 == 0 ? "connected" : "not_connected";
    c["error"] = 0;
    c["server_name"] = "nas-" + std::to_string(i) + ".example.internal";
    c["last_connected_time"] = 1700000000 + i;
    c["bytes_uploaded"] = int64_t{5000000000} + i;
    PObject::array_type& sessions = c["session_list"].MutableArray();
    for (int s = 0; s < 2; ++s) {
      PObject session;
      session["sess_id"] = i * 10 + s;
      session["status"] = "syncing";
      session["remain_files"] = 42 + s;
      sessions.push_back(std::move(session));
    }
    list.push_back(std::move(c));
  }
  return reply;
}

// The shape of a remote server's query_user_info reply with its views.
PObject UserInfoReply() {
  PObject reply;
  reply["uid"] = 1026;
  reply["gid"] = 100;
  reply["is_admin_group"] = 1;
  reply["enable_email_notification"] = 1;
  reply["enable_chat_notification"] = 0;
  reply["archive_codepage"] = "enu";
  reply["name"] = "alice";
  reply["nickname"] = "Alice Example";
  PObject::array_type& views = reply["view_list"].MutableArray();
  for (int i = 0; i < kMembers; ++i) {
    PObject v;
    v["view_id"] = 1000 + i;
    v["node_id"] = int64_t{4294967296} + i;
    v["name"] = "share-folder-" + std::to_string(i);
    v["privilege"] = "read-write";
    v["version"] = 70;
    v["share_priv_disabled"] = 0;
    v["is_encryption"] = i % 7 == 0;
    v["is_mounted"] = 1;
    v["is_q9share"] = 0;
    v["q9_share_id"] = "";
    v["q9_hash_key"] = "";
    views.push_back(std::move(v));
  }
  return reply;
}

const PObject& Reply(int which) {
  static const PObject status = StatusReply();
  static const PObject user_info = UserInfoReply();
  return which == 0 ? status : user_info;
}

std::string Encoded(const PObject& value) {
  std::ostringstream out;
  PStream stream;
  stream.Send(&out, value);
  return out.str();
}

// PStream onto a Channel whose stream appends to memory.
void BM_PStreamEncode(benchmark::State& state, int which) {
  const PObject& reply = Reply(which);
  const size_t bytes = Encoded(reply).size();
  auto memory = std::make_shared<MemoryIO::State>();
  memory->output.reserve(2 * bytes);
  Channel channel;
  channel.OpenIO(MemoryIO(memory));
  PStream stream;
  for (auto _ : state) {
    memory->output.clear();
    if (stream.Send(&channel, reply) != 0 || memory->output.size() != bytes) {
      state.SkipWithError("encode failed");
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  state.counters["wire_bytes"] = static_cast<double>(bytes);
}
BENCHMARK_CAPTURE(BM_PStreamEncode, status, 0);
BENCHMARK_CAPTURE(BM_PStreamEncode, user_info, 1);

// PStream from a Channel whose stream reads the encoded bytes from memory.
void BM_PStreamDecode(benchmark::State& state, int which) {
  const PObject& reply = Reply(which);
  auto memory = std::make_shared<MemoryIO::State>();
  memory->input = Encoded(reply);
  Channel channel;
  channel.OpenIO(MemoryIO(memory));
  PStream stream;
  {
    PObject first;
    if (stream.Recv(&channel, &first) != 0 || !(first == reply)) state.SkipWithError("decode failed");
  }
  for (auto _ : state) {
    memory->read_pos = 0;
    PObject value;
    if (stream.Recv(&channel, &value) != 0) state.SkipWithError("decode failed");
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * memory->input.size()));
}
BENCHMARK_CAPTURE(BM_PStreamDecode, status, 0);
BENCHMARK_CAPTURE(BM_PStreamDecode, user_info, 1);

// A deep copy of the reply: the blocks a decoded reply is made of, without
// the decoding.
void BM_PObjectCopyReply(benchmark::State& state, int which) {
  const PObject& reply = Reply(which);
  for (auto _ : state) {
    PObject copy(reply);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK_CAPTURE(BM_PObjectCopyReply, status, 0);
BENCHMARK_CAPTURE(BM_PObjectCopyReply, user_info, 1);

void BM_MemcpyReplyBytes(benchmark::State& state, int which) {
  const std::string wire = Encoded(Reply(which));
  std::string target(wire.size(), '\0');
  for (auto _ : state) {
    memcpy(&target[0], wire.data(), wire.size());
    benchmark::DoNotOptimize(target);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * wire.size()));
}
BENCHMARK_CAPTURE(BM_MemcpyReplyBytes, status, 0);
BENCHMARK_CAPTURE(BM_MemcpyReplyBytes, user_info, 1);

#ifdef VESTA_BENCH_MSGPACK
// The same logical value in msgpack: maps with the same string keys,
// integers as integers, strings as str.
void PackValue(msgpack_packer* pk, const PObject& value) {
  switch (value.GetType()) {
    case PObject::kInteger:
      msgpack_pack_int64(pk, value.AsInteger());
      return;
    case PObject::kString: {
      std::string_view text = value.AsStringView();
      msgpack_pack_str(pk, text.size());
      msgpack_pack_str_body(pk, text.data(), text.size());
      return;
    }
    case PObject::kArray:
      msgpack_pack_array(pk, value.AsArray().size());
      for (const PObject& e : value.AsArray()) PackValue(pk, e);
      return;
    case PObject::kMap:
      msgpack_pack_map(pk, value.AsMap().size());
      for (const auto& m : value.AsMap()) {
        msgpack_pack_str(pk, m.first.size());
        msgpack_pack_str_body(pk, m.first.data(), m.first.size());
        PackValue(pk, m.second);
      }
      return;
    default:
      msgpack_pack_nil(pk);
  }
}

std::string MsgpackBytes(const PObject& value) {
  msgpack_sbuffer buffer;
  msgpack_sbuffer_init(&buffer);
  msgpack_packer pk;
  msgpack_packer_init(&pk, &buffer, msgpack_sbuffer_write);
  PackValue(&pk, value);
  std::string bytes(buffer.data, buffer.size);
  msgpack_sbuffer_destroy(&buffer);
  return bytes;
}

// msgpack-c unpacking from a memory buffer into its own object tree.
void BM_MsgpackUnpack(benchmark::State& state, int which) {
  const std::string wire = MsgpackBytes(Reply(which));
  msgpack_unpacked result;
  msgpack_unpacked_init(&result);
  for (auto _ : state) {
    size_t offset = 0;
    if (msgpack_unpack_next(&result, wire.data(), wire.size(), &offset) != MSGPACK_UNPACK_SUCCESS) {
      state.SkipWithError("unpack failed");
    }
    benchmark::DoNotOptimize(result.data);
  }
  msgpack_unpacked_destroy(&result);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * wire.size()));
  state.counters["wire_bytes"] = static_cast<double>(wire.size());
}
BENCHMARK_CAPTURE(BM_MsgpackUnpack, status, 0);
BENCHMARK_CAPTURE(BM_MsgpackUnpack, user_info, 1);

// msgpack-c packing its object tree into a memory buffer.
void BM_MsgpackPack(benchmark::State& state, int which) {
  const std::string wire = MsgpackBytes(Reply(which));
  msgpack_unpacked tree;
  msgpack_unpacked_init(&tree);
  size_t offset = 0;
  msgpack_unpack_next(&tree, wire.data(), wire.size(), &offset);
  msgpack_sbuffer buffer;
  msgpack_sbuffer_init(&buffer);
  msgpack_packer pk;
  msgpack_packer_init(&pk, &buffer, msgpack_sbuffer_write);
  for (auto _ : state) {
    msgpack_sbuffer_clear(&buffer);
    if (msgpack_pack_object(&pk, tree.data) != 0 || buffer.size != wire.size()) {
      state.SkipWithError("pack failed");
    }
  }
  msgpack_sbuffer_destroy(&buffer);
  msgpack_unpacked_destroy(&tree);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * wire.size()));
}
BENCHMARK_CAPTURE(BM_MsgpackPack, status, 0);
BENCHMARK_CAPTURE(BM_MsgpackPack, user_info, 1);
#endif  // VESTA_BENCH_MSGPACK

}  // namespace
