#include "ipc/ipc_history.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "base/lock.h"
#include "ipc/endpoint.h"
#include "ipc/ipc_header.h"
#include "platform/seam.h"

namespace zel::ipc {

std::atomic<bool> historyOn{false};

namespace {

struct Record {
    std::int64_t time;
    Direction direction;
    std::uint32_t queueId;
    std::size_t length;
    std::array<std::uint8_t, IpcHeader::size> header;
};

constexpr std::size_t historyLength = 256;

Mutex historyLock{LockRank::module, "&ipc_history_lock"};
std::array<Record, historyLength> records;  // a ring; record n stands at n modulo its length
std::size_t recorded = 0;

bool copyRecord(std::size_t number, Record &copy) {
    Lock lock(historyLock);
    if (number >= recorded) return false;
    copy = records[number % historyLength];
    return true;
}

std::size_t oldestRecord() {
    Lock lock(historyLock);
    return recorded > historyLength ? recorded - historyLength : 0;
}

void printRecord(const Record &record) {
    const void *header = record.header.data();
    zelTracePrintf(
        traceModule, "%s time %lld queue 0x%x len %zu cmd %s seqNo %u type %u trans %u 0x%x:0x%x -> 0x%x:0x%x",
        record.direction == Direction::sent ? "SEND" : "RECV", static_cast<long long>(record.time), record.queueId,
        record.length, zelIpcGetCmdTypeName(IpcHeader::CommandType::get(header)),
        unsigned{IpcHeader::Sequence::get(header)}, IpcHeader::MessageType::get(header),
        IpcHeader::Transaction::get(header), IpcHeader::SourceAddress::get(header), IpcHeader::SourceQueue::get(header),
        IpcHeader::TargetAddress::get(header), IpcHeader::TargetQueue::get(header));
}

}  // namespace

void recordHistory(Direction direction, std::uint32_t queueId, const void *header, std::size_t length) {
    const std::int64_t time = platform::seam().wallClock(platform::seam().context);
    Lock lock(historyLock);
    Record &record = records[recorded++ % historyLength];
    record = {time, direction, queueId, length, {}};
    memcpy(record.header.data(), header, std::min(length, IpcHeader::size));
}

}  // namespace zel::ipc

using namespace zel::ipc;

void zelEnableIpcHistoryLogging() {
    historyOn.store(true, std::memory_order_relaxed);
}

void zelDisableIpcHistoryLogging() {
    historyOn.store(false, std::memory_order_relaxed);
}

void dumpIpcHistoryLogging() {
    // Printing takes its time: the ring goes on meanwhile, and no lock is held.
    Record record;
    for (std::size_t number = oldestRecord(); copyRecord(number, record); ++number) printRecord(record);
}
