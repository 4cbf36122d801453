// A stream server on an abstract-namespace Unix socket, driven by one background thread with a
// `select` loop, that hands every readable accepted connection to a ConnectionDataInInterface
// (normally the trap receiver's MCPReceiver).
#pragma once

#include <pthread.h>
#include <sys/select.h>

#include <atomic>
#include <map>
#include <memory>

#include "libtidewatch/transport/socket_connection.h"

namespace libtidewatch {

// Whatever consumes the bytes of readable connections. Called on the listener's thread only.
class ConnectionDataInInterface {
 public:
  virtual ~ConnectionDataInInterface() = default;
  // Reads what `conn` has to offer and consumes it. A consumer that finds the peer gone marks the
  // connection invalid; the listener then removes it in its next pass. The result is not used.
  virtual bool DataIn(SocketConnection& conn) = 0;
};

// Owns the listening socket, the accepted connections and the thread. The thread starts inside the
// constructor and ends, within about a second (its `select` time-out), when the listener is stopped
// or destroyed. Setup failures are logged and leave a listener that serves nothing.
//
// Only `select` is used to wait, so only descriptors below FD_SETSIZE can be served: a connection
// accepted on a larger descriptor is closed at once with an error log.
class SocketListener {
 public:
  enum SOCKET_TYPE {
    SOCKET_TYPE_CLIENT = 0,  // an accepted connection
    SOCKET_TYPE_SERVER = 1,  // a listening socket
  };

  // Binds `name` (cut to 107 bytes) in the abstract namespace, listens with a backlog of 4 and
  // starts the thread "twd_cmd_serv".
  explicit SocketListener(const char* name);
  // Stops and joins the thread, then closes every socket.
  virtual ~SocketListener();
  SocketListener(const SocketListener&) = delete;
  SocketListener& operator=(const SocketListener&) = delete;

  // Not owned; must outlive the thread (see Stop). Safe to call while the thread runs; it takes
  // effect for the next ready connection. Without a handler, bytes that arrive are dropped.
  void SetHandler(ConnectionDataInInterface* handler) { m_handler.store(handler); }

  // Asks the thread to end and waits for it; afterwards the handler is never called again. Called
  // by the destructor; an owner whose handler dies first calls it before that.
  void Stop();

  // Whether the socket is bound and served (false when the name was taken, or after Stop). Owner's
  // thread only.
  bool Listening() const { return m_threadStarted; }

  // Called by the constructor for the server socket and by the thread afterwards; nothing else may
  // call them while the thread runs. AddSocket takes ownership of `fd`.
  void AddSocket(SOCKET_TYPE type, int fd, const char* addr);
  void RemoveSocket(SOCKET_TYPE type, int fd);
  // Closes every connection and server socket. The read set and max fd are left as they are.
  void Cleanup();

  static void* ListenThread(void* self);
  void Listen();

 private:
  using ConnectionMap = std::map<int, std::unique_ptr<SocketConnection>>;

  bool SetupDomainSocket(const char* name);
  bool Stopped() const { return m_stop.load(std::memory_order_acquire); }
  void AcceptClient(int serverFd);
  // Serves one ready client: through the handler, or by reading and dropping its bytes.
  void ServeClient(SocketConnection& conn);

  fd_set m_readSet;
  int m_maxFd = -1;
  ConnectionMap m_clients;
  ConnectionMap m_servers;
  pthread_t m_listenThread;
  bool m_threadStarted = false;     // owner's thread only
  std::atomic<bool> m_stop{false};  // written by the owner's thread, polled by the listen thread
  std::atomic<ConnectionDataInInterface*> m_handler{nullptr};
};

}  // namespace libtidewatch
