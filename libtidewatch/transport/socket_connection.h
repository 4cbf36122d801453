// One connected (or listening) Unix stream socket with the queue of bytes read from it and not yet
// consumed. Owned by SocketListener; the MCP reader cuts packets out of its queue.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libtidewatch/transport/data_queue.h"

namespace libtidewatch {

class SocketConnection {
 public:
  static constexpr size_t kAddressSize = 128;

  // Takes ownership of `fd`; `addr` (may be null) names the peer or socket in messages.
  SocketConnection(int fd, const char* addr);
  virtual ~SocketConnection();
  SocketConnection(const SocketConnection&) = delete;
  SocketConnection& operator=(const SocketConnection&) = delete;

  void SetAddr(const char* addr);

  // Writes all of `data`, retrying every 50 ms while the socket would block. Returns true at once
  // when `stop` turns true (the data then partly sent); false, and the connection invalid, on any
  // other write error.
  bool Write(const uint8_t* data, size_t len, const volatile bool* stop);

  // Reads what is available into the read queue, trying again a few times when nothing is there
  // yet. False when the queue is full, on a read error, or when the peer has closed (the connection
  // is then invalid).
  virtual bool ReadToBuffer();
  // The same with a single attempt, for draining a connection after a first read: `*got` is the
  // number of bytes read, 0 when nothing more is waiting.
  bool ReadMore(size_t* got);

  DataQueue& ReadQueue() { return dataQ; }

  bool valid = true;
  int fd;
  char address[kAddressSize] = {};
  DataQueue dataQ;

 private:
  bool Read(int retries, size_t* got);
};

}  // namespace libtidewatch
