// The receiving side of guaranteed delivery.
#include <algorithm>
#include <cstring>
#include <new>

#include "ipc/guaranteed.h"
#include "ipc/ipc_header.h"
#include "ipc/ipc_transport.h"
#include "zel/platform.h"

namespace zel::ipc {

Mutex guaranteedLock{LockRank::module, "&ipc_guaranteed_lock"};

namespace {

constexpr std::uint64_t retryTime =
    std::uint64_t{guaranteedAttempts} * guaranteedWaitSec * platform::nanosecondsPerSecond;

}  // namespace

const DuplicateFilter::Source *DuplicateFilter::find(std::uint32_t address, std::uint32_t queueId) const {
    for (const Source &source : sources_)
        if (source.inUse && source.address == address && source.task == taskOf(queueId)) return &source;
    return nullptr;
}

DuplicateFilter::Source &DuplicateFilter::obtain(std::uint32_t address, std::uint32_t queueId) {
    if (const Source *known = find(address, queueId)) return const_cast<Source &>(*known);
    // A free place, else that of the source heard of longest ago.
    const auto older = [](const Source &a, const Source &b) {
        return a.inUse != b.inUse ? !a.inUse : a.notedAt < b.notedAt;
    };
    return *std::min_element(sources_.begin(), sources_.end(), older);
}

bool DuplicateFilter::isDuplicate(std::uint32_t address, std::uint32_t queueId, std::uint8_t command,
                                  std::uint16_t sequence, std::uint64_t now) {
    const Source *last = find(address, queueId);
    const bool isRepeated = last && last->sequence == sequence;
    if (isRepeated && (command == ZEL_IPC_GSEND || now - last->notedAt < retryTime)) return true;
    obtain(address, queueId) = {true, sequence, address, taskOf(queueId), now};
    return false;
}

bool DuplicateFilter::wasNoted(std::uint32_t address, std::uint32_t queueId, std::uint16_t sequence) const {
    const Source *last = find(address, queueId);
    return last && last->sequence == sequence;
}

bool openFilter(Endpoint &endpoint) {
    closeFilter(endpoint);
    void *memory = zelMC_malloc("zelIpcLib", __LINE__, sizeof(DuplicateFilter));
    if (!memory) return false;
    Lock lock(guaranteedLock);
    endpoint.filter = new (memory) DuplicateFilter;
    return true;
}

void closeFilter(Endpoint &endpoint) {
    DuplicateFilter *filter = nullptr;
    {
        Lock lock(guaranteedLock);
        std::swap(filter, endpoint.filter);
    }
    if (filter) zelMC_free("zelIpcLib", __LINE__, filter);
}

bool noteGuaranteed(Endpoint &endpoint, const void *message) {
    const std::uint64_t now = platform::now();
    Lock lock(guaranteedLock);
    return endpoint.filter &&
           endpoint.filter->isDuplicate(IpcHeader::SourceAddress::get(message), IpcHeader::SourceQueue::get(message),
                                        IpcHeader::CommandType::get(message), IpcHeader::Sequence::get(message), now);
}

bool wasNoted(Endpoint &endpoint, const void *message) {
    Lock lock(guaranteedLock);
    return endpoint.filter &&
           endpoint.filter->wasNoted(IpcHeader::SourceAddress::get(message), IpcHeader::SourceQueue::get(message),
                                     IpcHeader::Sequence::get(message));
}

void acknowledgeGuaranteed(Queue &queue, const void *message) {
    const bool isFirst = IpcHeader::CommandType::get(message) == ZEL_IPC_GSEND_FIRST;
    sendAnswer(queue, message, isFirst ? ZEL_IPC_GACK_FIRST : ZEL_IPC_GACK, true);
}

void swapEnds(void *header) {
    const std::uint32_t slot = IpcHeader::SourceSlot::get(header);
    const std::uint32_t address = IpcHeader::SourceAddress::get(header);
    const std::uint32_t queueId = IpcHeader::SourceQueue::get(header);
    IpcHeader::SourceSlot::set(header, IpcHeader::TargetSlot::get(header));
    IpcHeader::SourceAddress::set(header, IpcHeader::TargetAddress::get(header));
    IpcHeader::SourceQueue::set(header, IpcHeader::TargetQueue::get(header));
    IpcHeader::TargetSlot::set(header, slot);
    IpcHeader::TargetAddress::set(header, address);
    IpcHeader::TargetQueue::set(header, queueId);
}

bool sendAnswer(Queue &queue, const void *message, std::uint8_t command, bool repeatSequence) {
    std::uint8_t header[IpcHeader::size];
    memcpy(header, message, sizeof header);
    swapEnds(header);
    IpcHeader::Magic::set(header, IpcHeader::magic);
    IpcHeader::CommandType::set(header, command);
    IpcHeader::AckFlag::set(header, 0);
    if (!repeatSequence) IpcHeader::Sequence::set(header, 0);
    IpcHeader::Length::set(header, 0);
    IpcHeader::Owner16::set(header, 0);
    IpcHeader::Status::set(header, 0);
    IpcHeader::PacketType::set(header, 0);
    IpcHeader::Owner28::set(header, 0);
    return sendMessage(queue, header, sizeof header, IpcHeader::TargetAddress::get(header),
                       IpcHeader::TargetPort::get(header));
}

}  // namespace zel::ipc
