// lab-line: a bad line. Carries the frames of two network interfaces to each other, each after a delay, and loses some.
// A program because not every kernel has a queueing discipline that delays and loses.

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <random>
#include <vector>

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace
{
constexpr milliseconds idleWait(1000);
constexpr size_t longestFrame = 65536 + 64;
constexpr size_t etherTypeOffset = 10 + 12; // behind the kernel's virtio_net_hdr and the two hardware addresses

struct Frame {
    Clock::time_point due;
    int socket; // where it goes
    std::vector<unsigned char> bytes;
};

/// A socket that takes the interface's incoming frames and puts others on it; -1 where that fails.
int attach(const char *interface)
{
    const int socket = ::socket(AF_PACKET, SOCK_RAW, 0);
    const int on = 1;
    const int burst = 4 * 1024 * 1024; // bytes; the system grants less
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    // The header tells of checksums left to the hardware; without it such frames would arrive as damaged ones.
    const bool isAttached = address.sll_ifindex != 0 &&
                            setsockopt(socket, SOL_PACKET, PACKET_VNET_HDR, &on, sizeof on) == 0 &&
                            setsockopt(socket, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) == 0 &&
                            setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &burst, sizeof burst) == 0 &&
                            bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    if (!isAttached)
        std::perror(interface);
    return isAttached ? socket : -1;
}

/// Address resolution is spared: it asks once a second only, and would make the line worse than it is meant to be.
bool isArp(const std::vector<unsigned char> &frame)
{
    return frame.size() > etherTypeOffset + 1 &&
           (frame[etherTypeOffset] << 8 | frame[etherTypeOffset + 1]) == ETHERTYPE_ARP;
}
} // namespace

int main(int argc, char **argv)
{
    if (argc != 5) {
        std::fprintf(stderr, "lab-line: use lab-line INTERFACE INTERFACE DELAY_MS LOSS_PERCENT\n");
        return 1;
    }
    const std::array<int, 2> sockets = {attach(argv[1]), attach(argv[2])};
    const milliseconds delay(std::atoi(argv[3]));
    std::bernoulli_distribution isLost(std::atoi(argv[4]) / 100.0);
    std::mt19937 random{std::random_device{}()};
    std::deque<Frame> underWay; // the oldest first
    if (sockets[0] < 0 || sockets[1] < 0)
        return 1;
    std::vector<unsigned char> buffer(longestFrame);
    for (;;) {
        const auto wait =
            underWay.empty() ? idleWait : std::chrono::ceil<milliseconds>(underWay.front().due - Clock::now());
        std::array<pollfd, 2> ends = {{{sockets[0], POLLIN, 0}, {sockets[1], POLLIN, 0}}};
        poll(ends.data(), ends.size(), static_cast<int>(std::max(wait, milliseconds(0)).count()));
        for (size_t end = 0; end < ends.size(); end++) {
            ssize_t length = 0;
            while ((length = recv(sockets.at(end), buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0) {
                const std::vector<unsigned char> frame(buffer.cbegin(), buffer.cbegin() + length);
                if (isArp(frame) || !isLost(random))
                    underWay.push_back({Clock::now() + delay, sockets.at(1 - end), frame});
            }
        }
        for (; !underWay.empty() && underWay.front().due <= Clock::now(); underWay.pop_front())
            send(underWay.front().socket, underWay.front().bytes.data(), underWay.front().bytes.size(), 0);
    }
}
