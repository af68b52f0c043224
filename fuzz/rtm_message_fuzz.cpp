// Any bytes as a message to the route table manager, and as its answer to a client: nothing is read beyond them, and a
// route that was believed is written back as the same bytes.
#include "fuzz/support/fuzz.h"
#include "zel/rtm.h"

namespace {

using zel::fuzz::require;

// The VRF stands in every hop as well; a stranger's record may have others there.
void requireSame(const std::uint8_t *record, std::size_t size, int family, const zelRtmRoute &route) {
    zelRtmRoute again;
    std::uint8_t written[3000];
    const int length = zelRtmSerialiseRoute(&route, family, written, sizeof written);
    require(length == static_cast<int>(size));
    require(zelRtmParseRoute(written, size, family, &again) == length);
    require(memcmp(record, written, family == ZEL_RTM_IPV6_UNICAST ? 80 : 56) == 0);
    require(memcmp(record + size - route.tlvLen, written + size - route.tlvLen, route.tlvLen) == 0);
}

void readBatch(const std::uint8_t *message, int length) {
    zelRtmBatch batch;
    if (zelRtmParseBatch(message, length, &batch) != 0) return;
    std::uint32_t operation;
    zelRtmRoute route;
    while (zelRtmNextRoute(&batch, &operation, &route) == 1)
        requireSame(batch.record, batch.recordLength, batch.family, route);
}

void readQueries(const std::uint8_t *message, int length) {
    zelRtmQuery query;
    for (std::uint32_t index = 0; zelRtmParseQuery(message, length, index, &query) == 0; ++index) {
        require(index < query.count);
        std::uint8_t answer[2048];
        zelRtmRoute route;
        std::uint32_t bits;
        zelRtmBuildPollAnswer(answer, &query, nullptr, 0, 1, 2);
        require(zelRtmParseAnswer(answer + sizeof answer - ZEL_RTM_QUERY_LENGTH, &route, &bits) == ZEL_RTM_NOT_FOUND);
    }
}

void readAnswer(const std::uint8_t *answer) {
    zelRtmRoute route;
    std::uint32_t bits;
    if (zelRtmParseAnswer(answer, &route, &bits) != ZEL_RTM_FOUND) return;
    require(!route.tlv || route.tlv + route.tlvLen <= answer + ZEL_RTM_QUERY_LENGTH);
}

}  // namespace

// The first byte, when not 0, makes the type one of ours; what follows lies in a block of exactly its size.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1 || size > 10000) return 0;
    const auto message = zel::fuzz::messageOf(data, size, data[0] != 0 ? 0x3200u + data[0] : 0);
    const int bytes = static_cast<int>(size - 1);
    zelRtmRegistration registration;
    zelRtmRequest request;
    zelRtmDumpPage page;
    std::uint32_t handle, vrf, sequence;
    if (zelRtmParseRegistration(message.get(), bytes, &registration) == 0)
        require(strnlen(registration.name, sizeof registration.name) < sizeof registration.name);
    zelRtmParseRequest(message.get(), bytes, &request);
    zelRtmParseDump(message.get(), bytes, &page);
    zelRtmParseClear(message.get(), bytes, &handle, &vrf, &sequence);
    readBatch(message.get(), bytes);
    readQueries(message.get(), bytes);
    if (size > ZEL_RTM_QUERY_LENGTH) readAnswer(message.get() + size - 1 - ZEL_RTM_QUERY_LENGTH);
    return 0;
}
