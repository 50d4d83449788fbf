// Host stand-in for the platform's libnetutils interface queries, with the same contract, for
// builds on systems that do not ship <netutils/ifc.h>. Devices link the platform's library.
//
// The calls share one process-wide control socket: ifc_init() opens it (once; a second call
// keeps the first socket) and ifc_close() closes it. Neither is thread-safe, and one user's
// ifc_close() ends the context for every other user in the process.
#pragma once

#include <netinet/in.h>

#ifdef __cplusplus
extern "C" {
#endif

// Opens the control socket unless it is open already: 0, or -1 with errno set.
int ifc_init(void);
// Closes the control socket, if open.
void ifc_close(void);
// The IPv4 address (network byte order), prefix length and interface flags of the interface
// called `name`; any output may be null. 0, or -1 with errno set when there is no context or the
// interface is unknown or has no IPv4 address; the outputs are then left as they were.
int ifc_get_info(const char* name, in_addr_t* addr, int* prefixLength, unsigned* flags);
// The IPv4 netmask of a prefix length, in network byte order (0 -> 0.0.0.0, 32 and more ->
// 255.255.255.255).
in_addr_t prefixLengthToIpv4Netmask(int prefix_length);

#ifdef __cplusplus
}
#endif
