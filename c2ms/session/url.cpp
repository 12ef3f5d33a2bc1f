// See url.h.
#include "c2ms/session/url.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "adif/strutil.h"
#include "c2ms/core/context.h"

namespace {

const char *find(const char *from, const char *end, const char *set) {
  return skipTo(from, static_cast<int>(end - from), set, static_cast<int>(std::strlen(set)));
}

void set_host(c2ms_sess *sess, const char *from, const char *end) {
  const size_t length = std::min<size_t>(static_cast<size_t>(end - from), sizeof sess->host - 1);
  std::memcpy(sess->host, from, length);
  sess->host[length] = '\0';
  sess->host_len = static_cast<uint32_t>(length);
}

void set_path(c2ms_sess *sess, const char *from, const char *end) {
  const char *const mark = find(from, end, "?");
  sess->path = from;
  sess->path_len = static_cast<int32_t>(mark - from);
  if (mark == end) return;
  sess->query = mark + 1;
  sess->query_len = static_cast<int32_t>(end - mark - 1);
}

// host[:port][/path[?query]]. False: the port is none.
bool set_authority(c2ms_sess *sess, const char *from, const char *end) {
  const char *at = find(from, end, ":/");
  set_host(sess, from, at);
  if (at < end && *at == ':') {
    errno = 0;
    const long port = std::strtol(at + 1, nullptr, 10);
    if (errno != 0 || port < 0 || port > 65535) return false;
    sess->port = static_cast<uint32_t>(port);
    at = find(at, end, "/");
  }
  if (at < end) set_path(sess, at, end);
  return true;
}

void reset(c2ms_sess *sess) {
  sess->scheme = nullptr;
  sess->scheme_len = 0;
  std::memset(sess->host, 0, sizeof sess->host);
  sess->host_len = 0;
  sess->port = c2ms::default_port;
  sess->path = nullptr;
  sess->path_len = 0;
  sess->query = nullptr;
  sess->query_len = 0;
}

struct value {
  const char *text = nullptr;
  int length = 0;
};

value lookup(const c2ms_sess *sess, const char *key) {
  value found;
  get_value_by_key(sess->query, sess->query_len, key, &found.text, &found.length);
  return found;
}

void hex_parameter(const c2ms_sess *sess, const char *key, uint8_t (&out)[17]) {
  std::memset(out, 0, sizeof out);
  const value found = lookup(sess, key);
  if (found.text == nullptr) return;
  int written = 0;
  ascii_to_bin(found.text, std::min(found.length, 32), out, &written);
}

uint32_t decimal_parameter(const c2ms_sess *sess, const char *key) {
  const value found = lookup(sess, key);
  if (found.text == nullptr) return 0;
  char text[sizeof sess->url] = {};  // a part of it
  std::memcpy(text, found.text, std::min(static_cast<size_t>(found.length), sizeof text - 1));
  const unsigned long long number = std::strtoull(text, nullptr, 10);
  return static_cast<uint32_t>(std::min<unsigned long long>(number, UINT32_MAX));
}

}  // namespace

int c2ms_sess_url_parse(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  if (sess->url_parsed != 0) return 0;
  const char *const end = sess->url + strnlen(sess->url, sizeof sess->url);
  const char *const from = skipOver(sess->url, static_cast<int>(end - sess->url), " \t\r\n", 4);
  if (from == end) return -100;
  reset(sess);
  const char *const slash = find(from, end, "/");
  const bool has_scheme = end - slash >= 2 && slash > from && slash[-1] == ':' && slash[1] == '/';
  if (has_scheme) {
    sess->scheme = from;
    sess->scheme_len = static_cast<int32_t>(slash + 2 - from);
    if (!set_authority(sess, slash + 2, end)) return -101;
  } else {
    set_path(sess, from, end);
  }
  sess->url_parsed = 1;
  return 0;
}

int c2ms_sess_para_parse(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  if (sess->mgmt == nullptr) return -2;
  c2ms_sess_url_parse(sess);
  if (sess->host[0] == '\0') {
    const c2ms::host_name server = c2ms::entry_server(sess->mgmt);
    set_host(sess, server.text, server.text + std::strlen(server.text));
  }
  if (sess->port == 0) sess->port = c2ms::default_port;
  hex_parameter(sess, "fid", sess->fid);
  hex_parameter(sess, "auth", sess->auth);
  sess->stamp = decimal_parameter(sess, "stamp");
  sess->keyid = decimal_parameter(sess, "keyid");
  return 0;
}
