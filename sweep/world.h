// What is played: two media on a reference server, of which every byte is known.
#pragma once

#include <string>

#include "testing/media_server.h"

namespace sweep {

struct Media {
  std::string url;  ///< once the server runs
  std::string bytes;
  uint64_t moov_at = 0;  ///< 0: a film without index, else one with its `moov` there, at the end
};

/// Made before a case's process is, started in it.
class World {
 public:
  explicit World(refserver::server_options options = {.nodes = 4, .keep_log = false});
  bool start();
  refserver::media_server server;
  Media film, movie;

 private:
  refserver::file_id film_id_, movie_id_;
};

/// A film's URL with "localhost" for its host: the name must be looked up.
std::string named(const std::string &url);

/// A configuration file with short periods, for this process; removed at its end.
const char *configuration();

}  // namespace sweep
