// ServeConnection: one client from its first byte to its last: events are
// read (EventReader), answered (WakeSession) and written back in order, on
// the calling thread, until the client leaves, sends a malformed event (which
// gets an error event), or the socket is shut down for reading (how the
// server stops: the event in hand is still answered). Ends with one log line
// saying how the connection went.
//
// The caller owns `fd` and closes it afterwards.
#ifndef KESTREL_SERVER_CONNECTION_H_
#define KESTREL_SERVER_CONNECTION_H_

#include <string>

#include "server-log.h"
#include "wake-service.h"

namespace kestrel {

// `peer` names the client in the log.
void ServeConnection(int fd, const std::string& peer, const WakeService& service, ServerLog* log);

}  // namespace kestrel

#endif  // KESTREL_SERVER_CONNECTION_H_
