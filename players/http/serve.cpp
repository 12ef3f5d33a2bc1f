// See serve.h. Each connection has a thread of libmicrohttpd: a request may wait for bytes without
// holding up others.
#include "serve.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <thread>

#include "page.h"
#include "range.h"

namespace bridge {

namespace {

constexpr unsigned most_connections = 1200, most_of_one_address = 1100;
constexpr unsigned idle_s = 30;
constexpr size_t header_bytes = 16 * 1024, stack_bytes = 256 * 1024, block_bytes = 64 * 1024;
constexpr int step_ms = 200;  // how often a request that waits looks whether its client is there

bool has_left(int fd) {
  char byte;
  const ssize_t n = recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR);
}

int fd_of(MHD_Connection *connection) {
  return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

/// The body of one answer with a film's bytes.
struct body {
  Films &films;
  c2ms_sess *sess;
  uint64_t begin;
  int fd;
};

ssize_t read_body(void *cls, uint64_t pos, char *buf, size_t max) {
  const auto *const b = static_cast<const body *>(cls);
  const auto len = static_cast<int32_t>(std::min(max, block_bytes));
  int32_t n;
  do {
    if (b->films.stopping() || has_left(b->fd)) return MHD_CONTENT_READER_END_WITH_ERROR;
    n = c2ms_sess_read_some(b->sess, b->begin + pos, buf, 1, len, step_ms);
  } while (n == C2MS_TIMED_OUT);
  return n > 0 ? n : MHD_CONTENT_READER_END_WITH_ERROR;
}

void end_body(void *cls) {
  auto *const b = static_cast<body *>(cls);
  b->films.give_back(b->sess);
  delete b;
}

/// Figures once a second, as server-sent events (the HTML standard, 9.2).
struct events {
  Films &films;
  int fd;
  std::string text{};
  size_t at = 0;
};

ssize_t read_events(void *cls, uint64_t pos, char *buf, size_t max) {
  auto *const e = static_cast<events *>(cls);
  if (e->at == e->text.size()) {
    for (int ms = 0; pos > 0 && ms < 1000; ms += step_ms) {
      if (e->films.stopping() || has_left(e->fd)) return MHD_CONTENT_READER_END_OF_STREAM;
      std::this_thread::sleep_for(std::chrono::milliseconds(step_ms));
    }
    e->text = "data: " + e->films.figures() + "\n\n";
    e->at = 0;
  }
  const size_t n = std::min(max, e->text.size() - e->at);
  std::memcpy(buf, e->text.data() + e->at, n);
  e->at += n;
  return static_cast<ssize_t>(n);
}

using header = std::pair<const char *, std::string>;

MHD_Result answer(MHD_Connection *connection, unsigned status, MHD_Response *response,
                  std::initializer_list<header> headers) {
  if (response == nullptr) return MHD_NO;
  for (const header &h : headers) MHD_add_response_header(response, h.first, h.second.c_str());
  MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
  const MHD_Result result = MHD_queue_response(connection, status, response);
  MHD_destroy_response(response);
  return result;
}

MHD_Result say(MHD_Connection *connection, unsigned status, const std::string &text,
               std::initializer_list<header> headers = {{"Content-Type", "text/plain"}}) {
  MHD_Response *const response = MHD_create_response_from_buffer(
      text.size(), const_cast<char *>(text.data()), MHD_RESPMEM_MUST_COPY);
  return answer(connection, status, response, headers);
}

unsigned status_of(int32_t error) {
  switch (error) {
    case C2MS_MEDIA_NOT_EXIST:
      return MHD_HTTP_NOT_FOUND;
    case C2MS_UNAUTHORIZED:
    case C2MS_AUTH_FAILED:
    case C2MS_IN_DEBT:
      return MHD_HTTP_FORBIDDEN;
    case C2MS_OPEN_TIMEOUT:
      return MHD_HTTP_GATEWAY_TIMEOUT;
    case C2MS_NO_CACHE_MEMORY:
    case C2MS_NO_MEMORY:
    case C2MS_CLOSED:
      return MHD_HTTP_SERVICE_UNAVAILABLE;
    default:
      return MHD_HTTP_BAD_GATEWAY;
  }
}

std::string field(MHD_Connection *connection, const char *name) {
  const char *const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value != nullptr ? value : "";
}

MHD_Result send_film(MHD_Connection *connection, Films &films, const film *which) {
  int32_t error;
  c2ms_sess *const sess = films.lend(which, &error);
  if (sess == nullptr)
    return say(connection, status_of(error), std::string(c2ms_sess_error(error)) + "\n");
  uint64_t size = 0;
  char id[33] = "";
  c2ms_sess_attr(sess, id, nullptr, &size, nullptr);
  const std::string tag = '"' + std::string(id) + '-' + std::to_string(size) + '"';
  const std::string only_if = field(connection, "If-Range");
  const bool same = only_if.empty() || only_if == tag;
  const byte_range range = range_of(same ? field(connection, "Range") : "", size);
  if (range.kind == range_kind::unsatisfiable) {
    films.give_back(sess);
    return say(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE, "",
               {{"Content-Range", "bytes */" + std::to_string(size)}});
  }
  auto *const b = new body{films, sess, range.begin, fd_of(connection)};
  MHD_Response *const response = MHD_create_response_from_callback(
      range.end - range.begin, block_bytes, read_body, b, end_body);
  if (response == nullptr) end_body(b);
  if (range.kind == range_kind::whole || response == nullptr) {
    return answer(
        connection, MHD_HTTP_OK, response,
        {{"Accept-Ranges", "bytes"}, {"ETag", tag}, {"Content-Type", c2ms_sess_mime(sess)}});
  }
  const std::string part = "bytes " + std::to_string(range.begin) + "-" +
                           std::to_string(range.end - 1) + "/" + std::to_string(size);
  return answer(connection, MHD_HTTP_PARTIAL_CONTENT, response,
                {{"Accept-Ranges", "bytes"},
                 {"ETag", tag},
                 {"Content-Range", part},
                 {"Content-Type", c2ms_sess_mime(sess)}});
}

bool names_this_machine(std::string_view host) {
  const size_t colon = host.rfind(':');
  if (colon != host.npos && host.find(']', colon) == host.npos) host = host.substr(0, colon);
  return host == "localhost" || host == "[::1]" || host.starts_with("127.");
}

MHD_Result handle(void *cls, MHD_Connection *connection, const char *url, const char *method,
                  const char *, const char *, size_t *, void **) {
  const auto *const server = static_cast<const Server *>(cls);
  if (std::strcmp(method, "GET") != 0 && std::strcmp(method, "HEAD") != 0)
    return say(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "", {{"Allow", "GET, HEAD"}});
  if (server->is_local() && !names_this_machine(field(connection, "Host")))
    return say(connection, MHD_HTTP_MISDIRECTED_REQUEST, "ask for localhost\n");
  Films &films = server->films();
  const std::string path = url;
  if (path == "/") {
    return say(connection, MHD_HTTP_OK, page(films.all()),
               {{"Content-Type", "text/html; charset=utf-8"},
                {"Content-Security-Policy",
                 "default-src 'self'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; "
                 "img-src data:"}});
  }
  if (path == "/events") {
    MHD_Response *const response = MHD_create_response_from_callback(
        MHD_SIZE_UNKNOWN, block_bytes, read_events, new events{films, fd_of(connection)},
        [](void *e) { delete static_cast<events *>(e); });
    return answer(connection, MHD_HTTP_OK, response,
                  {{"Content-Type", "text/event-stream"}, {"Cache-Control", "no-store"}});
  }
  const film *const which = films.find(path.substr(1));
  if (which == nullptr) return say(connection, MHD_HTTP_NOT_FOUND, "no such film\n");
  return send_film(connection, films, which);
}

}  // namespace

Server::Server(Films &films, const std::string &address, uint16_t port)
    : films_(films), local_(address.starts_with("127.")) {
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(port);
  if (inet_pton(AF_INET, address.c_str(), &at.sin_addr) != 1) return;
  daemon_ = MHD_start_daemon(
      MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL, port, nullptr,
      nullptr, handle, this, MHD_OPTION_SOCK_ADDR, &at, MHD_OPTION_CONNECTION_LIMIT,
      most_connections, MHD_OPTION_PER_IP_CONNECTION_LIMIT, most_of_one_address,
      MHD_OPTION_CONNECTION_TIMEOUT, idle_s, MHD_OPTION_CONNECTION_MEMORY_LIMIT, header_bytes,
      MHD_OPTION_THREAD_STACK_SIZE, stack_bytes, MHD_OPTION_END);
}

Server::~Server() {
  films_.stop();
  if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
}

uint16_t Server::port() const {
  return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
}

}  // namespace bridge
