// The functions of the media server: each call becomes a job of its thread.
#include "testing/media_server.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>

#include "testing/mp4_index.h"
#include "testing/server_loop.h"

namespace refserver {

media_server::media_server(server_options options)
    : loop_(std::make_unique<server_loop>(std::move(options))) {}

media_server::~media_server() = default;

bool media_server::add_file(const std::string &path, file_id *id) {
  const media_file *file = nullptr;
  loop_->run([&] { file = loop_->files.add_disk(path); });
  if (file != nullptr && id != nullptr) *id = file->id;
  return file != nullptr;
}

file_id media_server::add_generated(const std::string &name, uint64_t size, uint8_t type) {
  loop_->run([&] { loop_->files.add(name, size, type)->from = media_file::source::generated; });
  return id_of(name);
}

file_id media_server::add_bytes(const std::string &name, std::string content, uint8_t type) {
  loop_->run([&] {
    media_file *file = loop_->files.add(name, content.size(), type);
    file->from = media_file::source::memory;
    file->memory = std::move(content);
  });
  return id_of(name);
}

file_id media_server::add_repeated(const std::string &name, std::string block, uint64_t size,
                                   uint8_t type) {
  loop_->run([&] {
    media_file *file = loop_->files.add(name, size, type);
    file->from = media_file::source::memory;
    file->memory = std::move(block);
  });
  return id_of(name);
}

void media_server::set_index(const file_id &media, const file_id &index) {
  loop_->run([&] {
    if (media_file *file = loop_->files.find(media)) file->index = loop_->files.find(index);
  });
}

file_id media_server::add_index(const file_id &media, std::string *problem) {
  const media_file *file = nullptr;
  loop_->run([&] { file = loop_->files.find(media); });
  mp4_moov moov{.problem = "no such file"};
  std::string content;
  if (file != nullptr) {  // a file never moves, so it can be read outside the loop
    moov = find_moov(file->size, [file](uint64_t position, uint8_t *out, size_t size) {
      file->read(position, out, size);
    });
    content.resize(static_cast<size_t>(moov.size));
    file->read(moov.offset, reinterpret_cast<uint8_t *>(content.data()), content.size());
  }
  if (moov.size != 0) content = pack_index(content);
  if (moov.size != 0 && content.empty()) moov.problem = "not enough memory";
  if (problem != nullptr) *problem = moov.problem;
  if (!moov.problem.empty()) return {};
  const file_id id = add_bytes(file->name + ".moov-" + hex(media), std::move(content), 0);
  set_index(media, id);
  return id;
}

bool media_server::start() {
  return loop_->start();
}

void media_server::stop() {
  loop_->stop();
}

std::string media_server::error() const {
  std::string text;
  loop_->run([&] { text = loop_->error; });
  return text;
}

// Replaces characters that could end the path of a URL: the client does not decode escapes, and a
// URL has limited room.
static std::string url_name(std::string name) {
  std::replace_if(
      name.begin(), name.end(),
      [](unsigned char c) { return std::isalnum(c) == 0 && c != '.' && c != '-' && c != '_'; },
      '_');
  return name.size() > 200 ? name.substr(name.size() - 200) : name;
}

std::string media_server::url(const file_id &id) const {
  const std::string host = address(entry_server);
  std::string text;
  loop_->run([&] {
    const media_file *file = loop_->files.find(id);
    const server_options &options = loop_->options;
    text = "kesp://" + host + ":" + std::to_string(loop_->node(entry_server).port) + "/" +
           url_name(file == nullptr ? "unknown" : file->name) + "?fid=" + hex(id) +
           ";auth=" + hex(loop_->auth()) +
           ";stamp=" + std::to_string(static_cast<uint32_t>(options.stamp)) +
           ";keyid=" + std::to_string(options.keyid);
  });
  return text;
}

std::string media_server::address(int node) const {
  in_addr address{};
  loop_->run([&] { address.s_addr = htonl(loop_->node(node).address); });
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

uint16_t media_server::port(int node) const {
  uint16_t port = 0;
  loop_->run([&] { port = loop_->node(node).port; });
  return port;
}

void media_server::kill_node(int node, bool reset) {
  loop_->run([&] { loop_->kill(loop_->node(node), reset); });
}

void media_server::revive_node(int node) {
  loop_->run([&] { loop_->revive(loop_->node(node)); });
}

void media_server::kill_all(bool reset) {
  loop_->run([&] {
    for (server_node &n : loop_->nodes()) loop_->kill(n, reset);
  });
}

void media_server::revive_all() {
  loop_->run([&] {
    for (server_node &n : loop_->nodes()) loop_->revive(n);
  });
}

void media_server::set_rate(int node, double bytes_per_s) {
  loop_->run([&] { loop_->set_rate(loop_->node(node), bytes_per_s); });
}

void media_server::set_delay(int node, int ms) {
  loop_->run([&] { loop_->node(node).options.delay_ms = ms; });
}

void media_server::set_fault(int node, const fault &order) {
  loop_->run([&] {
    loop_->clear_faults(loop_->node(node));
    loop_->add_fault(loop_->node(node), order);
  });
}

void media_server::add_fault(int node, const fault &order) {
  loop_->run([&] { loop_->add_fault(loop_->node(node), order); });
}

void media_server::clear_faults(int node) {
  loop_->run([&] { loop_->clear_faults(loop_->node(node)); });
}

uint64_t media_server::injected(int node, fault_kind kind) const {
  uint64_t count = 0;
  loop_->run([&] { count = loop_->node(node).injected[static_cast<size_t>(kind)]; });
  return count;
}

node_totals media_server::totals(int node) const {
  node_totals totals;
  loop_->run([&] { totals = loop_->node(node).totals; });
  return totals;
}

node_totals media_server::totals() const {
  node_totals sum;
  loop_->run([&] {
    for (const server_node &n : loop_->nodes()) {
      sum.accepted += n.totals.accepted;
      sum.open += n.totals.open;
      sum.requests += n.totals.requests;
      sum.bad_requests += n.totals.bad_requests;
      sum.thrown_away += n.totals.thrown_away;
      sum.lists += n.totals.lists;
      sum.descriptions += n.totals.descriptions;
      sum.media += n.totals.media;
      sum.bytes_sent += n.totals.bytes_sent;
      sum.payload_sent += n.totals.payload_sent;
    }
  });
  return sum;
}

std::vector<request_record> media_server::log(int node) const {
  std::vector<request_record> records;
  loop_->run([&] {
    std::copy_if(loop_->log.begin(), loop_->log.end(), std::back_inserter(records),
                 [node](const request_record &entry) { return entry.node == node; });
  });
  return records;
}

std::vector<request_record> media_server::log() const {
  std::vector<request_record> records;
  loop_->run([&] { records.assign(loop_->log.begin(), loop_->log.end()); });
  return records;
}

void media_server::clear_log() {
  loop_->run([&] { loop_->clear_log(); });
}

}  // namespace refserver
