// Answers HTTP requests: the page, its events, and the films' bytes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "films.h"

struct MHD_Daemon;

namespace bridge {

class Server {
 public:
  /// `address`: a dotted one. On a loopback address only requests whose Host names this machine are
  /// answered, so that no page of another site reaches the films by a name of its own.
  Server(Films &films, const std::string &address, uint16_t port);
  ~Server();  ///< ends all requests
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;
  bool runs() const { return daemon_ != nullptr; }
  uint16_t port() const;

  Films &films() const { return films_; }
  bool is_local() const { return local_; }

 private:
  Films &films_;
  bool local_;
  MHD_Daemon *daemon_ = nullptr;
};

}  // namespace bridge
