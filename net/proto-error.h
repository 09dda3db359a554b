// The remote-server client's own error codes and the translation of the
// layers below into them: a Channel code, a PStream code, or the `code` of
// a server's `error` reply.  ProtoUI keeps the result as its error code and
// sub-code; the error handler and the share-listing updater read them.
// Pure functions over constant tables; safe from any thread.
#ifndef VESTA_NET_PROTO_ERROR_H_
#define VESTA_NET_PROTO_ERROR_H_

#include <stdint.h>

enum ProtoErrorCode {
  kProtoOk = 0,
  kProtoErrMissingInfo = -100,    // no server address, no authentication, or
                                  // the stream reported -6
  kProtoErrChannel = -200,        // any other channel or stream failure
  kProtoErrSslVerify = -201,      // certificate chain or host name check failed
  kProtoErrSslSignature = -202,   // certificate signature differs from expected
  kProtoErrBadData = -301,        // malformed data from the peer
  kProtoErrServerPrivate = -904,  // server codes 0xE000-0xEFFF (sub-code = code)
  kProtoErrServerOther = -400,    // a server code of no known group
};

// Channel code (net/channel.h) -> client code; 0 stays 0.
int MapChannelError(int channel_code);

// PStream code (stream/stream.h) -> client code; 0 stays 0.
int MapStreamError(int stream_code);

// Server `error.code` -> client code (0 for server code 0, meaning no
// error).  `sub_code` is set to the server code for 0xE000-0xEFFF, else 0.
int MapServerError(int64_t server_code, int* sub_code);

#endif  // VESTA_NET_PROTO_ERROR_H_
