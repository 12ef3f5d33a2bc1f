// The media server's thread: reads requests and sends responses, with the faults of the stream and
// the sharing of a server's rate. Ports, events and jobs are in server_loop.cpp.
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "testing/server_loop.h"

namespace refserver {

// A client has at most two requests without answer. One with so many bytes of them is disconnected.
static constexpr size_t input_limit = 4096;

// After so many pieces another connection has its turn.
static constexpr int pieces_per_turn = 8;

static constexpr int reset_patience = 2000;  // milliseconds

// --- requests ---

void server_loop::readable(uint64_t id) {
  connection *c = find(id);
  if (c == nullptr) return;
  uint8_t piece[input_limit];
  bool closed = false;
  while (c->in.size() <= input_limit) {
    const ssize_t n = recv(c->fd, piece, sizeof piece, 0);
    if (n < 0 && errno == EINTR) continue;
    closed = n == 0 || (n < 0 && errno != EAGAIN);
    if (n <= 0) break;
    c->in.insert(c->in.end(), piece, piece + n);
    if (static_cast<size_t>(n) < sizeof piece) break;  // if an end follows, it is another event
  }
  if (c->in.size() > input_limit) closed = true;
  if (c->node->options.one_at_a_time && !c->out.empty() && !c->in.empty()) {
    ++c->node->totals.thrown_away;
    c->in.clear();
  }
  // Requests that arrived before the end are still logged, and answered as far as possible.
  if (c->out.empty()) pump(id);
  if (closed) drop(id, false);
}

// Takes the next whole request of a connection and plans its response. False: there is no request,
// or it was not acceptable and the connection is closed, or a fault says that it gets no answer.
bool server_loop::next_request(connection &c) {
  request r;
  std::string wrong;
  const size_t size = parse_request(c.in, &r, &wrong);
  if (size == 0 && wrong.empty()) return false;
  node_totals &totals = c.node->totals;
  ++totals.requests;
  uint64_t number = UINT64_MAX;
  if (options.keep_log) {
    request_record &entry = log.emplace_back();
    static_cast<request &>(entry) = r;
    entry.node = c.node->index;
    entry.connection = c.id;
    entry.time_s = seconds();
    entry.error = wrong;
    number = log_base_ + log.size() - 1;
  }
  if (size == 0) {
    ++totals.bad_requests;
    drop(c.id, false);
    return false;
  }
  c.in.erase(c.in.begin(), c.in.begin() + static_cast<ptrdiff_t>(size));
  ++(r.command == command_list          ? totals.lists
     : r.command == command_description ? totals.descriptions
                                        : totals.media);
  answer(c, r, match(*c.node, static_cast<uint8_t>(1U << (r.command - 1))), number);
  return !c.out.empty();
}

// The fault that a request (or, with target 0, a new connection) suffers, if any. All faults count
// it.
const fault *server_loop::match(server_node &n, uint8_t target) {
  const fault *chosen = nullptr;
  for (armed_fault &armed : n.faults) {
    const fault &order = armed.order;
    if (target == 0 ? order.kind != fault_kind::drop_accepted
                    : (fault_targets(order) & target) == 0)
      continue;
    const uint32_t number = ++armed.seen;
    if (chosen == nullptr && number >= order.from && number - order.from < order.count)
      chosen = &order;
  }
  return chosen;
}

service server_loop::service_for(const server_node &n, const request &r) {
  const auto entry_of = [](const server_node &other) {
    const int load = other.options.load;
    const uint64_t shown = load >= 0 ? static_cast<uint64_t>(load) : other.totals.open;
    return list_entry{other.address, other.port, other.options.type,
                      static_cast<uint16_t>(std::min<uint64_t>(shown, UINT16_MAX))};
  };
  service s{.self = entry_of(n),
            .file = files.find(r.fid),
            .encipher = options.encipher,
            .check_auth = options.check_auth,
            .auth = auth(),
            .stamp = options.stamp,
            .keyid = options.keyid};
  if (r.command != command_list) return s;
  for (const server_node &other : nodes_)
    if (other.index != entry_server) s.nodes.push_back(entry_of(other));
  if (options.entry_is_node) s.nodes.push_back(entry_of(nodes_.front()));
  return s;
}

std::array<uint8_t, 16> server_loop::auth() const {
  return md5("auth " + std::to_string(options.stamp) + " " + std::to_string(options.keyid));
}

void server_loop::answer(connection &c, const request &r, const fault *order, uint64_t number) {
  server_node &n = *c.node;
  const fault_kind kind = order == nullptr ? fault_kind::none : order->kind;
  request_record *entry = record(number);
  if (entry != nullptr) entry->injected = kind;
  if (kind == fault_kind::mute || kind == fault_kind::down) {
    ++n.injected[static_cast<size_t>(kind)];
    if (kind == fault_kind::down) downs_.emplace_back(&n, order->ms);
    return;
  }
  outgoing o{.what = respond(r, service_for(n, r), order), .delay_ms = n.options.delay_ms};
  o.record = number;
  if (entry != nullptr) entry->result = o.what.result;
  plan(c, std::move(o), order);
  outgoing &head = c.out.front();
  head.not_before = steady::now() + std::chrono::milliseconds(head.delay_ms);
}

// Queues a response with the faults of its stream.
void server_loop::plan(connection &c, outgoing o, const fault *order) {
  if (order == nullptr) return void(c.out.push_back(std::move(o)));
  const fault_kind kind = order->kind;
  o.counts = kind;
  o.counts_at = o.what.pdu.size();
  if (kind == fault_kind::close_at || kind == fault_kind::reset_at ||
      kind == fault_kind::stall_at) {
    o.cut = *order;
    o.cut_at = o.counts_at = order->value;
  } else if (kind == fault_kind::drip) {
    o.drip_until = order->value != 0 ? order->value : UINT64_MAX;
    o.drip_ms = order->ms;
    o.counts_at = 1;
  } else if (kind == fault_kind::twice) {
    outgoing again = o;
    again.delay_ms = 0;
    again.counts_at = again.total();
    o.counts = fault_kind::none;
    c.out.push_back(std::move(o));
    o = std::move(again);
  } else if (kind == fault_kind::unsolicited) {
    // It looks like the answer to the next request, which has not been sent yet.
    outgoing extra{.delay_ms = order->ms, .counts = kind};
    extra.what.pdu =
        encode_response({.command = command_media, .sequence = get32(o.what.pdu.data() + 8) + 1}, 0,
                        media_body(0, 0, 0, 0));
    if (order->value != 0) extra.what.pdu.resize(order->value);
    extra.counts_at = extra.total();
    o.counts = fault_kind::none;
    c.out.push_back(std::move(o));
    o = std::move(extra);
  }
  c.out.push_back(std::move(o));
}

// --- responses ---

void server_loop::pump(uint64_t id) {
  for (int piece = 0; piece < pieces_per_turn; ++piece) {
    connection *c = find(id);
    if (c == nullptr) return;
    if (c->out.empty() && !next_request(*c)) {
      // A request that gets no answer does not hold up the next one.
      if (find(id) == nullptr || c->in.size() < control_request_size) return;
      continue;
    }
    if (step(*c) != step_result::again) return;
  }
  if (connection *c = find(id)) make_runnable(*c);
}

server_loop::step_result server_loop::step(connection &c) {
  outgoing &o = c.out.front();
  if (o.stuck || c.queued) return step_result::waits;
  const steady::time_point now = steady::now();
  if (now < o.not_before) {
    wake(timer_kind::connection, o.not_before, c.id, nullptr);
    return step_result::waits;
  }
  if (o.sent == o.cut_at) return cut(c, o);
  if (o.sent == o.total()) {
    finish(c);
    return step_result::again;
  }
  uint64_t wanted = std::min(o.total(), o.cut_at) - o.sent;
  const bool drips = o.sent < o.drip_until;
  if (drips) wanted = 1;
  token_bucket &bucket = c.node->bucket;
  if (bucket.limited()) {
    if (c.grant == 0) {
      wait_for_tokens(c);
      return step_result::waits;
    }
    wanted = std::min<uint64_t>(wanted, c.grant);
  }
  const ssize_t n = transmit(c, o, static_cast<size_t>(std::min<uint64_t>(wanted, buffer_.size())));
  if (n < 0 && errno == EINTR) return step_result::again;
  if (n < 0 && errno == EAGAIN) {
    want_write(c, true);
    return step_result::waits;
  }
  if (n <= 0) {
    drop(c.id, false);
    return step_result::gone;
  }
  if (bucket.limited()) {
    bucket.take(static_cast<size_t>(n));
    c.grant -= static_cast<size_t>(n);
  }
  account(c, o, static_cast<size_t>(n));
  if (drips && o.drip_ms > 0) o.not_before = now + std::chrono::milliseconds(o.drip_ms);
  return step_result::again;
}

// Sends up to `size` further bytes of the response, header and media bytes in one call.
ssize_t server_loop::transmit(connection &c, const outgoing &o, size_t size) {
  iovec pieces[2];
  size_t count = 0;
  const uint64_t header = o.what.pdu.size();
  if (o.sent < header) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(size, header - o.sent));
    pieces[count++] = {const_cast<uint8_t *>(o.what.pdu.data() + o.sent), n};
    size -= n;
  }
  if (size > 0) {
    const uint64_t position = o.what.position + (o.sent < header ? 0 : o.sent - header);
    const std::span<const uint8_t> there = o.what.file->in_memory(position, size);
    if (!there.empty()) {
      pieces[count++] = {const_cast<uint8_t *>(there.data()), there.size()};
    } else {
      o.what.file->read(position, buffer_.data(), size);
      pieces[count++] = {buffer_.data(), size};
    }
  }
  msghdr message{};
  message.msg_iov = pieces;
  message.msg_iovlen = count;
  return sendmsg(c.fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

void server_loop::account(connection &c, outgoing &o, size_t size) {
  const uint64_t header = o.what.pdu.size();
  const uint64_t before = o.sent > header ? o.sent - header : 0;
  o.sent += size;
  const uint64_t media = (o.sent > header ? o.sent - header : 0) - before;
  c.node->totals.bytes_sent += size;
  c.node->totals.payload_sent += media;
  if (request_record *entry = record(o.record)) {
    entry->bytes_sent += size;
    entry->payload_sent += media;
  }
  committed(*c.node, o);
}

// Counts the response's fault once so many bytes are sent that it has been committed.
void server_loop::committed(server_node &n, outgoing &o) {
  if (o.counts == fault_kind::none || o.sent < o.counts_at) return;
  ++n.injected[static_cast<size_t>(o.counts)];
  o.counts = fault_kind::none;
}

server_loop::step_result server_loop::cut(connection &c, outgoing &o) {
  if (o.cut.kind == fault_kind::reset_at) {
    // A reset throws away bytes that the peer has not received yet, so wait for those first.
    int unsent = 0;
    if (ioctl(c.fd, SIOCOUTQ, &unsent) == 0 && unsent > 0 && o.reset_waits++ < reset_patience) {
      o.not_before = steady::now() + std::chrono::milliseconds(1);
      return step_result::again;
    }
  }
  committed(*c.node, o);
  if (o.cut.kind != fault_kind::stall_at) {
    drop(c.id, o.cut.kind == fault_kind::reset_at);
    return step_result::gone;
  }
  o.cut_at = UINT64_MAX;
  o.stuck = o.cut.ms == 0;
  o.not_before = steady::now() + std::chrono::milliseconds(o.cut.ms);
  return step_result::again;
}

void server_loop::finish(connection &c) {
  outgoing &o = c.out.front();
  committed(*c.node, o);
  if (request_record *entry = record(o.record)) entry->done_s = seconds();
  c.out.pop_front();
  if (c.out.empty()) return;
  outgoing &next = c.out.front();
  next.not_before = steady::now() + std::chrono::milliseconds(next.delay_ms);
}

// --- rates ---

void server_loop::wait_for_tokens(connection &c) {
  c.queued = true;
  c.node->waiting.push_back(c.id);
  wake_rate(*c.node, steady::now());
}

void server_loop::wake_rate(server_node &n, steady::time_point when) {
  if (!std::exchange(n.rate_timer, true)) wake(timer_kind::rate, when, n.rates, &n);
}

// Gives the tokens of a limited server to its busy connections, one slice to each in turn.
void server_loop::serve_rate(server_node &n) {
  while (!n.waiting.empty() && (!n.bucket.limited() || n.bucket.ready(steady::now()))) {
    const uint64_t id = n.waiting.front();
    n.waiting.pop_front();
    connection *c = find(id);
    if (c == nullptr) continue;
    c->queued = false;
    c->grant = n.bucket.slice();
    pump(id);
    if ((c = find(id)) != nullptr) c->grant = 0;
  }
  n.rate_timer = false;
  if (!n.waiting.empty()) wake_rate(n, n.bucket.ready_at());
}

}  // namespace refserver
