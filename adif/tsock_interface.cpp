// Discovery of this host's network interfaces (get_selfaddr of tsock.h), for the library
// management, which takes the hardware id and the local address from them.
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "adif/tsock.h"

namespace {

constexpr unsigned long WIRELESS_NAME =
    0x8b01;                               // SIOCGIWNAME; <linux/wireless.h> clashes with net/if.h
constexpr int ARP_IEEE80211_FIRST = 801;  // 802.11, with prism and with radiotap headers
constexpr int ARP_IEEE80211_LAST = 803;

/// A request about interface `name`, sent to the kernel through `fd`.
struct interface_query {
  int fd;
  ifreq request{};

  interface_query(int socket, const char *name) : fd(socket) {
    std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", name);
  }
  bool ask(unsigned long what) { return ioctl(fd, what, &request) == 0; }
};

/// One name per line before the colon, after two lines of headings.
std::vector<std::string> names_from_proc() {
  std::vector<std::string> names;
  std::FILE *file = std::fopen("/proc/net/dev", "re");
  if (file == nullptr) return names;
  char line[512];
  while (std::fgets(line, sizeof line, file) != nullptr) {
    const char *colon = std::strchr(line, ':');
    if (colon == nullptr) continue;
    const char *begin = line + std::strspn(line, " \t");
    names.emplace_back(begin, colon);
  }
  std::fclose(file);
  return names;
}

std::vector<std::string> names_from_kernel(int fd) {
  std::vector<ifreq> entries(64);
  ifconf list{};
  list.ifc_len = static_cast<int>(entries.size() * sizeof(ifreq));
  list.ifc_req = entries.data();
  if (ioctl(fd, SIOCGIFCONF, &list) != 0) return {};
  entries.resize(static_cast<size_t>(list.ifc_len) / sizeof(ifreq));
  std::vector<std::string> names;
  for (const ifreq &entry : entries)
    names.emplace_back(entry.ifr_name, strnlen(entry.ifr_name, sizeof entry.ifr_name));
  return names;
}

int link_of(int hardware_type, bool wireless) {
  if (wireless || hardware_type == ARPHRD_ETHER) return SOCK_LINK_ETHERNET;
  if (hardware_type >= ARP_IEEE80211_FIRST && hardware_type <= ARP_IEEE80211_LAST)
    return SOCK_LINK_ETHERNET;
  switch (hardware_type) {
    case ARPHRD_PPP:
      return SOCK_LINK_PPP;
    case ARPHRD_TUNNEL:
    case ARPHRD_TUNNEL6:
    case ARPHRD_SIT:
    case ARPHRD_IPGRE:
    case ARPHRD_NONE:  // tun devices
      return SOCK_LINK_TUNNEL;
    default:
      return SOCK_LINK_OTHER;
  }
}

/// Fills one entry; false for the loopback and for an interface without an IPv4 address.
bool describe(int fd, const std::string &name, sock_interface *entry) {
  *entry = {};
  if (name.empty() || name.size() >= sizeof entry->name) return false;
  std::memcpy(entry->name, name.c_str(), name.size() + 1);

  interface_query address(fd, entry->name);
  if (!address.ask(SIOCGIFADDR)) return false;
  sockaddr_in inet{};
  std::memcpy(&inet, &address.request.ifr_addr, sizeof inet);
  entry->address = inet.sin_addr.s_addr;

  interface_query mtu(fd, entry->name);
  if (mtu.ask(SIOCGIFMTU)) entry->mtu = mtu.request.ifr_mtu;

  interface_query hardware(fd, entry->name);
  if (!hardware.ask(SIOCGIFHWADDR)) return true;
  const int type = hardware.request.ifr_hwaddr.sa_family;
  if (type == ARPHRD_LOOPBACK) return false;
  std::memcpy(entry->hwaddr, hardware.request.ifr_hwaddr.sa_data, sizeof entry->hwaddr);
  interface_query wireless(fd, entry->name);
  entry->link = link_of(type, wireless.ask(WIRELESS_NAME));
  return true;
}

}  // namespace

int get_selfaddr(sock_interface *table, int capacity) {
  if (table == nullptr) return 0;
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  std::vector<std::string> names = names_from_proc();
  if (names.empty()) names = names_from_kernel(fd);
  int filled = 0;
  for (const std::string &name : names) {
    if (filled >= capacity) break;
    if (describe(fd, name, &table[filled])) ++filled;
  }
  close(fd);
  return filled;
}
