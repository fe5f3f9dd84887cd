// Listener: the server's socket (TCP or Unix) and its clients, each served
// on a thread of its own by ServeConnection.
//
// Why a thread per connection rather than an event loop: the work per
// client is detection, CPU time in chunks of audio, not waiting. Threads let
// the kernel spread clients over the cores and keep one slow or stuck client
// from delaying the others, with plain blocking reads and writes (the event
// reader is the same code the fuzz target runs). An event loop would still
// need worker threads for the detection. Home Assistant holds a few
// connections at a time; each costs a mostly untouched stack and its
// detector, and max_clients bounds them.
//
// Stopping: Stop (from a signal handler, say) makes Run stop accepting, shut
// every connection for reading (each answers the event in hand, then ends),
// wait up to five seconds for them, cut off any still writing to a client
// that does not read, and return once every thread has ended.
//
// Construct, then Run on one thread; Stop may be called from any thread or
// signal handler.
#ifndef KESTREL_SERVER_LISTENER_H_
#define KESTREL_SERVER_LISTENER_H_

#include <atomic>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "server-log.h"
#include "wake-service.h"

namespace kestrel {

class Listener {
 public:
  // Binds `uri`: tcp://HOST:PORT (port 0 picks a free one) or unix:///PATH
  // (a stale socket file left there is replaced; a live one is not). Throws,
  // naming the URI, std::invalid_argument when it is malformed (the caller's
  // mistake) and std::runtime_error when it cannot be bound.
  Listener(const std::string& uri, int max_clients, const WakeService* service, ServerLog* log);
  // Closes the socket and removes the Unix socket file.
  ~Listener();

  // Where clients connect, with the actual port when 0 was asked for.
  const std::string& Address() const { return address_; }

  // Serves until Stop; returns when every connection has ended.
  void Run();
  // Async-signal-safe.
  void Stop();

  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

 private:
  struct Client {
    int fd = -1;  // -1 once the connection has ended and closed it
    std::thread thread;
  };

  void BindTcp(const std::string& uri, const std::string& host_port);
  void BindUnix(const std::string& uri, const std::string& path);
  void Accept();
  // Joins the threads of ended connections and returns their memory to the
  // system; returns how many connections are left.
  size_t Reap();
  // Sleeps until the wake pipe has news or `timeout_ms` passes (-1: no
  // limit), then empties it.
  void WaitForWake(int timeout_ms);
  // Shuts every open connection with `how` (SHUT_RD, SHUT_RDWR).
  void ShutdownClients(int how);

  const WakeService* service_;
  ServerLog* log_;
  const size_t max_clients_;
  int listen_fd_ = -1;
  std::string address_;
  std::string unix_path_;  // removed on destruction; empty for TCP
  // Written by Stop and by each ending connection, so Run wakes from poll.
  int wake_read_ = -1, wake_write_ = -1;
  std::atomic<bool> stopping_{false};
  // Guards clients_ and each Client::fd: a connection closes its socket
  // under it, so ShutdownClients never touches a reused descriptor.
  std::mutex mutex_;
  std::list<Client> clients_;
  unsigned long long num_accepted_ = 0;
};

}  // namespace kestrel

#endif  // KESTREL_SERVER_LISTENER_H_
