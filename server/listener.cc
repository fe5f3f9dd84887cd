#include "listener.h"

#include <fcntl.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "connection.h"

namespace kestrel {
namespace {

constexpr int kBacklog = 64;
constexpr int kStopGraceMs = 5000;

std::string ErrnoText() { return std::strerror(errno); }

// "HOST:PORT" of a TCP peer or bound address, IPv6 hosts in brackets.
std::string TcpAddress(const sockaddr* address, socklen_t length) {
  char host[NI_MAXHOST], port[NI_MAXSERV];
  if (getnameinfo(address, length, host, sizeof(host), port, sizeof(port),
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "?";
  }
  const std::string h = host;
  return (h.find(':') != std::string::npos ? "[" + h + "]" : h) + ":" + port;
}

}  // namespace

Listener::Listener(const std::string& uri, int max_clients, const WakeService* service,
                   ServerLog* log)
    : service_(service), log_(log), max_clients_(max_clients > 0 ? max_clients : 1) {
  const std::string tcp = "tcp://", unix_scheme = "unix://";
  if (uri.compare(0, tcp.size(), tcp) == 0) {
    BindTcp(uri, uri.substr(tcp.size()));
  } else if (uri.compare(0, unix_scheme.size(), unix_scheme) == 0) {
    BindUnix(uri, uri.substr(unix_scheme.size()));
  } else {
    throw std::invalid_argument("--uri " + uri + ": give tcp://HOST:PORT or unix:///PATH");
  }
  if (listen(listen_fd_, kBacklog) != 0) {
    throw std::runtime_error("--uri " + uri + ": cannot listen: " + ErrnoText());
  }
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::runtime_error("cannot make a pipe: " + ErrnoText());
  }
  wake_read_ = fds[0];
  wake_write_ = fds[1];
}

Listener::~Listener() {
  if (listen_fd_ >= 0) close(listen_fd_);
  if (!unix_path_.empty()) unlink(unix_path_.c_str());
  if (wake_read_ >= 0) close(wake_read_);
  if (wake_write_ >= 0) close(wake_write_);
}

void Listener::BindTcp(const std::string& uri, const std::string& host_port) {
  std::string host, port;
  if (!host_port.empty() && host_port[0] == '[') {  // [IPv6]:PORT
    const size_t close = host_port.find("]:");
    if (close != std::string::npos) {
      host = host_port.substr(1, close - 1);
      port = host_port.substr(close + 2);
    }
  } else {
    const size_t colon = host_port.rfind(':');
    if (colon != std::string::npos) {
      host = host_port.substr(0, colon);
      port = host_port.substr(colon + 1);
    }
  }
  if (host.empty() || port.empty() || port.find_first_not_of("0123456789") != std::string::npos ||
      port.size() > 5 || std::stoi(port) > 65535) {
    throw std::invalid_argument("--uri " + uri + ": give tcp://HOST:PORT, PORT a number up to 65535");
  }
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int status = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
  if (status != 0) {
    throw std::runtime_error("--uri " + uri + ": " + gai_strerror(status));
  }
  std::string error = "no address";
  for (addrinfo* a = found; a != nullptr && listen_fd_ < 0; a = a->ai_next) {
    const int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) {
      error = ErrnoText();
      continue;
    }
    // A restarted server may bind while the old connections linger.
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(fd, a->ai_addr, a->ai_addrlen) != 0) {
      error = ErrnoText();
      close(fd);
      continue;
    }
    listen_fd_ = fd;
  }
  freeaddrinfo(found);
  if (listen_fd_ < 0) throw std::runtime_error("--uri " + uri + ": cannot bind: " + error);
  sockaddr_storage bound = {};
  socklen_t length = sizeof(bound);
  getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&bound), &length);
  address_ = "tcp://" + TcpAddress(reinterpret_cast<sockaddr*>(&bound), length);
}

void Listener::BindUnix(const std::string& uri, const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    throw std::invalid_argument("--uri " + uri + ": the socket path is empty or longer than " +
                             std::to_string(sizeof(address.sun_path) - 1) + " bytes");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0) throw std::runtime_error("--uri " + uri + ": " + ErrnoText());
  struct stat st;
  if (lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
    // A socket file nobody answers on is left from a server that died.
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool live =
        connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(probe);
    if (live) throw std::runtime_error("--uri " + uri + ": another server is listening there");
    unlink(path.c_str());
  }
  if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error("--uri " + uri + ": cannot bind: " + ErrnoText());
  }
  unix_path_ = path;
  address_ = "unix://" + path;
}

