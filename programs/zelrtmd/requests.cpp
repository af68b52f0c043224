// Registrations, flushes, clears, redistribution rules, and what the manager tells about itself.
#include <algorithm>
#include <cstdio>

#include "manager.h"

namespace zelrtmd {
namespace {

constexpr int registrationLength = 168;
constexpr unsigned commandByte = 4;

}  // namespace

void Manager::registerClient(std::uint8_t *message, int length) {
    zelRtmRegistration registration;
    if (zelRtmParseRegistration(message, length, &registration) != 0) {
        ++counts_[ZEL_RTM_COUNT_MALFORMED];
        return;
    }
    std::uint32_t handle = 0;
    const zelRtmStatus status = clients_.enter(registration, handle);
    if (status != ZEL_RTM_STATUS_OK) return refuse(message, registrationLength, status);
    zelRtmAnswerRegistration(message, handle, ZEL_RTM_STATUS_OK);
    if (message[commandByte] != ZEL_IPC_REQ) {
        // Nobody waits on the response queue: the answer goes where messages of the manager go.
        zelIpcSetSourceHeader(message, 0, ZEL_RTM_SERVICE, 0);
        zelIpcSetTargetHeader(message, registration.sourceAddress, 0, static_cast<int>(registration.address.service),
                              static_cast<int>(registration.address.instance));
        zelIpcNonGuaranteedSend(key(), message, registrationLength);
        return;
    }
    reply(message, registrationLength);
}

void Manager::answerRequest(const zelRtmRequest &request, std::uint8_t *message, int length) {
    Client *client = clients_.findSender(request.handle, message);
    if (!client) return refuse(message, length, ZEL_RTM_STATUS_UNKNOWN_CLIENT);
    const zelRtmStatus status = perform(request, *client);
    if (status != ZEL_RTM_STATUS_OK) return refuse(message, length, status);
    zelRtmSetStatus(message, status);
    reply(message, length);
}

zelRtmStatus Manager::perform(const zelRtmRequest &request, Client &client) {
    const Fact qualifier{ZEL_RTM_FACT_QUALIFIER, request.option, request.value};
    switch (request.type) {
        case ZEL_RTM_MSG_DEREGISTER:
        case ZEL_RTM_MSG_DEREGISTER_V4V6:
            forget(client);
            return ZEL_RTM_STATUS_OK;
        case ZEL_RTM_MSG_DEREGISTER_AF:
            leaveFamily(client, request.family);
            return ZEL_RTM_STATUS_OK;
        case ZEL_RTM_MSG_FLUSH:
            withdraw(client.handle, std::nullopt, std::nullopt);
            return ZEL_RTM_STATUS_OK;
        case ZEL_RTM_MSG_REGISTER_QUALIFIER:
            return client.note(qualifier) ? ZEL_RTM_STATUS_OK : ZEL_RTM_STATUS_TABLE_FULL;
        case ZEL_RTM_MSG_DEREGISTER_QUALIFIER:
            return client.facts.erase(qualifier) ? ZEL_RTM_STATUS_OK : ZEL_RTM_STATUS_BAD_REQUEST;
        case ZEL_RTM_MSG_REDISTRIBUTE:
        case ZEL_RTM_MSG_REDISTRIBUTE_V6:
            return redistribute(request, client);
        case ZEL_RTM_MSG_FIB_CLEAR:
            clear(request.vrfId);
            return ZEL_RTM_STATUS_OK;
        default:
            return ZEL_RTM_STATUS_BAD_REQUEST;
    }
}

void Manager::takeQueuedRequest(const zelRtmRequest &request, Client &client) {
    switch (request.type) {
        case ZEL_RTM_MSG_FLUSH_QUEUED:
        case ZEL_RTM_MSG_FLUSH_QUEUED_MULTICAST:
        case ZEL_RTM_MSG_FLUSH_QUEUED_V6:
            withdraw(client.handle, request.family, std::nullopt);
            return;
        case ZEL_RTM_MSG_FLUSH_VRF:
        case ZEL_RTM_MSG_FLUSH_VRF_MULTICAST:
        case ZEL_RTM_MSG_FLUSH_VRF_V6:
            withdraw(client.handle, request.family, request.vrfId);
            return;
        case ZEL_RTM_MSG_FLUSH_POLLER:
        case ZEL_RTM_MSG_FLUSH_POLLER_MULTICAST:
        case ZEL_RTM_MSG_FLUSH_POLLER_V6:
            return dropPollers(client.handle, request.family,
                               request.vrfId ? std::optional(request.vrfId) : std::nullopt);
        case ZEL_RTM_MSG_CLEAR_ACK:
        case ZEL_RTM_MSG_CLEAR_ACK_AF:
            ++(clears_.acknowledge(request.handle, request.sequenceWord) ? counts_[ZEL_RTM_COUNT_CLEAR_ACKS]
                                                                         : refused_);
            return;
        case ZEL_RTM_MSG_REDISTRIBUTE_DELETE:
            return redistribution_.dropRules(client, request.option);
        case ZEL_RTM_MSG_REDISTRIBUTE_RESTART:
            return redistribution_.restart(client, request.vrfId);
        case ZEL_RTM_MSG_VRF_DELETE_ACK:
            client.facts.erase({ZEL_RTM_FACT_VRF, request.vrfId});
            return;
        default:
            return;  // what only other consumers of the table act upon
    }
}

// ---- Withdrawals ----------------------------------------------------------------------------------------------------

// All routes of a client, of all clients for handle 0, in every table of that family and VRF: whose they were.
std::set<std::uint32_t> Manager::withdraw(std::uint32_t handle, std::optional<int> family,
                                          std::optional<std::uint32_t> vrf) {
    ++counts_[ZEL_RTM_COUNT_FLUSHES];
    std::set<std::uint32_t> owners;
    for (auto &[id, table] : tables_)
        if (id.first == family.value_or(id.first) && id.second == vrf.value_or(id.second))
            owners.merge(table->removeOf(handle));
    return owners;
}

void Manager::leaveFamily(Client &client, int family) {
    const auto number = static_cast<std::uint32_t>(family);
    std::erase_if(client.facts, [=](const Fact &fact) {
        return fact.first == number && (fact.what == ZEL_RTM_FACT_FAMILY || fact.what == ZEL_RTM_FACT_ACCEPTS);
    });
    withdraw(client.handle, family, std::nullopt);
    dropPollers(client.handle, family, std::nullopt);
}

void Manager::forget(Client &client) {
    withdraw(client.handle, std::nullopt, std::nullopt);
    dropPollers(client.handle, std::nullopt, std::nullopt);
    redistribution_.forget(client.handle);
    clears_.forget(client.handle);
    clients_.remove(client);
}

void Manager::dropPollers(std::uint32_t handle, std::optional<int> family, std::optional<std::uint32_t> vrf) {
    pollers_.remove_if([&](const Poller &poller) {
        const zelRtmQuery &query = poller.query;
        return query.handle == handle && query.family == family.value_or(query.family) &&
               query.vrfId == vrf.value_or(query.vrfId);
    });
}

// ---- Clear requests -------------------------------------------------------------------------------------------------

// Empties the tables of a VRF and asks those whose routes went to send them again.
void Manager::clear(std::uint32_t vrf) {
    for (const std::uint32_t owner : withdraw(0, std::nullopt, vrf)) clears_.ask(owner, 0, vrf);
}

void Manager::sendClear(const zel::programs::ClearRequests::Request &request) {
    const Client *client = clients_.find(request.handle);
    if (!client) return;
    std::uint8_t message[ZEL_IPC_HDR_LEN + 64];
    const int length =
        zelRtmBuildClear(message, request.handle, request.vrf, request.sequence, client->address, client->receiveQueue);
    zelIpcNonGuaranteedSend(key(), message, length);
}

// ---- Redistribution rules and clients -------------------------------------------------------------------------------

zelRtmStatus Manager::redistribute(const zelRtmRequest &request, Client &client) {
    if (request.option == ZEL_RTM_REDIST_ACCEPT) return redistribution_.accept(client, request.family, request.value);
    if (request.option == ZEL_RTM_REDIST_REJECT) return redistribution_.reject(client, request.family, request.value);
    return ZEL_RTM_STATUS_BAD_REQUEST;
}

void Manager::showClient(std::uint8_t *message, int length) {
    zelRtmRequest request;
    if (zelRtmParseRequest(message, length, &request) != 0)
        return refuse(message, ZEL_IPC_HDR_LEN, ZEL_RTM_STATUS_BAD_REQUEST);
    std::uint32_t slot = request.handle;
    const Client *client = clients_.next(slot);
    zelRtmClient shown{};
    if (client) {
        shown.handle = client->handle;
        client->name.copy(shown.name, ZEL_RTM_NAME_LENGTH);
        shown.clientType = client->type;
        shown.address = client->address;
        shown.receiveQueue = client->receiveQueue;
        for (const Fact &fact : client->facts) shown.facts[shown.nFacts++] = {fact.what, fact.first, fact.second};
    }
    reply(message, zelRtmAnswerClient(message, slot + 1, client ? &shown : nullptr));
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
    if (zelRtmParseDump(message, length, &page) != 0) return refuse(message, length, ZEL_RTM_STATUS_BAD_REQUEST);
    Table *table = find(page.family, page.vrfId);
    const Prefix *prefix = table ? table->behind(page.prefix, page.bits) : nullptr;
    while (prefix && appendPrefix(message, page, *prefix)) prefix = table->next(*prefix);
    reply(message, zelRtmDumpFinish(message, &page));
}

}  // namespace zelrtmd
