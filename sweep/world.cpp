#include "world.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace sweep {

namespace {

constexpr size_t film_bytes = 200'001;
constexpr size_t movie_bytes = 90'000;
constexpr size_t moov_bytes = 20'000;

std::string noise(size_t size, uint8_t kind) {
  std::string bytes(size, '\0');
  refserver::content_fill({kind}, 0, bytes.data(), size);
  return bytes;
}

std::string box(const char *type, const std::string &content) {
  const auto size = static_cast<uint32_t>(content.size() + 8);
  const char head[] = {static_cast<char>(size >> 24), static_cast<char>(size >> 16),
                       static_cast<char>(size >> 8), static_cast<char>(size)};
  return std::string(head, sizeof head) + type + content;
}

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
