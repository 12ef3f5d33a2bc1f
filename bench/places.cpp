// Measures reads at two places in turn: a film remuxed into blocks of five seconds of picture and
// of sound, read to its end by libavformat (blocks.c). Reports how often each byte was fetched.
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "bench/sections.h"

namespace bench {

namespace {

bool runs(const std::string &command) {
  return std::system(command.c_str()) == 0;
}

struct played {
  long packets = 0;
  unsigned long long sum = 0, size = 0, fetched = 0, redundant = 0;
};

played play_packets(const std::string &command) {
  played p;
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> from(popen(command.c_str(), "r"), &pclose);
  char line[256] = "";
  if (from == nullptr || std::fgets(line, sizeof line, from.get()) == nullptr) return {};
  const int words = std::sscanf(line, "packets %ld sum %llu size %llu fetched %llu redundant %llu",
                                &p.packets, &p.sum, &p.size, &p.fetched, &p.redundant);
  return words == 5 ? p : played{};
}

}  // namespace

void bench_places(const effort &e, results &out) {
  const std::string blocks = "'" + e.build + "/bin/blocks'";
  const std::string film = e.build + "/bench-blocks";
  if (!runs("test -x " + blocks)) return out.note("no libavformat: nothing about two places");
  const int seconds = e.quick() ? 20 : 60;
  const std::string make =
      "ffmpeg -v error -y -f lavfi -i testsrc2=size=320x240:rate=25,noise=alls=60:allf=t -f lavfi "
      "-i sine=frequency=300:sample_rate=44100 -c:v mpeg4 -b:v 4M -minrate 4M -maxrate 4M -bufsize "
      "1M -c:a aac -b:a 128k -t " +
      std::to_string(seconds) + " '" + film + "-source.mp4' && " + blocks + " remux '" + film +
      "-source.mp4' '" + film + ".mp4' 5";
  if (!runs(make)) return out.note("no ffmpeg: nothing about two places");
  const served_file file(any_cpu, film + ".mp4", plain_server());
  const played local = play_packets(blocks + " play '" + film + ".mp4'");
  const played places = play_packets(blocks + " play '" + file.url() + "'");
  const played seeks = play_packets(blocks + " play --seek '" + file.url() + "'");
  if (places.packets != local.packets || places.sum != local.sum || seeks.sum != local.sum)
    return out.fail("two places: the packets are not the film's");
  if (places.redundant == 0 && places.fetched != places.size)
    out.fail("two places: bytes were fetched twice");
  const auto size = static_cast<double>(places.size);
  out.add({"two places", "blocks of 5 s, read_at: bytes fetched beside the film's", "MB",
           static_cast<double>(places.fetched) / 1e6, size / 1e6, false, 1});
  out.add({"two places", "the same by seek and receive", "MB",
           static_cast<double>(seeks.fetched) / 1e6, size / 1e6, false, 0});
}

}  // namespace bench
