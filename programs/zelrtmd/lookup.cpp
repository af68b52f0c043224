// Look-ups and polls.
#include <cstring>

#include "manager.h"

namespace zelrtmd {
namespace {

constexpr int mostSteps = 8;
constexpr std::size_t mostPollers = 10000;
constexpr std::size_t pollAnswerLength = 2048;

bool isRecursive(std::uint32_t type) {
    return type == ZEL_RTM_MSG_RECURSIVE_LOOKUP || type == ZEL_RTM_MSG_RECURSIVE_LOOKUP_TLV ||
           type == ZEL_RTM_MSG_RECURSIVE_LOOKUP_V6;
}

// The route of a path, null when there is none.
const zelRtmRoute *parse(const Path *path, int family, zelRtmRoute &route) {
    return path && zelRtmParseRoute(path->record(), path->length, family, &route) > 0 ? &route : nullptr;
}

}  // namespace

Manager::Found Manager::resolve(const zelRtmQuery &query) {
    Found found;
    Table *table = find(query.family, query.vrfId);
    if (!table) return found;
    const Prefix *prefix = query.match == ZEL_RTM_MATCH_EXACT ? table->exactMatch(query.address, query.bits)
                                                              : table->longestMatch(query.address);
    if (!prefix) return found;
    found = {prefix->paths, prefix->paths, prefix->bits};
    if (!isRecursive(query.type)) return found;
    for (int step = 0; step < mostSteps; ++step) {
        zelRtmRoute route;
        if (!parse(found.path, query.family, route) || route.nNextHops == 0) return {};
        if (route.hop[0].ifIndex != 0) return found;
        prefix = table->longestMatch(route.hop[0].addr);
        if (!prefix) return {};
        found.path = prefix->paths;
        found.bits = prefix->bits;
    }
    return {};
}

void Manager::answerLookup(std::uint8_t *message, int length) {
    zelRtmQuery query;
    if (zelRtmParseQuery(message, length, 0, &query) != 0) return refuse(message, length, ZEL_RTM_STATUS_BAD_REQUEST);
    ++counts_[ZEL_RTM_COUNT_LOOKUPS];
    const Found found = resolve(query);
    zelRtmRoute route, asked;
    reply(message, zelRtmAnswerRequest(message, &query, parse(found.path, query.family, route), found.bits,
                                       parse(found.asked, query.family, asked)));
}

void Manager::takePoll(const std::uint8_t *message, int length) {
    zelRtmQuery query;
    for (std::uint32_t index = 0; index == 0 || index < query.count; ++index) {
        if (zelRtmParseQuery(message, length, index, &query) != 0) {
            ++counts_[ZEL_RTM_COUNT_MALFORMED];
            return;
        }
        const bool isStart = query.subcommand == ZEL_RTM_POLL_START;
        const bool isValid = isStart ? pollers_.size() < mostPollers : query.subcommand == ZEL_RTM_POLL_STOP;
        if (!isValid || !clients_.findSender(query.handle, message)) {
            ++refused_;
            return;
        }
        pollers_.remove_if([&](const Poller &poller) {
            const zelRtmQuery &other = poller.query;
            return other.handle == query.handle && other.vrfId == query.vrfId && other.match == query.match &&
                   other.family == query.family && other.bits == query.bits &&
                   std::memcmp(other.address, query.address, sizeof query.address) == 0;
        });
        if (!isStart) continue;
        pollers_.push_back({query, {}});
        tell(pollers_.back(), true);
    }
}

// Sends the answer when it differs from the last one. False when the client is gone.
bool Manager::tell(Poller &poller, bool always) {
    const Client *client = clients_.find(poller.query.handle);
    if (!client) return false;
    const Found found = resolve(poller.query);
    zelRtmRoute route;
    std::vector<std::uint8_t> message(pollAnswerLength);
    const int length =
        zelRtmBuildPollAnswer(message.data(), &poller.query, parse(found.path, poller.query.family, route), found.bits,
                              client->address, client->receiveQueue);
    if (!always && message == poller.lastAnswer) return true;
    poller.lastAnswer = message;
    ++counts_[ZEL_RTM_COUNT_POLL_ANSWERS];
    zelIpcNonGuaranteedSend(key(), message.data(), length);
    return true;
}

void Manager::tellPollers() {
    pollers_.remove_if([this](Poller &poller) { return !tell(poller, false); });
}

}  // namespace zelrtmd