void Listener::Stop() {
  stopping_ = true;
  const char byte = 's';
  // Best effort: a full pipe already has Run awake.
  [[maybe_unused]] const ssize_t written = write(wake_write_, &byte, 1);
}

void Listener::WaitForWake(int timeout_ms) {
  pollfd p = {wake_read_, POLLIN, 0};
  poll(&p, 1, timeout_ms);
  char drain[256];
  while (read(wake_read_, drain, sizeof(drain)) > 0) {
  }
}

size_t Listener::Reap() {
  std::list<Client> ended;
  size_t left = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = clients_.begin(); it != clients_.end();) {
      if (it->fd < 0) {
        ended.splice(ended.end(), clients_, it++);
      } else {
        ++it;
      }
    }
    left = clients_.size();
  }
  for (Client& client : ended) client.thread.join();
#ifdef __GLIBC__
  // glibc keeps what an ended connection's thread freed in that thread's
  // arena; a server that idles most of the day should not hold its busiest
  // hour's detectors.
  if (!ended.empty()) malloc_trim(0);
#endif
  return left;
}

void Listener::ShutdownClients(int how) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (Client& client : clients_) {
    if (client.fd >= 0) shutdown(client.fd, how);
  }
}

void Listener::Accept() {
  sockaddr_storage peer_address = {};
  socklen_t length = sizeof(peer_address);
  const int fd = accept4(listen_fd_, reinterpret_cast<sockaddr*>(&peer_address), &length,
                         SOCK_CLOEXEC);
  if (fd < 0) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      log_->Info("cannot accept a client: " + ErrnoText());
      // The waiting client stays queued; try again once something has ended.
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return;  // otherwise the client gave up before we got to it
  }
  if (peer_address.ss_family != AF_UNIX) {
    // Detections are small writes that should leave at once, not wait to be
    // joined by more.
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  std::string peer = "#" + std::to_string(++num_accepted_) + " ";
  peer += peer_address.ss_family == AF_UNIX
              ? "unix"
              : TcpAddress(reinterpret_cast<sockaddr*>(&peer_address), length);
  std::lock_guard<std::mutex> lock(mutex_);
  if (clients_.size() >= max_clients_) {
    close(fd);
    log_->Info(peer + ": refused, " + std::to_string(max_clients_) + " clients already");
    return;
  }
  clients_.emplace_back();
  Client* client = &clients_.back();
  client->fd = fd;
  try {
    client->thread = std::thread([this, client, fd, peer] {
      try {
        ServeConnection(fd, peer, *service_, log_);
      } catch (const std::exception& e) {
        // Memory running out, say: this client's loss, not everyone's.
        log_->Info(peer + ": ended by an internal error: " + e.what());
      }
      {
        std::lock_guard<std::mutex> lock(mutex_);
        close(fd);
        client->fd = -1;
      }
      const char byte = 'r';
      [[maybe_unused]] const ssize_t written = write(wake_write_, &byte, 1);
    });
  } catch (const std::system_error& e) {
    close(fd);
    clients_.pop_back();
    log_->Info(peer + ": refused, cannot start a thread: " + e.what());
  }
}

void Listener::Run() {
  while (!stopping_) {
    pollfd p[2] = {{listen_fd_, POLLIN, 0}, {wake_read_, POLLIN, 0}};
    if (poll(p, 2, -1) < 0 && errno != EINTR) {
      log_->Info("poll failed: " + ErrnoText());
      break;
    }
    if (p[1].revents) WaitForWake(0);
    Reap();
    if (!stopping_ && (p[0].revents & POLLIN)) Accept();
  }
  close(listen_fd_);
  listen_fd_ = -1;
  ShutdownClients(SHUT_RD);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStopGraceMs);
  while (Reap() > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) break;
    WaitForWake(static_cast<int>(left));
  }
  ShutdownClients(SHUT_RDWR);
  while (Reap() > 0) WaitForWake(100);
}

}  // namespace kestrel
