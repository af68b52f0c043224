// Registrations, flushes, clears, redistribution rules and table dumps.
#include <cstdio>

#include "manager.h"

namespace zelrtmd {
namespace {

constexpr int registrationLength = 168;
constexpr unsigned commandByte = 4;

bool isDeregistration(std::uint32_t type) {
    return type == ZEL_RTM_MSG_DEREGISTER || type == ZEL_RTM_MSG_DEREGISTER_V4V6;
}

}  // namespace

void Manager::registerClient(std::uint8_t *message, int length) {
    zelRtmRegistration registration;
    if (zelRtmParseRegistration(message, length, &registration) != 0) {
        ++counts_[ZEL_RTM_COUNT_MALFORMED];
        return;
    }
    std::uint32_t handle = 0;
    const Status status = clients_.enter(registration, handle);
    if (status != Status::ok) return refuse(message, registrationLength, status);
    zelRtmAnswerRegistration(message, handle, static_cast<std::uint32_t>(Status::ok));
    if (message[commandByte] != ZEL_IPC_REQ) {
        // Nobody waits on the response queue: the answer goes where messages of the manager go.
        zelIpcSetTargetHeader(message, registration.sourceAddress, 0, static_cast<int>(registration.address.service),
                              static_cast<int>(registration.address.instance));
        zelIpcNonGuaranteedSend(key_, message, registrationLength);
        return;
    }
    reply(message, registrationLength);
}

void Manager::answerRequest(const zelRtmRequest &request, std::uint8_t *message, int length) {
    Client *client = clients_.find(request.handle);
    if (!client) return refuse(message, length, Status::unknownClient);
    const Status status = perform(request, *client);
    if (status != Status::ok) return refuse(message, length, status);
    zelRtmSetStatus(message, static_cast<std::uint32_t>(Status::ok));
    reply(message, length);
}

Status Manager::perform(const zelRtmRequest &request, Client &client) {
    if (isDeregistration(request.type)) {
        forget(client);
        return Status::ok;
    }
    switch (request.type) {
        case ZEL_RTM_MSG_DEREGISTER_AF:
            client.families.erase(static_cast<std::uint32_t>(request.family));
            flush(client.handle, request.family, nullptr);
            return Status::ok;
        case ZEL_RTM_MSG_FLUSH:
            for (int family = ZEL_RTM_IPV4_UNICAST; family <= ZEL_RTM_IPV6_UNICAST; ++family)
                flush(client.handle, family, nullptr);
            return Status::ok;
        case ZEL_RTM_MSG_REGISTER_QUALIFIER:
            client.qualifiers.insert({request.option, request.value});
            return Status::ok;
        case ZEL_RTM_MSG_DEREGISTER_QUALIFIER:
            return client.qualifiers.erase({request.option, request.value}) ? Status::ok : Status::badRequest;
        case ZEL_RTM_MSG_REDISTRIBUTE:
        case ZEL_RTM_MSG_REDISTRIBUTE_V6:
            return redistribute(request, client);
        case ZEL_RTM_MSG_FIB_CLEAR:
            clear(request.vrfId);
            return Status::ok;
        default:
            return Status::badRequest;
    }
}

void Manager::takeQueuedRequest(const zelRtmRequest &request, Client &client) {
    switch (request.type) {
        case ZEL_RTM_MSG_FLUSH_QUEUED:
        case ZEL_RTM_MSG_FLUSH_QUEUED_MULTICAST:
        case ZEL_RTM_MSG_FLUSH_QUEUED_V6:
            return flush(client.handle, request.family, nullptr);
        case ZEL_RTM_MSG_FLUSH_VRF:
        case ZEL_RTM_MSG_FLUSH_VRF_MULTICAST:
        case ZEL_RTM_MSG_FLUSH_VRF_V6:
            return flush(client.handle, request.family, &request.vrfId);
        case ZEL_RTM_MSG_FLUSH_POLLER:
        case ZEL_RTM_MSG_FLUSH_POLLER_MULTICAST:
        case ZEL_RTM_MSG_FLUSH_POLLER_V6:
            return dropPollers(client.handle, request.family, request.vrfId ? &request.vrfId : nullptr);
        case ZEL_RTM_MSG_CLEAR_ACK:
        case ZEL_RTM_MSG_CLEAR_ACK_AF:
            if (client.clearSequence == 0 || client.clearSequence != request.sequenceWord) break;
            client.clearSequence = 0;
            ++counts_[ZEL_RTM_COUNT_CLEAR_ACKS];
            return;
        case ZEL_RTM_MSG_REDISTRIBUTE_DELETE:
            if (request.option == 0) client.accepted.clear();
            std::erase_if(client.accepted, [&](const auto &rule) { return rule.second == request.option; });
            return;
        case ZEL_RTM_MSG_VRF_DELETE_ACK:
            client.vrfs.erase(request.vrfId);
            return;
        default:
            return;  // what only other consumers of the table act upon
    }
    ++counts_[ZEL_RTM_COUNT_REFUSED];
}

// ---- Withdrawals of whole clients -----------------------------------------------------------------------------------

void Manager::flush(std::uint32_t handle, int family, const std::uint32_t *vrf) {
    ++counts_[ZEL_RTM_COUNT_FLUSHES];
    for (auto &[id, table] : tables_)
        if (id.first == family && (!vrf || id.second == *vrf)) table->removeOf(handle);
    tablesChanged_ = true;
}

void Manager::forget(Client &client) {
    for (int family = ZEL_RTM_IPV4_UNICAST; family <= ZEL_RTM_IPV6_UNICAST; ++family) {
        flush(client.handle, family, nullptr);
        dropPollers(client.handle, family, nullptr);
    }
    clients_.remove(client);
}

void Manager::dropPollers(std::uint32_t handle, int family, const std::uint32_t *vrf) {
    pollers_.remove_if([&](const Poller &poller) {
        return poller.query.handle == handle && poller.query.family == family && (!vrf || poller.query.vrfId == *vrf);
    });
}

// Empties the tables of a VRF and asks those whose routes went to send them again.
void Manager::clear(std::uint32_t vrf) {
    clients_.each([&](Client &client) {
        bool isAffected = false;
        for (auto &[id, table] : tables_) isAffected |= id.second == vrf && table->holdsRouteOf(client.handle);
        if (!isAffected) return;
        client.clearSequence = ++clearSequence_;
        std::uint8_t message[ZEL_IPC_HDR_LEN + 64];
        const int length =
            zelRtmBuildClear(message, client.handle, vrf, client.clearSequence, client.address, client.receiveQueue);
        zelIpcNonGuaranteedSend(key_, message, length);
    });
    for (auto &[id, table] : tables_)
        if (id.second == vrf) table->removeOf(0);
    tablesChanged_ = true;
}

// The rules are kept and answered for; a target reads what they select with table dumps and polls.
Status Manager::redistribute(const zelRtmRequest &request, Client &client) {
    const std::pair<int, std::uint32_t> rule{request.family, request.value};
    if (request.option == ZEL_RTM_REDIST_ACCEPT) {
        client.accepted.insert(rule);
        return Status::ok;
    }
    if (request.option != ZEL_RTM_REDIST_REJECT) return Status::badRequest;
    return client.accepted.erase(rule) ? Status::ok : Status::badRequest;
}

// ---- Dumps ----------------------------------------------------------------------------------------------------------

namespace {

// All routes of a prefix, or none.
bool appendPrefix(std::uint8_t *message, zelRtmDumpPage &page, const Prefix &prefix) {
    const zelRtmDumpPage mark = page;
    for (const Path *path = prefix.paths; path; path = path->next) {
        zelRtmRoute route;
        if (zelRtmParseRoute(path->record(), path->length, page.family, &route) < 0) continue;
        if (zelRtmDumpAppend(message, &page, path->handle, &route)) continue;
        // A prefix with more routes than a page has room for shows those that fit.
        if (mark.records > 0) page = mark;
        return false;
    }
    return true;
}

}  // namespace

void Manager::dump(std::uint8_t *message, int length) {
    zelRtmDumpPage page;
    if (zelRtmParseDump(message, length, &page) != 0) return refuse(message, length, Status::badRequest);
    Table *table = find(page.family, page.vrfId);
    const Prefix *prefix = table ? table->behind(page.prefix, page.bits) : nullptr;
    while (prefix && appendPrefix(message, page, *prefix)) prefix = table->next(*prefix);
    reply(message, zelRtmDumpFinish(message, &page));
}

}  // namespace zelrtmd
