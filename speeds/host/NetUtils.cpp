// Interface queries over one process-wide AF_INET control socket, as the platform's libnetutils
// does them.
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdint.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <netutils/ifc.h>

namespace {

int controlSocket = -1;

ifreq requestFor(const char* name) {
    ifreq request{};
    strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    return request;
}

in_addr_t ipv4Of(const ifreq& request) {
    sockaddr_in address;
    memcpy(&address, &request.ifr_addr, sizeof(address));
    return address.sin_addr.s_addr;
}

}  // namespace

extern "C" int ifc_init(void) {
    if (controlSocket < 0) controlSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    return controlSocket < 0 ? -1 : 0;
}

extern "C" void ifc_close(void) {
    if (controlSocket < 0) return;
    close(controlSocket);
    controlSocket = -1;
}

// Without a context the ioctls fail on the closed descriptor (EBADF); an interface without an
// IPv4 address fails SIOCGIFADDR with EADDRNOTAVAIL.
extern "C" int ifc_get_info(const char* name, in_addr_t* addr, int* prefixLength, unsigned* flags) {
    ifreq request = requestFor(name);
    if (ioctl(controlSocket, SIOCGIFADDR, &request) < 0) return -1;
    const in_addr_t address = ipv4Of(request);

    request = requestFor(name);
    if (ioctl(controlSocket, SIOCGIFNETMASK, &request) < 0) return -1;
    // Netmasks are contiguous, so the prefix length is the number of bits set.
    const int length = __builtin_popcount(ipv4Of(request));

    request = requestFor(name);
    if (flags != nullptr && ioctl(controlSocket, SIOCGIFFLAGS, &request) < 0) return -1;

    if (addr != nullptr) *addr = address;
    if (prefixLength != nullptr) *prefixLength = length;
    if (flags != nullptr) *flags = static_cast<uint16_t>(request.ifr_flags);
    return 0;
}

extern "C" in_addr_t prefixLengthToIpv4Netmask(int prefix_length) {
    if (prefix_length <= 0) return 0;
    if (prefix_length >= 32) return htonl(UINT32_MAX);
    return htonl(UINT32_MAX << (32 - prefix_length));
}
