// The media server as a whole: rates and how connections share them, many clients and callers at
// once, spread addresses, and the program c2ms-server.
#include <fcntl.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "raw_client.h"

using namespace refserver;
using namespace rawtest;

namespace {

// Four connections of one limited server ask for as much: together they never get more than the
// rate allows, and they end together, as each gets its share all the time.
TEST(Rate, IsSharedEvenlyAndNeverExceeded) {
  constexpr double rate = 400'000, burst = 0.02 * rate;
  constexpr uint32_t each = 50'000;
  media_server server({.nodes = 1, .node = {{.rate_bytes_per_s = 0.01}}, .check_auth = false});
  const file_id film = server.add_generated("film.mp4", 1'000'000);
  ASSERT_TRUE(server.start()) << server.error();
  {
    raw_client clients[4] = {{server, 0}, {server, 0}, {server, 0}, {server, 0}};
    for (raw_client &client : clients) client.send(make_request(3, 1, film, 0, each));
    ASSERT_TRUE(eventually([&] { return server.totals(0).requests == 4; }));
    server.set_rate(0, rate);  // now they start as one
    for (raw_client &client : clients) EXPECT_EQ(client.receive_response().size(), 37U + each);
  }
  double first_done = 1e9, last_done = 0, start = 0;
  for (const request_record &entry : server.log(0)) {
    start = std::max(start, entry.time_s);
    first_done = std::min(first_done, entry.done_s);
    last_done = std::max(last_done, entry.done_s);
  }
  EXPECT_GE(last_done - start, (4.0 * each - burst) / rate);
  EXPECT_GE(first_done - start, 0.7 * (last_done - start));

  // Lifting the limit sets what waits for tokens free at once: at 1 kB/s it would take 50 s.
  server.set_rate(0, 1000);
  raw_client client(server, 0);
  client.send(make_request(3, 1, film, 0, each));
  EXPECT_EQ(client.receive(100).size(), 100U);
  server.set_rate(0, 0);
  EXPECT_EQ(client.receive(each - 63).size(), each - 63);
}

TEST(Service, SpreadAddressesShareOnePort) {
  media_server server({.nodes = 3, .spread_addresses = true, .check_auth = false});
  const file_id film = server.add_generated("film.mp4", 100);
  ASSERT_TRUE(server.start()) << server.error();
  EXPECT_EQ(server.address(entry_server), "127.0.0.1");
  EXPECT_EQ(server.address(2), "127.0.0.4");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(server.port(i), server.port(entry_server));
    raw_client client(server, i);
    client.send(make_request(3, 1, film, 0, 100));
    EXPECT_EQ(client.receive_response().size(), 137U);
    EXPECT_EQ(server.totals(i).media, 1U);
  }
  media_server second({.nodes = 0, .port = server.port(entry_server)});
  EXPECT_FALSE(second.start());
  EXPECT_NE(second.error().find(std::to_string(server.port(0))), std::string::npos);
}

/// The program c2ms-server, with its standard output or the other one on a pipe.
struct program {
  pid_t pid = -1;
  int out = -1;

  explicit program(std::vector<std::string> arguments, int piped = STDOUT_FILENO) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    std::vector<char *> argv = {const_cast<char *>("c2ms-server")};
    for (std::string &argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
      dup2(open("/dev/null", O_WRONLY), piped == STDOUT_FILENO ? STDERR_FILENO : STDOUT_FILENO);
      dup2(ends[1], piped);
      execv(C2MS_SERVER_PROGRAM, argv.data());
      _exit(127);
    }
    close(ends[1]);
    out = ends[0];
  }
  ~program() { close(out); }

  std::string line() const {
    std::string text;
    for (char c; read(out, &c, 1) == 1 && c != '\n';) text += c;
    return text;
  }
  int status() const {
    int status = -1;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }
};

TEST(Program, ServesUntilToldToStop) {
  for (const int signal_number : {SIGINT, SIGTERM}) {
    program server({"--nodes", "2", "--encipher", "--rate", "10M,0", "--generated", "a?b.mp4:6G",
                    "--generated", "c.ts:1k"});
    const std::string url = server.line(), second = server.line();
    EXPECT_EQ(url.compare(0, 17, "kesp://127.0.0.1:"), 0) << url;
    EXPECT_NE(url.find("/a_b.mp4?fid=" + hex(id_of("a?b.mp4")) + ";auth="), std::string::npos);
    EXPECT_NE(second.find("/c.ts?fid=" + hex(id_of("c.ts"))), std::string::npos) << second;
    kill(server.pid, signal_number);
    EXPECT_NE(server.line().find("media bytes"), std::string::npos);
    EXPECT_EQ(server.status(), 0);
  }
}

TEST(Program, RefusesWrongOptions) {
  const struct {
    std::vector<std::string> arguments;
    const char *said;  ///< on standard error, in one line that leads to the help
  } rows[] = {
      {{}, "no file to serve"},
      {{"--generated", "a:1", "--bogus"}, "unknown option --bogus"},
      {{"-x", "film.mp4"}, "unknown option -x"},
      {{"film.mp4", "--nodes=2", "--agent=1"}, "unknown option --agent=1"},
      {{"--port"}, "--port wants a value"},
      {{"--generated", "a"}, "--generated: 'a' is not NAME:SIZE"},
      {{"--generated", ":5"}, "--generated: ':5' is not NAME:SIZE"},
      {{"--generated", "a:99999999999G"}, "--generated: cannot take '99999999999G'"},
      {{"--generated", "a:1", "--nodes", "101"}, "--nodes: cannot take '101'"},
      {{"--generated", "a:1", "--nodes", "-1"}, "--nodes: cannot take '-1'"},
      {{"--generated", "a:1", "--port", "65536"}, "--port: cannot take '65536'"},
      {{"--generated", "a:1", "--port", "65535"}, "--port: no room"},
      {{"--generated", "a:1", "--rate", "1,,2"}, "--rate: cannot take ''"},
      {{"--generated", "a:1", "--fault", "zap"}, "--fault: "},
      {{"--generated", "a:1", "--fault", "mute,node=4"}, "--fault: no node 4"},
      {{"--report", "10.0.0.1"}, "--report: "},
  };
  for (const auto &row : rows) {
    const program server(row.arguments, STDERR_FILENO);
    const std::string line = server.line();
    EXPECT_EQ(line.find(std::string("c2ms-server: ") + row.said), 0U) << line;
    EXPECT_NE(line.find("(--help tells more)"), std::string::npos) << line;
    EXPECT_EQ(server.status(), 2) << row.said;
  }
  EXPECT_EQ(program({"/nowhere/film.mp4"}).status(), 1);
  const program help({"--help"});
  EXPECT_EQ(help.line().compare(0, 6, "usage:"), 0);
  EXPECT_EQ(help.status(), 0);
}

}  // namespace
