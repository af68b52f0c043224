// Batches of multicast routes.
//
// A batch is a message under construction whose count of routes is its fill level. Records have one size per family and
// are copied as they are, so a batch is neither checked nor measured record by record. The lists of a route are
// compressed in the caller's record before it is copied: a caller that sends the same record again has nothing left to
// compress.
//
// Only the plain failure of a queue is told to the caller; a batch that a full queue did not take is lost without a
// word. Callers rely on that: they look at the queue, not at the result.
#include <cstring>

#include "base/assertion.h"
#include "ifm/list_bytes.h"
#include "ipc/swp_queue.h"
#include "rtm/mrtm_message.h"
#include "zel/kernel.h"

namespace zel::mrtm {
namespace {

using ipc::SwpHeader;

// The head of a batch. Addresses, queues, length and tick of what leaves are the queue's to write, which looked them up
// when it was created; a batch that looked them up again would be slower by more than the copy of a record.
void writeHeader(std::uint8_t *batch, std::uint32_t type) {
    std::memset(batch, 0, IpcHeader::size);
    std::memset(batch + SwpHeader::offsetInMessage, 0, SwpHeader::size);
    std::memset(batch + SwpHeader::endInMessage, 0, BatchMessage::head - SwpHeader::endInMessage);
    IpcHeader::Magic::set(batch, IpcHeader::magic);
    IpcHeader::MessageType::set(batch, type);
    IpcHeader::PacketType::set(batch, rtm::requestMark);
}

std::uint8_t *makeBatch(std::uint32_t queue, std::uint32_t handle, int family, const zelIpcAddr *ipc) {
    if (!asserted(ipc, "ipc", sourceName)) return nullptr;
    auto *batch = static_cast<std::uint8_t *>(rtm::allocateFor(queue, BatchMessage::capacity, sourceName));
    if (!batch) return nullptr;
    writeHeader(batch, updateType(family));
    BatchMessage::Handle::set(batch, handle);
    BatchMessage::FamilyIndex::set(batch, static_cast<std::uint8_t>(family));
    return batch;
}

bool mayAppend(int family, const std::uint8_t *batch) {
    if (!asserted(isFamily(family), "family == ZEL_MRTM_IPV4 || family == ZEL_MRTM_IPV6", sourceName)) return false;
    if (!batch) return true;
    return asserted(BatchMessage::FamilyIndex::get(batch) == family, "family of the batch", sourceName) &&
           asserted(BatchMessage::Routes::get(batch) < BatchMessage::mostRoutes, "update->n_routes < MRTM_MAX_REQS",
                    sourceName);
}

void compressLists(std::uint8_t *tail, std::uint32_t operation) {
    const std::uint32_t kind = RecordTail::ListKind::get(tail);
    std::uint8_t *lists = tail + RecordTail::lists;
    // Most come compressed from an earlier call.
    if (kind == ZEL_MRTM_LISTS_OF_ALL) {
        if (!ifm::isCompressed(lists)) ifmCompressIFList(lists);
        if (!ifm::isCompressed(lists + IFM_IFLIST_BYTES)) ifmCompressIFList(lists + IFM_IFLIST_BYTES);
    } else if (kind == ZEL_MRTM_LIST_OF_PORTS) {
        ifmCompressPhyLagIFList(lists);
    } else {
        asserted(operation == ZEL_MRTM_DELETE, "route->rtp.listKind <= ZEL_MRTM_LIST_OF_PORTS", sourceName);
    }
}

bool isZero(const std::uint8_t *bytes, std::size_t count) {
    static constexpr std::uint8_t zero[16] = {};
    return std::memcmp(bytes, zero, count) == 0;
}

void checkFlags(const std::uint8_t *record, int family) {
    const std::uint8_t *tail = record + tailOffset(family);
    const std::uint32_t flags = RecordTail::Flags::get(tail);
    if (RecordTail::State::get(tail) != ZEL_MRTM_STATE_ACTIVE || (flags & ZEL_MRTM_FLAG_STATIC) != 0) return;
    const bool hasSource = !isZero(record + addressSize(family), addressSize(family));
    asserted(!hasSource || (flags & (ZEL_MRTM_FLAG_PIM_LOCAL | ZEL_MRTM_FLAG_PIM_REMOTE)) != 0,
             "MRTM_IS_SET_BIT_PIM_L(route->rtp.flags)", sourceName);
}

void append(std::uint8_t *batch, std::uint32_t operation, std::uint8_t *record, int family) {
    const std::uint32_t routes = BatchMessage::Routes::get(batch);
    std::uint8_t *at = batch + BatchMessage::records + routes * (operationSize + recordSize(family));
    OperationWord::set(at, operation);
    compressLists(record + tailOffset(family), operation);
    mrtm_fast_copy(at + operationSize, record, recordSize(family));
    BatchMessage::Routes::set(batch, routes + 1);
    checkFlags(record, family);
}

// The length of a batch with its count of routes, behind the last of which it makes what is left zero.
std::size_t finish(std::uint8_t *batch) {
    const std::size_t length = batchSize(BatchMessage::FamilyIndex::get(batch), BatchMessage::Routes::get(batch));
    constexpr std::size_t left = BatchMessage::head - BatchMessage::records;
    std::memset(batch + length - left, 0, left);
    return length;
}

int send(std::uint32_t queue, std::uint8_t *batch) {
    const std::size_t length = finish(batch);
    IpcHeader::Length::set(batch, static_cast<std::uint32_t>(length));
    const int result = zelSwpEnqueue(queue, batch, static_cast<int>(length));
    if (result == ZEL_SWP_SUCCESS) return 0;
    rtm::release(queue, batch, sourceName);
    return result == ZEL_SWP_FAILURE ? 1 : 0;
}

// ---- Routes that are taken back before they leave -------------------------------------------------------------------

struct VrfFlush {
    std::uint32_t vrf;
    unsigned noBatches;
    unsigned emptyBatches;
};

// Takes the routes of a VRF out of a batch; its length then, 0 when none is left.
std::size_t removeRoutes(std::uint8_t *batch, std::uint32_t vrf) {
    const int family = BatchMessage::FamilyIndex::get(batch);
    const std::size_t step = operationSize + recordSize(family);
    const std::uint32_t routes = BatchMessage::Routes::get(batch);
    std::uint32_t kept = 0;
    for (std::uint32_t i = 0; i < routes; ++i) {
        const std::uint8_t *at = batch + BatchMessage::records + i * step;
        if (RecordTail::Vrf::get(at + operationSize + tailOffset(family)) == vrf) continue;
        std::memmove(batch + BatchMessage::records + kept++ * step, at, step);
    }
    BatchMessage::Routes::set(batch, kept);
    return kept == 0 ? 0 : finish(batch);
}

std::uint32_t trimBatch(void *message, std::uint32_t length, void *context) {
    auto *flush = static_cast<VrfFlush *>(context);
    if (!isBatch(message, length)) {
        ++flush->noBatches;
        return length;
    }
    if (BatchMessage::Routes::get(message) == 0) {
        ++flush->emptyBatches;
        return length;
    }
    return static_cast<std::uint32_t>(removeRoutes(static_cast<std::uint8_t *>(message), flush->vrf));
}

}  // namespace

bool isBatch(const void *message, std::size_t length) {
    if (length < BatchMessage::head) return false;
    const int family = BatchMessage::FamilyIndex::get(message);
    const std::uint32_t routes = BatchMessage::Routes::get(message);
    return isFamily(family) && IpcHeader::MessageType::get(message) == updateType(family) &&
           routes <= BatchMessage::mostRoutes && length == batchSize(family, routes);
}

}  // namespace zel::mrtm

