#ifndef VELKA_NET_H
#define VELKA_NET_H

#include <string>

// What the host application may ask about the box's network interfaces. The
// functions keep no state and may be called from any thread. Interface names
// longer than 15 characters are looked up by their first 15.
namespace velka {
namespace net {

// The hardware address as twelve upper-case hexadecimal digits without
// separators ("001A2B3C4D5E"); empty when the interface cannot be asked.
std::string getMac(const std::string& name);

// The IPv4 address in dotted-decimal form; empty when there is none.
std::string getIp(const std::string& name);

// Whether the interface is usable: for names beginning with "eth" the link is
// operational (IFF_RUNNING), for all others the interface is up (IFF_UP).
// False when the interface cannot be asked.
bool netIsReady(const std::string& name);

// The interface the platform currently uses, as its network-configuration
// command "netinfc get DEV_NAME" reports it between double quotes. "eth0" when
// the command's answer has an implausible length; empty when the command
// cannot be run or its answer holds no quoted name.
std::string getCurrentInterface();

}  // namespace net
}  // namespace velka

#endif  // VELKA_NET_H
