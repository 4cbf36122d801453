// Unix stream sockets in the abstract namespace (Linux): the trap receiver's socket and the host
// HAL service endpoints live there, so every side that names, binds or connects one goes through
// here.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

namespace libtidewatch {

// Fills `addr` with the abstract name `name` (sun_path[0] = 0, then the name, cut to what fits)
// and returns the address length to pass to connect/bind: 2 + 1 + the name length used.
socklen_t MakeAbstractAddress(const std::string& name, sockaddr_un* addr);

// A blocking stream socket connected to the abstract name, close-on-exec; -1 with errno set when
// nobody listens there or the connection fails.
int ConnectAbstract(const std::string& name);

// A stream socket bound to the abstract name and listening with `backlog`, close-on-exec; -1 with
// errno set (EADDRINUSE when the name is taken).
int ListenAbstract(const std::string& name, int backlog);

}  // namespace libtidewatch
