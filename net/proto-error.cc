#include "net/proto-error.h"

#include <stddef.h>

#include "net/channel.h"
#include "stream/stream.h"

namespace {

struct CodePair {
  int from;
  int to;
};

const CodePair kChannelErrors[] = {
    {Channel::kOk, kProtoOk},
    {Channel::kErrSslSignature, kProtoErrSslSignature},
    {Channel::kErrSslVerify, kProtoErrSslVerify},
    {-5, kProtoErrBadData},  // no channel operation reports it today
};

const CodePair kStreamErrors[] = {
    {PStream::kOk, kProtoOk},
    {-6, kProtoErrMissingInfo},  // no stream operation reports it today
    {PStream::kErrMalformed, kProtoErrBadData},
};

template <size_t N>
int LookupPair(const CodePair (&table)[N], int from, int fallback) {
  for (const CodePair& p : table) {
    if (p.from == from) return p.to;
  }
  return fallback;
}

// A server code matches a rule when low <= (code & mask) <= high.  Rules are
// tried in order: the private range, then single codes, then the groups of
// the top four bits of the low 16; nothing matched gives -400.
struct ServerErrorRule {
  int64_t mask;
  int64_t low;
  int64_t high;
  int code;
  bool server_code_is_sub_code;
};

constexpr int64_t kAllBits = -1;
constexpr int64_t kGroupBits = 0xF000;

constexpr ServerErrorRule Exact(int64_t server, int code) {
  return {kAllBits, server, server, code, false};
}
constexpr ServerErrorRule Group(int64_t group, int code) {
  return {kGroupBits, group, group, code, false};
}

const ServerErrorRule kServerErrors[] = {
    {kAllBits, 0xE000, 0xEFFF, kProtoErrServerPrivate, true},
    Exact(0x1001, -701), Exact(0x1002, -702), Exact(0x1003, -703), Exact(0x1004, -704),
    Exact(0x1005, -705), Exact(0x1006, -706), Exact(0x1007, -707), Exact(0x1008, -708),
    Exact(0x1009, -709), Exact(0x100A, -710), Exact(0x100B, -711), Exact(0x100D, -712),
    Exact(0x100E, -713),
    Exact(0x2001, -601), Exact(0x2002, -602),
    Exact(0x3001, -501), Exact(0x3002, -502), Exact(0x3003, -504), Exact(0x3004, -503),
    Exact(0x3006, -501), Exact(0x3007, -501),
    Exact(0x4001, -800), Exact(0x4002, -801), Exact(0x4003, -803),
    Exact(0x5001, -302), Exact(0x5002, -303),
    Exact(0x6005, -804),
    Exact(0x7001, -508), Exact(0x7002, -901), Exact(0x7003, -402), Exact(0x7004, -403),
    Exact(0x7005, -903), Exact(0x7006, -1107), Exact(0x7007, -1108), Exact(0x7008, -1109),
    Exact(0x7009, -1110), Exact(0x700A, -905), Exact(0x700B, -906), Exact(0x700C, -1118),
    Exact(0x700D, -1121),
    Exact(0x8001, -508), Exact(0x8002, -507), Exact(0x8003, -1111), Exact(0x8005, -1200),
    Exact(0x8006, -509),
    Exact(0x9003, -506), Exact(0x9004, -505), Exact(0x9005, -1111), Exact(0x9008, -1101),
    Exact(0x9009, -1102), Exact(0x900A, -1103), Exact(0x900B, -1104), Exact(0x900C, -1105),
    Exact(0x900E, -1101), Exact(0x900F, -1106), Exact(0x9010, -1111), Exact(0x9011, -1112),
    Exact(0x9012, -1113), Exact(0x9013, -1114),
    Exact(0xA001, -508), Exact(0xA003, -507), Exact(0xA004, -507), Exact(0xA005, -1111),
    Exact(0xC010, -1115), Exact(0xC011, -1116), Exact(0xC012, -1117), Exact(0xC013, -1119),
    Exact(0xC014, -1120),
    Exact(0xD001, -203), Exact(0xD002, -204),
    Group(0x1000, -700), Group(0x2000, -600), Group(0x3000, -500), Group(0x5000, -300),
    Group(0x6000, -802), Group(0x7000, -401), Group(0x9000, -1100),
};

}  // namespace

int MapChannelError(int channel_code) {
  return LookupPair(kChannelErrors, channel_code, kProtoErrChannel);
}

int MapStreamError(int stream_code) {
  return LookupPair(kStreamErrors, stream_code, kProtoErrChannel);
}

int MapServerError(int64_t server_code, int* sub_code) {
  *sub_code = 0;
  if (server_code == 0) return kProtoOk;
  for (const ServerErrorRule& r : kServerErrors) {
    int64_t bits = server_code & r.mask;
    if (bits < r.low || bits > r.high) continue;
    if (r.server_code_is_sub_code) *sub_code = static_cast<int>(server_code);
    return r.code;
  }
  return kProtoErrServerOther;
}
