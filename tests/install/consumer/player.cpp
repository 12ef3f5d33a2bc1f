// A player in C++: writes the media of a URL to standard output. Its own `trim` and `find` must not
// meet the library's.
#include <c2ms.h>

#include <memory>
#include <string>
#include <vector>

std::string trim(const std::string &text) {
  return text;
}
int find(int) {
  return -1;
}

int main(int argc, char **argv) {
  if (argc != 2) return 2;
  c2ms_set_diag(nullptr, nullptr);
  const std::unique_ptr<c2ms_mgmt, int (*)(c2ms_mgmt *)> library(
      c2ms_mgmt_init(nullptr, 0, 0, nullptr, 8 << 20), c2ms_mgmt_clean);
  const std::unique_ptr<c2ms_sess, int (*)(c2ms_sess *)> film(
      c2ms_sess_open(library.get(), trim(argv[1]).c_str(), nullptr), c2ms_sess_close);
  uint64_t size = 0;
  if (c2ms_sess_attr(film.get(), nullptr, nullptr, &size, nullptr) != 0) return 1;
  if (c2ms_sess_cache_init(film.get(), c2ms_sess_pack_size(film.get(), 65536)) != 0) return 1;
  if (c2ms_sess_range(film.get(), 0, size) != 0) return 1;
  std::vector<char> bytes(100'000);
  int n = 0;
  while ((n = c2ms_sess_read(film.get(), bytes.data(), 100'000, 0)) > 0)
    std::fwrite(bytes.data(), 1, static_cast<size_t>(n), stdout);
  return n == -200 && find(0) == -1 ? 0 : 1;
}