using namespace zel::mrtm;

int zelMrtmUpdateRouteIPv4(int family, uint32_t handle, uint32_t operation, void *record, void **pending,
                           const zelIpcAddr *ipc, uint32_t queue) {
    if (!isOperation(operation)) return 1;
    auto *batch = pending ? static_cast<uint8_t *>(*pending) : nullptr;
    if (record) {
        if (!mayAppend(family, batch)) return 1;
        if (!batch) batch = makeBatch(queue, handle, family, ipc);
        if (!batch) return 1;
        append(batch, operation, static_cast<uint8_t *>(record), family);
        if (pending && BatchMessage::Routes::get(batch) < BatchMessage::mostRoutes) {
            *pending = batch;
            return 0;
        }
    }
    if (!batch) return 0;
    if (pending) *pending = nullptr;
    return send(queue, batch);
}

void zelMrtmDropPending(void **pending, uint32_t queue) {
    if (!pending || !*pending) return;
    zel::rtm::release(queue, *pending, sourceName);
    *pending = nullptr;
}

int zelMrtmUpdateRouteSwpAck(uint32_t queue) {
    return zel::rtm::releaseAcknowledged(queue, sourceName);
}

int zelMrtmSwpQueueFlushVrf(uint32_t queue, uint32_t vrfId) {
    VrfFlush flush{vrfId, 0, 0};
    const int result = zel::ipc::swp::trimUnsent(queue, trimBatch, &flush);
    for (; flush.noBatches > 0; --flush.noBatches)
        zelTracePrintf(traceModule, "\r%s: Not a route update msg skip flushing\r\n", __func__);
    for (; flush.emptyBatches > 0; --flush.emptyBatches)
        zelTracePrintf(traceModule, "\r%s: Mesg has no route upds\r\n", __func__);
    return result == ZEL_SWP_SUCCESS ? 0 : 1;
}
