// Datagram sockets of this host: creation, options, the drop counter, and sending and receiving through the seam.
//
// The socket that is bound sends; none is ever connected, since a connected one would report a peer's closed port to a
// later, unrelated call. SO_REUSEADDR stays off: here it would let a second socket take over a port and all its traffic
// without a word, and a port in use shall be refused.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

namespace zel::platform {

// The host's socket options by these names.
enum class SocketBuffer { send, receive };

// An IPv4 datagram socket, closed on exec; -1 with errno.
int openDatagramSocket();
bool bindDatagramSocket(int socket, std::uint32_t address, std::uint16_t port);
// Ends every wait on the socket, present and future: reads return at once. A reader blocked in a socket that is only
// closed would keep it, and its port, alive.
void wakeReaders(int socket);
// No cancellation point; errno is kept.
void closeDatagramSocket(int socket);

// The effective size in bytes, which the host may have rounded, doubled or capped; -1 with errno.
int bufferBytes(int socket, SocketBuffer which);
bool setBufferBytes(int socket, SocketBuffer which, int bytes);
bool setBroadcast(int socket, bool isOn);

// Datagrams that the host dropped because the receive buffer was full, since the socket was opened.
std::uint64_t droppedByHost(int socket);
// Whether what waits to be read takes more than half of the receive buffer.
bool isHalfFull(int socket);
// How many datagrams wait to be read.
int countWaitingDatagrams(int socket);

sockaddr_in socketAddress(std::uint32_t address, std::uint16_t port);

// Sends the parts as one datagram: bytes sent, or -1 with errno.
ssize_t sendDatagram(int socket, const iovec *parts, int count, const sockaddr_in &to);
// Sends each of the messages as a datagram of its own, in order; how many went, and errno when not all did. Messages to
// this host go many to a call while they are of one length.
int sendDatagrams(int socket, const iovec *messages, int count, const sockaddr_in &to);
// The next datagram if one waits: its whole length, also when that exceeds `size`; -1 with errno (EAGAIN: none).
ssize_t receiveWaiting(int socket, void *buffer, std::size_t size);
ssize_t peekWaiting(int socket, void *buffer, std::size_t size);

// Blocking reads of the host, without a system call beside the read itself. Only while the host's own seam is in force.
bool canBlockInReceive();
// How long receiveBlocking waits at most, in whole seconds; 0 without limit.
bool setReceiveTimeout(int socket, int seconds);
ssize_t receiveBlocking(int socket, void *buffer, std::size_t size);

}  // namespace zel::platform
