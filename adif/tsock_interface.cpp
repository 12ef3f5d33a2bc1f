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

/// Calls act(name) for one name per line before the colon, after two lines of headings, until it
/// says no; how many names there were.
template <class Act>
int names_from_proc(Act act) {
  std::FILE *file = std::fopen("/proc/net/dev", "re");
  if (file == nullptr) return 0;
  char line[512];
  int names = 0;
  while (std::fgets(line, sizeof line, file) != nullptr) {
    char *const colon = std::strchr(line, ':');
    if (colon == nullptr) continue;
    *colon = '\0';
    ++names;
    if (!act(line + std::strspn(line, " \t"))) break;
  }
  std::fclose(file);
  return names;
}

template <class Act>
void names_from_kernel(int fd, Act act) {
  ifreq entries[64];
  ifconf list{};
  list.ifc_len = sizeof entries;
  list.ifc_req = entries;
  if (ioctl(fd, SIOCGIFCONF, &list) != 0) return;
  const size_t count = static_cast<size_t>(list.ifc_len) / sizeof(ifreq);
  for (size_t i = 0; i < count; ++i) {
    char name[sizeof entries[i].ifr_name + 1] = {};
    std::memcpy(name, entries[i].ifr_name, sizeof entries[i].ifr_name);
    if (!act(name)) return;
  }
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
bool describe(int fd, const char *name, sock_interface *entry) {
  *entry = {};
  const size_t length = std::strlen(name);
  if (length == 0 || length >= sizeof entry->name) return false;
  std::memcpy(entry->name, name, length + 1);

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
  int filled = 0;
  const auto add = [&](const char *name) {
    if (filled < capacity && describe(fd, name, &table[filled])) ++filled;
    return filled < capacity;
  };
  if (names_from_proc(add) == 0) names_from_kernel(fd, add);
  close(fd);
  return filled;
}
