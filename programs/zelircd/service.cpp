#include "service.h"

#include <arpa/inet.h>

#include <cstdio>
#include <vector>

#include "programs/support/program.h"

namespace zelircd {
namespace {

constexpr int beatPriority = 100;   // as the body
constexpr int carryPriority = 110;  // behind those who watch the link: it must not seem lost under load
constexpr int receiveSeconds = 1;
constexpr unsigned targetQueueWord = 56;
// Room for what many tasks send at once.
constexpr int receiveBuffer = 8 << 20;

using Buffer = std::vector<std::uint8_t>;

// One byte more than a message may have, so that a longer one shows.
Buffer newBuffer() {
    return Buffer(ZEL_IRC_MAX_MESSAGE + 1);
}

void print(const Options &options, const char *peerName) {
    const in_addr peer{htonl(options.peer)};
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer, text, sizeof text);
    if (peerName)
        printf("zelircd: the link to %s is up, peer %s\n", text, peerName);
    else
        printf("zelircd: the link to %s is down\n", text);
}

int receive(std::uint32_t queue, Buffer &buffer, int seconds) {
    return zelIpcRecv(queue, buffer.data(), static_cast<int>(buffer.size()), seconds, 0, 0);
}

}  // namespace

Service::Service(std::uint32_t key, const Options &options)
    : key_(key),
      options_(options),
      carrier_(key, options, print),
      stop_(semBCreate(ZEL_SEM_FIFO, 0)),
      ended_(semCCreate(ZEL_SEM_FIFO, 0)) {}

Service::~Service() {
    isOver_ = true;
    semGive(stop_);
    wakeCarrying();
    while (tasks_-- > 0) semTake(ended_, WAIT_FOREVER);
    semDelete(ended_);
    semDelete(stop_);
    carrier_.end();
}

bool Service::openQueues() {
    if (zelIpcOpenTmrQueue(key_) == ZEL_ERROR) return false;
    int error = 0;
    if (zelIpcSetRecvBufferLimit(key_ | ZEL_IPC_QUEUE_TIMER, receiveBuffer, &error) != 0)
        fprintf(stderr, "zelircd: the receive buffer stays small (error %d)\n", error);
    return true;
}

bool Service::spawn(const char *name, int priority, zelTaskEntry entry) {
    const bool isSpawned =
        taskSpawn(name, priority, 0, 0, entry, reinterpret_cast<Word>(this), 0, 0, 0, 0, 0, 0, 0, 0, 0) != ZEL_ERROR;
    tasks_ += isSpawned;
    return isSpawned;
}

// Any message does: it looks round after each.
void Service::wakeCarrying() {
    std::uint8_t header[ZEL_IPC_HDR_LEN] = {};
    const auto service = static_cast<int>(zelIpcGetService(key_)), instance = static_cast<int>(zelIpcGetInstance(key_));
    zelIpcSetTargetHeader(header, zel_sysGetIpAddr(), 0, service, instance);
    zelIpcHdrSet32(header, targetQueueWord, zel_getQueueId(service, instance, ZEL_IPC_QUEUE_TIMER));
    zelIpcNonGuaranteedSend(key_, header, sizeof header);
}

int Service::run() {
    if (!openQueues()) {
        perror("zelircd: the queues cannot be opened");
        return 1;
    }
    if (!spawn("tIrcSend", carryPriority, carry) || !spawn("tIrcBeat", beatPriority, beat)) return 1;
    Buffer buffer = newBuffer();
    while (!zel::programs::isStopping()) {
        const int length = receive(key_ | ZEL_IPC_QUEUE_REQUEST, buffer, receiveSeconds);
        if (length > 0 && !zel::programs::isStopping()) carrier_.takeFromPeer(buffer.data(), length);
    }
    return 0;
}

int Service::carry(Word self, Word, Word, Word, Word, Word, Word, Word, Word, Word) {
    auto &service = *reinterpret_cast<Service *>(self);
    Buffer buffer = newBuffer();
    for (;;) {
        const int length = receive(service.key_ | ZEL_IPC_QUEUE_TIMER, buffer, -1);
        if (service.isOver_) return semGive(service.ended_);
        if (length > 0) service.carrier_.takeFromHere(buffer.data(), length);
    }
}

int Service::beat(Word self, Word, Word, Word, Word, Word, Word, Word, Word, Word) {
    auto &service = *reinterpret_cast<Service *>(self);
    do service.carrier_.tick();
    while (semTake(service.stop_, static_cast<int>(service.options_.intervalTicks)) != ZEL_OK);
    return semGive(service.ended_);
}

}  // namespace zelircd
