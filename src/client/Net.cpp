#include "velka/Net.h"
#include "LogLine.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace velka {
namespace net {

namespace {

// Issues the interface ioctl `request` for `name` on a throw-away datagram
// socket and leaves the answer in `record`. A socket that cannot be opened is
// not checked for: the ioctl on it fails, which is the answer then.
bool queryInterface(const std::string& name, unsigned long request, struct ifreq* record) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    memset(record, 0, sizeof *record);
    // At most 15 characters: the name field keeps its terminating zero.
    const size_t length = name.size() < IFNAMSIZ - 1 ? name.size() : IFNAMSIZ - 1;
    memcpy(record->ifr_name, name.data(), length);
    const int ret = ioctl(fd, request, record);
    if (fd >= 0) close(fd);
    return ret == 0;
}

// The platform's network-configuration command; it prints the interface name
// between double quotes.
const char kDeviceNameCommand[] = "netinfc get DEV_NAME";

// The command's answer is read into a buffer of this size. An answer shorter
// than 3 bytes cannot hold a quoted name; one that fills the buffer is not the
// short line expected.
constexpr size_t kDeviceAnswerSize = 128;
constexpr size_t kDeviceAnswerMin = 3;

}  // namespace

std::string getMac(const std::string& name) {
    char mac[32];
    memset(mac, 0, sizeof mac);
    struct ifreq request;
    if (queryInterface(name, SIOCGIFHWADDR, &request)) {
        const unsigned char* address =
            reinterpret_cast<const unsigned char*>(request.ifr_hwaddr.sa_data);
        snprintf(mac, sizeof mac - 1, "%02X%02X%02X%02X%02X%02X", address[0], address[1],
                 address[2], address[3], address[4], address[5]);
    }
    logPrint("mac %s\n", mac);
    return mac;
}

std::string getIp(const std::string& name) {
    std::string ip;
    struct ifreq request;
    if (queryInterface(name, SIOCGIFADDR, &request)) {
        struct sockaddr_in address;
        memcpy(&address, &request.ifr_addr, sizeof address);
        // inet_ntoa answers in a buffer of the calling thread.
        const char* text = inet_ntoa(address.sin_addr);
        if (text != nullptr) ip = text;
    }
    logPrint("ip %s\n", ip.c_str());
    return ip;
}

bool netIsReady(const std::string& name) {
    struct ifreq request;
    if (!queryInterface(name, SIOCGIFFLAGS, &request)) return false;
    const uint16_t flags = static_cast<uint16_t>(request.ifr_flags);
    // Wired interfaces count only with an operational link; for the others
    // being administratively up is enough.
    if (name.find("eth") == 0) return (flags & IFF_RUNNING) != 0;
    return (flags & IFF_UP) != 0;
}

std::string getCurrentInterface() {
    FILE* command = popen(kDeviceNameCommand, "r");
    if (command == nullptr) {
        logPuts("cant get device ");
        return std::string();
    }
    char answer[kDeviceAnswerSize];
    memset(answer, 0, sizeof answer);
    const size_t count = fread(answer, 1, sizeof answer, command);
    pclose(command);

    if (count < kDeviceAnswerMin || count > kDeviceAnswerSize - 1) {
        logPrint("get device error %d\n", static_cast<int>(count));
        return "eth0";
    }

    // The name lies between the first two double quotes. The search stays
    // within the `count` bytes the command wrote (which may include zero
    // bytes). An answer without such a pair names no interface: the result is
    // then empty, as when the command cannot be run, and the caller sees that
    // the current interface is unknown rather than a guess.
    std::string name;
    const char* end = answer + count;
    const char* open = static_cast<const char*>(memchr(answer, '"', count));
    if (open != nullptr) {
        const char* close = static_cast<const char*>(memchr(open + 1, '"', end - (open + 1)));
        if (close != nullptr) name.assign(open + 1, close);
    }
    logPrint("device name is %s\n", name.c_str());
    return name;
}

}  // namespace net
}  // namespace velka
