// See world.h.
#include "world.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/boxes.h"

namespace sweep {

namespace {

constexpr size_t film_bytes = 200'001;
constexpr size_t movie_bytes = 90'000;
constexpr size_t moov_bytes = 20'000;

using boxes::box;
using boxes::noise;

}  // namespace

World::World(refserver::server_options options) : server(std::move(options)) {
  film.bytes = noise(film_bytes, 1);
  movie.bytes = box("ftyp", "isom") + box("mdat", noise(movie_bytes, 2));
  movie.moov_at = movie.bytes.size();
  movie.bytes += box("moov", box("free", noise(moov_bytes, 3)));
  film_id_ = server.add_bytes("film.mkv", film.bytes, 9);
  movie_id_ = server.add_bytes("movie.mp4", movie.bytes);
  server.add_index(movie_id_);
}

bool World::start() {
  if (!server.start()) return false;
  film.url = server.url(film_id_);
  movie.url = server.url(movie_id_);
  return true;
}

std::string named(const std::string &url) {
  constexpr std::string_view address = "127.0.0.1";
  std::string text = url;
  return text.replace(text.find(address), address.size(), "localhost");
}

const char *configuration() {
  static const std::string path = [] {
    char name[] = "/tmp/c2ms-sweep-XXXXXX";
    const int fd = mkstemp(name);
    constexpr char text[] =
        "[Communication Option]\nBuild TCP Max Time = 1\n"
        "Cyclic Connection Check Time = 1\nSession Check Time = 1\n";
    if (fd >= 0 && write(fd, text, sizeof text - 1) < 0) name[0] = '\0';
    close(fd);
    return std::string(name);
  }();
  return path.c_str();
}

}  // namespace sweep
